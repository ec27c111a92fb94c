#pragma once
// Fakes under the account code: an HTTP exchange that answers from a script,
// a GitHub client whose answers the test sets, a browser session factory
// that records what it was asked, a logger that keeps its lines, and the
// account's flow built over them.

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <vector>

#include "core/MainQueue.h"
#include "github/GitHubOAuthCoordinator.h"
#include "github/GitTokenRefresher.h"
#include "telemetry/SecurityEventLogging.h"

namespace velko::test {

struct FakeHttp final : HttpRequesting {
    std::function<HttpResult(const HttpRequest&)> answer;
    std::vector<HttpRequest> requests;
    HttpResult perform(const HttpRequest& request) override {
        requests.push_back(request);
        return answer(request);
    }
};

inline OAuthTokenResponse tokens(std::string access, std::string refresh, int64_t expiresIn,
                                 std::string scope = "repo") {
    return {SecretText(std::move(access)), SecretText(std::move(refresh)), std::move(scope), "bearer", expiresIn};
}

struct FakeClient final : GitHubOAuthHTTPClient {
    std::function<Result<OAuthTokenResponse, OAuthError>()> onExchange = [] { return tokens("gho_A", "ghr_A", 28800); };
    std::function<Result<OAuthTokenResponse, OAuthError>(const std::string&)> onRefresh;
    Result<GitHubUser, OAuthError> user = GitHubUser{"octo", "https://avatars/octo"};
    std::vector<std::string> calls;
    Result<OAuthTokenResponse, OAuthError> exchangeCode(const SecretText& code, const SecretText&) override {
        calls.push_back("exchange " + code.str());
        return onExchange();
    }
    Result<OAuthTokenResponse, OAuthError> refreshToken(const SecretText& refresh) override {
        calls.push_back("refresh " + refresh.str());
        return onRefresh(refresh.str());
    }
    Result<GitHubUser, OAuthError> fetchUser(const SecretText&) override { return user; }
};

struct FakeSessions final : OAuthSessionFactory {
    struct Session final : OAuthSession {
        std::string url;
        Completion completion;
        bool started = false, cancelled = false;
        void start() override { started = true; }
        void cancel() override { cancelled = true; }
    };
    std::vector<std::shared_ptr<Session>> made;
    std::shared_ptr<OAuthSession> makeSession(const std::string& url, const std::string&, Completion c) override {
        made.push_back(std::make_shared<Session>());
        made.back()->url = url;
        made.back()->completion = std::move(c);
        return made.back();
    }
    // The query value of `name` in the last session's authorize URL.
    std::string query(const std::string& name) const {
        const std::string& url = made.back()->url;
        size_t at = url.find("&" + name + "=");
        if (at == std::string::npos) at = url.find("?" + name + "=");
        size_t start = at + name.size() + 2;
        return url.substr(start, url.find('&', start) - start);
    }
};

struct RecordingSecurityLog final : SecurityEventLogging {
    std::vector<std::string> lines;
    void log(SecurityAction action, std::optional<std::string> login, std::optional<Metadata> metadata) override {
        std::string line(securityActionName(action));
        if (login) line += " @" + *login;
        if (metadata)
            for (const auto& [k, v] : *metadata) line += " " + k + "=" + v;
        lines.push_back(line);
    }
};

struct AccountJournal final : GitHubOAuthCoordinatorDelegate, GitTokenRefresherDelegate {
    std::vector<std::string> lines;
    void gitHubOAuthCoordinatorDidComplete(const OAuthTokenRecord& r) override {
        lines.push_back("signedIn " + r.accessToken.str() + " @" + r.accountLogin.value_or("-"));
    }
    void gitHubOAuthCoordinatorDidFail(OAuthError e) override { lines.push_back(std::string(oauthErrorName(e))); }
    void gitTokenRefresherDidRefresh(const OAuthTokenRecord& r) override { lines.push_back("refreshed " + r.accessToken.str()); }
    void gitTokenRefresherDidFail(OAuthError e) override { lines.push_back("refreshFailed " + std::string(oauthErrorName(e))); }
};

// The sign-in flow and the refresher over the fakes above, on hand-run queues,
// both telling one journal what became of them.
struct Account {
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<ManualQueue> worker = std::make_shared<ManualQueue>();
    std::shared_ptr<ManualQueue> refreshQueue = std::make_shared<ManualQueue>();
    std::shared_ptr<MemoryKeychainStore> keychain = std::make_shared<MemoryKeychainStore>();
    std::shared_ptr<GitAuthManager> auth = std::make_shared<GitAuthManager>(keychain);
    std::shared_ptr<FakeClient> client = std::make_shared<FakeClient>();
    std::shared_ptr<FakeSessions> sessions = std::make_shared<FakeSessions>();
    OAuthTime now = *parseOAuthTime("2026-03-01T10:00:00Z");
    std::shared_ptr<GitTokenRefresher> refresher = std::make_shared<GitTokenRefresher>(
        auth, client, std::make_shared<QueueRefreshScheduler>(refreshQueue), [this] { return now; });
    std::shared_ptr<GitHubOAuthCoordinator> coordinator;
    std::shared_ptr<AccountJournal> journal = std::make_shared<AccountJournal>();

    Account() {
        setMainQueue(main);
        GitHubOAuthCoordinator::Collaborators c{auth, client, refresher, sessions, worker, [this] { return now; }};
        coordinator = std::make_shared<GitHubOAuthCoordinator>(
            GitHubOAuthCoordinator::Configuration{"cid", "http://127.0.0.1:9/cb", {"repo"}, GitHubEndpoints()}, c);
        coordinator->setDelegate(journal);
        refresher->setDelegate(journal);
    }
    void run() {
        while (main->runUntilIdle() + worker->runUntilIdle() > 0) {
        }
    }
    void store(std::string access, std::string refresh, OAuthTime expiresAt) {
        OAuthTokenRecord r;
        r.accessToken = SecretText(std::move(access));
        r.refreshToken = SecretText(std::move(refresh));
        r.expiresAt = expiresAt;
        r.tokenType = "bearer";
        r.accountLogin = "octo";
        ASSERT_TRUE(auth->save(r));
    }
    std::string stored() {
        auto r = auth->loadRecord();
        return r ? r->accessToken.str() + "/" + r->refreshToken.str() : "-";
    }
};

}  // namespace velko::test
