#pragma once
// Typed failures of git runs, and the reading of git's stderr that decides how
// a failure is shown. git children speak English to us whatever the user's
// locale (see gitEnvironment), so these words can be matched. Pure functions.

#include <optional>
#include <string>
#include <string_view>

namespace velko {

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

}  // namespace velko
