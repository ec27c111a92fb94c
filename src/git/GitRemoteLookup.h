#pragma once
// Which URL the engine treats as a project's remote: the preferred remote,
// "origin", the upstream's remote, the push default, in that order, read from
// ".git/config" first and from git itself where the file does not tell.
// Failures are silent: no URL means "no remote". Runs on a git queue.

#include <optional>
#include <string>

#include "git/GitCommandContext.h"

namespace velko {

std::optional<std::string> lookUpRemoteURL(GitCommandContext& commands, const GitProject& project,
                                           const std::optional<std::string>& preferredRemote = std::nullopt);

}  // namespace velko
