#pragma once
// GitService: the front of the git engine. The page's git messages arrive here
// (through WebBridge) and each becomes one block on the serial queue
// "app.velko.git-service"; the block resolves the project on the main thread,
// runs git through the runner, and answers with events on the weak event sink.
// One git command runs at a time across all projects, so a push holds back a
// later status refresh until its child has exited.
//
// Owned by the composition root; every block holds the service weakly and does
// nothing once it is gone. Project metadata is read on the main thread by a
// synchronous hop, so the main thread must never wait for this queue.
//
// Failures become "git/result" messages (Japanese texts for the user) or, for
// views that wait for an answer, an empty event; nothing throws.

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "core/Log.h"
#include "core/Result.h"
#include "core/Uuid.h"
#include "git/GitAuthProviding.h"
#include "git/GitCredentialBroker.h"
#include "git/GitDiffParsing.h"
#include "git/GitErrors.h"
#include "git/GitProcessRunner.h"
#include "workspace/ConfigStore.h"

namespace velko {

class SerialQueue;

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

private:
    struct ProjectContext {
        ProjectMetadata metadata;
        Uuid id;
        std::string directory;  // root path with the tilde expanded
    };
    enum class RemoteAction { Push, Pull, Fetch };

    void enqueue(std::function<void(GitService&)> block);
    void emit(std::string_view type, const OrderedJson& payload);
    void emitEncoded(std::string_view type, const std::string& payloadJson);
    void sendResult(bool success, const std::string& message);

    std::optional<ProjectContext> metadata(const std::optional<Uuid>& projectID);
    GitEnvironment baseEnvironment() const;
    Result<std::string, GitError> runGit(const std::vector<std::string>& arguments, const ProjectContext& project,
                                         bool requiresAuth, const GitEnvironment& extraEnvironment = {});
    GitEnvironment sshEnvironment(const std::string& remoteURL, const ProjectContext& project);
    Result<GitProcessExecutionResult, GitError> runGitAllowingDifferences(const std::vector<std::string>& arguments,
                                                                          const ProjectContext& project,
                                                                          const std::set<int>& allowedExitCodes);
    void handleGitError(const GitError& error, const std::string& commandDescription,
                        const std::optional<Uuid>& projectId);
    bool ensureAuthenticated(const std::string& operation, bool suppressError);
    void notifyMissingRemoteIfNeeded(const Uuid& projectId);

    void doRefreshStatus(const ProjectContext& project);
    void doFetchStatusDetail(const ProjectContext& project);
    void doFetchWorkingTree(const ProjectContext& project);
    void doFetchDiff(const ProjectContext& project, std::vector<GitDiffTarget> targets);
    void doFetchCommitDiff(const ProjectContext& project, const std::string& commit,
                           const std::optional<std::string>& path);
    void doCommit(const ProjectContext& project, const std::string& message);
    void doRemoteAction(const ProjectContext& project, RemoteAction action);
    void doFetchRemoteTracking(const ProjectContext& project);

    std::optional<OrderedJson> buildDiffPayload(const GitDiffTarget& target, const ProjectContext& project);
    std::optional<OrderedJson> buildDiffPayloadForUntracked(const GitDiffTarget& target,
                                                            const ProjectContext& project);
    bool isUntrackedFile(const std::string& path, const ProjectContext& project);
    std::optional<int> commitParentCount(const std::string& commit, const ProjectContext& project);
    std::optional<OrderedJson> buildCommitDiffPayload(const std::string& commit, const std::optional<std::string>& path,
                                                      const ProjectContext& project);
    OrderedJson buildCommitDiffSummary(const std::string& commit, const ProjectContext& project);

    std::optional<std::string> remoteURL(const ProjectContext& project,
                                         const std::optional<std::string>& preferredRemote);
    std::optional<std::string> upstreamRemoteName(const ProjectContext& project);
    std::optional<std::string> pushDefaultRemoteName(const ProjectContext& project);
    std::optional<std::string> remoteURLUsingGit(const std::string& name, const ProjectContext& project);

    std::weak_ptr<ProjectProviding> m_configProvider;
    std::shared_ptr<GitAuthProviding> m_authProvider;
    std::shared_ptr<GitCredentialBroking> m_credentialBroker;
    std::shared_ptr<GitProcessRunning> m_processRunner;
    bool m_runnerIsProcess = false;
    GitEnvironment m_environment;
    std::string m_gitHubWebHost;
    std::weak_ptr<EventDispatching> m_eventSink;
    std::set<Uuid> m_missingRemoteProjects;  // queue only
    // Subcommands and exit statuses only: arguments may hold a commit
    // message or file names, and stderr may echo a URL with credentials.
    Logger m_logger{"app.velko.git", "git-service"};
    std::shared_ptr<SerialQueue> m_queue;
};

}  // namespace velko
