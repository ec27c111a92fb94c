#include <gtest/gtest.h>

#include "git/GitDiffParsing.h"

using namespace velko;

TEST(GitDiffParsing, NumstatSumsLinesAndFlagsBinaries) {
    struct Case {
        const char* name;
        std::string text;
        GitNumstat expected;
    };
    const Case cases[] = {
        // captured: `git diff --numstat` of a work tree with a binary change
        {"real output", "-\t-\tbin.dat\n0\t0\tconf.txt\n4\t0\tconf.txt\n0\t1\tdel.txt\n1\t0\tmod.txt\n", {5, 1, true}},
        {"rename line", "0\t0\tsrc/a/{old.txt => new.txt}\n", {0, 0, false}},
        {"single file", "12\t3\ta.txt", {12, 3, false}},
        {"one dash is enough", "-\t4\tx\n2\t2\ty\n", {2, 2, true}},
        {"line with one tab adds nothing", "5\tx\n", {0, 0, false}},
        {"unparsable fields count zero", "a\tb\tc\n7\tz\td\n", {7, 0, false}},
        {"empty", "", {0, 0, false}},
        {"garbage", "\xff\xfe\n\t\t\n", {0, 0, false}},
        {"truncated", "10\t2\tfile\n3\t", {10, 2, false}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parseNumstat(c.text), c.expected);
    }
}

TEST(GitDiffParsing, RenamedPathsBecomeTheirNewPath) {
    struct Case {
        const char* input;
        const char* expected;
    };
    const Case cases[] = {
        {"src/{a => b}/f.txt", "src/b/f.txt"},
        {"old.txt => new.txt", "new.txt"},
        {"src/a/{old.txt => new.txt}", "src/a/new.txt"},
        {"{a => b}/{c => d}/e", "b/d/e"},
        {"src/{a => }/f.txt", "src//f.txt"},
        {"{ => x}/f", "x/f"},
        {"plain/path.txt", "plain/path.txt"},
        {"  spaced => name  ", "name"},
        {"{unclosed => x", "x"},
        {"", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        EXPECT_EQ(normalizeRenamedPath(c.input), c.expected);
    }
}

TEST(GitDiffParsing, ArgumentsForEachStageModeAndParentCount) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        V actual;
        V expected;
    };
    const Case cases[] = {
        {"unstaged numstat whole tree", diffArguments({"", GitDiffStage::Unstaged}, GitDiffMode::Numstat),
         V{"diff", "--numstat"}},
        {"staged patch of a file", diffArguments({"a b.txt", GitDiffStage::Staged}, GitDiffMode::Patch),
         V{"diff", "--cached", "--patch", "--text", "--", "a b.txt"}},
        {"head numstat of a dash file", diffArguments({"-rf", GitDiffStage::Head}, GitDiffMode::Numstat),
         V{"diff", "HEAD", "--numstat", "--", "-rf"}},
        {"commit numstat", commitDiffArguments("abc", GitDiffMode::Numstat, std::nullopt, 1),
         V{"diff", "abc^!", "--numstat", "--find-renames"}},
        {"root commit numstat", commitDiffArguments("abc", GitDiffMode::Numstat, std::string("f"), 0),
         V{"diff-tree", "--no-commit-id", "--root", "--numstat", "-r", "-M", "abc", "--", "f"}},
        {"commit patch", commitDiffArguments("abc", GitDiffMode::Patch, std::string(""), 2),
         V{"diff", "abc^!", "--patch", "--text", "--find-renames"}},
        {"root commit patch", commitDiffArguments("abc", GitDiffMode::Patch, std::nullopt, 0),
         V{"show", "abc", "--pretty=format:", "--patch", "--text", "--find-renames"}},
        {"merge patch", mergeCommitPatchArguments("m", std::string("x")),
         V{"show", "-m", "m", "--pretty=format:", "--patch", "--text", "--find-renames", "--", "x"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.actual, c.expected);
    }
}

TEST(GitDiffParsing, StageWordsDefaultToUnstaged) {
    EXPECT_EQ(diffStageFromString("staged"), GitDiffStage::Staged);
    EXPECT_EQ(diffStageFromString("head"), GitDiffStage::Head);
    EXPECT_EQ(diffStageFromString("HEAD"), GitDiffStage::Unstaged);
    EXPECT_EQ(diffStageFromString(""), GitDiffStage::Unstaged);
}

TEST(GitDiffParsing, RemotesComeFromConfigText) {
    using M = std::map<std::string, std::string>;
    struct Case {
        const char* name;
        std::string config;
        M expected;
    };
    const Case cases[] = {
        {"real config", "[core]\n\trepositoryformatversion = 0\n[remote \"origin\"]\n\turl = ../origin.git\n"
                        "\tfetch = +refs/heads/*:refs/remotes/origin/*\n[branch \"main\"]\n\tremote = origin\n",
         M{{"origin", "../origin.git"}}},
        {"two remotes", "[remote \"origin\"]\nurl = a\n[remote \"up\"]\nurl = b\n", M{{"origin", "a"}, {"up", "b"}}},
        {"later url wins", "[remote \"o\"]\nurl = a\nurl = b\n", M{{"o", "b"}}},
        {"url key after another section still counts", "[remote \"o\"]\nurl = a\n[branch \"x\"]\nurl = c\n",
         M{{"o", "c"}}},
        {"url before any remote", "url = a\n", M{}},
        {"unclosed name clears", "[remote \"o\"]\nurl = a\n[remote \"bad\nurl = b\n", M{{"o", "a"}}},
        {"empty name clears", "[remote \"\"]\nurl = a\n", M{}},
        {"equals inside url kept", "[remote \"o\"]\nurl = https://h/x?a=b\n", M{{"o", "https://h/x?a=b"}}},
        {"no value", "[remote \"o\"]\nurl=\n", M{}},
        {"blank value is no value", "[remote \"o\"]\nurl = \n", M{}},
        {"garbage", "\xff[remote \"\n\"\"\"]\n=\n", M{}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parseRemoteURLsFromConfig(c.config), c.expected);
    }
}
