#include <gtest/gtest.h>

#include "git/GitTestSupport.h"

using namespace velko;
using namespace velko::test;

namespace {

const char* const kToken = "gho_unitTestToken123";

struct Harness : ServiceRig {
    TempDir repo;
    std::shared_ptr<FakeGitRunner> runner = std::make_shared<FakeGitRunner>();
    std::shared_ptr<FakeBroker> broker = std::make_shared<FakeBroker>();
    Uuid projectId;

    explicit Harness(const std::string& remoteConfig = "",
                     GitEnvironment environment = {{"PATH", "/usr/bin:/bin"}}) {
        if (!remoteConfig.empty()) repo.write(".git/config", remoteConfig);
        projectId = projects->add(repo.path());
        environment["HOME"] = repo.path();
        deps.credentialBroker = broker;
        deps.processRunner = runner;
        deps.environment = std::move(environment);
        start();
    }
};

std::string remote(const std::string& url) { return "[remote \"origin\"]\n\turl = " + url + "\n"; }

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

TEST(GitService, ActionsAnswerWithTheirMessages) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        std::string config;
        bool signedIn;
        std::map<std::string, GitProcessExecutionResult> answers;
        std::function<void(GitService&, const Uuid&)> act;
        V results;
        V mustRun;
        V mustNotRun;
        const char* event = nullptr;  // must come once, with these members ("@" is the project's id)
        Json members = Json::object();
    };
    const Case cases[] = {
        {"blank message is refused without git", "", false, {},
         [](GitService& s, const Uuid& id) { s.commit(id, " \n\t"); },
         V{"fail: コミットメッセージを入力してください"}, V{}, V{"add -A"}},
        {"failed add stops before commit", "", false, {{"add -A", {128, "", "fatal: pathspec broken"}}},
         [](GitService& s, const Uuid& id) { s.commit(id, "m"); },
         V{"fail: fatal: pathspec broken"}, V{"add -A"}, V{"commit -m m"}},
        {"failed commit without text", "", false, {{"commit -m m", {1, "", "  \n"}}},
         [](GitService& s, const Uuid& id) { s.commit(id, "m"); },
         V{"fail: git commit で不明なエラー"}, V{}, V{}},
        {"push over ssh needs no sign-in", remote("git@github.com:o/r.git"), false, {},
         [](GitService& s, const Uuid& id) { s.push(id); },
         V{"ok: Push が完了しました"}, V{"push"}, V{}},
        {"fetch failure shows git's words", remote("../origin.git"), false,
         {{"fetch", {128, "", "fatal: unable to connect\n"}}},
         [](GitService& s, const Uuid& id) { s.fetch(id); },
         V{"fail: fatal: unable to connect"}, V{"fetch"}, V{}},
        {"auth words on an unauthenticated run are a plain failure", remote("../origin.git"), true,
         {{"push", {128, "", "fatal: Authentication failed for 'x'"}}},
         [](GitService& s, const Uuid& id) { s.push(id); },
         V{"fail: fatal: Authentication failed for 'x'"}, V{"push"}, V{}},
        {"tracking: an upstream failure other than none is shown", remote("../o.git"), false,
         {{"rev-parse --abbrev-ref --symbolic-full-name @{u}", {128, "", "boom"}}},
         [](GitService& s, const Uuid& id) { s.fetchRemoteTracking(id); }, V{"fail: boom"}, V{}, V{}},
        {"remote found through pushDefault", "[remote \"up\"]\n\turl = ../up.git\n", false,
         {{"rev-parse --abbrev-ref --symbolic-full-name @{u}", {128, "", "fatal: no upstream configured"}},
          {"config --get remote.pushDefault", {0, "up\n", ""}}},
         [](GitService& s, const Uuid& id) { s.push(id); },
         V{"ok: Push が完了しました"}, V{"config --get remote.pushDefault", "push"}, V{}},
        {"status of the active project when git cannot start", "", false,
         {{"status --porcelain --branch --untracked-files=all", {-1, "", "No such file or directory"}}},
         [](GitService& s, const Uuid&) { s.refreshStatus(std::nullopt); }, V{"fail: No such file or directory"},
         V{}, V{}, "git/status", {{"projectId", "@"}, {"branch", "--"}}},
        {"untracked diff git cannot make is a failure and no file", "", false,
         {{"ls-files --error-unmatch -- n.txt", {1, "", "error: pathspec 'n.txt' did not match"}},
          {"diff --no-index --numstat /dev/null -- n.txt", {128, "", "fatal: bad"}}},
         [](GitService& s, const Uuid& id) { s.fetchDiff(id, {{"n.txt", GitDiffStage::Unstaged}}); },
         V{"fail: fatal: bad"}, V{}, V{}, "git/diff", {{"files", Json::array()}}},
        {"a commit's file with nothing to show still answers for that file", "", false,
         {{"rev-list --parents -n 1 c1", {0, "c1 p\n", ""}}},
         [](GitService& s, const Uuid& id) { s.fetchCommitDiff(id, "c1", std::string("src/{a => b}/f")); }, V{},
         V{}, V{}, "git/commit/diff",
         {{"files", Json::array({{{"commit", "c1"}, {"path", "src/b/f"}, {"additions", 0}, {"deletions", 0},
                                  {"isBinary", false}, {"patch", ""}, {"resolved", true}}})}}},
        {"tracking whose counts fail shows zeros", remote("../o.git"), false,
         {{"rev-parse --abbrev-ref HEAD", {0, "main", ""}},
          {"rev-parse --abbrev-ref --symbolic-full-name @{u}", {0, "origin/main", ""}},
          {"rev-list --left-right --count @{u}...HEAD", {128, "", "x"}}},
         [](GitService& s, const Uuid& id) { s.fetchRemoteTracking(id); }, V{}, V{}, V{}, "git/remote/tracking",
         {{"projectId", "@"}, {"branch", "main"}, {"remote", "origin/main"}, {"ahead", 0}, {"behind", 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(c.config);
        if (c.signedIn) h.auth->token = GitAuthToken{kToken, "octo", std::nullopt};
        for (const auto& [command, answer] : c.answers) h.runner->on(command, answer);
        c.act(*h.service, h.projectId);
        h.settle();
        EXPECT_EQ(h.results(), c.results);
        auto commands = h.runner->commands();
        for (const auto& command : c.mustRun) EXPECT_TRUE(contains(commands, command)) << command;
        for (const auto& command : c.mustNotRun) EXPECT_FALSE(contains(commands, command)) << command;
        EXPECT_EQ(h.auth->deletions, 0);
        for (const auto& call : h.runner->calls()) EXPECT_FALSE(call.environment.count("GIT_ASKPASS"));
        if (!c.event) continue;
        Json event = h.only(c.event);
        for (const auto& [key, value] : c.members.items())
            EXPECT_EQ(event[key], value == "@" ? Json(h.projectId.toString()) : value) << key;
    }
}

TEST(GitService, TokenTravelsOnlyInTheEnvironmentOfOneAuthenticatedRun) {
    // The user's own GIT_CONFIG_* entries stay; the helper reset goes behind them.
    Harness h(remote("https://github.com/o/r.git"),
              {{"GIT_CONFIG_COUNT", "2"}, {"GIT_CONFIG_KEY_0", "a.b"}, {"GIT_CONFIG_VALUE_0", "1"},
               {"GIT_CONFIG_KEY_1", "c.d"}, {"GIT_CONFIG_VALUE_1", "2"}});
    h.auth->token = GitAuthToken{kToken, "octo", std::nullopt};
    h.service->push(h.projectId);
    h.settle();
    EXPECT_EQ(h.results(), std::vector<std::string>{"ok: Push が完了しました"});
    bool sawPush = false;
    for (const auto& call : h.runner->calls()) {
        for (const auto& arg : call.arguments) EXPECT_EQ(arg.find(kToken), std::string::npos) << arg;
        if (call.joined() != "push") {
            EXPECT_FALSE(call.environment.count("VELKO_GITHUB_TOKEN")) << call.joined();
            continue;
        }
        sawPush = true;
        const auto& env = call.environment;
        EXPECT_EQ(env.at("GIT_ASKPASS"), "/fake/askpass");
        EXPECT_EQ(env.at("GITHUB_TOKEN"), kToken);
        EXPECT_EQ(env.at("GH_TOKEN"), kToken);
        EXPECT_EQ(env.at("GIT_CONFIG_COUNT"), "3");
        EXPECT_EQ(env.at("GIT_CONFIG_KEY_0"), "a.b");
        EXPECT_EQ(env.at("GIT_CONFIG_KEY_2"), "credential.helper");
        EXPECT_EQ(env.at("GIT_CONFIG_VALUE_2"), "");
    }
    EXPECT_TRUE(sawPush);
    EXPECT_EQ(h.broker->prepared, 1);
    EXPECT_FALSE(h.broker->live);
    for (const auto& e : h.events->events()) EXPECT_EQ(dumpJson(e.payload).find(kToken), std::string::npos);
}

TEST(GitService, UnknownProjectsAndCommitTextsThatAreNoCommitGetNoAnswer) {
    Harness h;
    Uuid stranger = Uuid::random();
    h.service->refreshStatus(stranger);
    h.service->push(stranger);
    h.service->fetchDiff(stranger, {});
    h.service->fetchWorkingTree(stranger);
    for (const char* commit : {"", "  \n", "--output=/tmp/x", "-p"})
        h.service->fetchCommitDiff(h.projectId, commit, std::nullopt);
    h.settle();
    EXPECT_TRUE(h.events->events().empty());
    EXPECT_TRUE(h.runner->calls().empty());
}

TEST(GitService, BarrierArrivesBehindEarlierRefreshes) {
    Harness h;
    for (int i = 0; i < 3; ++i) h.service->refreshStatus(h.projectId);
    h.service->reachRefreshBarrier(h.projectId, "req-1");
    h.settle();
    std::vector<std::string> types;
    for (const auto& e : h.events->events()) types.push_back(e.type);
    EXPECT_EQ(types, (std::vector<std::string>{"git/status", "git/status", "git/status", "git/refresh/barrier"}));
    EXPECT_EQ(h.events->events().back().payload,
              (Json{{"projectId", h.projectId.toString()}, {"requestId", "req-1"}}));
}

TEST(GitService, SshRemotesFailInsteadOfPromptingUnlessTheUserChoseTheirSsh) {
    struct Case {
        const char* name;
        std::string url;
        GitEnvironment environment;
        std::string coreSshCommand;  // what `git config --get core.sshCommand` prints
        std::optional<std::string> expected;
    };
    const std::string batch = "ssh -o BatchMode=yes";
    const Case cases[] = {
        {"scp-like", "git@example.com:o/r.git", {}, "", batch},
        {"the repository's own ssh command", "git@example.com:o/r.git", {}, "ssh -i ~/.ssh/work\n", std::nullopt},
        {"the user's GIT_SSH_COMMAND", "git@example.com:o/r.git", {{"GIT_SSH_COMMAND", "myssh"}}, "", "myssh"},
        {"the user's GIT_SSH", "git@example.com:o/r.git", {{"GIT_SSH", "/opt/ssh"}}, "", std::nullopt},
        {"https", "https://example.com/o/r.git", {}, "", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(remote(c.url), c.environment);
        h.runner->on("config --get core.sshCommand", {c.coreSshCommand.empty() ? 1 : 0, c.coreSshCommand, ""});
        h.service->fetch(h.projectId);
        h.settle();
        auto calls = h.runner->calls();
        auto fetch = std::find_if(calls.begin(), calls.end(), [](const RunCall& r) { return r.joined() == "fetch"; });
        ASSERT_NE(fetch, calls.end());
        auto it = fetch->environment.find("GIT_SSH_COMMAND");
        EXPECT_EQ(it == fetch->environment.end() ? std::nullopt : std::optional<std::string>(it->second), c.expected);
        EXPECT_EQ(fetch->environment.at("SSH_ASKPASS_REQUIRE"), "never");
    }
}

namespace {

// A main loop that has stopped: whatever is posted is dropped unrun.
class StoppedMainQueue final : public TaskQueue {
public:
    void post(Task) override {}
    void postDelayed(Duration, Task) override {}
    bool isCurrent() const override { return false; }
};

}  // namespace

TEST(GitService, BlocksWaitingForAMainThreadThatNeverAnswersEndWithoutWork) {
    struct Case {
        const char* name;
        bool mainDropsHops;  // else it keeps them and never runs them
        bool stop;
    };
    const Case cases[] = {
        {"main loop gone: hops dropped", true, false},
        {"main thread busy quitting: the stop releases the waits", false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(remote("/srv/origin.git"));
        auto held = std::make_shared<ManualQueue>();  // never run
        if (c.mainDropsHops) setMainQueue(std::make_shared<StoppedMainQueue>());
        else setMainQueue(held);
        h.service->refreshStatus(std::nullopt);
        h.service->push(h.projectId);
        auto done = std::make_shared<std::atomic<bool>>(false);
        if (c.stop) h.service->stop(GitService::kStopGrace, [done] { *done = true; });
        else h.service->whenIdle([done] { *done = true; });
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!*done && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        setMainQueue(h.mainQueue);
        EXPECT_TRUE(*done);
        EXPECT_TRUE(h.runner->commands().empty());
        EXPECT_TRUE(h.events->events().empty());
    }
}
