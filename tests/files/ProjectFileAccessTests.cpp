#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "files/ProjectFileAccess.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

constexpr const char* kHome = "/home/nobody-here";

// What a read came to, as one comparable text: "text:<content>",
// "binary:<mime>:<bytes>", "confirm:<size>" or "error:<description>".
std::string outcome(const Result<FileReadResult, FileReadError>& result) {
    if (!result) return "error:" + result.error().errorDescription();
    if (auto* text = std::get_if<FileTextContent>(&result.value())) return "text:" + text->text;
    if (auto* binary = std::get_if<FileBinaryContent>(&result.value()))
        return "binary:" + binary->mimeType.value_or("?") + ":" + binary->bytes;
    return "confirm:" + std::to_string(std::get<FileRequiresConfirmation>(result.value()).fileSize);
}

}  // namespace

TEST(ProjectFileAccess, ReadsAnswerEachKindOfPathWithItsDocumentedResult) {
    test::TempDir root;
    root.write("notes.txt", "hello");
    root.write("latin1.txt", std::string("caf\xe9", 4));
    root.write("broken.txt", std::string("ok \xc3\x28 \xed\xa0\x80", 9));  // bad continuation, surrogate
    root.write("overlong.txt", "\xc0\xaf \xf4\x90\x80\x80");                  // overlong "/", above U+10FFFF
    root.write("photo.PNG", "\x89PNG\r\n");
    root.write("fake.png", "plain text in disguise");
    root.write("fake.png.txt", "only the last extension counts");
    root.write("empty.txt", "");
    root.write("a/b/deep.md", "# deep");
    test::TempDir outside;
    outside.write("secret.txt", "secret");
    std::filesystem::create_symlink(outside.file("secret.txt"), root.file("link-out.txt"));
    ASSERT_EQ(mkfifo(root.file("pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", root.file("zero"));

    struct Case {
        std::string path;
        std::string expected;
    };
    const Case cases[] = {
        {"notes.txt", "text:hello"},
        {"./a/b/../../notes.txt", "text:hello"},
        {"latin1.txt", "text:caf\xc3\xa9"},             // not UTF-8: read as ISO 8859-1
        {"broken.txt", "text:ok \xc3\x83( \xc3\xad\xc2\xa0\xc2\x80"},
        {"overlong.txt", "text:\xc3\x80\xc2\xaf \xc3\xb4\xc2\x90\xc2\x80\xc2\x80"},
        {"photo.PNG", "binary:image/png:\x89PNG\r\n"},  // extension decides, case-insensitively
        {"fake.png", "binary:image/png:plain text in disguise"},
        {"fake.png.txt", "text:only the last extension counts"},
        {"empty.txt", "text:"},
        {"a/b/deep.md", "text:# deep"},
        {"link-out.txt", "text:secret"},                // links inside the project are followed
        {"a", "error:ディレクトリは表示できません"},
        {"a/..", "error:ディレクトリは表示できません"},  // the root itself
        {"missing.txt", "error:ファイルが見つかりませんでした"},
        {"notes.txt/x", "error:ファイルが見つかりませんでした"},
        {std::string(5000, 'x'), "error:ファイルが見つかりませんでした"},
        {"../secret.txt", "error:無効なパスです"},
        {"a/../../secret", "error:無効なパスです"},  // only the containment check stops this one
        {"pipe", "error:ファイルをテキストとして読み込めませんでした"},  // answered at once, never blocks
        {"zero", "error:ファイルをテキストとして読み込めませんでした"},  // a device is never read
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path.substr(0, 60));
        EXPECT_EQ(outcome(readProjectFile(c.path, root.path(), LargeFilePolicy::AskFirst, kHome)), c.expected);
    }
}

TEST(ProjectFileAccess, SizeLimitsAskAtTheSoftLimitAndRefuseAboveTheHardOne) {
    test::TempDir root;
    const std::string tooLarge = "error:" + tooLargeMessage(kFileHardLimitBytes + 1, kFileHardLimitBytes);
    struct Case {
        int64_t size;
        LargeFilePolicy policy;
        std::string expected;
    };
    const Case cases[] = {
        {kFileSoftLimitBytes, LargeFilePolicy::AskFirst, "read"},
        {kFileSoftLimitBytes + 1, LargeFilePolicy::AskFirst, "confirm:31457281"},
        {kFileSoftLimitBytes + 1, LargeFilePolicy::Allow, "read"},
        {kFileHardLimitBytes + 1, LargeFilePolicy::Allow, tooLarge},
        {kFileHardLimitBytes + 1, LargeFilePolicy::AskFirst, tooLarge},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.size));
        // Sparse: the size is real, the blocks are not.
        ASSERT_EQ(truncate(root.write("big.log", "").c_str(), c.size), 0);
        auto result = readProjectFile("big.log", root.path(), c.policy, kHome);
        if (c.expected == "read") {
            ASSERT_TRUE(result);
            auto* text = std::get_if<FileTextContent>(&result.value());
            ASSERT_NE(text, nullptr);
            EXPECT_EQ(text->text.size(), static_cast<size_t>(c.size));
        } else {
            EXPECT_EQ(outcome(result), c.expected);
        }
    }
}

TEST(ProjectFileAccess, SizeMessageRoundsToOneDecimalBelowOneHundredMebibytes) {
    struct Case {
        int64_t size;
        int64_t limit;
        std::string sizeText;
        std::string limitText;
    };
    const Case cases[] = {
        {1048576, 314572800, "1", "300"},
        {1572864, 314572800, "1.5", "300"},
        {104752742, 314572800, "99.9", "300"},
        {104805172, 314572800, "100", "300"},  // just over 99.95 rounds up to 100.0 and loses its fraction
        {157286400, 31457280, "150", "30"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.size));
        EXPECT_EQ(tooLargeMessage(c.size, c.limit),
                  "このファイルは約 " + c.sizeText + "MB あり、上限の " + c.limitText +
                      "MB を超えているため開けません。サイズを削減するか、外部エディタをご利用ください。");
    }
}

TEST(ProjectFileAccess, SavesReplaceAtomicallyKeepPermissionsAndKeepTheLenientPathRule) {
    test::TempDir root;
    std::string script = root.write("run.sh", "old");
    ASSERT_EQ(chmod(script.c_str(), 0751), 0);
    root.write("latin1.txt", std::string("caf\xe9", 4));
    std::filesystem::create_directories(root.file("sub"));
    root.write("sub/shared.txt", "shared");
    ASSERT_EQ(mkfifo(root.file("pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("sub/shared.txt", root.file("link.txt"));
    test::TempDir parent;  // a save may reach outside through "a/../..": deliberate, unlike reads

    struct Case {
        std::string path;
        std::string content;
        std::string expectedError;  // empty: saved
        std::string fileToCheck;    // absolute
    };
    const Case cases[] = {
        {"run.sh", "#!/bin/sh\n", "", root.file("run.sh")},
        {"latin1.txt", "café", "", root.file("latin1.txt")},  // always written as UTF-8
        {"/sub/new.txt", "new", "", root.file("sub/new.txt")},
        {"sub/../top.txt", "top", "", root.file("top.txt")},
        {"link.txt", "through the link", "", root.file("sub/shared.txt")},  // the link stays a link
        {std::string(250, 'l') + ".txt", "a name at the length limit", "", root.file(std::string(250, 'l') + ".txt")},
        {"sub/../../" + std::filesystem::path(parent.path()).filename().string() + "/escaped.txt", "out", "",
         parent.file("escaped.txt")},
        {"", "x", "保存パスが不正です", ""},
        {"/", "x", "保存パスが不正です", ""},
        {"../escape.txt", "x", "保存パスが不正です", ""},
        {"missing/dir/file.txt", "x", "保存に失敗しました: No such file or directory", ""},
        {"sub", "x", "保存に失敗しました: Is a directory", ""},
        {"pipe", "x", "保存に失敗しました: Operation not supported", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        auto saved = saveProjectFile(c.path, root.path(), c.content, kHome);
        EXPECT_EQ(saved ? std::string() : saved.error().message, c.expectedError);
        if (c.expectedError.empty()) {
            EXPECT_EQ(test::readFile(c.fileToCheck), c.content);
        }
    }
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(script).permissions(), perms(0751));
    // No temporary file is left beside the targets: run.sh, latin1.txt, sub, top.txt, link.txt, the long name, pipe.
    const std::filesystem::directory_iterator entries(root.path());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 7);
    mode_t mask = umask(022);
    umask(mask);
    // A new file gets what any editor would give it.
    EXPECT_EQ(std::filesystem::status(root.file("sub/new.txt")).permissions(), perms(0666 & ~mask));
}
