#pragma once
// Typed failures of git runs and the texts the user sees for them, plus the
// small decisions taken on remote URLs and stderr text. Pure functions.

#include <optional>
#include <string>
#include <string_view>

namespace velko {

// GitHub's hosts, in one place so that tests can reason about them.
inline constexpr std::string_view kGitHubWebHost = "github.com";
inline constexpr std::string_view kGitHubApiHost = "api.github.com";

struct GitError {
    enum class Kind { LaunchFailed, CommandFailed, AuthenticationFailed, AuthenticationRequired };
    Kind kind = Kind::CommandFailed;
    std::string text;  // launch error, trimmed stderr, or untrimmed stderr of an auth failure

    static GitError launchFailed(std::string text) { return {Kind::LaunchFailed, std::move(text)}; }
    static GitError commandFailed(std::string text) { return {Kind::CommandFailed, std::move(text)}; }
    static GitError authenticationFailed(std::string text) { return {Kind::AuthenticationFailed, std::move(text)}; }
    static GitError authenticationRequired() { return {Kind::AuthenticationRequired, {}}; }

    std::string errorDescription() const;
};

// Git's own words for "this project has no usable remote" (and two cousins
// that the user sees the same way), mapped onto one message.
std::optional<std::string> friendlyMessageForGitCommandFailure(std::string_view stderrText);
bool isAuthenticationFailure(std::string_view stderrText);
// True for http(s) URLs on GitHub's web host or one of its subdomains: only
// those runs carry the token. ssh and scp-like remotes never do.
bool requiresGitHubOAuth(std::string_view remoteURL, std::string_view webHost = kGitHubWebHost);

inline constexpr const char* kMissingRemoteMessage = "リモートリポジトリがないプロジェクトです";

std::string toLower(std::string_view text);
// Trims blanks, tabs, carriage returns and line feeds (and the other ASCII spaces).
std::string_view trimWhitespace(std::string_view text);
// Trims blanks and tabs only.
std::string_view trimBlanks(std::string_view text);

}  // namespace velko
