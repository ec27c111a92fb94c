#include "git/GitService.h"

#include <thread>

#include "git/GitCommitGraph.h"
#include "git/GitCommitParsing.h"
#include "git/GitJsonWriter.h"
#include "git/GitMessages.h"
#include "git/GitPayloads.h"
#include "git/GitRemoteLookup.h"
#include "git/GitStatusParsing.h"
#include "git/GitText.h"
#include "git/GitWorkingTreeParser.h"

namespace velko {

namespace {

const std::vector<std::string> kStatusCommand = {"status", "--porcelain", "--branch", "--untracked-files=all"};

bool isEmptyDiff(std::string_view patch, const GitNumstat& counts) {
    return trimWhitespace(patch).empty() && counts.additions == 0 && counts.deletions == 0 && !counts.isBinary;
}

// Asks no server: the service was built without a way to reach GitHub.
class UnreachableGitHub final : public HttpRequesting {
public:
    HttpResult perform(const HttpRequest&) override {
        return fail(HttpError{HttpError::Kind::CannotConnect, "no HTTP client"});
    }
};

}  // namespace

struct GitService::HistoryPages {
    std::mutex mutex;
    int inFlight = 0;
    std::vector<std::function<void()>> waiters;
    std::atomic<bool> stopped{false};

    void begin() {
        std::lock_guard lock(mutex);
        ++inFlight;
    }
    void end() {
        std::vector<std::function<void()>> ready;
        {
            std::lock_guard lock(mutex);
            if (--inFlight > 0) return;
            ready.swap(waiters);
        }
        for (auto& waiter : ready) waiter();
    }
    void whenNone(std::function<void()> done) {
        {
            std::lock_guard lock(mutex);
            if (inFlight > 0) {
                waiters.push_back(std::move(done));
                return;
            }
        }
        done();
    }
};

GitService::GitService(Dependencies dependencies)
    : m_scheduler(std::make_shared<GitScheduler>()),
      m_resolver(std::move(dependencies.configProvider)),
      m_commands(GitCommandContext::Options{
          std::move(dependencies.authProvider), std::move(dependencies.credentialBroker),
          std::move(dependencies.processRunner), std::move(dependencies.environment),
          dependencies.gitHubWebHost,
          [this](const std::optional<GitAuthToken>& record) {
              emit("github/oauth/status", gitTokenRefusedStatusPayload(record));
          }}),
      m_graphQL(std::move(dependencies.graphQLClient)),
      m_localHistory(std::move(dependencies.localHistoryProvider)),
      m_gitHubWebHost(dependencies.gitHubWebHost),
      m_historyPages(std::make_shared<HistoryPages>()),
      m_historyQueue(std::make_shared<ConcurrentQueue>("app.velko.git-service.history",
                                                       std::max(1u, dependencies.historyThreads))) {
    if (!m_graphQL) {
        std::shared_ptr<HttpRequesting> http =
            dependencies.http ? std::move(dependencies.http) : std::make_shared<UnreachableGitHub>();
        m_graphQL = std::make_shared<HttpGitHubGraphQLClient>(std::move(http), std::move(dependencies.graphqlURL),
                                                              dependencies.graphqlLimits);
    }
    if (!m_localHistory) m_localHistory = std::make_shared<GitLocalHistoryProvider>(m_commands);
    m_paginator = std::make_unique<GitHistoryPaginator>(GitHistoryPaginator::Collaborators{
        m_commands, m_localHistory, m_graphQL, m_gitHubWebHost,
        [this](std::string_view type, const OrderedJson& payload) { emit(type, payload); }});
    m_branchMaps = std::make_unique<GitBranchMapProvider>(
        m_commands, GitBranchMapProvider::Options{dependencies.branchMapParallelism, std::move(dependencies.now)});
}

GitService::~GitService() {
    // Whatever is still queued or running belongs to a service that is gone:
    // nothing may wait on the main thread or on a git that hangs, or the
    // queue's thread could not end.
    m_scheduler->stop();
    m_resolver.stop();
    m_commands.stop(kStopGrace);
    m_historyPages->stopped = true;
    // The last reference may go on a page of the pool itself; the pool cannot
    // end its own threads, so another thread waits for that page to return.
    if (m_historyQueue->isCurrent()) std::thread([queue = std::move(m_historyQueue)]() mutable { queue.reset(); }).detach();
}

void GitService::enqueue(std::function<void(GitService&)> block) {
    std::weak_ptr<GitService> weak = weak_from_this();
    m_scheduler->post([weak, block = std::move(block)] {
        if (auto self = weak.lock()) block(*self);
    });
}

void GitService::enqueueForProject(const std::optional<Uuid>& projectID,
                                   std::function<void(GitService&, const GitProject&)> block) {
    enqueue([projectID, block = std::move(block)](GitService& self) {
        if (auto project = self.m_resolver.resolve(projectID)) block(self, *project);
    });
}

void GitService::whenIdle(std::function<void()> done) {
    m_scheduler->whenIdle([pages = m_historyPages, done = std::move(done)]() mutable { pages->whenNone(std::move(done)); });
}

void GitService::stop(std::chrono::milliseconds grace, std::function<void()> done) {
    m_scheduler->stop();
    m_historyPages->stopped = true;
    m_resolver.stop();
    m_commands.stop(grace);
    whenIdle(std::move(done));
}

void GitService::emit(std::string_view type, const OrderedJson& payload) {
    if (auto sink = m_eventSink.lock()) sink->dispatchEvent(type, payload);
}

void GitService::sendResult(bool success, const std::string& message) {
    emit("git/result", gitResultPayload(success, message));
}

// --- public operations -------------------------------------------------------

void GitService::refreshStatus(const std::optional<Uuid>& projectID) {
    enqueueForProject(projectID, [](GitService& self, const GitProject& project) { self.doRefreshStatus(project); });
}

void GitService::fetchStatusDetail(const Uuid& projectID) {
    enqueueForProject(projectID, [](GitService& self, const GitProject& project) { self.doFetchStatusDetail(project); });
}

void GitService::fetchWorkingTree(const Uuid& projectID) {
    enqueueForProject(projectID, [](GitService& self, const GitProject& project) { self.doFetchWorkingTree(project); });
}

void GitService::fetchDiff(const Uuid& projectID, std::vector<GitDiffTarget> targets) {
    enqueueForProject(projectID, [targets = std::move(targets)](GitService& self, const GitProject& project) {
        self.doFetchDiff(project, targets);
    });
}

void GitService::fetchCommitDiff(const Uuid& projectID, std::string commit, std::optional<std::string> path) {
    enqueueForProject(projectID, [commit = std::move(commit), path = std::move(path)](GitService& self,
                                                                                        const GitProject& project) {
        self.doFetchCommitDiff(project, commit, path);
    });
}

void GitService::commit(const Uuid& projectID, std::string message) {
    enqueue([projectID, message = std::move(message)](GitService& self) {
        // An empty message is refused before anything else, project or not.
        if (trimWhitespace(message).empty()) {
            self.sendResult(false, std::string(gitmsg::kCommitMessageRequired));
            return;
        }
        if (auto project = self.m_resolver.resolve(projectID)) self.doCommit(*project, message);
    });
}

void GitService::push(const Uuid& projectID) {
    enqueueForProject(projectID, [](GitService& self, const GitProject& project) {
        self.doRemoteAction(project, RemoteAction::Push);
    });
}

void GitService::pull(const Uuid& projectID) {
    enqueueForProject(projectID, [](GitService& self, const GitProject& project) {
        self.doRemoteAction(project, RemoteAction::Pull);
    });
}

void GitService::fetch(const Uuid& projectID) {
    enqueueForProject(projectID, [](GitService& self, const GitProject& project) {
        self.doRemoteAction(project, RemoteAction::Fetch);
    });
}

void GitService::fetchRemoteTracking(const Uuid& projectID) {
    enqueueForProject(projectID,
                      [](GitService& self, const GitProject& project) { self.doFetchRemoteTracking(project); });
}

void GitService::reachRefreshBarrier(const Uuid& projectID, std::string requestId) {
    enqueue([projectID, requestId = std::move(requestId)](GitService& self) {
        self.emit("git/refresh/barrier", gitRefreshBarrierPayload(projectID.toString(), requestId));
    });
}

void GitService::fetchCommitHistory(const Uuid& projectID, std::optional<std::string> cursor, int64_t pageSize,
                                    std::optional<std::string> requestId) {
    std::weak_ptr<GitService> weak = weak_from_this();
    auto pages = m_historyPages;
    const bool allowFiles = m_paginator->supportsCommitFilesField();
    pages->begin();
    m_historyQueue->post([weak, pages, projectID, cursor = std::move(cursor), pageSize, requestId = std::move(requestId),
                          allowFiles] {
        struct PageEnd {
            std::shared_ptr<HistoryPages> pages;
            ~PageEnd() { pages->end(); }
        } pageEnd{pages};
        if (pages->stopped) return;
        auto self = weak.lock();
        if (!self) return;
        if (auto project = self->m_resolver.resolve(projectID))
            self->m_paginator->fetchPage(*project, cursor, pageSize, requestId, allowFiles);
    });
}

void GitService::fetchCommitGraph(const Uuid& projectID, int64_t pageSize) {
    enqueueForProject(projectID, [pageSize](GitService& self, const GitProject& project) {
        self.doFetchCommitGraph(project, pageSize);
    });
}

void GitService::fetchBranchMap(const Uuid& projectID, int64_t limit) {
    enqueue([projectID, limit](GitService& self) {
        // The page waits for an answer: an unknown project gets one too.
        auto project = self.m_resolver.resolve(projectID);
        if (!project) {
            OrderedJson error;
            error["projectId"] = projectID.toString();
            error["message"] = gitmsg::kProjectNotFound;
            self.emit("git/branch-map/error", error);
            return;
        }
        GitBranchMap map = self.m_branchMaps->loadBranchMap(*project, limit);
        self.emit("git/branch-map", gitBranchMapPayload(project->id.toString(), map));
    });
}

// --- failures --------------------------------------------------------------------

void GitService::handleGitError(const GitError& error, const std::string& commandDescription,
                                const std::optional<Uuid>& projectId) {
    switch (error.kind) {
    case GitError::Kind::LaunchFailed:
        sendResult(false, gitmsg::launchFailed(commandDescription, error.text));
        return;
    case GitError::Kind::CommandFailed: {
        if (auto friendly = friendlyMessageForGitCommandFailure(error.text)) {
            if (projectId) notifyMissingRemoteIfNeeded(*projectId);
            else sendResult(false, *friendly);
            return;
        }
        sendResult(false, error.text.empty() ? gitmsg::unknownError(commandDescription) : error.text);
        return;
    }
    case GitError::Kind::AuthenticationFailed: {
        std::string message(gitmsg::kAuthenticationRejected);
        sendResult(false, error.text.empty() ? message : message + "\n" + error.text);
        return;
    }
    case GitError::Kind::AuthenticationRequired:
        sendResult(false, gitmsg::signInToRun(commandDescription));
        return;
    }
}

bool GitService::ensureAuthenticated(const std::string& operation, bool suppressError) {
    if (m_commands.hasToken()) return true;
    if (!suppressError) sendResult(false, gitmsg::signInToRun(operation));
    return false;
}

void GitService::notifyMissingRemoteIfNeeded(const Uuid& projectId) {
    if (!m_missingRemoteProjects.insert(projectId).second) return;
    sendResult(false, std::string(gitmsg::kMissingRemote));
    // The set is a one-second guard against repeating the message.
    std::weak_ptr<GitService> weak = weak_from_this();
    m_scheduler->postDelayed(std::chrono::seconds(1), [weak, projectId] {
        if (auto self = weak.lock()) self->m_missingRemoteProjects.erase(projectId);
    });
}

// --- status -----------------------------------------------------------------------

void GitService::doRefreshStatus(const GitProject& project) {
    auto output = m_commands.run(kStatusCommand, project);
    if (output) {
        m_missingRemoteProjects.erase(project.id);
        emit("git/status", gitStatusPayload(project.id.toString(), parseGitStatus(*output)));
        return;
    }
    const GitError& error = output.error();
    if (error.kind == GitError::Kind::CommandFailed && friendlyMessageForGitCommandFailure(error.text)) {
        notifyMissingRemoteIfNeeded(project.id);
    } else {
        sendResult(false, error.errorDescription());
    }
    emit("git/status", gitStatusPayload(project.id.toString(), GitStatusSummary{}));
}

void GitService::doFetchStatusDetail(const GitProject& project) {
    auto output = m_commands.run(kStatusCommand, project);
    if (!output) {
        handleGitError(output.error(), "git status", project.id);
        return;
    }
    m_missingRemoteProjects.erase(project.id);
    GitStatusDetailComponents components = GitStatusDetailMapper::parse(*output);
    std::string headSha = "--";
    // An unborn branch has no HEAD; that is no error worth a message.
    if (auto head = m_commands.run({"rev-parse", "HEAD"}, project)) headSha = std::string(trimWhitespace(*head));
    emit("git/status/detail", gitStatusDetailPayload(project.id.toString(), components, headSha));
}

void GitService::doFetchWorkingTree(const GitProject& project) {
    auto output = m_commands.run({"status", "--porcelain=v2", "--branch", "--untracked-files=all"}, project);
    std::vector<GitWorkingTreeEntry> entries;
    if (output) entries = GitWorkingTreeParser::parse(*output);
    std::string type = "git/working-tree";
    if (auto sink = m_eventSink.lock()) {
        sink->dispatchEncodedEvent(type, makeEventEnvelope(type, encodeWorkingTreePayload(entries, project.id.toString())));
    }
}

// --- diffs -------------------------------------------------------------------------

bool GitService::isUntrackedFile(const std::string& path, const GitProject& project) {
    if (path.empty()) return false;
    // "--" keeps a path that begins with a dash from being read as an option.
    auto result = m_commands.run({"ls-files", "--error-unmatch", "--", path}, project);
    return !result && result.error().kind == GitError::Kind::CommandFailed;
}

std::optional<OrderedJson> GitService::buildDiffPayloadForUntracked(const GitDiffTarget& target,
                                                                    const GitProject& project) {
    auto numstat = m_commands.runAllowingExitCodes(
        {"diff", "--no-index", "--numstat", "/dev/null", "--", target.path}, project, {0, 1});
    if (!numstat) {
        handleGitError(numstat.error(), "git diff --no-index --numstat", project.id);
        return std::nullopt;
    }
    GitNumstat counts = parseNumstat(numstat->stdout);
    auto patch = m_commands.runAllowingExitCodes(
        {"diff", "--no-index", "--patch", "--text", "/dev/null", "--", target.path}, project, {0, 1});
    if (!patch) {
        handleGitError(patch.error(), "git diff --no-index", project.id);
        return std::nullopt;
    }
    if (isEmptyDiff(patch->stdout, counts)) return std::nullopt;
    return gitDiffFilePayload(target.path, target.stage, counts, std::move(patch->stdout));
}

std::optional<OrderedJson> GitService::buildDiffPayload(const GitDiffTarget& target, const GitProject& project) {
    if (target.stage == GitDiffStage::Unstaged && !target.path.empty() && isUntrackedFile(target.path, project)) {
        return buildDiffPayloadForUntracked(target, project);
    }
    if (m_missingRemoteProjects.count(project.id)) return std::nullopt;
    auto numstat = m_commands.run(diffArguments(target, GitDiffMode::Numstat), project);
    if (!numstat) {
        handleGitError(numstat.error(), "git diff --numstat", project.id);
        return std::nullopt;
    }
    GitNumstat counts = parseNumstat(*numstat);
    auto patch = m_commands.run(diffArguments(target, GitDiffMode::Patch), project);
    if (!patch) {
        handleGitError(patch.error(), "git diff", project.id);
        return std::nullopt;
    }
    if (isEmptyDiff(*patch, counts)) return std::nullopt;
    return gitDiffFilePayload(target.path, target.stage, counts, std::move(*patch));
}

void GitService::doFetchDiff(const GitProject& project, std::vector<GitDiffTarget> targets) {
    if (targets.empty()) {
        targets = {GitDiffTarget{"", GitDiffStage::Staged}, GitDiffTarget{"", GitDiffStage::Unstaged}};
    }
    OrderedJson files = OrderedJson::array();
    for (const auto& target : targets) {
        if (auto file = buildDiffPayload(target, project)) files.push_back(std::move(*file));
    }
    OrderedJson payload;
    payload["projectId"] = project.id.toString();
    payload["files"] = std::move(files);
    emit("git/diff", payload);
}

std::optional<int> GitService::commitParentCount(const std::string& commit, const GitProject& project) {
    auto output = m_commands.run({"rev-list", "--parents", "-n", "1", commit}, project);
    if (!output) {
        handleGitError(output.error(), "git rev-list --parents", project.id);
        return std::nullopt;
    }
    return parseParentCount(*output);
}

std::optional<OrderedJson> GitService::buildCommitDiffPayload(const std::string& commit,
                                                              const std::optional<std::string>& path,
                                                              const GitProject& project) {
    int parents = commitParentCount(commit, project).value_or(1);
    auto numstat = m_commands.run(commitDiffArguments(commit, GitDiffMode::Numstat, path, parents), project);
    if (!numstat) {
        handleGitError(numstat.error(), parents != 0 ? "git diff --numstat" : "git diff-tree --numstat", project.id);
        return std::nullopt;
    }
    GitNumstat counts = parseNumstat(*numstat);
    auto patch = m_commands.run(commitDiffArguments(commit, GitDiffMode::Patch, path, parents), project);
    if (!patch) {
        handleGitError(patch.error(), parents != 0 ? "git diff" : "git show", project.id);
        return std::nullopt;
    }
    std::string patchText = std::move(*patch);
    if (parents >= 2 && trimWhitespace(patchText).empty()) {
        // A clean merge has no combined diff; show it against each parent instead.
        auto merged = m_commands.run(mergeCommitPatchArguments(commit, path), project);
        if (!merged) {
            handleGitError(merged.error(), "git show -m", project.id);
            return std::nullopt;
        }
        patchText = std::move(*merged);
    }
    if (isEmptyDiff(patchText, counts)) return std::nullopt;
    return gitCommitDiffFilePayload(commit, path && !path->empty() ? *path : ".", counts, std::move(patchText), true);
}

OrderedJson GitService::buildCommitDiffSummary(const std::string& commit, const GitProject& project) {
    OrderedJson files = OrderedJson::array();
    // "--numstat" alone already replaces the patch; "--no-patch" next to it
    // would also silence the numbers on git before 2.43.
    auto output = m_commands.run({"show", commit, "--numstat", "--format=", "--find-renames"}, project);
    if (!output) {
        handleGitError(output.error(), "git show --numstat", project.id);
        return files;
    }
    for (const auto& file : parseCommitFileCounts(*output)) {
        GitNumstat counts{file.additions, file.deletions, file.isBinary};
        files.push_back(gitCommitDiffFilePayload(commit, file.path, counts, "", false));
    }
    return files;
}

void GitService::doFetchCommitDiff(const GitProject& project, const std::string& rawCommit,
                                   const std::optional<std::string>& path) {
    std::string commit(trimWhitespace(rawCommit));
    // A "commit" that begins with a dash would reach git as an option
    // (git show --output=FILE writes a file); it names no commit anyway.
    if (commit.empty() || commit.front() == '-') return;
    OrderedJson files = OrderedJson::array();
    if (path) {
        if (auto file = buildCommitDiffPayload(commit, path, project)) {
            files.push_back(std::move(*file));
        } else {
            // The page waits for this one file: tell it there is nothing to show.
            std::string shown = path->empty() ? "." : normalizeRenamedPath(*path);
            files.push_back(gitCommitDiffFilePayload(commit, shown.empty() ? "." : shown, GitNumstat{}, "", true));
        }
    } else {
        files = buildCommitDiffSummary(commit, project);
    }
    OrderedJson payload;
    payload["projectId"] = project.id.toString();
    payload["commit"] = commit;
    payload["files"] = std::move(files);
    emit("git/commit/diff", payload);
}

// --- actions -----------------------------------------------------------------------

void GitService::doCommit(const GitProject& project, const std::string& message) {
    if (auto added = m_commands.run({"add", "-A"}, project); !added) {
        handleGitError(added.error(), "git add", project.id);
        return;
    }
    // The message goes as received: surrounding line feeds are the user's.
    if (auto committed = m_commands.run({"commit", "-m", message}, project); !committed) {
        handleGitError(committed.error(), "git commit", project.id);
        return;
    }
    sendResult(true, std::string(gitmsg::kCommitted));
    refreshStatus(project.id);
}

void GitService::doRemoteAction(const GitProject& project, RemoteAction action) {
    struct Shape {
        std::vector<std::string> arguments;
        const char* operation;
        const char* description;
        std::string_view success;
    };
    static const Shape kShapes[] = {
        {{"push"}, "Push", "git push", gitmsg::kPushDone},
        {{"pull", "--rebase"}, "Pull", "git pull", gitmsg::kPullDone},
        {{"fetch"}, "Fetch", "git fetch", gitmsg::kFetchDone},
    };
    const Shape& shape = kShapes[static_cast<int>(action)];
    auto url = lookUpRemoteURL(m_commands, project);
    if (!url) {
        notifyMissingRemoteIfNeeded(project.id);
        return;
    }
    m_missingRemoteProjects.erase(project.id);
    bool requiresOAuth = m_commands.requiresToken(*url);
    if (requiresOAuth && !ensureAuthenticated(shape.operation, false)) return;
    auto output = m_commands.run(shape.arguments, project, requiresOAuth ? GitAuth::GitHubToken : GitAuth::None,
                                 m_commands.sshEnvironment(*url, project));
    if (!output) {
        handleGitError(output.error(), shape.description, project.id);
        return;
    }
    sendResult(true, std::string(shape.success));
    refreshStatus(project.id);
}

void GitService::doFetchRemoteTracking(const GitProject& project) {
    auto emitTracking = [&](const std::string& branch, const std::optional<std::string>& remote, int64_t ahead,
                            int64_t behind) {
        emit("git/remote/tracking", gitRemoteTrackingPayload(project.id.toString(), branch, remote, ahead, behind));
    };
    if (lookUpRemoteURL(m_commands, project)) m_missingRemoteProjects.erase(project.id);
    else notifyMissingRemoteIfNeeded(project.id);

    auto head = m_commands.run({"rev-parse", "--abbrev-ref", "HEAD"}, project);
    if (!head) {
        handleGitError(head.error(), "git rev-parse --abbrev-ref HEAD", project.id);
        return;
    }
    std::string branch(trimWhitespace(*head));
    auto upstream = m_commands.run({"rev-parse", "--abbrev-ref", "--symbolic-full-name", "@{u}"}, project);
    if (!upstream) {
        const GitError& error = upstream.error();
        if (error.kind == GitError::Kind::CommandFailed && toLower(error.text).find("no upstream") != std::string::npos) {
            emitTracking(branch, std::nullopt, 0, 0);
        } else {
            handleGitError(error, "git rev-parse --abbrev-ref --symbolic-full-name @{u}", project.id);
        }
        return;
    }
    std::string remote(trimWhitespace(*upstream));
    if (remote.empty()) {
        emitTracking(branch, std::nullopt, 0, 0);
        return;
    }
    auto output = m_commands.run({"rev-list", "--left-right", "--count", "@{u}...HEAD"}, project);
    auto counts = output ? parseLeftRightCounts(*output) : std::nullopt;
    if (!counts) {
        emitTracking(branch, remote, 0, 0);
        return;
    }
    emitTracking(branch, remote, counts->right, counts->left);
}

// --- commit graph ---------------------------------------------------------------------

void GitService::doFetchCommitGraph(const GitProject& project, int64_t pageSize) {
    const std::string projectId = project.id.toString();
    auto emitGraph = [&](const GitCommitGraph& graph) {
        if (auto sink = m_eventSink.lock()) {
            sink->dispatchEncodedEvent("git/graph", makeEventEnvelope("git/graph", encodeCommitGraphPayload(projectId, graph)));
        }
    };
    auto emitEmpty = [&] { emitGraph(GitCommitGraph{}); };
    if (m_commitGraphUnavailableProjects.count(project.id)) return emitEmpty();
    auto token = m_commands.token();
    if (!token) return emitEmpty();
    auto url = lookUpRemoteURL(m_commands, project);
    auto coordinates = url ? parseGitHubRemoteURL(*url, m_gitHubWebHost) : std::nullopt;
    if (!coordinates) return emitEmpty();

    OrderedJson variables;
    variables["owner"] = coordinates->owner;
    variables["name"] = coordinates->name;
    variables["pageSize"] = pageSize;
    auto result = m_graphQL->execute(kCommitGraphQuery, variables, token->accessToken);
    if (!result) {
        const GitHubGraphQLClientError& error = result.error();
        if (error.kind == GitHubGraphQLClientError::Kind::Unauthorized) {
            m_commands.forgetRefusedToken(token->accessToken);
        } else if (shouldDisableCommitGraph(error)) {
            // The query cannot work for this project: an empty graph, now and later, without a word.
            m_commitGraphUnavailableProjects.insert(project.id);
            m_commitGraphFailureReportedProjects.insert(project.id);
            return emitEmpty();
        }
        sendResult(false, std::string(gitmsg::kGraphFailedPrefix) + error.errorDescription());
        return;
    }
    auto& history = result.value().defaultBranchHistory;
    if (!history || history->nodes.empty()) return emitEmpty();
    emitGraph(buildCommitGraph(history->nodes));
}

}  // namespace velko
