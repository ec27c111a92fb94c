// The sign-in flow, the refresher and the races between them and the git
// engine, over fakes of the browser, GitHub and the keyring.
#include <gtest/gtest.h>

#include "git/GitTestSupport.h"
#include "github/AccountTestSupport.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace velko::test;

TEST(GitHubOAuthCoordinator, CallbacksAreCheckedOnceAgainstTheirOwnFlow) {
    // Steps: "start"; "wait <seconds>"; "cb <query>" completes the newest session; "stray <query>"
    // arrives without a session. "{state}" is the newest flow's state, "{first}" the first's.
    struct Case {
        const char* name;
        std::vector<std::string> steps;
        std::vector<std::string> journal;
        std::function<void(Account&)> setup = {};
    };
    const Case cases[] = {
        {"success: exchanged, user read, stored, refresher started", {"start", "cb code=c1&state={state}"},
         {"signedIn gho_A @octo"}},
        {"a wrong state is reported twice and spends the flow",
         {"start", "cb code=c1&state=WRONG", "stray code=c1&state={first}"},
         {"stateMismatch", "stateMismatch", "missingState"}},
        {"no code, after the state check", {"start", "cb state={state}", "stray code=c1&state={first}"},
         {"missingCode", "missingCode", "missingState"}},
        {"the user declined", {"start", "cb error=access_denied&state={state}"}, {"missingCode", "missingCode"}},
        {"no state at all", {"start", "cb code=c1"}, {"missingState"}},
        {"a replayed URL after success", {"start", "cb code=c1&state={state}", "stray code=c1&state={first}"},
         {"signedIn gho_A @octo", "missingState"}},
        {"a stray URL with no flow running", {"stray code=c1&state=S"}, {"missingState"}},
        {"just inside ten minutes", {"start", "wait 599", "cb code=c1&state={state}"}, {"signedIn gho_A @octo"}},
        {"ten minutes: the flow ends", {"start", "wait 600", "stray code=c1&state={first}"},
         {"timedOut", "missingState"}},
        {"the first flow's URL after a second start", {"start", "start", "stray code=c1&state={first}"},
         {"stateMismatch", "stateMismatch"}},
        {"the user cannot be read: signed in without a name", {"start", "cb code=c1&state={state}"},
         {"signedIn gho_A @-"}, [](Account& a) { a.client->user = fail(OAuthError::userFetchFailed); }},
        {"a refused code", {"start", "cb code=c1&state={state}"}, {"decodingFailed"},
         [](Account& a) { a.client->onExchange = [] { return fail(OAuthError::decodingFailed); }; }},
        {"a locked keyring is found before the browser opens", {"start"}, {"keyringLocked"},
         [](Account& a) { a.keychain->failure = OAuthError::keyringLocked; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Account a;
        if (c.setup) c.setup(a);
        std::string first;
        for (std::string step : c.steps) {
            if (step == "start") {
                a.coordinator->startAuthorization();
                a.run();
                if (first.empty() && !a.sessions->made.empty()) first = a.sessions->query("state");
                continue;
            }
            if (step.rfind("wait ", 0) == 0) {
                a.main->advance(std::chrono::seconds(std::stoi(step.substr(5))));
                continue;
            }
            for (auto [key, value] : {std::pair<std::string, std::string>{"{first}", first},
                                      {"{state}", a.sessions->made.empty() ? "" : a.sessions->query("state")}}) {
                if (auto at = step.find(key); at != std::string::npos) step.replace(at, key.size(), value);
            }
            std::string url = "http://127.0.0.1:9/cb?" + step.substr(step.find(' ') + 1);
            if (step.rfind("cb ", 0) == 0)
                a.sessions->made.back()->completion(url);
            else
                a.coordinator->receiveCallback(url);
            a.run();
        }
        EXPECT_EQ(a.journal->lines, c.journal);
        bool signedIn = !c.journal.empty() && c.journal[0].rfind("signedIn", 0) == 0;
        EXPECT_EQ(a.stored(), signedIn ? "gho_A/ghr_A" : "-");
        EXPECT_EQ(a.refresher->isRunning(), signedIn);
        EXPECT_FALSE(a.coordinator->isPending());
        if (c.setup && a.keychain->failure) {
            EXPECT_TRUE(a.sessions->made.empty());
        }
    }
}

TEST(GitTokenRefresher, RefreshesWithinFiveMinutesOfExpiryAndOnlyWhatItSpent) {
    using std::chrono::seconds;
    struct Case {
        const char* name;
        std::string refreshToken;
        seconds expiresIn;
        std::function<Result<OAuthTokenResponse, OAuthError>(Account&)> answer;
        std::string stored;
        std::vector<std::string> journal;
    };
    auto rotated = [](Account&) -> Result<OAuthTokenResponse, OAuthError> { return tokens("gho_B", "ghr_B", 28800); };
    const Case cases[] = {
        {"301 s before expiry: not yet", "ghr_A", seconds(301), rotated, "gho_A/ghr_A", {}},
        {"300 s before expiry: refreshed", "ghr_A", seconds(300), rotated, "gho_B/ghr_B", {"refreshed gho_B"}},
        {"already expired: refreshed", "ghr_A", seconds(-60), rotated, "gho_B/ghr_B", {"refreshed gho_B"}},
        {"no refresh token: kept until refused", "", seconds(10), rotated, "gho_A/", {}},
        {"refused: the token is gone", "ghr_A", seconds(10),
         [](Account&) -> Result<OAuthTokenResponse, OAuthError> { return fail(OAuthError::invalidResponse); }, "-",
         {"refreshFailed invalidResponse"}},
        {"a logout during the call wins", "ghr_A", seconds(10),
         [](Account& a) -> Result<OAuthTokenResponse, OAuthError> {
             a.auth->remove();
             return tokens("gho_B", "ghr_B", 28800);
         },
         "-", {}},
        {"a new sign-in during a failing call wins", "ghr_A", seconds(10),
         [](Account& a) -> Result<OAuthTokenResponse, OAuthError> {
             a.store("gho_N", "ghr_N", a.now + std::chrono::hours(8));
             return fail(OAuthError::cannotConnect);
         },
         "gho_N/ghr_N", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Account a;
        a.store("gho_A", c.refreshToken, a.now + c.expiresIn);
        a.client->onRefresh = [&](const std::string&) { return c.answer(a); };
        a.refresher->start();
        a.refreshQueue->advance(std::chrono::seconds(59));
        EXPECT_TRUE(a.client->calls.empty());  // the first tick is a full minute away
        a.refreshQueue->advance(std::chrono::seconds(1));
        EXPECT_EQ(a.stored(), c.stored);
        EXPECT_EQ(a.journal->lines, c.journal);
        a.refresher->stop();
        a.refreshQueue->advance(std::chrono::minutes(5));
        EXPECT_LE(a.client->calls.size(), 1u);
    }
}

TEST(GitAuthManager, AGitRunRefusedWithATokenReplacedMeanwhileIsTriedOnceMoreWithTheNewOne) {
    // (A refused token still stored is forgotten: the git service's own tests.)
    Account a;
    a.store("gho_A", "ghr_A", a.now + std::chrono::hours(1));
    std::vector<std::string> pushedWith;
    struct Runner final : GitProcessRunning {
        std::function<GitProcessExecutionResult(const std::vector<std::string>&, const GitEnvironment&)> onRun;
        GitProcessExecutionResult run(const std::vector<std::string>& args, const std::string&,
                                      const GitEnvironment& env) override {
            return onRun(args, env);
        }
    };
    auto runner = std::make_shared<Runner>();
    runner->onRun = [&](const std::vector<std::string>& args, const GitEnvironment& env) -> GitProcessExecutionResult {
        if (args.size() < 2 || args[1] != "push") return {0, "", ""};
        pushedWith.push_back(env.at("VELKO_GITHUB_TOKEN"));
        if (pushedWith.back() == "gho_B") return {0, "", ""};
        a.store("gho_B", "ghr_B", a.now + std::chrono::hours(8));  // a refresh while git ran
        return {128, "", "remote: Invalid username or token.\nfatal: Authentication failed for 'x'"};
    };
    TempDir repo;
    repo.write(".git/config", "[remote \"origin\"]\n\turl = https://github.com/o/r.git\n");
    ServiceRig rig;
    rig.deps.authProvider = a.auth;
    rig.deps.credentialBroker = std::make_shared<FakeBroker>();
    rig.deps.processRunner = runner;
    rig.start();
    rig.service->push(rig.projects->add(repo.path()));
    rig.settle();
    EXPECT_EQ(pushedWith, (std::vector<std::string>{"gho_A", "gho_B"}));
    EXPECT_EQ(a.stored(), "gho_B/ghr_B");
    EXPECT_TRUE(rig.events->eventsOfType("github/oauth/status").empty());
}
