// The account as the page and the security log see it: status payloads, the
// messages, and one log line for each thing that happened.
#include <gtest/gtest.h>

#include "github/AccountTestSupport.h"
#include "shell/BridgeHarness.h"
#include "shell/ServiceAdapters.h"

using namespace velko;
using namespace velko::test;

TEST(AccountBridge, EachOutcomeReachesThePageAndTheSecurityLogOnce) {
    Account a;  // first, so the bridge's main queue is the one installed
    BridgeHarness h;
    auto log = std::make_shared<RecordingSecurityLog>();
    auto run = [&] {
        while (h.main->runUntilIdle() + a.worker->runUntilIdle() > 0) {
        }
    };

    // Before anything is attached: no configuration, no sign-in.
    h.send(R"({"type":"github/oauth/start"})");
    EXPECT_EQ(h.events(), std::vector<std::string>{
                              R"x(github/oauth/error {"message":"GitHub サインインが設定されていません (OAuth クライアント ID がありません)","recoverable":true})x"});
    h.bridge->setAuthManager(a.auth);
    h.bridge->setSecurityLogger(log);
    h.bridge->attach(a.coordinator, a.refresher);

    struct Step {
        const char* name;
        std::function<void()> act;
        std::vector<std::string> events;  // type and the payload's keys worth reading
        std::vector<std::string> log;
    };
    auto expired = [&] { a.store("gho_secret", "ghr_secret", a.now); };
    const Step steps[] = {
        {"sign-in", [&] {
             h.send(R"({"type":"github/oauth/start"})");
             run();
             a.sessions->made.back()->completion("http://127.0.0.1:9/cb?code=c&state=" + a.sessions->query("state"));
             run();
         },
         {"github/oauth/status connected octo until 2026-03-01T18:00:00.000Z"},
         {"oauthStart", "oauthSuccess @octo expiresAt=2026-03-01T18:00:00.000Z scopes=repo"}},
        {"a stray redirect", [&] { a.coordinator->receiveCallback("http://127.0.0.1:9/cb?code=c&state=x"); run(); },
         {"github/oauth/error GitHub サインインに失敗しました: missingState"}, {"oauthFailure @octo error=missingState"}},
        {"a refresh", [&] {
             expired();
             a.client->onRefresh = [](const std::string&) { return tokens("gho_B", "ghr_B", 0); };
             a.refresher->evaluateRefresh();
             run();
         },
         {"github/oauth/status connected octo refreshed"}, {"oauthRefreshSuccess @octo expiresAt=4001-01-01T00:00:00.000Z"}},
        {"a refused refresh", [&] {
             expired();
             a.client->onRefresh = [](const std::string&) { return fail(OAuthError::invalidResponse); };
             a.refresher->evaluateRefresh();
             run();
         },
         {"github/oauth/status disconnected refreshFailed",
          "github/oauth/error GitHub トークンの更新に失敗しました: invalidResponse"},
         {"oauthRefreshFailure error=invalidResponse"}},
        {"the git server refused the token", [&] {
             makeGitEventSink(h.bridge)->dispatchEvent(
                 "github/oauth/status",
                 OrderedJson{{"status", "disconnected"}, {"account", {{"login", "octo"}}}, {"reason", "tokenInvalid"}});
             run();
         },
         {"github/oauth/status disconnected octo tokenInvalid"}, {"oauthTokenInvalid @octo reason=tokenInvalid"}},
        {"logout", [&] {
             expired();
             a.refresher->start();
             h.send(R"({"type":"github/oauth/logout"})");
         },
         {"github/oauth/status disconnected userLogout"}, {"oauthLogout @octo"}},
        {"status request after logout", [&] { h.send(R"({"type":"github/oauth/requestStatus"})"); },
         {"github/oauth/status disconnected"}, {}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        h.clear();
        log->lines.clear();
        step.act();
        std::vector<std::string> events;
        for (const auto& envelope : h.view->envelopes()) {
            const Json& p = envelope["payload"];
            std::string line = envelope["type"].get<std::string>();
            if (p.contains("message")) line += " " + p["message"].get<std::string>();
            if (p.contains("status")) line += " " + p["status"].get<std::string>();
            if (p.contains("account")) line += " " + p["account"]["login"].get<std::string>();
            if (p.contains("expiresAt")) line += " until " + p["expiresAt"].get<std::string>();
            if (p.contains("refreshed")) line += " refreshed";
            if (p.contains("reason")) line += " " + p["reason"].get<std::string>();
            events.push_back(line);
            EXPECT_EQ(p.dump().find("gh"), std::string::npos) << "a token in an event";
        }
        EXPECT_EQ(events, step.events);
        EXPECT_EQ(log->lines, step.log);
    }
    EXPECT_FALSE(a.auth->loadRecord());
    EXPECT_FALSE(a.refresher->isRunning());
}
