#include "git/GitHistoryPaginator.h"

#include <algorithm>
#include <unordered_set>

#include "git/GitMessages.h"
#include "git/GitPayloads.h"
#include "git/GitRemoteLookup.h"
#include "git/GitRemoteParsing.h"

namespace velko {

namespace {

using Kind = GitHubGraphQLClientError::Kind;

GitCommitEdge remoteEdge(GitHubCommitNode& node) {
    GitCommitEdge edge;
    edge.oid = std::move(node.oid);
    edge.messageHeadline = node.messageHeadline.value_or("");
    edge.authorName = node.authorDisplayName().value_or("Unknown");
    edge.authorLogin = std::move(node.authorLogin);
    edge.committedDate = std::move(node.committedDate);
    if (node.files) {
        for (auto& file : *node.files) edge.files.push_back({std::move(file.path), file.additions, file.deletions});
    }
    edge.origin = GitCommitOrigin::Remote;
    return edge;
}

bool namesFilesField(const GitHubGraphQLClientError& error) {
    if (error.kind != Kind::GraphQLErrors) return false;
    return std::any_of(error.messages.begin(), error.messages.end(),
                       [](const std::string& m) { return m.find("Field 'files'") != std::string::npos; });
}

}  // namespace

std::optional<GitCommitHistoryCursor> decodeHistoryCursor(std::string_view text) {
    auto parsed = parseJson(text);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    GitCommitHistoryCursor cursor;
    // A whole number, as a typed decoder reads an integer; 3.0 counts.
    auto offset = json::integer(&*parsed, "localOffset");
    if (!offset) return std::nullopt;
    cursor.localOffset = *offset;
    if (const Json* remote = json::member(&*parsed, "remoteCursor"); remote && !remote->is_null()) {
        if (!remote->is_string()) return std::nullopt;
        cursor.remoteCursor = remote->get<std::string>();
    }
    return cursor;
}

std::string encodeHistoryCursor(const GitCommitHistoryCursor& cursor) {
    OrderedJson json;
    if (cursor.remoteCursor) json["remoteCursor"] = *cursor.remoteCursor;
    json["localOffset"] = cursor.localOffset;
    return dumpJson(json);
}

OrderedJson gitCommitEdgePayload(const GitCommitEdge& edge) {
    OrderedJson author;
    author["name"] = edge.authorName;
    if (edge.authorLogin) author["login"] = *edge.authorLogin;
    OrderedJson files = OrderedJson::array();
    for (const auto& file : edge.files) {
        files.push_back(OrderedJson{{"path", file.path}, {"additions", file.additions}, {"deletions", file.deletions}});
    }
    OrderedJson payload;
    payload["oid"] = edge.oid;
    payload["messageHeadline"] = edge.messageHeadline;
    payload["author"] = std::move(author);
    payload["committedDate"] = edge.committedDate;
    payload["files"] = std::move(files);
    payload["origin"] = edge.origin == GitCommitOrigin::Local ? "local" : "remote";
    return payload;
}

GitHistoryPaginator::GitHistoryPaginator(Collaborators collaborators)
    : m_commands(collaborators.commands),
      m_localHistory(std::move(collaborators.localHistory)),
      m_graphQL(std::move(collaborators.graphQL)),
      m_gitHubWebHost(std::move(collaborators.gitHubWebHost)),
      m_emit(std::move(collaborators.emit)) {}

GitHistoryPaginator::RemoteHistoryState GitHistoryPaginator::loadState(const Uuid& projectId) {
    std::lock_guard lock(m_stateLock);
    auto it = m_remoteHistoryStates.find(projectId);
    return it == m_remoteHistoryStates.end() ? RemoteHistoryState{} : it->second;
}

void GitHistoryPaginator::storeState(const Uuid& projectId, RemoteHistoryState state) {
    std::lock_guard lock(m_stateLock);
    m_remoteHistoryStates[projectId] = std::move(state);
}

void GitHistoryPaginator::resetState(const Uuid& projectId) {
    std::lock_guard lock(m_stateLock);
    m_remoteHistoryStates[projectId] = RemoteHistoryState{};
}

void GitHistoryPaginator::fetchPage(const GitProject& project, const std::optional<std::string>& cursor,
                                    int64_t pageSize, const std::optional<std::string>& requestId,
                                    bool allowFiles) {
    const std::string projectId = project.id.toString();

    // A text that is no cursor of ours is GitHub's own cursor, from the start of local history.
    std::optional<std::string> remoteCursor;
    int64_t localOffset = 0;
    if (cursor) {
        if (auto decoded = decodeHistoryCursor(*cursor)) {
            remoteCursor = decoded->remoteCursor;
            localOffset = decoded->localOffset;
        } else {
            remoteCursor = *cursor;
        }
    }
    m_logger.debug("commitHistory request project=" + projectId + " remoteCursor=" + remoteCursor.value_or("nil") +
                   " localOffset=" + std::to_string(localOffset));

    if (!cursor) resetState(project.id);
    RemoteHistoryState state = loadState(project.id);

    GitLocalHistoryPage page = m_localHistory->loadHistory(project, localOffset, pageSize, GitHistoryScope::NotOnUpstream);
    const int64_t nextLocalOffset =
        std::min<int64_t>(localOffset + static_cast<int64_t>(page.edges.size()), page.totalCount);

    auto token = m_commands.token();
    std::optional<RepositoryCoordinates> coordinates;
    if (auto url = lookUpRemoteURL(m_commands, project)) coordinates = parseGitHubRemoteURL(*url, m_gitHubWebHost);

    bool remoteUnavailable = false;
    std::optional<std::string> handOnCursor;
    std::optional<GitHubGraphQLClientError> remoteError;
    if (!page.branch || !coordinates || !token) {
        remoteUnavailable = true;
        state.hasNextPage = false;
    } else {
        OrderedJson variables;
        variables["owner"] = coordinates->owner;
        variables["name"] = coordinates->name;
        variables["qualifiedName"] = "refs/heads/" + *page.branch;
        variables["pageSize"] = pageSize;
        variables["cursor"] = remoteCursor ? OrderedJson(*remoteCursor) : OrderedJson(nullptr);
        bool includeFiles = allowFiles;
        auto ask = [&] {
            return m_graphQL->execute(includeFiles ? kCommitHistoryQuery : kCommitHistoryWithoutFilesQuery, variables,
                                      token->accessToken);
        };
        GitHubGraphQLResult result = ask();
        if (!result && includeFiles && namesFilesField(result.error())) {
            // This GitHub has no `files` on commits: ask again without, now and from now on.
            m_supportsCommitFilesField.store(false);
            includeFiles = false;
            result = ask();
        }
        if (!result) {
            const GitHubGraphQLClientError& error = result.error();
            m_logger.error("commitHistory remote error project=" + projectId + " error=" + error.detail);
            state.bufferedEdges.clear();
            state.lastRemoteCursor = remoteCursor;
            state.hasNextPage = false;
            remoteError = error;
            if (error.kind == Kind::Unauthorized) m_commands.forgetRefusedToken(token->accessToken);
        } else {
            GitHubHistoryResponse& response = result.value();
            std::optional<GitHubHistory>& history =
                response.refHistory ? response.refHistory : response.defaultBranchHistory;
            if (!history) {
                state.bufferedEdges.clear();
                state.lastRemoteCursor = remoteCursor;
                state.hasNextPage = false;
                handOnCursor = remoteCursor;
            } else {
                std::unordered_set<std::string> seenLocal, seenBuffered;
                for (const auto& edge : page.edges) seenLocal.insert(edge.oid);
                for (const auto& edge : state.bufferedEdges) seenBuffered.insert(edge.oid);
                for (auto& node : history->nodes) {
                    if (seenLocal.count(node.oid) || seenBuffered.count(node.oid)) continue;
                    seenBuffered.insert(node.oid);
                    state.bufferedEdges.push_back(remoteEdge(node));
                }
                state.hasNextPage = history->pageInfo.hasNextPage;
                if (history->pageInfo.endCursor) state.lastRemoteCursor = history->pageInfo.endCursor;
                state.usingFallback = false;
                state.fallbackOffset = 0;
                state.fallbackTotalCount = 0;
                handOnCursor = history->pageInfo.endCursor ? history->pageInfo.endCursor : remoteCursor;
            }
        }
    }

    std::unordered_set<std::string> seen;
    for (const auto& edge : page.edges) seen.insert(edge.oid);
    int64_t remaining = std::max<int64_t>(0, pageSize - static_cast<int64_t>(page.edges.size()));

    const bool exhausted = !handOnCursor && state.bufferedEdges.empty() && !state.hasNextPage;
    if (!remoteError && !remoteUnavailable && !exhausted) {
        if (state.usingFallback) {
            state.bufferedEdges.clear();
            state.usingFallback = false;
            state.fallbackOffset = 0;
            state.fallbackTotalCount = 0;
        }
    } else {
        // GitHub cannot be asked or has nothing more: go on with the whole history of HEAD.
        if (!(cursor && state.usingFallback)) {
            state.fallbackOffset = 0;
            state.fallbackTotalCount = 0;
            state.bufferedEdges.clear();
        }
        state.usingFallback = true;
        std::unordered_set<std::string> fallbackSeen = seen;
        for (const auto& edge : state.bufferedEdges) fallbackSeen.insert(edge.oid);
        if (remaining >= 1 && static_cast<int64_t>(state.bufferedEdges.size()) < remaining) {
            const int64_t batch = std::max(pageSize, remaining);
            for (;;) {
                GitLocalHistoryPage more =
                    m_localHistory->loadHistory(project, state.fallbackOffset, batch, GitHistoryScope::WholeHead);
                state.fallbackTotalCount = more.totalCount;
                if (more.edges.empty()) break;
                const auto count = static_cast<int64_t>(more.edges.size());
                state.fallbackOffset = std::min(state.fallbackOffset + count, state.fallbackTotalCount);
                for (auto& edge : more.edges) {
                    if (!fallbackSeen.insert(edge.oid).second) continue;
                    edge.origin = GitCommitOrigin::Remote;
                    state.bufferedEdges.push_back(std::move(edge));
                }
                if (count < batch || state.fallbackOffset >= state.fallbackTotalCount ||
                    static_cast<int64_t>(state.bufferedEdges.size()) >= remaining)
                    break;
            }
        }
        state.hasNextPage = state.fallbackOffset < state.fallbackTotalCount;
        handOnCursor.reset();
    }

    // Local commits first, then buffered ones; a page of local commits is never cut.
    std::vector<GitCommitEdge> edges = std::move(page.edges);
    while (remaining > 0 && !state.bufferedEdges.empty()) {
        GitCommitEdge edge = std::move(state.bufferedEdges.front());
        state.bufferedEdges.pop_front();
        if (!seen.insert(edge.oid).second) continue;
        edges.push_back(std::move(edge));
        --remaining;
    }

    const bool hasNextPage = state.hasNextPage || nextLocalOffset < page.totalCount || !state.bufferedEdges.empty();
    const std::string cursorPayload = encodeHistoryCursor({handOnCursor, nextLocalOffset});
    const auto localCount = std::count_if(edges.begin(), edges.end(),
                                          [](const GitCommitEdge& e) { return e.origin == GitCommitOrigin::Local; });
    m_logger.debug("commitHistory response project=" + projectId + " localCount=" + std::to_string(localCount) +
                   " remoteCount=" + std::to_string(static_cast<int64_t>(edges.size()) - localCount) +
                   " hasNext=" + (hasNextPage ? "1" : "0"));
    const size_t remoteRemainingCount = state.bufferedEdges.size();
    storeState(project.id, std::move(state));

    OrderedJson list = OrderedJson::array();
    for (const auto& edge : edges) list.push_back(gitCommitEdgePayload(edge));
    OrderedJson pageInfo;
    pageInfo["hasNextPage"] = hasNextPage;
    if (handOnCursor) pageInfo["endCursor"] = *handOnCursor;
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["edges"] = std::move(list);
    payload["pageInfo"] = std::move(pageInfo);
    if (requestId) payload["requestId"] = *requestId;
    if (handOnCursor) payload["remoteCursor"] = *handOnCursor;
    payload["localOffset"] = nextLocalOffset;
    payload["cursorPayload"] = cursorPayload;
    payload["remoteRemainingCount"] = remoteRemainingCount;
    m_emit("git/history", payload);

    if (remoteError) {
        std::string description = remoteError->errorDescription();
        m_emit("git/result", gitResultPayload(false, std::string(gitmsg::kHistoryFailedPrefix) + description));
        OrderedJson error;
        error["projectId"] = projectId;
        error["message"] = description;
        if (requestId) error["requestId"] = *requestId;
        m_emit("git/history/error", error);
    }
}

}  // namespace velko
