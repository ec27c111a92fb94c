#pragma once
// GitWorkingTreeParser: reads `git status --porcelain=v2` lines into entries
// with index and work tree states, renames with their scores, and conflicts;
// decodes git's quoted paths. A line of no known shape is skipped. Stateless.

#include <optional>
#include <string>
#include <string_view>
#include <vector>


namespace velko {

struct GitWorkingTreeEntry {
    std::string path;
    std::optional<std::string> oldPath;
    std::optional<std::string_view> stagedStatus;    // a word of describeStatus, static text
    std::optional<std::string_view> unstagedStatus;
    bool isUntracked = false;
    bool intentToAdd = false;
    std::optional<int64_t> renameScore;
    bool isConflicted = false;
};

class GitWorkingTreeParser {
public:
    // Every line of the command's output; headers and ignored lines are dropped.
    static std::vector<GitWorkingTreeEntry> parse(std::string_view output);
    static std::optional<GitWorkingTreeEntry> parseLine(std::string_view line);
    static std::optional<std::string_view> describeStatus(char code);
    static std::string decodePath(std::string_view text);
};

// The "git/working-tree" payload as JSON text: four sections in fixed order
// and a summary. Written by hand: a large tree is the one git payload whose
// encoding would otherwise cost more than running git.
std::string encodeWorkingTreePayload(const std::vector<GitWorkingTreeEntry>& entries, const std::string& projectId);

}  // namespace velko
