#pragma once
// The branch map's records and the steps that make it fit a small screen:
// overlaps (branches that touch the same files), priorities (what needs
// attention first), the order, and the limit that never hides the current
// branch or the base. Pure functions; the inventory that feeds them is
// GitBranchMapProvider.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/Json.h"
#include "core/Time.h"

namespace velko {

struct GitBranchMapOverlap {
    std::string branch;
    int64_t fileCount = 0;
    std::vector<std::string> samplePaths;  // at most five, ascending
    friend bool operator==(const GitBranchMapOverlap&, const GitBranchMapOverlap&) = default;
};

// What the classification found out about one branch.
struct GitBranchComputed {
    std::string mergeState;  // "base", "merged", "mergedWithFollowUp", "unmerged", "undetermined"
    std::optional<std::string> undeterminedReason;  // "shallow", "baseUnknown", "commandFailed", "historyTooLong"
    std::optional<std::string> integration;         // "fastForward", "mergeCommit", "unknown"
    std::optional<int64_t> ahead;
    std::optional<int64_t> behind;
    std::optional<std::vector<std::string>> changedFiles;
};

struct GitBranchMapNode {
    std::string name;
    std::optional<std::string> recentSubject;
    bool isCurrent = false;
    bool isBase = false;
    std::optional<std::string> parent;
    std::string parentConfidence = "confirmed";  // or "estimated"
    std::string mergeState;
    std::optional<std::string> undeterminedReason;
    std::optional<std::string> integration;
    std::optional<int64_t> aheadOfBase;
    std::optional<int64_t> behindBase;
    std::optional<int64_t> changedFileCount;
    std::string location;   // "local", "remoteOnly", "localAndRemote"
    std::string pushState;  // "pushed", "unpushed", "noUpstream"
    std::optional<int64_t> unpushedCount;
    bool inUseByOtherWorktree = false;
    std::optional<std::string> worktreePath;
    bool hasUncommittedChanges = false;
    bool hasConflicts = false;
    std::optional<std::string> lastCommitDate;
    bool isCleanupCandidate = false;
    std::vector<GitBranchMapOverlap> overlaps;
    int priority = 0;
};

struct GitBranchMap {
    std::optional<std::string> baseBranch;
    std::optional<std::string> currentBranch;
    std::optional<std::string> headSha;
    std::string repositoryState = "notARepository";  // "noCommits", "detached", "ready"
    bool isShallow = false;
    bool hasRemote = false;
    std::vector<GitBranchMapNode> nodes;
    int64_t totalCount = 0;
    int64_t truncatedCount = 0;
    std::string generatedAt;
};

// Branch name to the names of the branches whose tips contain its tip.
using GitBranchDescendants = std::map<std::string, std::set<std::string>>;

// Pairs of unmerged (or merged-and-continued) branches with changed files in
// common; each branch's list sorted by the other branch's name.
std::map<std::string, std::vector<GitBranchMapOverlap>> computeOverlaps(
    const std::map<std::string, GitBranchComputed>& computedByName);

// Sets each node's priority, 0 most urgent: the current branch, the base and
// what the current branch contains; then another worktree's branches; then
// conflicts, uncommitted or unpushed work and overlaps; then merges to look
// at; then clean-up candidates; then recent (30 days before `now`) and old.
void applyPriority(std::vector<GitBranchMapNode>& nodes, const std::optional<std::string>& baseBranch,
                   const GitBranchDescendants& descendants, SystemTime now);

// Ascending priority, then newest commit date first (as text); stable.
void sortBranchNodes(std::vector<GitBranchMapNode>& nodes);

// The first `limit` nodes, with the current branch and the base pinned in
// place of the last ones when they fell behind; all of them when `limit` < 1.
std::vector<GitBranchMapNode> boundedNodes(std::vector<GitBranchMapNode> nodes, int64_t limit);

// git's "2024-05-01 12:00:00 +0200", or the internet form "2024-05-01T12:00:00Z".
std::optional<SystemTime> parseBranchDate(std::string_view text);

// "git/branch-map"
OrderedJson gitBranchMapPayload(const std::string& projectId, const GitBranchMap& map);

}  // namespace velko
