#include <gtest/gtest.h>

#include "git/GitCommitParsing.h"

using namespace velko;

TEST(GitCommitParsing, FileCountsOfOneCommit) {
    using F = std::vector<GitCommitFileCount>;
    struct Case {
        const char* name;
        std::string output;  // of `git show <commit> --numstat --format= --find-renames`
        F expected;
    };
    const Case cases[] = {
        // captured, git 2.39: a binary change, a file rename with changes, a
        // folder rename, a name with a tab (git quotes it; it stays quoted)
        {"captured", "-\t-\tb.bin\n2\t0\told.txt => new.txt\n0\t0\tsrc/{a => b}/f.txt\n1\t0\t\"ta\\tb.txt\"\n",
         F{{"b.bin", 0, 0, true}, {"new.txt", 2, 0, false}, {"src/b/f.txt", 0, 0, false}, {"\"ta\\tb.txt\"", 1, 0, false}}},
        {"empty commit", "", F{}},
        {"blank lines skipped", "\n\n3\t1\ta\n\n", F{{"a", 3, 1, false}}},
        {"one dash is binary", "-\t4\tx\n", F{{"x", 0, 0, true}}},
        {"unparsable counts are zero", "a\t9z\tf\n", F{{"f", 0, 0, false}}},
        {"too few tabs", "5\tx\n", F{}},
        {"truncated", "10\t2\tfile\n3\t", F{{"file", 10, 2, false}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parseCommitFileCounts(c.output), c.expected);
    }
}

TEST(GitCommitParsing, ParentsAndLeftRightCounts) {
    // (Root, plain and merge commits of real repositories are the integration tests'.)
    EXPECT_EQ(parseParentCount(""), 0);

    struct Case {
        const char* output;  // of `git rev-list --left-right --count @{u}...HEAD`
        std::optional<GitLeftRightCounts> expected;
    };
    const Case cases[] = {
        {"2\t1\n", GitLeftRightCounts{2, 1}},  // captured
        {"0 7", GitLeftRightCounts{0, 7}},
        {"x\t3", GitLeftRightCounts{0, 3}},
        {"1 2 3", std::nullopt},
        {"4", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.output);
        EXPECT_EQ(parseLeftRightCounts(c.output), c.expected);
    }
}
