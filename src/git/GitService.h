#pragma once
// GitService: the front of the git engine. The page's git messages arrive here
// (through WebBridge) and each becomes one block on the serial git queue
// (GitScheduler); the block resolves the project on the main thread
// (GitProjectResolver), runs git (GitCommandContext), and answers with events
// on the weak event sink. One git command runs at a time across all projects,
// so a push holds back a later status refresh until its child has exited.
// History pages are the exception: they run on a small pool of their own
// ("app.velko.git-service.history", GitHistoryPaginator), beside the queue and
// beside each other. The commit graph and the branch map hold the queue.
//
// Owned by the composition root; every block holds the service weakly and does
// nothing once it is gone. The main thread must never wait for the git queue:
// blocks wait for it. At shutdown `stop` ends the engine without waiting for
// a git that hangs.
//
// Failures become "git/result" messages (GitMessages) or, for views that wait
// for an answer, an empty event; nothing throws.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/EventDispatching.h"
#include "core/HttpRequesting.h"
#include "core/Json.h"
#include "core/Uuid.h"
#include "git/GitCommandContext.h"
#include "git/GitBranchMapProvider.h"
#include "git/GitDiffParsing.h"
#include "git/GitHistoryPaginator.h"
#include "git/GitProjectResolver.h"
#include "git/GitRemoteParsing.h"
#include "git/GitScheduler.h"
#include "core/SerialQueue.h"
#include "workspace/ConfigStore.h"

namespace velko {

class GitService final : public std::enable_shared_from_this<GitService> {
public:
    struct Dependencies {
        std::weak_ptr<ProjectProviding> configProvider;
        std::shared_ptr<GitAuthProviding> authProvider;
        std::shared_ptr<GitCredentialBroking> credentialBroker;
        std::shared_ptr<GitProcessRunning> processRunner;
        // The children's base environment; empty means the process environment.
        std::optional<GitEnvironment> environment;
        // The web host whose HTTPS remotes carry the token.
        std::string gitHubWebHost = std::string(kGitHubWebHost);
        // GitHub's GraphQL API: asked through `http` at `graphqlURL`, unless
        // a client of its own is given. Without either, GitHub is never asked.
        std::shared_ptr<HttpRequesting> http;
        std::string graphqlURL = "https://" + std::string(kGitHubApiHost) + "/graphql";
        HttpGitHubGraphQLClient::Limits graphqlLimits;
        std::shared_ptr<GitHubGraphQLClient> graphQLClient;
        // Local history pages; the default reads them with git.
        std::shared_ptr<GitLocalHistoryProviding> localHistoryProvider;
        // The branch map's clock and how many of its git commands run at once.
        std::function<SystemTime()> now;
        unsigned branchMapParallelism = 4;
        unsigned historyThreads = 3;
    };

    // How long a git child that is running at shutdown gets after SIGTERM.
    static constexpr std::chrono::milliseconds kStopGrace{1500};

    explicit GitService(Dependencies dependencies);
    ~GitService();
    GitService(const GitService&) = delete;
    GitService& operator=(const GitService&) = delete;

    void setEventSink(std::weak_ptr<EventDispatching> sink) { m_eventSink = std::move(sink); }

    // Each schedules one block on the queue and returns at once.
    void refreshStatus(const std::optional<Uuid>& projectID);
    void fetchStatusDetail(const Uuid& projectID);
    void fetchWorkingTree(const Uuid& projectID);
    void fetchDiff(const Uuid& projectID, std::vector<GitDiffTarget> targets);
    void fetchCommitDiff(const Uuid& projectID, std::string commit, std::optional<std::string> path);
    void commit(const Uuid& projectID, std::string message);
    void push(const Uuid& projectID);
    void pull(const Uuid& projectID);
    void fetch(const Uuid& projectID);
    void fetchRemoteTracking(const Uuid& projectID);
    void reachRefreshBarrier(const Uuid& projectID, std::string requestId);
    // A page of the history list, on the history pool; no cursor starts over.
    void fetchCommitHistory(const Uuid& projectID, std::optional<std::string> cursor, int64_t pageSize,
                            std::optional<std::string> requestId);
    void fetchCommitGraph(const Uuid& projectID, int64_t pageSize);
    void fetchBranchMap(const Uuid& projectID, int64_t limit);

    // Runs `done` once every block posted before it has run, history pages
    // included (on the queue, or on the pool thread of the last page).
    void whenIdle(std::function<void()> done);
    // Stops the engine for good: blocks and pages that have not started are
    // dropped, a block waiting for the main thread gives up, the running git
    // children get SIGTERM and SIGKILL after `grace`. `done` runs once the
    // block and the pages running now have returned. (Requests to GitHub in
    // flight end when the HTTP client is cancelled, which its owner does.)
    void stop(std::chrono::milliseconds grace, std::function<void()> done);

private:
    enum class RemoteAction { Push, Pull, Fetch };

    void enqueue(std::function<void(GitService&)> block);
    void enqueueForProject(const std::optional<Uuid>& projectID,
                           std::function<void(GitService&, const GitProject&)> block);
    void emit(std::string_view type, const OrderedJson& payload);
    void sendResult(bool success, const std::string& message);
    void handleGitError(const GitError& error, const std::string& commandDescription,
                        const std::optional<Uuid>& projectId);
    bool ensureAuthenticated(const std::string& operation, bool suppressError);
    void notifyMissingRemoteIfNeeded(const Uuid& projectId);

    void doRefreshStatus(const GitProject& project);
    void doFetchStatusDetail(const GitProject& project);
    void doFetchWorkingTree(const GitProject& project);
    void doFetchDiff(const GitProject& project, std::vector<GitDiffTarget> targets);
    void doFetchCommitDiff(const GitProject& project, const std::string& commit,
                           const std::optional<std::string>& path);
    void doCommit(const GitProject& project, const std::string& message);
    void doRemoteAction(const GitProject& project, RemoteAction action);
    void doFetchRemoteTracking(const GitProject& project);
    void doFetchCommitGraph(const GitProject& project, int64_t pageSize);

    std::optional<OrderedJson> buildDiffPayload(const GitDiffTarget& target, const GitProject& project);
    std::optional<OrderedJson> buildDiffPayloadForUntracked(const GitDiffTarget& target, const GitProject& project);
    bool isUntrackedFile(const std::string& path, const GitProject& project);
    std::optional<int> commitParentCount(const std::string& commit, const GitProject& project);
    std::optional<OrderedJson> buildCommitDiffPayload(const std::string& commit, const std::optional<std::string>& path,
                                                      const GitProject& project);
    OrderedJson buildCommitDiffSummary(const std::string& commit, const GitProject& project);

    std::shared_ptr<GitScheduler> m_scheduler;
    GitProjectResolver m_resolver;
    GitCommandContext m_commands;
    std::weak_ptr<EventDispatching> m_eventSink;
    std::set<Uuid> m_missingRemoteProjects;  // queue only
    std::set<Uuid> m_commitGraphUnavailableProjects;       // queue only
    std::set<Uuid> m_commitGraphFailureReportedProjects;   // queue only
    std::shared_ptr<GitHubGraphQLClient> m_graphQL;
    std::shared_ptr<GitLocalHistoryProviding> m_localHistory;
    std::unique_ptr<GitHistoryPaginator> m_paginator;
    std::unique_ptr<GitBranchMapProvider> m_branchMaps;
    std::string m_gitHubWebHost;
    // Pages in flight, and what waits for none to be.
    struct HistoryPages;
    std::shared_ptr<HistoryPages> m_historyPages;
    std::shared_ptr<ConcurrentQueue> m_historyQueue;
};

}  // namespace velko
