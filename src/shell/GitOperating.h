#pragma once
// GitOperating: the git operations the page's git messages ask for, with their
// arguments already read from the payload. The git service implements it
// through an adapter of the composition root; each operation schedules its
// work on the git queue and returns at once, answering later with events.
//
// Called on the main thread. The bridge holds it weakly: messages for a
// service that is gone are dropped.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Uuid.h"
#include "git/GitDiffParsing.h"

namespace velko {

class GitOperating {
public:
    virtual ~GitOperating() = default;
    // No project: the status of no project (an empty answer).
    virtual void refreshStatus(const std::optional<Uuid>& projectID) = 0;
    virtual void fetchStatusDetail(const Uuid& projectID) = 0;
    virtual void fetchWorkingTree(const Uuid& projectID) = 0;
    virtual void fetchDiff(const Uuid& projectID, std::vector<GitDiffTarget> targets) = 0;
    virtual void fetchCommitDiff(const Uuid& projectID, std::string commit, std::optional<std::string> path) = 0;
    virtual void commit(const Uuid& projectID, std::string message) = 0;
    virtual void push(const Uuid& projectID) = 0;
    virtual void pull(const Uuid& projectID) = 0;
    virtual void fetch(const Uuid& projectID) = 0;
    virtual void fetchRemoteTracking(const Uuid& projectID) = 0;
    virtual void reachRefreshBarrier(const Uuid& projectID, std::string requestId) = 0;
    // No cursor starts the walk over.
    virtual void fetchCommitHistory(const Uuid& projectID, std::optional<std::string> cursor, int64_t pageSize,
                                    std::optional<std::string> requestId) = 0;
    virtual void fetchCommitGraph(const Uuid& projectID, int64_t pageSize) = 0;
    virtual void fetchBranchMap(const Uuid& projectID, int64_t limit) = 0;
};

}  // namespace velko
