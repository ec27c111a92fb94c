// The account as a new user meets it, through the real program: `velko
// --headless` with a temporary HOME, a private keyring, the fake GitHub and a
// default browser of the test's own. No hook in the program: the browser
// fetches the authorize URL and hands the redirect to `gio open`, which
// brings it back to the browser, which calls velko's loopback listener.
#include <gtest/gtest.h>

#include "core/Base64.h"
#include "core/Paths.h"
#include "integration/AccountTestSupport.h"
#include "integration/GitTestRepos.h"
#include "support/HeadlessProcess.h"

using namespace velko;
using namespace velko::test;

TEST(AccountEndToEnd, SignsInPushesWithTheTokenStaysConnectedAndSignsOutLeavingNoTrace) {
    IsolatedHome home;
    VELKO_IN_PRIVATE_KEYRING();
    TempDir base;
    ScopedEnv configHome("XDG_CONFIG_HOME", home.home() + "/config");
    ScopedEnv verbose("G_MESSAGES_DEBUG", "all");

    installTestBrowser(base);

    // GitHub, and a project whose origin is on it.
    std::string serverRoot = base.file("srv");
    createDirectories(serverRoot);
    git(serverRoot, {"init", "-q", "--bare", "-b", "main", "repo.git"});
    FakeGitHub github(base, serverRoot);
    ASSERT_GT(github.port, 0);
    std::string repo = initRepo(base, "repo");
    commitFile(repo, "a.txt", "1\n", "init");
    git(repo, {"remote", "add", "origin", github.url("/repo.git")});
    git(repo, {"config", "branch.main.remote", "origin"});
    git(repo, {"config", "branch.main.merge", "refs/heads/main"});

    // A port free a moment ago for velko's loopback listener.
    const std::string freePort = outputOf({"python3", "-c", "import socket; s = socket.socket(); "
                                           "s.bind(('127.0.0.1', 0)); print(s.getsockname()[1], end='')"});
    std::vector<std::unique_ptr<ScopedEnv>> env;
    for (const auto& [key, value] : testGitEnvironment()) env.push_back(std::make_unique<ScopedEnv>(key.c_str(), value));
    const std::string secret = "velkoTestClientSecret42";
    for (auto [key, value] : std::initializer_list<std::pair<const char*, std::string>>{
             {"VELKO_GITHUB_WEB_URL", github.url()},
             {"VELKO_GITHUB_API_URL", github.url("/api")},
             {"VELKO_GITHUB_OAUTH_CLIENT_ID_DEV", "Iv1.velkoTest"},
             {"VELKO_GITHUB_OAUTH_CLIENT_SECRET_DEV", secret},
             {"VELKO_GITHUB_OAUTH_REDIRECT_URI", "http://127.0.0.1:" + freePort + "/callback"},
             {"ZDOTDIR", base.path()}})
        env.push_back(std::make_unique<ScopedEnv>(key, value));

    std::string stderrPath = base.file("velko-stderr.log");
    std::vector<Json> events;
    auto status = [](const std::string& value) {
        return [value](const Json& e) { return e["type"] == "github/oauth/status" && e["payload"]["status"] == value; };
    };
    {
        CapturedStderr capture(stderrPath);
        HeadlessProcess velko({"--pick-folder", repo});
        auto first = velko.waitForType("github/oauth/status");
        ASSERT_TRUE(first);
        EXPECT_EQ((*first)["payload"], Json({{"status", "disconnected"}}));

        velko.send("github/oauth/start", OrderedJson::object());
        auto connected = velko.waitFor(status("connected"), std::chrono::seconds(30));
        ASSERT_TRUE(connected) << "no sign-in:\n" << readFile(stderrPath);
        EXPECT_EQ((*connected)["payload"]["account"]["login"], "octo");
        EXPECT_TRUE((*connected)["payload"].contains("expiresAt"));

        velko.send("project/open", OrderedJson::object());
        auto opened = velko.waitFor([](const Json& e) {
            return e["type"] == "app/config" && !e["payload"]["projects"].empty();
        });
        ASSERT_TRUE(opened);
        const std::string projectId = (*opened)["payload"]["projects"][0]["id"];
        velko.send("git/push", {{"projectId", projectId}});
        auto pushed = velko.waitForType("git/result", std::chrono::seconds(30));
        ASSERT_TRUE(pushed);
        EXPECT_EQ((*pushed)["payload"]["success"], true) << (*pushed)["payload"];
        EXPECT_FALSE(git(serverRoot + "/repo.git", {"rev-parse", "main"}).empty());

        // What a shell of the user sees in its environment.
        velko.send("terminal/create", {{"projectId", projectId}, {"title", "env"}});
        auto created = velko.waitFor([](const Json& e) { return e["type"] == "terminal/created" && e["payload"]["title"] == "env"; });
        ASSERT_TRUE(created);
        std::string session = (*created)["payload"]["sessionId"], output;
        velko.send("terminal/input", {{"sessionId", session}, {"data", "env; echo EN''D\r"}});
        ASSERT_TRUE(velko.waitFor([&](const Json& e) {
            if (e["type"] == "terminal/output" && e["payload"]["sessionId"] == session)
                output += base64Decode(e["payload"]["chunk"].get<std::string>()).value_or("");
            return output.find("END") != std::string::npos;
        }));
        EXPECT_NE(output.find("HOME="), std::string::npos);
        for (const char* needle : {"gho_velkoE2E", "ghr_velkoE2E", "VELKO_GITHUB_OAUTH_CLIENT_SECRET", secret.c_str()})
            EXPECT_EQ(output.find(needle), std::string::npos) << needle;
        EXPECT_EQ(velko.finish(), 0);
        events = velko.events();
    }
    {
        CapturedStderr capture(stderrPath);
        HeadlessProcess velko;
        auto first = velko.waitForType("github/oauth/status");
        ASSERT_TRUE(first);
        EXPECT_EQ((*first)["payload"]["status"], "connected") << "the second run starts signed in";
        velko.send("github/oauth/logout", OrderedJson::object());
        auto out = velko.waitFor(status("disconnected"));
        ASSERT_TRUE(out);
        EXPECT_EQ((*out)["payload"]["reason"], "userLogout");
        EXPECT_EQ(velko.finish(), 0);
        events.insert(events.end(), velko.events().begin(), velko.events().end());
    }

    EXPECT_EQ(keyringItems("app.velko.github.oauth"), 0u) << "the item outlived the logout";

    std::string log = readFile(cacheDirectory() + "/security-events.log");
    for (const char* action : {"\"oauthStart\"", "\"oauthSuccess\"", "\"oauthLogout\""})
        EXPECT_NE(log.find(action), std::string::npos) << action << "\n" << log;
    EXPECT_NE(log.find("\"scopes\":\"gist repo\""), std::string::npos) << log;

    // Nothing kept the tokens or the client secret: not HOME (data, cache,
    // temporary files), the project, velko's standard error, or any event.
    for (const std::string& needle : {std::string("gho_velkoE2E"), std::string("ghr_velkoE2E"), secret}) {
        SCOPED_TRACE(needle);
        EXPECT_FALSE(treeHolds(home.home(), needle));
        EXPECT_FALSE(treeHolds(repo, needle));
        EXPECT_EQ(readFile(stderrPath).find(needle), std::string::npos);
        for (const auto& e : events) EXPECT_EQ(e.dump().find(needle), std::string::npos) << e["type"];
    }
    EXPECT_NE(readFile(stderrPath).find("signed in"), std::string::npos) << "the sweep saw velko's log";
}
