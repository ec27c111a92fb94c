// GitService against real git on real temporary repositories.
#include <gtest/gtest.h>
#include <locale.h>

#include <filesystem>

#include "git/GitTestSupport.h"
#include "integration/GitTestRepos.h"
#include "support/ScriptedServer.h"

using namespace velko;
using namespace velko::test;

namespace {

struct RealHarness : ServiceRig {
    IsolatedHome home;
    TempDir base;

    // `extraEnvironment` goes over the test's git environment (a locale, say).
    explicit RealHarness(const GitEnvironment& extraEnvironment = {}) {
        GitEnvironment environment = testGitEnvironment();
        for (const auto& [key, value] : extraEnvironment) environment[key] = value;
        deps.credentialBroker = std::make_shared<GitCredentialBroker>();
        deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
        deps.environment = std::move(environment);
        start();
    }
};

std::vector<std::string> flat(const Json& list) {
    std::vector<std::string> out;
    for (const auto& f : list) out.push_back(f["status"].get<std::string>() + " " + f["path"].get<std::string>());
    return out;
}

std::vector<std::string> sectionPaths(const Json& payload, size_t index) {
    std::vector<std::string> out;
    for (const auto& e : payload["sections"][index]["entries"]) out.push_back(e["path"]);
    return out;
}

}  // namespace

TEST(GitServiceIntegration, StatusWorkingTreeAndDetailOfRealRepositories) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        std::function<void(const std::string&, const TempDir&)> setup;
        std::string branch;
        V staged, unstaged, untracked;
        V wtStaged, wtUnstaged, wtUntracked, wtConflicted;
    };
    auto base = [](const std::string& d) { commitFile(d, "a.txt", "one\n", "init"); };
    const Case cases[] = {
        {"clean", [&](auto& d, auto&) { base(d); }, "main", {}, {}, {}, {}, {}, {}, {}},
        {"staged and modified again",
         [&](auto& d, auto&) { base(d); writeInto(d, "a.txt", "two\n"); git(d, {"add", "a.txt"}); writeInto(d, "a.txt", "3\n"); },
         "main", V{"MM a.txt"}, V{"MM a.txt"}, {}, V{"a.txt"}, V{"a.txt"}, {}, {}},
        {"untracked in a folder", [&](auto& d, auto&) { base(d); writeInto(d, "dir/u.txt", "u"); }, "main", {}, {},
         V{"? dir/u.txt"}, {}, {}, V{"dir/u.txt"}, {}},
        {"conflicted",
         [&](auto& d, auto&) {
             base(d);
             git(d, {"checkout", "-q", "-b", "other"});
             commitFile(d, "a.txt", "theirs\n", "theirs");
             git(d, {"checkout", "-q", "main"});
             commitFile(d, "a.txt", "ours\n", "ours");
             git(d, {"merge", "-q", "other"}, 1);
         },
         "main", V{"UU a.txt"}, V{"UU a.txt"}, {}, {}, {}, {}, V{"a.txt"}},
        {"detached head", [&](auto& d, auto&) { base(d); git(d, {"checkout", "-q", "--detach"}); },
         "HEAD (no branch)", {}, {}, {}, {}, {}, {}, {}},
        {"no commits yet", [&](auto& d, auto&) { writeInto(d, "new.txt", "n"); }, "No commits yet on main", {}, {},
         V{"? new.txt"}, {}, {}, V{"new.txt"}, {}},
        {"submodule with new commits inside",
         [&](auto& d, const TempDir& t) {
             std::string lib = initRepo(t, "lib");
             commitFile(lib, "l.txt", "l", "lib");
             base(d);
             git(d, {"-c", "protocol.file.allow=always", "submodule", "-q", "add", lib, "sub"});
             git(d, {"commit", "-q", "-m", "sub"});
             commitFile(d + "/sub", "l.txt", "changed", "inside");
         },
         "main", {}, V{" M sub"}, {}, {}, V{"sub"}, {}, {}},
        {"names git quotes",
         [&](auto& d, auto&) {
             base(d);
             writeInto(d, "with space.txt", "s");
             writeInto(d, "quo\"te.txt", "q");
             writeInto(d, "new\nline.txt", "n");
             writeInto(d, "raw\xff.txt", "r");
         },
         "main", {}, {},
         // porcelain v1 quotes names with blanks too; v2 does not
         V{"? \"new\\nline.txt\"", "? \"quo\\\"te.txt\"", "? \"raw\\377.txt\"", "? \"with space.txt\""}, {}, {},
         V{"new\nline.txt", "quo\"te.txt", "raw377.txt", "with space.txt"}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RealHarness h;
        std::string dir = initRepo(h.base, "repo");
        c.setup(dir, h.base);
        Uuid id = h.projects->add(dir);
        h.service->refreshStatus(id);
        h.service->fetchWorkingTree(id);
        h.service->fetchStatusDetail(id);
        h.settle();
        Json detail = h.only("git/status/detail");
        const bool unborn = c.branch.rfind("No commits yet", 0) == 0;
        EXPECT_EQ(detail["headSha"], unborn ? "--" : git(dir, {"rev-parse", "HEAD"}).substr(0, 40));
        EXPECT_FALSE(detail.contains("remote"));
        Json status = h.only("git/status");
        EXPECT_EQ(status["branch"], c.branch);
        EXPECT_EQ(flat(status["staged"]), c.staged);
        EXPECT_EQ(flat(status["unstaged"]), c.unstaged);
        EXPECT_EQ(flat(status["untracked"]), c.untracked);
        EXPECT_EQ(status["pending"], c.staged.size() + c.unstaged.size() + c.untracked.size());
        Json tree = h.only("git/working-tree");
        EXPECT_EQ(sectionPaths(tree, 0), c.wtStaged);
        EXPECT_EQ(sectionPaths(tree, 1), c.wtUnstaged);
        EXPECT_EQ(sectionPaths(tree, 2), c.wtUntracked);
        EXPECT_EQ(sectionPaths(tree, 3), c.wtConflicted);
        EXPECT_TRUE(h.results().empty());
    }
}

TEST(GitServiceIntegration, DiffsOfTheWorkingTreeAndOfRootRenameAndMergeCommits) {
    RealHarness h;
    std::string dir = initRepo(h.base, "repo");
    commitFile(dir, "a.txt", "one\ntwo\n", "init");
    commitFile(dir, "b.bin", std::string("\0\1\2", 3), "bin");
    writeInto(dir, "a.txt", "one\nTWO\nthree\n");
    writeInto(dir, "b.bin", std::string("\0\3\4", 3));
    writeInto(dir, "new file.txt", "fresh\n");
    Uuid id = h.projects->add(dir);
    h.service->fetchDiff(id, {{"a.txt", GitDiffStage::Unstaged},
                              {"b.bin", GitDiffStage::Unstaged},
                              {"new file.txt", GitDiffStage::Unstaged},
                              {"a.txt", GitDiffStage::Staged}});
    h.settle();
    auto summary = [](const Json& list) {
        std::vector<std::string> out;
        for (const auto& f : list)
            out.push_back(f["path"].get<std::string>() + "|" + f["stage"].get<std::string>() + "|" +
                          f["additions"].dump() + "|" + f["deletions"].dump() + "|" + f["isBinary"].dump());
        return out;
    };
    Json files = h.only("git/diff")["files"];
    EXPECT_EQ(summary(files), (std::vector<std::string>{"a.txt|unstaged|2|1|false", "b.bin|unstaged|0|0|true",
                                                        "new file.txt|unstaged|1|0|false"}));
    EXPECT_NE(files[0]["patch"].get<std::string>().find("+TWO"), std::string::npos);
    EXPECT_NE(files[2]["patch"].get<std::string>().find("+fresh"), std::string::npos);

    // No targets: everything staged, then everything unstaged; a whole-tree
    // entry is ".". Against HEAD: staged and unstaged together.
    git(dir, {"add", "a.txt"});
    writeInto(dir, "a.txt", "one\n");
    h.events->clear();
    h.service->fetchDiff(id, {});
    h.settle();
    EXPECT_EQ(summary(h.only("git/diff")["files"]),
              (std::vector<std::string>{".|staged|2|1|false", ".|unstaged|0|2|true"}));
    h.events->clear();
    h.service->fetchDiff(id, {{"", GitDiffStage::Head}});
    h.settle();
    EXPECT_EQ(summary(h.only("git/diff")["files"]), (std::vector<std::string>{".|head|0|1|true"}));

    // Commit diffs of a root, a rename and a merge commit.
    dir = initRepo(h.base, "history");
    commitFile(dir, "src/a/f.txt", "f\n", "root");
    std::string root = git(dir, {"rev-parse", "HEAD"}).substr(0, 40);
    git(dir, {"mv", "src/a", "src/b"});
    git(dir, {"commit", "-q", "-m", "move"});
    std::string move = git(dir, {"rev-parse", "HEAD"}).substr(0, 40);
    git(dir, {"checkout", "-q", "-b", "side"});
    commitFile(dir, "side.txt", "s\n", "side");
    git(dir, {"checkout", "-q", "main"});
    commitFile(dir, "main.txt", "m\n", "main");
    git(dir, {"merge", "-q", "--no-edit", "side"});
    std::string merge = git(dir, {"rev-parse", "HEAD"}).substr(0, 40);
    id = h.projects->add(dir);
    h.service->fetchCommitDiff(id, root, std::string("src/a/f.txt"));
    h.service->fetchCommitDiff(id, move, std::nullopt);
    h.service->fetchCommitDiff(id, merge, std::string("side.txt"));
    h.settle();
    auto diffs = h.events->eventsOfType("git/commit/diff");
    ASSERT_EQ(diffs.size(), 3u);
    const Json& rootFile = diffs[0].payload["files"][0];
    EXPECT_EQ(rootFile["additions"], 1);
    EXPECT_NE(rootFile["patch"].get<std::string>().find("+f"), std::string::npos);
    EXPECT_EQ(diffs[1].payload["files"][0]["path"], "src/b/f.txt");
    EXPECT_EQ(diffs[1].payload["files"][0]["resolved"], false);
    const Json& mergeFile = diffs[2].payload["files"][0];
    EXPECT_EQ(mergeFile["path"], "side.txt");
    EXPECT_NE(mergeFile["patch"].get<std::string>().find("+s"), std::string::npos);
    EXPECT_TRUE(h.results().empty());
}

// Commit and push against a bare origin are walked through by the headless git test.
TEST(GitServiceIntegration, FetchPullAndTrackingAgainstABareOrigin) {
    RealHarness h;
    std::string dir = initRepoWithOrigin(h.base);
    Uuid id = h.projects->add(dir);

    // Someone else pushes; we fetch, see we are behind, commit locally, pull with rebase.
    std::string other = h.base.file("other");
    git(h.base.path(), {"clone", "-q", h.base.file("origin.git"), other});
    commitFile(other, "b.txt", "b\n", "theirs");
    git(other, {"push", "-q"});
    h.service->fetch(id);
    h.service->fetchRemoteTracking(id);
    h.settle();
    EXPECT_EQ(h.results(), std::vector<std::string>{"ok: Fetch が完了しました"});
    Json tracking = h.only("git/remote/tracking");
    EXPECT_EQ(tracking["remote"], "origin/main");
    EXPECT_EQ(tracking["behind"], 1);
    EXPECT_EQ(tracking["ahead"], 0);

    commitFile(dir, "c.txt", "c\n", "ours");
    h.events->clear();
    h.service->pull(id);
    h.service->fetchRemoteTracking(id);
    h.settle();
    EXPECT_EQ(h.results(), std::vector<std::string>{"ok: Pull が完了しました"});
    tracking = h.only("git/remote/tracking");
    EXPECT_EQ(tracking["ahead"], 1);
    EXPECT_EQ(tracking["behind"], 0);
    EXPECT_EQ(git(dir, {"rev-list", "--count", "HEAD"}), "3\n");  // rebased, no merge commit
    auto statuses = h.events->eventsOfType("git/status");
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back().payload["ahead"], 1);
}

TEST(GitServiceIntegration, ProjectWithoutRemoteOrRepositoryGetsTheMessageOnceAndEmptyAnswers) {
    RealHarness h;
    std::string dir = initRepo(h.base, "repo");
    commitFile(dir, "a.txt", "1\n", "init");
    Uuid id = h.projects->add(dir);
    h.service->push(id);
    h.service->pull(id);
    h.service->fetchRemoteTracking(id);
    h.settle();
    EXPECT_EQ(h.results(), std::vector<std::string>{"fail: リモートリポジトリがないプロジェクトです"});
    EXPECT_EQ(h.only("git/remote/tracking"), (Json{{"projectId", id.toString()}, {"branch", "main"}, {"ahead", 0}, {"behind", 0}}));

    std::string plain = h.base.file("plain");
    std::filesystem::create_directories(plain);
    id = h.projects->add(plain);
    h.events->clear();
    h.service->refreshStatus(id);
    h.service->fetchWorkingTree(id);
    h.service->fetchDiff(id, {});
    h.settle();
    EXPECT_EQ(h.results(), std::vector<std::string>{"fail: リモートリポジトリがないプロジェクトです"});
    EXPECT_EQ(h.only("git/status")["branch"], "--");
    EXPECT_EQ(h.only("git/working-tree")["summary"]["total"], 0);
    EXPECT_TRUE(h.only("git/diff")["files"].empty());
}

TEST(GitServiceIntegration, FailuresAreReadTheSameUnderAGermanLocale) {
    locale_t german = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
    if (!german) GTEST_SKIP() << "de_DE.UTF-8 is not generated here (scripts/deps.sh does it)";
    freelocale(german);
    const GitEnvironment kEnglish = {{"LANG", "C.UTF-8"}};
    const GitEnvironment kGerman = {{"LANG", "de_DE.UTF-8"}, {"LC_ALL", "de_DE.UTF-8"}, {"LANGUAGE", "de"}};

    TempDir base;
    std::string dir = initRepoWithOrigin(base);
    git(dir, {"checkout", "-q", "-b", "topic"});  // no upstream
    std::string lost = initRepo(base, "lost");
    commitFile(lost, "a.txt", "1\n", "init");
    git(lost, {"remote", "add", "origin", base.file("gone.git")});

    // Without velko's environment this git speaks German here.
    auto raw = [&](const GitEnvironment& locale) {
        GitEnvironment env = testGitEnvironment();
        env.erase("LC_MESSAGES");
        for (const auto& [key, value] : locale) env[key] = value;
        return spawnAndDrain({"git", "pull", "--rebase"}, dir, env).stderrBytes;
    };
    if (raw(kGerman) == raw(kEnglish)) GTEST_SKIP() << "git has no German messages here";

    struct Case {
        const char* name;
        std::string project;
        std::function<void(GitService&, const Uuid&)> act;
        std::string expected;  // empty: git's own English words
    };
    const std::string missing = "fail: リモートリポジトリがないプロジェクトです";
    const Case cases[] = {
        {"push without upstream", dir, [](GitService& s, const Uuid& id) { s.push(id); }, missing},
        {"pull without tracking information", dir, [](GitService& s, const Uuid& id) { s.pull(id); }, missing},
        {"fetch from a folder that is gone", lost, [](GitService& s, const Uuid& id) { s.fetch(id); }, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> byLocale[2];
        for (int i = 0; i < 2; ++i) {
            RealHarness h(i == 0 ? kEnglish : kGerman);
            Uuid id = h.projects->add(c.project);
            c.act(*h.service, id);
            h.settle();
            byLocale[i] = h.results();
        }
        ASSERT_EQ(byLocale[0].size(), 1u);
        if (!c.expected.empty()) EXPECT_EQ(byLocale[0][0], c.expected);
        else EXPECT_NE(byLocale[0][0].find("does not appear to be a git repository"), std::string::npos);
        EXPECT_EQ(byLocale[1], byLocale[0]);
    }
}

namespace {

// Live processes whose command line holds `text` (a zombie's is empty).
std::vector<std::string> liveProcessesMentioning(const std::string& text) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string cmdline = readFile(entry.path().string() + "/cmdline");
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
        if (cmdline.find(text) != std::string::npos) found.push_back(entry.path().filename().string() + " " + cmdline);
    }
    return found;
}

}  // namespace

TEST(GitServiceIntegration, StoppingWhileAFetchHangsOnASilentServerEndsTheFetch) {
    RealHarness h;
    ScriptedServer server;  // a server that has hung
    ASSERT_GT(server.process.port, 0);
    server.script("/hung.git/info/refs?service=git-upload-pack", {{"kind", "silent"}});
    const std::string url = server.url("/hung.git");
    std::string dir = initRepo(h.base, "repo");
    commitFile(dir, "a.txt", "1\n", "init");
    git(dir, {"remote", "add", "origin", url});
    Uuid id = h.projects->add(dir);

    h.service->fetch(id);
    // git's http helper names the URL on its command line. (The fetch block
    // reads its project on the main thread first.)
    ASSERT_TRUE(waitUntil([&] {
        h.mainQueue->runUntilIdle();
        return !liveProcessesMentioning(url).empty();
    }, std::chrono::seconds(30)));
    auto stopped = std::make_shared<std::atomic<bool>>(false);
    h.service->stop(GitService::kStopGrace, [stopped] { *stopped = true; });
    EXPECT_TRUE(waitUntil([&] { return stopped->load(); }));
    EXPECT_TRUE(waitUntil([&] { return liveProcessesMentioning(url).empty(); }, std::chrono::seconds(5)))
        << liveProcessesMentioning(url).front();
    // The engine stays stopped: later work is dropped.
    h.service->fetch(id);
    h.service->refreshStatus(id);
    EXPECT_TRUE(drain(*h.service, *h.mainQueue));
    EXPECT_TRUE(h.events->eventsOfType("git/status").empty());
}
