#pragma once
// GitAuthProviding: where the git engine gets the GitHub token. The account
// subsystem implements it over the token store (GitAuthManager); without one
// the program uses NoGitAuthProvider, so GitHub remotes over HTTPS answer with
// the sign-in message and ssh or other remotes work as they always do.
//
// Implementations must be callable from the git queue.

#include <string.h>

#include <optional>
#include <string>

namespace velko {

// The part of the stored OAuth record the git engine reads. The token's bytes
// are wiped when the value goes away.
struct GitAuthToken {
    std::string accessToken;
    std::optional<std::string> accountLogin;
    std::optional<std::string> accountAvatarURL;

    ~GitAuthToken() { explicit_bzero(accessToken.data(), accessToken.size()); }
};

class GitAuthProviding {
public:
    virtual ~GitAuthProviding() = default;
    virtual std::optional<GitAuthToken> loadToken() = 0;
    // Forgets the stored token after the server refused `accessToken`, the
    // token the failed run used. False when another token has been stored
    // since (a refresh, a new sign-in): that one stays, and the run may be
    // tried once more with it.
    virtual bool deleteToken(const std::string& accessToken) = 0;
};

class NoGitAuthProvider final : public GitAuthProviding {
public:
    std::optional<GitAuthToken> loadToken() override { return std::nullopt; }
    bool deleteToken(const std::string&) override { return true; }
};

}  // namespace velko
