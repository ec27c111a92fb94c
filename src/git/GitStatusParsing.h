#pragma once
// Parsers of `git status --porcelain --branch` output, in the two forms the
// git panel uses: the flat lists of the status bar (two-letter codes) and the
// change tree of GitStatusDetailMapper (word statuses, nested by directory).
// They differ on purpose in small ways (trimming, rename splitting), and each
// keeps its own rules. Parsers never fail: unknown or truncated lines are
// skipped, and a partial text gives a partial result. Stateless.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko {

struct GitStatusFile {
    std::string path;
    std::string status;
    friend bool operator==(const GitStatusFile&, const GitStatusFile&) = default;
};

struct GitStatusSummary {
    std::string branch = "--";
    int64_t ahead = 0;
    int64_t behind = 0;
    std::vector<GitStatusFile> staged;
    std::vector<GitStatusFile> unstaged;
    std::vector<GitStatusFile> untracked;
};

// The flat form of the status bar.
GitStatusSummary parseGitStatus(std::string_view output);
// The number behind "<prefix> " up to the next "," or "]"; 0 when absent or unparsable.
int64_t extractStatusCount(std::string_view prefix, std::string_view text);

struct GitStatusDetailComponents {
    struct Change {
        std::string path;
        std::string status;
        friend bool operator==(const Change&, const Change&) = default;
    };
    std::string branch = "--";
    int64_t ahead = 0;
    int64_t behind = 0;
    std::optional<std::string> remote;
    std::vector<Change> staged;
    std::vector<Change> unstaged;
    std::vector<Change> untracked;
};

struct GitChangeTreeNode {
    std::string path;  // one path component
    std::string status;
    std::optional<std::vector<GitChangeTreeNode>> children;  // absent on a leaf
};

class GitStatusDetailMapper {
public:
    static GitStatusDetailComponents parse(std::string_view statusOutput);
    static std::vector<GitChangeTreeNode> buildTree(const std::vector<GitStatusDetailComponents::Change>& changes);
    static std::string describeStatus(char letter);
};

}  // namespace velko
