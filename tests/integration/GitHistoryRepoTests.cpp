// Local history pages and branch maps of real repositories, built with the
// real git in temporary folders.
#include <gtest/gtest.h>

#include <filesystem>

#include "git/GitBranchMapProvider.h"
#include "git/GitTestSupport.h"
#include "integration/GitTestRepos.h"

using namespace velko;
using namespace velko::test;

namespace {

GitCommandContext commandContext() {
    return GitCommandContext(GitCommandContext::Options{std::make_shared<NoGitAuthProvider>(), nullptr,
                                                        std::make_shared<ProcessGitProcessRunner>(),
                                                        testGitEnvironment(), "github.com", nullptr});
}

GitProject project(const std::string& dir) { return GitProject{ProjectMetadata{}, Uuid::random(), dir}; }

std::string describe(const GitLocalHistoryPage& page) {
    std::string out = "branch=" + page.branch.value_or("-") + " upstream=" + page.upstream.value_or("-") +
                      " total=" + std::to_string(page.totalCount);
    for (const auto& e : page.edges) {
        out += " [" + e.messageHeadline;
        for (const auto& f : e.files)
            out += " " + f.path + "+" + std::to_string(f.additions) + "-" + std::to_string(f.deletions);
        out += "]";
    }
    return out;
}

}  // namespace

TEST(GitHistoryRepos, LocalPagesOfRealRepositories) {
    IsolatedHome home;
    struct Case {
        const char* name;
        std::function<void(const std::string&)> make;
        int64_t offset, limit;
        GitHistoryScope scope;
        std::string expected;
    };
    auto three = [](const std::string& d) {
        for (int i = 1; i <= 3; ++i) commitFile(d, "f.txt", std::string(static_cast<size_t>(i), 'x') + "\n", "c" + std::to_string(i));
    };
    auto upstreamAt = [three](const char* revision) {
        return [three, revision](const std::string& d) {
            three(d);
            git(d, {"remote", "add", "origin", "/nonexistent/origin.git"});
            git(d, {"update-ref", "refs/remotes/origin/main", revision});
            git(d, {"config", "branch.main.remote", "origin"});
            git(d, {"config", "branch.main.merge", "refs/heads/main"});
        };
    };
    const Case cases[] = {
        {"no upstream: all of HEAD", three, 0, 10, GitHistoryScope::NotOnUpstream,
         "branch=main upstream=- total=3 [c3 f.txt+1-1] [c2 f.txt+1-1] [c1 f.txt+1-0]"},
        {"even with the upstream: nothing, names known", upstreamAt("HEAD"), 0, 10, GitHistoryScope::NotOnUpstream,
         "branch=main upstream=origin/main total=0"},
        {"ahead of the upstream: those only", upstreamAt("HEAD~2"), 0, 10, GitHistoryScope::NotOnUpstream,
         "branch=main upstream=origin/main total=2 [c3 f.txt+1-1] [c2 f.txt+1-1]"},
        {"whole HEAD despite the upstream", upstreamAt("HEAD"), 1, 1, GitHistoryScope::WholeHead,
         "branch=main upstream=origin/main total=3 [c2 f.txt+1-1]"},
        {"offset beyond the total", three, 7, 10, GitHistoryScope::NotOnUpstream, "branch=main upstream=- total=3"},
        {"detached head", [three](const std::string& d) { three(d); git(d, {"checkout", "-q", "--detach", "HEAD~1"}); },
         0, 10, GitHistoryScope::NotOnUpstream, "branch=- upstream=- total=2 [c2 f.txt+1-1] [c1 f.txt+1-0]"},
        {"unborn branch", [](const std::string&) {}, 0, 10, GitHistoryScope::NotOnUpstream,
         "branch=- upstream=- total=0"},
        {"a rename keeps git's arrow", [](const std::string& d) {
             commitFile(d, "src/old/a.txt", "a\n", "base");
             git(d, {"mv", "src/old", "src/new"});
             git(d, {"commit", "-q", "-m", "rename"});
         }, 0, 1, GitHistoryScope::NotOnUpstream, "branch=main upstream=- total=2 [rename src/{old => new}/a.txt+0-0]"},
        {"a merge has no files, binary counts are zero",
         [](const std::string& d) {
             commitFile(d, "a.txt", "a\n", "base");
             git(d, {"checkout", "-q", "-b", "side"});
             commitFile(d, "b.txt", "b\n", "side");
             git(d, {"checkout", "-q", "main"});
             writeFileAtomically(d + "/bin.dat", std::string("\0\1\2", 3));
             commitFile(d, "bin.dat", std::string("\0\1\2\3", 4), "binary");
             git(d, {"merge", "-q", "--no-ff", "-m", "merge side", "side"});
         },
         0, 2, GitHistoryScope::NotOnUpstream,
         "branch=main upstream=- total=4 [merge side] [binary bin.dat+0-0]"},
        {"a subject with the unit separator stays whole; the record separator hurts that commit only",
         [](const std::string& d) {
             commitFile(d, "a.txt", "1\n", "first");
             commitFile(d, "a.txt", "2\n", "unit\x1fsep");
             commitFile(d, "a.txt", "3\n", "record\x1esep");
             commitFile(d, "a.txt", "4\n", "last");
         },
         0, 10, GitHistoryScope::NotOnUpstream,
         "branch=main upstream=- total=4 [last a.txt+1-1] [record] [unit\x1fsep a.txt+1-1] [first a.txt+1-0]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir base;
        std::string dir = initRepo(base, "repo");
        c.make(dir);
        GitCommandContext commands = commandContext();
        GitLocalHistoryProvider provider(commands);
        EXPECT_EQ(describe(provider.loadHistory(project(dir), c.offset, c.limit, c.scope)), c.expected);
    }
}

TEST(GitHistoryRepos, ALinkedWorktreeHasNoRemoteSoGitHubIsNotAsked) {
    // ".git" of a linked worktree is a file: no remote is found there, so
    // even signed in the list comes from HEAD alone.
    IsolatedHome home;
    TempDir base;
    std::string dir = initRepo(base, "repo");
    commitFile(dir, "a.txt", "1\n", "one");
    git(dir, {"remote", "add", "origin", "https://github.com/acme/widgets.git"});
    git(dir, {"worktree", "add", "-q", "-b", "linked", base.file("linked")});
    auto github = std::make_shared<ScriptedGraphQL>();
    ServiceRig rig;
    rig.auth->token = GitAuthToken{"tok", std::nullopt, std::nullopt};
    rig.deps.environment = testGitEnvironment();
    rig.deps.graphQLClient = github;
    rig.start();
    rig.service->fetchCommitHistory(rig.projects->add(base.file("linked")), std::nullopt, 10, std::nullopt);
    rig.settle();
    EXPECT_TRUE(github->asked.empty());
    EXPECT_EQ(rig.only("git/history")["edges"].size(), 1u);
}

TEST(GitHistoryRepos, BranchMapClassifiesEveryKindOfBranch) {
    IsolatedHome home;
    ScopedEnv date("GIT_COMMITTER_DATE", "2024-05-25T12:00:00Z");
    TempDir base;
    std::string d = initRepo(base, "work");
    commitFile(d, "a.txt", "1\n", "c1");
    commitFile(d, "a.txt", "2\n", "c2");
    git(d, {"branch", "ff"});  // on main's first-parent line
    commitFile(d, "a.txt", "3\n", "c3");
    git(d, {"checkout", "-q", "-b", "feat"});
    commitFile(d, "feat.txt", "f\n", "feat");
    git(d, {"checkout", "-q", "-b", "stack"});
    commitFile(d, "stack.txt", "s\n", "stacked on feat");
    git(d, {"checkout", "-q", "-b", "followup", "main"});
    commitFile(d, "u.txt", "u\n", "u1");
    git(d, {"checkout", "-q", "main"});
    git(d, {"merge", "-q", "--no-ff", "-m", "merge feat", "feat"});
    git(d, {"merge", "-q", "--no-ff", "-m", "merge followup", "followup"});
    git(d, {"checkout", "-q", "followup"});
    commitFile(d, "shared.txt", "u2\n", "u2 after the merge");
    git(d, {"checkout", "-q", "-b", "topic", "main"});
    commitFile(d, "shared.txt", "t\n", "topic");
    git(d, {"checkout", "-q", "-b", "squashed", "main"});
    commitFile(d, "sq.txt", "sq\n", "to squash");
    git(d, {"checkout", "-q", "-b", "rebased", "main"});
    commitFile(d, "rb.txt", "rb\n", "to pick");
    git(d, {"checkout", "-q", "main"});
    git(d, {"merge", "-q", "--squash", "squashed"});
    git(d, {"commit", "-q", "-m", "squash"});
    git(d, {"cherry-pick", "rebased"});
    git(d, {"checkout", "-q", "-b", "elsewhere"});
    commitFile(d, "e.txt", "e\n", "elsewhere");
    git(d, {"checkout", "-q", "main"});
    git(d, {"worktree", "add", "-q", base.file("wt"), "elsewhere"});
    // Remotes: "aaa" first; origin has main, a remote-only branch, and one only it knows.
    git(d, {"remote", "add", "aaa", "/nonexistent/aaa.git"});
    git(d, {"remote", "add", "origin", "/nonexistent/origin.git"});
    git(d, {"update-ref", "refs/remotes/origin/main", "main~1"});
    git(d, {"symbolic-ref", "refs/remotes/origin/HEAD", "refs/remotes/origin/main"});
    git(d, {"branch", "--set-upstream-to=origin/main", "main"});
    git(d, {"update-ref", "refs/remotes/aaa/ronly", "rebased"});
    git(d, {"update-ref", "refs/remotes/origin/ronly", "rebased"});
    git(d, {"update-ref", "refs/remotes/origin/lonely", "topic"});
    git(d, {"update-ref", "refs/remotes/origin/topic", "topic"});
    git(d, {"branch", "--set-upstream-to=origin/topic", "topic"});
    git(d, {"branch", "-D", "rebased"});
    writeFileAtomically(d + "/a.txt", "dirty\n");

    GitCommandContext commands = commandContext();
    auto load = [&](const std::string& dir, const char* now, int64_t limit = 0) {
        GitBranchMapProvider provider(commands, {4, [now] { return *parseIso8601(now); }});
        return provider.loadBranchMap(project(dir), limit);
    };
    GitBranchMap map = load(d, "2024-06-01T00:00:00Z");
    EXPECT_EQ(map.repositoryState, "ready");
    EXPECT_EQ(map.baseBranch, "main");
    EXPECT_EQ(map.currentBranch, "main");
    EXPECT_TRUE(map.hasRemote);
    EXPECT_EQ(map.generatedAt, "2024-06-01T00:00:00.000Z");
    std::map<std::string, std::string> rows;
    for (const auto& n : map.nodes) {
        auto opt = [](const auto& v) {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::optional<int64_t>>)
                return v ? std::to_string(*v) : std::string("-");
            else return v ? *v : std::string("-");
        };
        std::string overlaps;
        for (const auto& o : n.overlaps) overlaps += o.branch + ":" + std::to_string(o.fileCount) + " ";
        rows[n.name] = n.mergeState + "/" + opt(n.undeterminedReason) + "/" + opt(n.integration) + " ahead=" +
                       opt(n.aheadOfBase) + " behind=" + opt(n.behindBase) + " files=" + opt(n.changedFileCount) + " " +
                       n.location + " " + n.pushState + ":" + opt(n.unpushedCount) + " parent=" + opt(n.parent) +
                       "(" + n.parentConfidence + ") p" + std::to_string(n.priority) +
                       (n.isCleanupCandidate ? " cleanup" : "") + (n.inUseByOtherWorktree ? " otherWorktree" : "") +
                       (n.hasUncommittedChanges ? " dirty" : "") + (overlaps.empty() ? "" : " overlaps=" + overlaps);
    }
    // Squash and rebase merges are not recognised: those branches stay unmerged.
    const std::map<std::string, std::string> expected{
        {"main", "base/-/- ahead=- behind=- files=- localAndRemote unpushed:1 parent=-(confirmed) p0 dirty"},
        {"ff", "merged/-/fastForward ahead=0 behind=7 files=- local noUpstream:- parent=main(confirmed) p0 cleanup"},
        {"feat", "merged/-/mergeCommit ahead=0 behind=5 files=- local noUpstream:- parent=ff(estimated) p0 cleanup"},
        // Its merge base is feat's tip, which went in through a merge.
        {"stack", "mergedWithFollowUp/-/- ahead=1 behind=5 files=1 local noUpstream:- parent=feat(estimated) p3"},
        {"followup", "mergedWithFollowUp/-/- ahead=1 behind=5 files=1 local noUpstream:- parent=ff(estimated) p2 "
                     "overlaps=topic:1 "},
        {"topic", "unmerged/-/- ahead=1 behind=2 files=1 localAndRemote pushed:0 parent=lonely(estimated) p2 "
                  "overlaps=followup:1 "},
        {"squashed", "unmerged/-/- ahead=1 behind=2 files=1 local noUpstream:- parent=feat(estimated) p5"},
        {"ronly", "unmerged/-/- ahead=1 behind=2 files=1 remoteOnly pushed:0 parent=feat(estimated) p5"},
        // Known to origin only, while "aaa" comes first: no revision to compare.
        {"lonely", "undetermined/commandFailed/- ahead=- behind=- files=- remoteOnly pushed:0 "
                   "parent=topic(estimated) p3"},
        {"elsewhere", "unmerged/-/- ahead=1 behind=0 files=1 local noUpstream:- parent=feat(estimated) p1 "
                      "otherWorktree"},
    };
    EXPECT_EQ(rows, expected);

    // The limit keeps current and base.
    map = load(d, "2024-08-01T00:00:00Z", 1);
    EXPECT_EQ(map.totalCount, 10);
    EXPECT_EQ(map.truncatedCount, 9);
    ASSERT_EQ(map.nodes.size(), 1u);
    EXPECT_EQ(map.nodes[0].name, "main");

    // A shallow clone, a repository without main or master, an empty one, no repository.
    std::string shallow = base.file("shallow");
    git(base.path(), {"clone", "-q", "--depth", "1", "--no-single-branch", "--no-local", d, shallow});
    std::string trunk = initRepo(base, "trunk");
    git(trunk, {"checkout", "-q", "-b", "trunk"});
    commitFile(trunk, "t.txt", "t\n", "t");
    git(trunk, {"branch", "side"});
    std::string empty = initRepo(base, "empty");
    std::filesystem::create_directories(base.file("plain"));
    // Beyond the 2000 newest first parents of the base nothing is estimated.
    std::string longer = initRepo(base, "long");
    std::string stream;
    for (int i = 1; i <= 2100; ++i) {
        stream += "commit refs/heads/main\nmark :" + std::to_string(i) +
                  "\ncommitter T <t@velko.invalid> " + std::to_string(1700000000 + i) + " +0000\ndata 2\nc\n";
        if (i > 1) stream += "from :" + std::to_string(i - 1) + "\n";
        stream += "\n";
    }
    stream += "reset refs/heads/old-merged\nfrom :10\n\n";
    stream += "commit refs/heads/old-topic\ncommitter T <t@velko.invalid> 1800000000 +0000\ndata 2\nt\nfrom :10\n"
              "M 644 inline t.txt\ndata 2\nt\n\n";
    std::string streamFile = base.write("stream.txt", stream);
    ASSERT_EQ(std::system(("cd '" + longer + "' && git fast-import --quiet < '" + streamFile + "'").c_str()), 0);
    struct Case {
        std::string dir;
        std::string state;
        bool shallow;
        std::vector<std::string> nodes;  // "name mergeState/reason[/integration]"
    };
    const Case cases[] = {
        {shallow, "ready", true, {"elsewhere undetermined/shallow", "feat undetermined/shallow",
                                  "ff undetermined/shallow", "followup undetermined/shallow", "main base/-",
                                  "squashed undetermined/shallow", "stack undetermined/shallow",
                                  "topic undetermined/shallow"}},
        {trunk, "ready", false, {"side undetermined/baseUnknown", "trunk undetermined/baseUnknown"}},
        {empty, "noCommits", false, {}},
        {longer, "ready", false, {"main base/-", "old-merged merged/-/unknown", "old-topic undetermined/historyTooLong"}},
        {base.file("plain"), "notARepository", false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dir);
        GitBranchMap m = load(c.dir, "2024-06-01T00:00:00Z");
        EXPECT_EQ(m.repositoryState, c.state);
        EXPECT_EQ(m.isShallow, c.shallow);
        std::vector<std::string> nodes;
        for (const auto& n : m.nodes)
            nodes.push_back(n.name + " " + n.mergeState + "/" + n.undeterminedReason.value_or("-") +
                            (n.integration ? "/" + *n.integration : ""));
        std::sort(nodes.begin(), nodes.end());
        EXPECT_EQ(nodes, c.nodes);
    }
}
