// Authenticated git over HTTP end to end: real git, the fake GitHub that
// speaks git's smart HTTP and wants Basic auth with the token, and a sweep for
// the token afterwards.
#include <gtest/gtest.h>
#include <glib.h>

#include "git/GitTestSupport.h"
#include "integration/AccountTestSupport.h"
#include "integration/GitTestRepos.h"

using namespace velko;
using namespace velko::test;

TEST(GitAuthIntegration, PushOverHttpCarriesTheTokenAndNothingKeepsIt) {
    const std::string token = "gho_velkoLoopbackToken_7f3a9c";
    IsolatedHome home;
    TempDir base;

    std::string serverRoot = base.file("srv");
    std::filesystem::create_directories(serverRoot);
    git(serverRoot, {"init", "-q", "--bare", "-b", "main", "repo.git"});
    FakeGitHub server(base, serverRoot, {}, token);
    ASSERT_GT(server.port, 0);
    // A user whose git stores every credential it is handed in ~/.git-credentials,
    // once for every host and once more for this one.
    writeFileAtomically(home.home() + "/.gitconfig",
                        "[credential]\n\thelper = store\n"
                        "[credential \"http://127.0.0.1:" + std::to_string(server.port) +
                            "\"]\n\thelper = store --file " + home.home() + "/.host-credentials\n");

    std::string dir = initRepo(base, "repo");
    commitFile(dir, "a.txt", "1\n", "init");
    git(dir, {"remote", "add", "origin", server.url("/repo.git")});
    git(dir, {"config", "branch.main.remote", "origin"});
    git(dir, {"config", "branch.main.merge", "refs/heads/main"});

    ServiceRig rig;
    Uuid id = rig.projects->add(dir);
    auto broker = std::make_shared<GitCredentialBroker>();
    rig.deps.credentialBroker = broker;
    rig.deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
    rig.deps.environment = testGitEnvironment();
    rig.deps.gitHubWebHost = "127.0.0.1";  // the loopback server stands in for GitHub
    rig.start();
    auto askpassDirectoryIsEmpty = [&] {
        std::error_code ec;
        return !std::filesystem::exists(broker->tempDirectory()) || std::filesystem::is_empty(broker->tempDirectory(), ec);
    };

    struct Case {
        const char* name;
        std::optional<std::string> storedToken;
        std::string messagePrefix;
        bool pushed;
        bool tokenKept;
    };
    const Case cases[] = {
        {"no token: sign-in message and no git", std::nullopt, "Push を実行するには GitHub にサインインしてください",
         false, false},
        {"wrong token: authentication failed and the token forgotten", std::string("gho_wrong"),
         "Git 認証に失敗しました。再度 GitHub にサインインしてください。\n", false, false},
        {"right token: pushed", token, "Push が完了しました", true, true},
    };
    // Every log line of the runs, debug and info included, all on stderr.
    ScopedEnv verboseLog("G_MESSAGES_DEBUG", "all");
    g_log_writer_default_set_use_stderr(TRUE);
    std::string logPath = base.file("velko.log");
    std::optional<CapturedStderr> capture(std::in_place, logPath);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        rig.events->clear();
        rig.auth->token = c.storedToken ? std::optional<GitAuthToken>(GitAuthToken{*c.storedToken, "octo", std::nullopt})
                                    : std::nullopt;
        rig.service->push(id);
        rig.settle();
        EXPECT_EQ(rig.only("git/result")["message"].get<std::string>().rfind(c.messagePrefix, 0), 0u);
        EXPECT_EQ(rig.auth->token.has_value(), c.tokenKept);
        EXPECT_EQ(git(serverRoot + "/repo.git", {"rev-parse", "--verify", "-q", "main"}, c.pushed ? 0 : 1).empty(),
                  !c.pushed);
        EXPECT_TRUE(askpassDirectoryIsEmpty());
        // Only a push that went through refreshes the status.
        EXPECT_EQ(rig.events->eventsOfType("git/status").empty(), !c.pushed);
        if (c.storedToken && !c.tokenKept) {
            Json status = rig.only("github/oauth/status");
            EXPECT_EQ(status["status"], "disconnected");
            EXPECT_EQ(status["reason"], "tokenInvalid");
            EXPECT_EQ(status["account"]["login"], "octo");
        }
        for (const auto& e : rig.events->events()) {
            EXPECT_EQ(dumpJson(e.payload).find(token), std::string::npos) << e.type;
            EXPECT_EQ(dumpJson(e.payload).find("gho_wrong"), std::string::npos) << e.type;
        }
    }

    capture.reset();
    std::string log = readFile(logPath);
    EXPECT_NE(log.find("git push exited with status"), std::string::npos) << log;  // the sweep saw the runs
    EXPECT_EQ(log.find(token), std::string::npos);
    EXPECT_EQ(log.find("gho_wrong"), std::string::npos);

    // Nothing on disk holds the token: not the user's credential store, not the
    // askpass folder, not the repositories, caches or data of this HOME.
    EXPECT_FALSE(treeHolds(home.home(), token));
    EXPECT_FALSE(treeHolds(home.home(), "gho_wrong"));
    EXPECT_FALSE(treeHolds(base.path(), token));
    EXPECT_FALSE(std::filesystem::exists(home.home() + "/.git-credentials"));
    EXPECT_FALSE(std::filesystem::exists(home.home() + "/.host-credentials"));
}
