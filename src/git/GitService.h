#pragma once
// GitService: the front of the git engine. The page's git messages arrive here
// (through WebBridge) and each becomes one block on the serial git queue
// (GitScheduler); the block resolves the project on the main thread
// (GitProjectResolver), runs git (GitCommandContext), and answers with events
// on the weak event sink. One git command runs at a time across all projects,
// so a push holds back a later status refresh until its child has exited.
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
#include "core/Json.h"
#include "core/Uuid.h"
#include "git/GitCommandContext.h"
#include "git/GitDiffParsing.h"
#include "git/GitProjectResolver.h"
#include "git/GitRemoteParsing.h"
#include "git/GitScheduler.h"
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

    // Runs `done` on the queue once every block posted before it has run.
    void whenIdle(std::function<void()> done);
    // Stops the engine for good: blocks that have not started are dropped, a
    // block waiting for the main thread gives up, the running git child gets
    // SIGTERM and SIGKILL after `grace`. `done` runs on the queue once the
    // block running now has returned.
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
};

}  // namespace velko
