#pragma once
// GitHistoryPaginator: the history list, page by page: first the commits that
// exist only here (not on the upstream yet), then the GitHub branch's
// commits, each once. GitHub's page and ours differ in size and cursor, so a
// per-project state buffers what GitHub sent and the list has not shown yet,
// and the cursor handed to the page holds both positions. When GitHub cannot
// be asked (signed out, no GitHub remote, an error) or has nothing more, the
// list goes on from the whole history of HEAD, labelled "remote".
//
// Pages run on the history pool, several at once; the per-project states sit
// behind one mutex, taken for each load and each store, so a page reads and
// writes its project's state atomically (the page asks one page of a project
// at a time). Whether GitHub knows the `files` field is learnt once and kept
// for the process. Owned by GitService; answers through `emit`.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/Json.h"
#include "git/GitCommandContext.h"
#include "git/GitHubGraphQLClient.h"
#include "git/GitLocalHistoryProvider.h"

namespace velko {

// Where the next page starts: GitHub's cursor and the offset into local commits.
struct GitCommitHistoryCursor {
    std::optional<std::string> remoteCursor;
    int64_t localOffset = 0;
};
// A JSON object with an integer `localOffset` and an optional text
// `remoteCursor`; anything else is no cursor of ours.
std::optional<GitCommitHistoryCursor> decodeHistoryCursor(std::string_view text);
std::string encodeHistoryCursor(const GitCommitHistoryCursor& cursor);

// One commit as "git/history" carries it.
OrderedJson gitCommitEdgePayload(const GitCommitEdge& edge);

class GitHistoryPaginator {
public:
    using Emit = std::function<void(std::string_view type, const OrderedJson& payload)>;
    struct Collaborators {
        GitCommandContext& commands;  // the token, the remote's URL, forgetting a refused token
        std::shared_ptr<GitLocalHistoryProviding> localHistory;
        std::shared_ptr<GitHubGraphQLClient> graphQL;
        std::string gitHubWebHost;
        Emit emit;
    };
    explicit GitHistoryPaginator(Collaborators collaborators);

    // One page; no cursor starts a fresh walk. Answers "git/history", and on a
    // failure of GitHub also "git/result" and "git/history/error" after it.
    void fetchPage(const GitProject& project, const std::optional<std::string>& cursor, int64_t pageSize,
                   const std::optional<std::string>& requestId, bool allowFiles);

    // Falls to false, for good, once GitHub refuses the `files` field.
    bool supportsCommitFilesField() const { return m_supportsCommitFilesField.load(); }

private:
    struct RemoteHistoryState {
        std::deque<GitCommitEdge> bufferedEdges;  // fetched or fallback commits not yet shown
        std::optional<std::string> lastRemoteCursor;
        bool hasNextPage = false;
        bool usingFallback = false;  // the remote side is fed from local history
        int64_t fallbackOffset = 0;  // next offset into HEAD's whole history
        int64_t fallbackTotalCount = 0;
    };

    RemoteHistoryState loadState(const Uuid& projectId);
    void storeState(const Uuid& projectId, RemoteHistoryState state);
    void resetState(const Uuid& projectId);

    GitCommandContext& m_commands;
    std::shared_ptr<GitLocalHistoryProviding> m_localHistory;
    std::shared_ptr<GitHubGraphQLClient> m_graphQL;
    std::string m_gitHubWebHost;
    Emit m_emit;
    std::atomic<bool> m_supportsCommitFilesField{true};
    // "app.velko.git-service.history-state": around each load and store.
    std::mutex m_stateLock;
    std::map<Uuid, RemoteHistoryState> m_remoteHistoryStates;
    Logger m_logger{"app.velko.git", "git-service"};
};

}  // namespace velko
