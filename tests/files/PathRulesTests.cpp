#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "files/PathRules.h"

using namespace velko;

namespace {
constexpr const char* kHome = "/home/user";
const std::optional<std::string> kRefused = std::nullopt;
}  // namespace

TEST(PathRules, FileSanitiserAndExplorerRuleTreatEachInputAsDocumented) {
    struct Case {
        std::string input;
        std::optional<std::string> sanitized;   // open, save, rename
        std::optional<std::string> normalized;  // explorer
    };
    const std::string longName(300, 'n');
    const Case cases[] = {
        {"a/b.txt", "a/b.txt", "a/b.txt"},
        {"a/../b", "a/../b", "a/../b"},        // relative ".." stays; reads check containment
        {"a/../../secret", "a/../../secret", "a/../../secret"},
        {"../x", kRefused, kRefused},
        {"./../x", kRefused, kRefused},        // "." goes first, then the leading ".." shows
        {"/abs/file", "abs/file", kRefused},   // absolute: made relative, or refused
        {"//etc//hosts", "etc/hosts", kRefused},
        {"/../etc", "etc", kRefused},          // an absolute path cannot climb above "/"
        {"a//b", "a/b", "a/b"},
        {"./a", "a", "a"},
        {".", ".", ""},
        {"", "", ""},
        {"a/b/", "a/b", "a/b"},
        {"~", "home/user", kRefused},
        {"~/../../x", "x", kRefused},
        {"dir/~", "dir/~", "dir/~"},           // only a leading tilde expands
        {std::string("a\0b", 3), kRefused, kRefused},
        {longName, longName, longName},
        {"caf\xe9/\xff\xfe", "caf\xe9/\xff\xfe", "caf\xe9/\xff\xfe"},  // bytes, not text
        {"..hidden", "..hidden", "..hidden"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("input: '" + c.input + "'");
        EXPECT_EQ(sanitizeRelativePath(c.input, kHome), c.sanitized);
        EXPECT_EQ(normalizeRelativePath(c.input, kHome), c.normalized);
    }
}

TEST(PathRules, LexicalNormalisationAndContainmentDecideWhatAReadMayReach) {
    struct Case {
        std::string root;
        std::string joined;
        std::string normalized;
        bool contained;
    };
    const Case cases[] = {
        {"/p", "/p/a/..", "/p", true},
        {"/p", "/p/a/../../secret", "/secret", false},
        {"/p", "/p/../p2/x", "/p2/x", false},        // a sibling sharing the prefix text
        {"/", "/etc/hosts", "/etc/hosts", true},
        {"/p", "/p/a/./../../../..", "/", false},
        {"rel", "rel/../../x", "../x", false},       // a relative root keeps what it cannot resolve
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.joined);
        EXPECT_EQ(normalizeLexically(c.joined), c.normalized);
        EXPECT_EQ(isContained(normalizeLexically(c.joined), normalizeLexically(c.root)), c.contained);
    }
}

TEST(PathRules, RelativePathFromRootSpellsTheRootAsEmptyAndRefusesOutsiders) {
    struct Case {
        std::string path;
        std::string root;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"/p/", "/p", ""},
        {"/p/a/b", "/p/", "a/b"},
        {"/p//a/./b", "/p", "a/b"},
        {"/pa/b", "/p", std::nullopt},
        {"/x", "/", "x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " under " + c.root);
        EXPECT_EQ(relativePathFromRoot(c.path, c.root), c.expected);
    }
}
