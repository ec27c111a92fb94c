#pragma once
// Fakes under the account code: an HTTP exchange that answers from a script,
// a GitHub client whose answers the test sets, a browser session factory
// that records what it was asked, and a logger that keeps its lines.

#include <functional>
#include <mutex>
#include <vector>

#include "core/MainQueue.h"
#include "github/GitHubOAuthCoordinator.h"
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

}  // namespace velko::test
