#pragma once
// The JSON payloads of the git engine's events, key by key as the page reads
// them (keys in the order written here). The one payload big enough to be
// written by hand, "git/working-tree", is encodeWorkingTreePayload in
// GitWorkingTreeParser. Pure functions.

#include <optional>
#include <string>

#include "core/Json.h"
#include "git/GitAuthProviding.h"
#include "git/GitCommitParsing.h"
#include "git/GitDiffParsing.h"
#include "git/GitStatusParsing.h"

namespace velko {

// "git/status"
OrderedJson gitStatusPayload(const std::string& projectId, const GitStatusSummary& summary);
// "git/status/detail"
OrderedJson gitStatusDetailPayload(const std::string& projectId, const GitStatusDetailComponents& components,
                                   const std::string& headSha);
// One file of "git/diff"; an empty path is shown as ".".
OrderedJson gitDiffFilePayload(const std::string& path, GitDiffStage stage, const GitNumstat& counts,
                               std::string patch);
// One file of "git/commit/diff".
OrderedJson gitCommitDiffFilePayload(const std::string& commit, const std::string& path, const GitNumstat& counts,
                                     std::string patch, bool resolved);
// "git/remote/tracking"
OrderedJson gitRemoteTrackingPayload(const std::string& projectId, const std::string& branch,
                                     const std::optional<std::string>& remote, int64_t ahead, int64_t behind);
// "git/result"
OrderedJson gitResultPayload(bool success, const std::string& message);
// "git/refresh/barrier"
OrderedJson gitRefreshBarrierPayload(const std::string& projectId, const std::string& requestId);
// "github/oauth/status" after the server refused the token.
OrderedJson gitTokenRefusedStatusPayload(const std::optional<GitAuthToken>& record);

}  // namespace velko
