#pragma once
// Parsers of what git says about commits: the per-file numstat of one commit,
// the parent count of `rev-list --parents`, and the two counts of
// `rev-list --left-right --count`. Never fail: a line of no known shape is
// skipped, and unreadable counts are absent or zero as each function says.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko {

struct GitCommitFileCount {
    std::string path;  // a rename is given as its new path
    int64_t additions = 0;
    int64_t deletions = 0;
    bool isBinary = false;  // numstat "-": both counts stay 0
    friend bool operator==(const GitCommitFileCount&, const GitCommitFileCount&) = default;
};

// `git show <commit> --numstat --format= --find-renames`: one entry per file,
// in output order; unparsable counts are 0.
std::vector<GitCommitFileCount> parseCommitFileCounts(std::string_view output);

// `git rev-list --parents -n 1 <commit>`: the hashes after the commit's own; 0
// for empty output.
int parseParentCount(std::string_view output);

struct GitLeftRightCounts {
    int64_t left = 0;   // only in the left revision ("behind" for @{u}...HEAD)
    int64_t right = 0;  // only in the right one ("ahead")
    friend bool operator==(const GitLeftRightCounts&, const GitLeftRightCounts&) = default;
};
// `git rev-list --left-right --count A...B`: two numbers split at a tab, else
// at blanks; nothing unless there are exactly two. An unparsable number is 0.
std::optional<GitLeftRightCounts> parseLeftRightCounts(std::string_view output);

}  // namespace velko
