#include "git/GitBranchMap.h"

#include <algorithm>
#include <ctime>
#include <iterator>

namespace velko {

namespace {

bool takesPart(const GitBranchComputed& computed) {
    return (computed.mergeState == "unmerged" || computed.mergeState == "mergedWithFollowUp") &&
           computed.changedFiles && !computed.changedFiles->empty();
}

// "yyyy-MM-dd HH:mm:ss Z", the form of %(committerdate:iso8601).
std::optional<SystemTime> parseGitIsoDate(std::string_view s) {
    int year, month, day, hour, minute, second, offsetHours, offsetMinutes;
    if (s.size() != 25 || !readFixedDigits(s, 0, 4, year) || s[4] != '-' || !readFixedDigits(s, 5, 2, month) || s[7] != '-' ||
        !readFixedDigits(s, 8, 2, day) || s[10] != ' ' || !readFixedDigits(s, 11, 2, hour) || s[13] != ':' ||
        !readFixedDigits(s, 14, 2, minute) || s[16] != ':' || !readFixedDigits(s, 17, 2, second) || s[19] != ' ' ||
        (s[20] != '+' && s[20] != '-') || !readFixedDigits(s, 21, 2, offsetHours) || !readFixedDigits(s, 23, 2, offsetMinutes))
        return std::nullopt;
    if (month < 1 || month > 12 || hour > 23 || minute > 59 || second > 60 || offsetMinutes > 59) return std::nullopt;
    using namespace std::chrono;
    year_month_day date{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                        std::chrono::day{static_cast<unsigned>(day)}};
    if (!date.ok()) return std::nullopt;
    auto offset = (s[20] == '-' ? -1 : 1) * (hours{offsetHours} + minutes{offsetMinutes});
    return time_point_cast<system_clock::duration>(sys_days{date} + hours{hour} + minutes{minute} +
                                                   seconds{second} - offset);
}

// 30 calendar days before `now` in the local time zone, so that a change of
// summer time on the way moves the threshold with the clock.
SystemTime thirtyDaysBefore(SystemTime now) {
    std::time_t t = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    if (!localtime_r(&t, &local)) return now - std::chrono::hours(24 * 30);
    local.tm_mday -= 30;
    local.tm_isdst = -1;
    std::time_t before = std::mktime(&local);
    if (before == static_cast<std::time_t>(-1)) return now - std::chrono::hours(24 * 30);
    return std::chrono::system_clock::from_time_t(before) + (now - std::chrono::system_clock::from_time_t(t));
}

}  // namespace

std::optional<SystemTime> parseBranchDate(std::string_view text) {
    // The internet form has no fractions of a second.
    if (text.size() > 10 && text[10] == 'T' && text.find('.') == std::string_view::npos) {
        if (auto time = parseIso8601(text)) return time;
    }
    return parseGitIsoDate(text);
}

std::map<std::string, std::vector<GitBranchMapOverlap>> computeOverlaps(
    const std::map<std::string, GitBranchComputed>& computedByName) {
    struct Candidate {
        const std::string* name;
        std::vector<std::string> files;  // sorted, unique
    };
    std::vector<Candidate> candidates;
    for (const auto& [name, computed] : computedByName) {
        if (!takesPart(computed)) continue;
        Candidate candidate{&name, *computed.changedFiles};
        std::sort(candidate.files.begin(), candidate.files.end());
        candidate.files.erase(std::unique(candidate.files.begin(), candidate.files.end()), candidate.files.end());
        candidates.push_back(std::move(candidate));
    }
    std::map<std::string, std::vector<GitBranchMapOverlap>> overlaps;
    if (candidates.size() < 2) return overlaps;
    std::vector<std::string> common;
    for (size_t i = 0; i < candidates.size(); ++i) {
        for (size_t j = i + 1; j < candidates.size(); ++j) {
            common.clear();
            std::set_intersection(candidates[i].files.begin(), candidates[i].files.end(), candidates[j].files.begin(),
                                  candidates[j].files.end(), std::back_inserter(common));
            if (common.empty()) continue;
            // Five samples at most; the count tells how many there are.
            std::vector<std::string> samples(common.begin(), common.begin() + std::min<size_t>(common.size(), 5));
            auto count = static_cast<int64_t>(common.size());
            overlaps[*candidates[i].name].push_back({*candidates[j].name, count, samples});
            overlaps[*candidates[j].name].push_back({*candidates[i].name, count, std::move(samples)});
        }
    }
    for (auto& [name, list] : overlaps) {
        std::stable_sort(list.begin(), list.end(),
                         [](const GitBranchMapOverlap& a, const GitBranchMapOverlap& b) { return a.branch < b.branch; });
    }
    return overlaps;
}

void applyPriority(std::vector<GitBranchMapNode>& nodes, const std::optional<std::string>& baseBranch,
                   const GitBranchDescendants& descendants, SystemTime now) {
    std::set<std::string> related;
    auto current = std::find_if(nodes.begin(), nodes.end(), [](const GitBranchMapNode& n) { return n.isCurrent; });
    if (current != nodes.end()) {
        related.insert(current->name);
        for (const auto& [name, containing] : descendants) {
            if (containing.count(current->name)) related.insert(name);
        }
    }
    if (baseBranch) related.insert(*baseBranch);
    const SystemTime threshold = thirtyDaysBefore(now);

    for (auto& node : nodes) {
        if (related.count(node.name)) {
            node.priority = 0;
        } else if (node.inUseByOtherWorktree) {
            node.priority = 1;
        } else if (node.hasConflicts || node.hasUncommittedChanges || node.pushState == "unpushed" ||
                   !node.overlaps.empty()) {
            node.priority = 2;
        } else if (node.mergeState == "mergedWithFollowUp" || node.mergeState == "undetermined") {
            node.priority = 3;
        } else if (node.isCleanupCandidate) {
            node.priority = 4;
        } else {
            auto date = node.lastCommitDate ? parseBranchDate(*node.lastCommitDate) : std::nullopt;
            node.priority = date && *date >= threshold ? 5 : 6;
        }
    }
}

void sortBranchNodes(std::vector<GitBranchMapNode>& nodes) {
    std::stable_sort(nodes.begin(), nodes.end(), [](const GitBranchMapNode& a, const GitBranchMapNode& b) {
        if (a.priority != b.priority) return a.priority < b.priority;
        return a.lastCommitDate.value_or("") > b.lastCommitDate.value_or("");
    });
}

std::vector<GitBranchMapNode> boundedNodes(std::vector<GitBranchMapNode> nodes, int64_t limit) {
    if (limit < 1 || static_cast<int64_t>(nodes.size()) <= limit) return nodes;
    std::vector<GitBranchMapNode> prefix(std::make_move_iterator(nodes.begin()),
                                         std::make_move_iterator(nodes.begin() + limit));
    std::set<std::string> inPrefix;
    for (const auto& node : prefix) inPrefix.insert(node.name);
    std::vector<GitBranchMapNode> pinned;
    for (auto it = nodes.begin() + limit; it != nodes.end(); ++it) {
        if ((it->isCurrent || it->isBase) && !inPrefix.count(it->name)) pinned.push_back(std::move(*it));
    }
    if (pinned.empty()) return prefix;
    prefix.resize(prefix.size() - std::min(prefix.size(), pinned.size()));
    for (auto& node : pinned) prefix.push_back(std::move(node));
    sortBranchNodes(prefix);
    return prefix;
}

OrderedJson gitBranchMapPayload(const std::string& projectId, const GitBranchMap& map) {
    OrderedJson nodes = OrderedJson::array();
    for (const auto& n : map.nodes) {
        OrderedJson node;
        node["name"] = n.name;
        if (n.recentSubject) node["recentSubject"] = *n.recentSubject;
        node["isCurrent"] = n.isCurrent;
        node["isBase"] = n.isBase;
        if (n.parent) node["parent"] = *n.parent;
        node["parentConfidence"] = n.parentConfidence;
        node["mergeState"] = n.mergeState;
        if (n.undeterminedReason) node["undeterminedReason"] = *n.undeterminedReason;
        if (n.integration) node["integration"] = *n.integration;
        if (n.aheadOfBase) node["aheadOfBase"] = *n.aheadOfBase;
        if (n.behindBase) node["behindBase"] = *n.behindBase;
        if (n.changedFileCount) node["changedFileCount"] = *n.changedFileCount;
        node["location"] = n.location;
        node["pushState"] = n.pushState;
        if (n.unpushedCount) node["unpushedCount"] = *n.unpushedCount;
        node["inUseByOtherWorktree"] = n.inUseByOtherWorktree;
        if (n.worktreePath) node["worktreePath"] = *n.worktreePath;
        node["hasUncommittedChanges"] = n.hasUncommittedChanges;
        node["hasConflicts"] = n.hasConflicts;
        if (n.lastCommitDate) node["lastCommitDate"] = *n.lastCommitDate;
        node["isCleanupCandidate"] = n.isCleanupCandidate;
        OrderedJson overlaps = OrderedJson::array();
        for (const auto& o : n.overlaps) {
            overlaps.push_back(OrderedJson{{"branch", o.branch}, {"fileCount", o.fileCount}, {"samplePaths", o.samplePaths}});
        }
        node["overlaps"] = std::move(overlaps);
        node["priority"] = n.priority;
        nodes.push_back(std::move(node));
    }
    OrderedJson payload;
    payload["projectId"] = projectId;
    if (map.baseBranch) payload["baseBranch"] = *map.baseBranch;
    if (map.currentBranch) payload["currentBranch"] = *map.currentBranch;
    if (map.headSha) payload["headSha"] = *map.headSha;
    payload["repositoryState"] = map.repositoryState;
    payload["isShallow"] = map.isShallow;
    payload["hasRemote"] = map.hasRemote;
    payload["nodes"] = std::move(nodes);
    payload["totalCount"] = map.totalCount;
    payload["truncatedCount"] = map.truncatedCount;
    payload["generatedAt"] = map.generatedAt;
    return payload;
}

}  // namespace velko
