#include "github/GitHubOAuthEnvironment.h"

#include <algorithm>
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <map>

#include "core/Paths.h"

namespace velko {

namespace {

constexpr const char* kSecretVariables[] = {"VELKO_GITHUB_OAUTH_CLIENT_SECRET_DEV",
                                            "VELKO_GITHUB_OAUTH_CLIENT_SECRET_PROD"};

std::map<std::string, SecretText>& withheldSecrets() {
    static std::map<std::string, SecretText> secrets;
    return secrets;
}

// The first key present in the environment, then in the file; the file's
// value may be a text or (for scopes) a list of texts joined with blanks.
std::optional<std::string> firstPresent(const GitHubOAuthEnvironment::Lookup& environment,
                                        std::initializer_list<const char*> variables, const Json* config,
                                        std::initializer_list<const char*> keys) {
    for (const char* name : variables)
        if (auto value = environment(name)) return value;
    if (!config || !config->is_object()) return std::nullopt;
    for (const char* key : keys) {
        const Json* value = json::member(config, key);
        if (!value) continue;
        if (value->is_string()) return value->get<std::string>();
        if (value->is_array()) {
            std::string joined;
            for (const auto& item : *value)
                if (item.is_string()) joined += (joined.empty() ? "" : " ") + item.get<std::string>();
            return joined;
        }
    }
    return std::nullopt;
}

std::vector<std::string> splitScopes(const std::string& text) {
    std::vector<std::string> scopes;
    std::string piece;
    for (size_t i = 0; i <= text.size(); ++i) {
        char c = i < text.size() ? text[i] : ' ';
        if (c == ' ' || c == ',' || c == '\t' || c == '\n') {
            if (!piece.empty()) scopes.push_back(std::move(piece));
            piece.clear();
        } else {
            piece.push_back(c);
        }
    }
    return scopes;
}

}  // namespace

std::vector<std::string> normalizeScopes(const std::vector<std::string>& scopes) {
    std::vector<std::string> out;
    for (const auto& scope : scopes)
        if (!scope.empty() && std::find(out.begin(), out.end(), scope) == out.end()) out.push_back(scope);
    if (std::find(out.begin(), out.end(), "offline_access") == out.end()) out.push_back("offline_access");
    return out;
}

std::optional<GitHubOAuthEnvironment> GitHubOAuthEnvironment::resolve(const Lookup& environment, const Json* config) {
    auto clientID = firstPresent(environment, {"VELKO_GITHUB_OAUTH_CLIENT_ID_DEV", "VELKO_GITHUB_OAUTH_CLIENT_ID_PROD"},
                                 config, {"GitHubOAuthClientIdDev", "GitHubOAuthClientIdProd"});
    if (!clientID || clientID->empty()) return std::nullopt;
    GitHubOAuthEnvironment result;
    result.clientID = std::move(*clientID);
    auto secret = firstPresent(environment, {kSecretVariables[0], kSecretVariables[1]}, config,
                               {"GitHubOAuthClientSecretDev", "GitHubOAuthClientSecretProd"});
    if (secret) result.clientSecret = SecretText(std::move(*secret));
    result.redirectURI = firstPresent(environment, {"VELKO_GITHUB_OAUTH_REDIRECT_URI"}, config,
                                      {"GitHubOAuthRedirectURI"})
                             .value_or(kDefaultRedirectURI);
    auto scopes = firstPresent(environment, {"VELKO_GITHUB_OAUTH_DEFAULT_SCOPES"}, config,
                               {"GitHubOAuthDefaultScopes"})
                      .value_or("repo");
    result.scopes = splitScopes(scopes);
    if (std::find(result.scopes.begin(), result.scopes.end(), "offline_access") == result.scopes.end())
        result.scopes.push_back("offline_access");
    return result;
}

std::optional<GitHubOAuthEnvironment> GitHubOAuthEnvironment::fromProcess(
    const std::optional<std::string>& resourceDirectory) {
    std::optional<Json> config;
    std::string text;
    if (resourceDirectory && readWholeFile(*resourceDirectory + "/Config.json", text)) config = parseJson(text);
    wipe(text);
    Lookup environment = [](const char* name) -> std::optional<std::string> {
        auto& secrets = withheldSecrets();
        if (auto it = secrets.find(name); it != secrets.end()) return it->second.str();
        if (const char* value = std::getenv(name)) return std::string(value);
        return std::nullopt;
    };
    return resolve(environment, config ? &*config : nullptr);
}

void GitHubOAuthEnvironment::withholdSecretsFromChildren() {
    for (const char* name : kSecretVariables) {
        const char* value = std::getenv(name);
        if (!value) continue;
        withheldSecrets()[name] = SecretText(value);
        // The bytes in the environment block itself (also what /proc/self/environ shows).
        OPENSSL_cleanse(const_cast<char*>(value), std::strlen(value));
        unsetenv(name);
    }
}

}  // namespace velko
