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
