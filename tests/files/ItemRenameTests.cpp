#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "files/ItemRename.h"
#include "support/TestSupport.h"

using namespace velko;
namespace fs = std::filesystem;

namespace {
constexpr const char* kHome = "/home/nobody-here";
}

TEST(ItemRename, RenamesInPlaceAndAnswersEveryRefusalWithItsCode) {
    struct Case {
        std::string from;
        std::string to;
        EntityTypeHint hint;
        std::string expected;  // "ok <path> -> <nextPath> <folder|file> [<parent>]" or "<code> <message>"
        std::string mustExist; // relative path that exists afterwards
    };
    const Case cases[] = {
        {"a/b.txt", "a/c.txt", EntityTypeHint::File, "ok a/b.txt -> a/c.txt file [a]", "a/c.txt"},
        {"top.txt", "  renamed.txt  ", EntityTypeHint::None, "ok top.txt -> renamed.txt file []", "renamed.txt"},
        {"top.txt", "\u3000wide.txt\u3000", EntityTypeHint::None, "ok top.txt -> wide.txt file []", "wide.txt"},
        {"a", "folder2", EntityTypeHint::File, "ok a -> folder2 folder []", "folder2/b.txt"},
        {"top.txt", "TOP.txt", EntityTypeHint::File, "ok top.txt -> TOP.txt file []", "TOP.txt"},
        {"a/b.txt", "c/b.txt", EntityTypeHint::File, "rename_invalid_destination 移動先のパスが不正です", "a/b.txt"},
        {"top.txt", "", EntityTypeHint::File, "rename_invalid_destination 移動先のパスが不正です", "top.txt"},
        {"top.txt", "../up.txt", EntityTypeHint::File, "rename_invalid_destination 移動先のパスが不正です", "top.txt"},
        {"", "x", EntityTypeHint::File, "rename_invalid_path リネーム対象のパスが不正です", "top.txt"},
        {"top.txt", "   ", EntityTypeHint::File, "rename_invalid_name 名前を入力してください", "top.txt"},
        {"a/b.txt", "a/..", EntityTypeHint::File, "rename_invalid_name この名前は使用できません", "a/b.txt"},
        {"top.txt", "a:b", EntityTypeHint::File, "rename_invalid_name 名前に使用できない文字が含まれています", "top.txt"},
        {"top.txt", "a\u2028b", EntityTypeHint::File, "rename_invalid_name 名前に使用できない文字が含まれています", "top.txt"},
        {"gone.txt", "x.txt", EntityTypeHint::File, "rename_not_found 対象が見つかりません", "top.txt"},
        {"top.txt", "other.txt", EntityTypeHint::File, "rename_conflict 同名の項目が既に存在します", "other.txt"},
        {"top.txt", "top.txt", EntityTypeHint::File, "rename_conflict 同名の項目が既に存在します", "top.txt"},
        {"top.txt", "a", EntityTypeHint::File, "rename_conflict 同名の項目が既に存在します", "a/b.txt"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.from + " -> " + c.to);
        test::TempDir root;
        root.write("top.txt", "top");
        root.write("other.txt", "other");
        root.write("a/b.txt", "b");
        auto result = renameProjectItem(root.path(), c.from, c.to, c.hint, kHome);
        std::string actual = result ? "ok " + result->path + " -> " + result->nextPath + " " +
                                          (result->isFolder ? "folder" : "file") + " [" + result->parentDirectory + "]"
                                    : result.error().code + " " + result.error().message;
        EXPECT_EQ(actual, c.expected);
        EXPECT_TRUE(fs::exists(root.file(c.mustExist)));
        if (!result) {
            // A refusal touches nothing.
            EXPECT_EQ(test::readFile(root.file("top.txt")), "top");
            EXPECT_EQ(test::readFile(root.file("a/b.txt")), "b");
        }
    }
}

TEST(ItemRename, OneItemUnderTwoNamesTakesTheTemporaryRouteAndPutsItBackWhenBlocked) {
    // A hard link is one item under two names, which is what a case-insensitive
    // volume shows for "readme" and "README". Here the second name is a real
    // entry, so the last move is refused and the item must go back.
    test::TempDir root;
    root.write("readme.md", "docs");
    ASSERT_EQ(link(root.file("readme.md").c_str(), root.file("README.md").c_str()), 0);

    auto result = renameProjectItem(root.path(), "readme.md", "README.md", EntityTypeHint::File, kHome);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, "rename_failed");
    EXPECT_EQ(result.error().message.rfind("リネームに失敗しました: ", 0), 0u) << result.error().message;
    EXPECT_EQ(test::readFile(root.file("readme.md")), "docs");
    EXPECT_EQ(test::readFile(root.file("README.md")), "docs");
    for (const auto& entry : fs::directory_iterator(root.path()))
        EXPECT_NE(entry.path().filename().string().rfind(".rename-", 0), 0u) << entry.path();
}

TEST(ItemRename, CaseFoldingComparesWholeNames) {
    struct Case {
        const char* a;
        const char* b;
        bool equal;
    };
    const Case cases[] = {
        {"readme.md", "README.MD", true},  {"straße", "STRASSE", true},  {"Ärger", "ärger", true},
        {"ΣΊΣΥΦΟΣ", "σίσυφος", true},      {"a.txt", "a.txt2", false},   {"\xff", "\xff", true},
        {"\xff", "\xfe", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + c.b);
        EXPECT_EQ(equalIgnoringCase(c.a, c.b), c.equal);
    }
}
