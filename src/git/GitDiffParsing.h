#pragma once
// Pieces of the diff views that need no process: argument vectors for each
// stage and mode, the numstat parser and the rename-path normaliser. Never
// fail; partial input gives partial sums.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko {

enum class GitDiffStage { Staged, Unstaged, Head };
enum class GitDiffMode { Numstat, Patch };

const char* toString(GitDiffStage stage);
// "staged", "unstaged", "head"; anything else is unstaged.
GitDiffStage diffStageFromString(std::string_view text);

struct GitDiffTarget {
    std::string path;  // empty for the whole repository
    GitDiffStage stage = GitDiffStage::Unstaged;
};

struct GitNumstat {
    int64_t additions = 0;
    int64_t deletions = 0;
    bool isBinary = false;
    friend bool operator==(const GitNumstat&, const GitNumstat&) = default;
};

GitNumstat parseNumstat(std::string_view text);
std::string normalizeRenamedPath(std::string_view text);

// Arguments behind "git".
std::vector<std::string> diffArguments(const GitDiffTarget& target, GitDiffMode mode);
std::vector<std::string> commitDiffArguments(const std::string& commit, GitDiffMode mode,
                                             const std::optional<std::string>& path, int parentCount);
std::vector<std::string> mergeCommitPatchArguments(const std::string& commit, const std::optional<std::string>& path);

}  // namespace velko
