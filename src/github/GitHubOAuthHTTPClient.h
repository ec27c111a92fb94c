#pragma once
// The three HTTP exchanges of the account: a code for tokens, a refresh, and
// the signed-in user. Blocking by design: callers run them on a worker queue.
// Implemented over the shared HttpRequesting (libcurl); tests fake either side.

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "core/HttpRequesting.h"
#include "core/Result.h"
#include "github/GitHubEndpoints.h"
#include "github/OAuthError.h"
#include "github/OAuthTokenRecord.h"

namespace velko {

struct GitHubUser {
    std::string login;
    std::optional<std::string> avatarUrl;
};

class GitHubOAuthHTTPClient {
public:
    virtual ~GitHubOAuthHTTPClient() = default;
    virtual Result<OAuthTokenResponse, OAuthError> exchangeCode(const SecretText& code,
                                                                const SecretText& codeVerifier) = 0;
    virtual Result<OAuthTokenResponse, OAuthError> refreshToken(const SecretText& refreshToken) = 0;
    virtual Result<GitHubUser, OAuthError> fetchUser(const SecretText& accessToken) = 0;
};

// Immutable once built; any thread. Status codes other than 200 are never
// retried here. GitHub's error bodies are not read: a 200 with "error" and no
// "scope" is a decoding failure.
class HttpGitHubOAuthClient final : public GitHubOAuthHTTPClient {
public:
    struct Settings {
        GitHubEndpoints endpoints;
        std::string clientID;
        std::optional<SecretText> clientSecret;  // absent for a public client
        std::string redirectURI;
        std::chrono::milliseconds timeout{60'000};  // connect, idle and total
    };
    static constexpr size_t kMaxResponseBytes = 1024 * 1024;

    HttpGitHubOAuthClient(Settings settings, std::shared_ptr<HttpRequesting> http)
        : m_settings(std::move(settings)), m_http(std::move(http)) {}

    Result<OAuthTokenResponse, OAuthError> exchangeCode(const SecretText& code,
                                                        const SecretText& codeVerifier) override;
    Result<OAuthTokenResponse, OAuthError> refreshToken(const SecretText& refreshToken) override;
    Result<GitHubUser, OAuthError> fetchUser(const SecretText& accessToken) override;

    // "key=value&…" with both sides percent-encoded: the URL query set minus
    // "&" and "=" stays as it is, so "+" passes unencoded.
    static std::string formEncode(const std::vector<std::pair<std::string, const std::string*>>& parameters);

private:
    enum class Grant { AuthorizationCode, RefreshToken };
    Result<OAuthTokenResponse, OAuthError> requestToken(Grant grant,
                                                        std::vector<std::pair<std::string, const std::string*>> form);
    HttpRequest request(HttpMethod method, std::string url) const;

    Settings m_settings;
    std::shared_ptr<HttpRequesting> m_http;
};

}  // namespace velko
