#pragma once
// GitBranchMapProvider: the branch map of a repository, computed from scratch
// by many small git commands: which branches exist (local and remote folded
// by name), which is the base, what each was branched from, whether and how
// it landed on the base, what is left to push, which sits in another
// worktree. It never asks the user anything; a command that fails degrades
// the one field it was for, and the map as a whole always comes back.
//
// Runs on the git queue, holding it for the whole map. The per-branch
// commands only read, so within one map they run up to `parallelism` at a
// time (git status, which may refresh the index, runs alone); two operations
// of the git queue still never overlap. About four to five git processes per
// branch; the analysis (GitBranchMap.h) adds none.

#include <cstdint>
#include <functional>

#include "core/Time.h"
#include "git/GitBranchMap.h"
#include "git/GitCommandContext.h"

namespace velko {

class GitBranchMapProvider {
public:
    struct Options {
        unsigned parallelism = 4;
        // The clock of `generatedAt` and of the priorities' 30 days.
        std::function<SystemTime()> now;
    };
    // `commands` must outlive the provider (both belong to the git service).
    GitBranchMapProvider(GitCommandContext& commands, Options options);

    GitBranchMap loadBranchMap(const GitProject& project, int64_t limit);

private:
    GitCommandContext& m_commands;
    Options m_options;
    Logger m_logger{"app.velko.git", "git-branch-map"};
};

}  // namespace velko
