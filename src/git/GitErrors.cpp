#include "git/GitErrors.h"

#include <array>

#include "git/GitMessages.h"
#include "git/GitText.h"

namespace velko {

std::string GitError::errorDescription() const {
    switch (kind) {
    case Kind::LaunchFailed:
        return std::string(gitmsg::kLaunchFailedPrefix) + text;
    case Kind::CommandFailed:
        return text.empty() ? std::string(gitmsg::kUnknownCommandError) : text;
    case Kind::AuthenticationFailed:
        return text.empty() ? std::string(gitmsg::kAuthenticationFailed) : text;
    case Kind::AuthenticationRequired:
        return std::string(gitmsg::kSignInRequired);
    }
    return text;
}

std::optional<std::string> friendlyMessageForGitCommandFailure(std::string_view stderrText) {
    static constexpr std::array<std::string_view, 12> kMarkers = {
        "no remote repository",
        "no configured push destination",
        "no remote configured",
        "no remote refs",
        "no such remote",
        "no upstream configured",
        "no tracking information for the current branch",
        "no tracking information",
        "no upstream",
        "not a git repository",
        "is outside repository",
        "unknown option `cached'",
    };
    std::string lower = toLower(stderrText);
    for (auto marker : kMarkers) {
        if (lower.find(marker) != std::string::npos) return std::string(gitmsg::kMissingRemote);
    }
    return std::nullopt;
}

bool isAuthenticationFailure(std::string_view stderrText) {
    std::string lower = toLower(stderrText);
    return lower.find("authentication failed") != std::string::npos || lower.find("http 401") != std::string::npos;
}

}  // namespace velko
