#pragma once
// GitHubOAuthEnvironment: the OAuth client's settings, from the process
// environment first, then resources/Config.json. For each value the first
// key present decides, even when its value is empty:
//
//   clientID      VELKO_GITHUB_OAUTH_CLIENT_ID_DEV, _PROD, GitHubOAuthClientIdDev, GitHubOAuthClientIdProd
//   clientSecret  VELKO_GITHUB_OAUTH_CLIENT_SECRET_DEV, _PROD, GitHubOAuthClientSecretDev, GitHubOAuthClientSecretProd
//   redirectURI   VELKO_GITHUB_OAUTH_REDIRECT_URI, GitHubOAuthRedirectURI        (default velko://oauth/callback)
//   scopes        VELKO_GITHUB_OAUTH_DEFAULT_SCOPES, GitHubOAuthDefaultScopes    (default repo)
//
// No client id, or an empty one: no environment, and the account runs
// without sign-in. Nothing is compiled in.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/Json.h"
#include "github/SecretText.h"

namespace velko {

struct GitHubOAuthEnvironment {
    static constexpr const char* kDefaultRedirectURI = "velko://oauth/callback";

    std::string clientID;
    std::optional<SecretText> clientSecret;
    std::string redirectURI;
    std::vector<std::string> scopes;

    // A variable's value when it is set (empty included), else nothing.
    using Lookup = std::function<std::optional<std::string>(const char* name)>;
    // `config` is the parsed Config.json; anything but an object counts as empty.
    static std::optional<GitHubOAuthEnvironment> resolve(const Lookup& environment, const Json* config);
    // The process environment (with the secrets taken aside at start) and
    // Config.json in `resourceDirectory`, if there is one.
    static std::optional<GitHubOAuthEnvironment> fromProcess(const std::optional<std::string>& resourceDirectory);

    // Takes the client secret variables out of the process environment and
    // keeps them for fromProcess(), so that no shell, git or browser started
    // later inherits them. Call once at the start of main, before any thread.
    static void withholdSecretsFromChildren();
};

// Each scope at its first occurrence, empty ones dropped, "offline_access"
// appended when missing.
std::vector<std::string> normalizeScopes(const std::vector<std::string>& scopes);

}  // namespace velko
