#pragma once
// GitAuthProviding: where the git engine gets the GitHub token. The account
// subsystem implements it over the keychain; until it exists the program uses
// NoGitAuthProvider, so GitHub remotes over HTTPS answer with the sign-in
// message and ssh or other remotes work as they always do.
//
// Implementations must be callable from the git queue.

#include <optional>
#include <string>

namespace velko {

// The part of the stored OAuth record the git engine reads.
struct GitAuthToken {
    std::string accessToken;
    std::optional<std::string> accountLogin;
    std::optional<std::string> accountAvatarURL;
};

class GitAuthProviding {
public:
    virtual ~GitAuthProviding() = default;
    virtual std::optional<GitAuthToken> loadToken() = 0;
    // Forgets the stored token after the server refused it.
    virtual void deleteToken() = 0;
};

class NoGitAuthProvider final : public GitAuthProviding {
public:
    std::optional<GitAuthToken> loadToken() override { return std::nullopt; }
    void deleteToken() override {}
};

}  // namespace velko
