#include <gtest/gtest.h>

#include "git/GitStatusParsing.h"

using namespace velko;

namespace {

// `git status --porcelain --branch --untracked-files=all` of a repository with
// a merge conflict, a staged rename, a file changed in index and work tree, an
// intent-to-add file and untracked names that git quotes (captured, git 2.39).
const char* const kMixedStatus =
    "## main\n"
    " M bin.dat\n"
    "UU conf.txt\n"
    " D del.txt\n"
    " A ita.txt\n"
    "MM mod.txt\n"
    "R  src/a/old.txt -> src/a/new.txt\n"
    "?? \"caf\\303\\251.txt\"\n"
    "?? \"new\\nline.txt\"\n"
    "?? with space.txt\n";

// "path|status" of each file or change.
template <typename Entry>
std::vector<std::string> paths(const std::vector<Entry>& list) {
    std::vector<std::string> out;
    for (const auto& e : list) out.push_back(e.path + "|" + e.status);
    return out;
}

}  // namespace

TEST(GitStatusParsing, FlatFormReadsBranchCountsAndFileLists) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        std::string output;
        std::string branch;
        int64_t ahead, behind;
        V staged, unstaged, untracked;
    };
    const Case cases[] = {
        {"tracking with both counts", "## main...origin/main [ahead 2, behind 3]\n", "main", 2, 3, {}, {}, {}},
        {"ahead without comma ends at bracket", "## dev...origin/dev [ahead 2]\n", "dev", 2, 0, {}, {}, {}},
        {"behind only", "## dev...origin/dev [behind 14]\n", "dev", 0, 14, {}, {}, {}},
        {"gone upstream", "## dev...origin/dev [gone]\n", "dev", 0, 0, {}, {}, {}},
        {"no upstream", "## feature/x\n", "feature/x", 0, 0, {}, {}, {}},
        {"mixed repository", kMixedStatus, "main", 0, 0,
         V{"conf.txt|UU", "mod.txt|MM", "src/a/new.txt|R "},
         V{"bin.dat| M", "conf.txt|UU", "del.txt| D", "ita.txt| A", "mod.txt|MM"},
         V{"\"caf\\303\\251.txt\"|?", "\"new\\nline.txt\"|?", "with space.txt|?"}},
        {"empty output", "", "--", 0, 0, {}, {}, {}},
        {"garbage lines", "x\n\n\xff\xfe\n#\n", "--", 0, 0, {}, {}, {}},
        {"truncated after status letters", "## main\nM ", "main", 0, 0, {}, {}, {}},
        {"truncated inside count", "## main...o/main [ahead 1", "main", 0, 0, {}, {}, {}},
        {"unparsable count", "## main...o/main [ahead x, behind 2]", "main", 0, 2, {}, {}, {}},
        {"signs accepted, one at most", "## m...o/m [ahead +5, behind -5]", "m", 5, -5, {}, {}, {}},
        {"double sign and overflow refused", "## m...o/m [ahead +-3, behind 99999999999999999999]", "m", 0, 0, {}, {}, {}},
        {"three letter minimum line", "M  \n", "--", 0, 0, V{"|M "}, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        GitStatusSummary s = parseGitStatus(c.output);
        EXPECT_EQ(s.branch, c.branch);
        EXPECT_EQ(s.ahead, c.ahead);
        EXPECT_EQ(s.behind, c.behind);
        EXPECT_EQ(paths(s.staged), c.staged);
        EXPECT_EQ(paths(s.unstaged), c.unstaged);
        EXPECT_EQ(paths(s.untracked), c.untracked);
    }
}

TEST(GitStatusParsing, DetailFormUsesWordsRemoteAndExactRenameSplit) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        std::string output;
        std::string branch;
        std::optional<std::string> remote;
        int64_t ahead, behind;
        V staged, unstaged, untracked;
    };
    const Case cases[] = {
        {"tracking", "## main...origin/main [ahead 2, behind 3]\n", "main", "origin/main", 2, 3, {}, {}, {}},
        {"empty remote is absent", "## main...\n", "main", std::nullopt, 0, 0, {}, {}, {}},
        {"mixed repository", kMixedStatus, "main", std::nullopt, 0, 0,
         V{"conf.txt|modified", "mod.txt|modified", "src/a/new.txt|renamed"},
         V{"bin.dat|modified", "conf.txt|modified", "del.txt|deleted", "ita.txt|added", "mod.txt|modified"},
         V{"\"caf\\303\\251.txt\"|untracked", "\"new\\nline.txt\"|untracked", "with space.txt|untracked"}},
        {"two arrows keep the whole text", "R  a -> b -> c\n", "--", std::nullopt, 0, 0, V{"a -> b -> c|renamed"}, {}, {}},
        {"copy", "C  a -> b\n", "--", std::nullopt, 0, 0, V{"b|copied"}, {}, {}},
        {"garbage", "\x01\x02\n??\n##\n", "--", std::nullopt, 0, 0, {}, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto d = GitStatusDetailMapper::parse(c.output);
        EXPECT_EQ(d.branch, c.branch);
        EXPECT_EQ(d.remote, c.remote);
        EXPECT_EQ(d.ahead, c.ahead);
        EXPECT_EQ(d.behind, c.behind);
        EXPECT_EQ(paths(d.staged), c.staged);
        EXPECT_EQ(paths(d.unstaged), c.unstaged);
        EXPECT_EQ(paths(d.untracked), c.untracked);
    }
}

namespace {
std::string render(const std::vector<GitChangeTreeNode>& nodes) {
    std::string out;
    for (const auto& n : nodes) {
        out += n.path + ":" + n.status;
        if (n.children) out += "(" + render(*n.children) + ")";
        out += " ";
    }
    return out;
}
}  // namespace

TEST(GitStatusParsing, TreePutsDirectoriesFirstInCaseInsensitiveOrder) {
    using C = GitStatusDetailComponents::Change;
    struct Case {
        const char* name;
        std::vector<C> changes;
        std::string tree;
    };
    const Case cases[] = {
        {"directories before files", {{"b/x", "added"}, {"a", "modified"}, {"B/y", "deleted"}},
         "B:directory(y:deleted ) b:directory(x:added ) a:modified "},
        {"no collapsing", {{"a/b/c.txt", "added"}}, "a:directory(b:directory(c.txt:added ) ) "},
        {"file that is also a directory keeps both", {{"a", "deleted"}, {"a/b", "added"}},
         "a:deleted(b:added ) "},
        {"later status wins", {{"x", "added"}, {"x", "modified"}}, "x:modified "},
        {"empty components dropped", {{"//a//b/", "added"}, {"", "added"}, {"/", "added"}},
         "a:directory(b:added ) "},
        {"case-insensitive files", {{"b", "added"}, {"A", "added"}, {"c", "added"}}, "A:added b:added c:added "},
        {"accented capitals fold like the explorer's", {{"\xc3\x89" "z.txt", "added"}, {"\xc3\xa9" "a.txt", "added"}},
         "\xc3\xa9" "a.txt:added \xc3\x89" "z.txt:added "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(render(GitStatusDetailMapper::buildTree(c.changes)), c.tree);
    }
}
