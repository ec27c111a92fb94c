#include "git/GitService.h"

#include <charconv>
#include <future>

#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/TaskQueue.h"
#include "git/GitJsonWriter.h"
#include "git/GitStatusParsing.h"
#include "git/GitWorkingTreeParser.h"

namespace velko {

namespace {

constexpr const char* kStatusCommand[] = {"status", "--porcelain", "--branch", "--untracked-files=all"};

// Runs `body` on the main thread and waits for its value. The git queue may
// wait for main; main never waits for the git queue.
template <typename F>
auto syncOnMain(F body) -> decltype(body()) {
    using R = decltype(body());
    if (isMainThread()) return body();
    auto promise = std::make_shared<std::promise<R>>();
    auto future = promise->get_future();
    // Only the hop holds the promise: a main loop that drops the hop unrun
    // breaks it, rather than leaving this queue waiting forever.
    mainQueue().post([promise = std::move(promise), body = std::move(body)]() mutable {
        promise->set_value(body());
    });
    try {
        return future.get();
    } catch (const std::future_error&) {
        // The main queue went away with the hop unrun: no project, no work.
        return R{};
    }
}

OrderedJson statusFiles(const std::vector<GitStatusFile>& files) {
    OrderedJson list = OrderedJson::array();
    for (const auto& file : files) list.push_back(OrderedJson{{"path", file.path}, {"status", file.status}});
    return list;
}

OrderedJson statusPayload(const std::string& projectId, const GitStatusSummary& summary) {
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["branch"] = summary.branch;
    payload["ahead"] = summary.ahead;
    payload["behind"] = summary.behind;
    payload["staged"] = statusFiles(summary.staged);
    payload["unstaged"] = statusFiles(summary.unstaged);
    payload["untracked"] = statusFiles(summary.untracked);
    payload["pending"] = summary.staged.size() + summary.unstaged.size() + summary.untracked.size();
    return payload;
}

OrderedJson treeNodes(const std::vector<GitChangeTreeNode>& nodes) {
    OrderedJson list = OrderedJson::array();
    for (const auto& node : nodes) {
        OrderedJson item;
        item["path"] = node.path;
        item["status"] = node.status;
        if (node.children) item["children"] = treeNodes(*node.children);
        list.push_back(std::move(item));
    }
    return list;
}

std::vector<std::string> splitOnBlanks(std::string_view text) {
    std::vector<std::string> pieces;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
        size_t start = i;
        while (i < text.size() && !(text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
        if (i > start) pieces.emplace_back(text.substr(start, i - start));
    }
    return pieces;
}

// True for remotes git reaches through ssh: "ssh://", "git+ssh://" and the
// scp-like "host:path" (a colon before any slash). Local paths, "file://",
// "git://" and HTTP remotes never start ssh.
bool reachedThroughSsh(std::string_view url) {
    std::string lower = toLower(url);
    for (std::string_view scheme : {"ssh://", "git+ssh://", "ssh+git://"}) {
        if (lower.rfind(scheme, 0) == 0) return true;
    }
    if (lower.find("://") != std::string::npos) return false;
    size_t colon = url.find(':');
    return colon != std::string_view::npos && colon > 0 && url.substr(0, colon).find('/') == std::string_view::npos;
}

std::string subcommand(const std::vector<std::string>& arguments) {
    return arguments.empty() ? std::string() : arguments.front();
}

int64_t decimalOrZero(std::string_view text) {
    int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() ? value : 0;
}

}  // namespace

GitService::GitService(Dependencies dependencies)
    : m_configProvider(std::move(dependencies.configProvider)),
      m_authProvider(dependencies.authProvider ? std::move(dependencies.authProvider)
                                               : std::make_shared<NoGitAuthProvider>()),
      m_credentialBroker(dependencies.credentialBroker ? std::move(dependencies.credentialBroker)
                                                       : std::make_shared<GitCredentialBroker>()),
      m_processRunner(dependencies.processRunner ? std::move(dependencies.processRunner)
                                                 : std::make_shared<ProcessGitProcessRunner>()),
      m_environment(dependencies.environment ? gitEnvironment(std::move(*dependencies.environment))
                                             : gitEnvironment()),
      m_gitHubWebHost(std::move(dependencies.gitHubWebHost)),
      m_queue(std::make_shared<SerialQueue>("app.velko.git-service")) {
    m_runnerIsProcess = dynamic_cast<ProcessGitProcessRunner*>(m_processRunner.get()) != nullptr;
}

GitService::~GitService() {
    // When the last reference goes away inside one of our own blocks, the queue
    // cannot join its own thread; it is left to the end of the process instead.
    if (m_queue->isCurrent()) new std::shared_ptr<SerialQueue>(std::move(m_queue));
}

void GitService::enqueue(std::function<void(GitService&)> block) {
    std::weak_ptr<GitService> weak = weak_from_this();
    m_queue->post([weak, block = std::move(block)] {
        if (auto self = weak.lock()) block(*self);
    });
}

void GitService::whenIdle(std::function<void()> done) { m_queue->post(std::move(done)); }

void GitService::emit(std::string_view type, const OrderedJson& payload) {
    if (auto sink = m_eventSink.lock()) sink->dispatchEvent(type, payload);
}

void GitService::emitEncoded(std::string_view type, const std::string& payloadJson) {
    if (auto sink = m_eventSink.lock()) sink->dispatchEncodedEvent(type, makeEventEnvelope(type, payloadJson));
}

void GitService::sendResult(bool success, const std::string& message) {
    OrderedJson payload;
    payload["success"] = success;
    payload["message"] = message;
    emit("git/result", payload);
}

// --- public operations -------------------------------------------------------

void GitService::refreshStatus(const std::optional<Uuid>& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doRefreshStatus(*project);
    });
}

void GitService::fetchStatusDetail(const Uuid& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doFetchStatusDetail(*project);
    });
}

void GitService::fetchWorkingTree(const Uuid& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doFetchWorkingTree(*project);
    });
}

void GitService::fetchDiff(const Uuid& projectID, std::vector<GitDiffTarget> targets) {
    enqueue([projectID, targets = std::move(targets)](GitService& self) mutable {
        if (auto project = self.metadata(projectID)) self.doFetchDiff(*project, std::move(targets));
    });
}

void GitService::fetchCommitDiff(const Uuid& projectID, std::string commit, std::optional<std::string> path) {
    enqueue([projectID, commit = std::move(commit), path = std::move(path)](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doFetchCommitDiff(*project, commit, path);
    });
}

void GitService::commit(const Uuid& projectID, std::string message) {
    enqueue([projectID, message = std::move(message)](GitService& self) {
        // An empty message is refused before anything else, project or not.
        if (trimWhitespace(message).empty()) {
            self.sendResult(false, "コミットメッセージを入力してください");
            return;
        }
        if (auto project = self.metadata(projectID)) self.doCommit(*project, message);
    });
}

void GitService::push(const Uuid& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doRemoteAction(*project, RemoteAction::Push);
    });
}

void GitService::pull(const Uuid& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doRemoteAction(*project, RemoteAction::Pull);
    });
}

void GitService::fetch(const Uuid& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doRemoteAction(*project, RemoteAction::Fetch);
    });
}

void GitService::fetchRemoteTracking(const Uuid& projectID) {
    enqueue([projectID](GitService& self) {
        if (auto project = self.metadata(projectID)) self.doFetchRemoteTracking(*project);
    });
}

void GitService::reachRefreshBarrier(const Uuid& projectID, std::string requestId) {
    enqueue([projectID, requestId = std::move(requestId)](GitService& self) {
        OrderedJson payload;
        payload["projectId"] = projectID.toString();
        payload["requestId"] = requestId;
        self.emit("git/refresh/barrier", payload);
    });
}

// --- running git ---------------------------------------------------------------

std::optional<GitService::ProjectContext> GitService::metadata(const std::optional<Uuid>& projectID) {
    std::weak_ptr<ProjectProviding> provider = m_configProvider;
    auto id = projectID;
    if (!id) {
        id = syncOnMain([provider]() -> std::optional<Uuid> {
            if (auto store = provider.lock()) return store->config().activeProjectID;
            return std::nullopt;
        });
    }
    if (!id) return std::nullopt;
    auto project = syncOnMain([provider, id]() -> std::optional<ProjectMetadata> {
        if (auto store = provider.lock()) return store->project(*id);
        return std::nullopt;
    });
    if (!project) return std::nullopt;
    std::string directory = expandTilde(project->rootPath, homeDirectory());
    return ProjectContext{std::move(*project), *id, std::move(directory)};
}

GitEnvironment GitService::baseEnvironment() const { return m_environment; }

Result<std::string, GitError> GitService::runGit(const std::vector<std::string>& arguments,
                                                 const ProjectContext& project, bool requiresAuth,
                                                 const GitEnvironment& extraEnvironment) {
    // A second attempt only when the server refused a token that had been
    // replaced (refreshed, signed in again) while the run went on.
    for (int attempt = 0;; ++attempt) {
        GitEnvironment environment = baseEnvironment();
        for (const auto& [key, value] : extraEnvironment) environment[key] = value;
        std::optional<GitAuthToken> token;
        if (requiresAuth) {
            token = m_authProvider->loadToken();
            if (!token) return fail(GitError::authenticationRequired());
            auto prepared = m_credentialBroker->prepareEnvironment(token->accessToken);
            if (!prepared) {
                m_logger.error("git " + subcommand(arguments) + ": askpass script not written: " + prepared.error());
                return fail(GitError::launchFailed(prepared.error()));
            }
            for (auto& [key, value] : *prepared) environment[key] = value;
            environment["GITHUB_TOKEN"] = token->accessToken;
            environment["GH_TOKEN"] = token->accessToken;
            // A credential helper of the user's (store, cache, a keyring) would be
            // handed the token after a successful run and keep it on disk. Reset the
            // helper list for this child only, through the environment rather than
            // "-c" so that nothing of it shows on a command line.
            int count = 0;
            if (auto it = environment.find("GIT_CONFIG_COUNT"); it != environment.end()) {
                count = static_cast<int>(std::max<int64_t>(0, decimalOrZero(it->second)));
            }
            environment["GIT_CONFIG_KEY_" + std::to_string(count)] = "credential.helper";
            environment["GIT_CONFIG_VALUE_" + std::to_string(count)] = "";
            environment["GIT_CONFIG_COUNT"] = std::to_string(count + 1);
        }

        std::vector<std::string> argv;
        argv.reserve(arguments.size() + 1);
        argv.emplace_back("git");
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        GitProcessExecutionResult result = m_processRunner->run(argv, project.directory, environment);

        if (result.status == 0) {
            if (requiresAuth) m_credentialBroker->cleanup();
            return std::move(result.stdout);
        }
        m_logger.info("git " + subcommand(arguments) + " exited with status " +
                      std::to_string(result.status));
        if (requiresAuth && isAuthenticationFailure(result.stderr)) {
            m_credentialBroker->cleanup();
            auto record = m_authProvider->loadToken();
            if (!m_authProvider->deleteToken(token->accessToken)) {
                if (attempt == 0) {
                    m_logger.notice("git " + subcommand(arguments) + ": the refused token was replaced; trying again");
                    continue;
                }
                return fail(GitError::authenticationFailed(std::move(result.stderr)));
            }
            m_logger.notice("git " + subcommand(arguments) + ": the server refused the token; it is forgotten");
            OrderedJson status;
            status["status"] = "disconnected";
            if (record && record->accountLogin) {
                OrderedJson account;
                account["login"] = *record->accountLogin;
                if (record->accountAvatarURL) account["avatarUrl"] = *record->accountAvatarURL;
                status["account"] = std::move(account);
            }
            status["reason"] = "tokenInvalid";
            emit("github/oauth/status", status);
            return fail(GitError::authenticationFailed(std::move(result.stderr)));
        }
        if (requiresAuth) m_credentialBroker->cleanup();
        return fail(GitError::commandFailed(std::string(trimWhitespace(result.stderr))));
    }
}

Result<GitProcessExecutionResult, GitError> GitService::runGitAllowingDifferences(
    const std::vector<std::string>& arguments, const ProjectContext& project, const std::set<int>& allowedExitCodes) {
    std::vector<std::string> argv;
    argv.reserve(arguments.size() + 1);
    argv.emplace_back("git");
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    GitProcessExecutionResult result = m_processRunner->run(argv, project.directory, baseEnvironment());
    if (allowedExitCodes.count(result.status)) return result;
    m_logger.info("git " + subcommand(arguments) + " exited with status " +
                  std::to_string(result.status));
    return fail(GitError::commandFailed(std::string(trimWhitespace(result.stderr))));
}

void GitService::handleGitError(const GitError& error, const std::string& commandDescription,
                                const std::optional<Uuid>& projectId) {
    static const std::string kAuthFailed = "Git 認証に失敗しました。再度 GitHub にサインインしてください。";
    switch (error.kind) {
    case GitError::Kind::LaunchFailed:
        sendResult(false, commandDescription + " の起動に失敗: " + error.text);
        return;
    case GitError::Kind::CommandFailed: {
        if (auto friendly = friendlyMessageForGitCommandFailure(error.text)) {
            if (projectId) notifyMissingRemoteIfNeeded(*projectId);
            else sendResult(false, *friendly);
            return;
        }
        sendResult(false, error.text.empty() ? commandDescription + " で不明なエラー" : error.text);
        return;
    }
    case GitError::Kind::AuthenticationFailed:
        sendResult(false, error.text.empty() ? kAuthFailed : kAuthFailed + "\n" + error.text);
        return;
    case GitError::Kind::AuthenticationRequired:
        sendResult(false, commandDescription + " を実行するには GitHub にサインインしてください");
        return;
    }
}

bool GitService::ensureAuthenticated(const std::string& operation, bool suppressError) {
    if (m_authProvider->loadToken()) return true;
    if (!suppressError) sendResult(false, operation + " を実行するには GitHub にサインインしてください");
    return false;
}

void GitService::notifyMissingRemoteIfNeeded(const Uuid& projectId) {
    if (!m_missingRemoteProjects.insert(projectId).second) return;
    sendResult(false, kMissingRemoteMessage);
    // The set is a one-second guard against repeating the message.
    std::weak_ptr<GitService> weak = weak_from_this();
    m_queue->postDelayed(std::chrono::seconds(1), [weak, projectId] {
        if (auto self = weak.lock()) self->m_missingRemoteProjects.erase(projectId);
    });
}

// --- status -----------------------------------------------------------------------

void GitService::doRefreshStatus(const ProjectContext& project) {
    std::vector<std::string> args(std::begin(kStatusCommand), std::end(kStatusCommand));
    auto output = runGit(args, project, false);
    if (output) {
        m_missingRemoteProjects.erase(project.id);
        emit("git/status", statusPayload(project.id.toString(), parseGitStatus(*output)));
        return;
    }
    const GitError& error = output.error();
    if (error.kind == GitError::Kind::CommandFailed && friendlyMessageForGitCommandFailure(error.text)) {
        notifyMissingRemoteIfNeeded(project.id);
    } else {
        sendResult(false, error.errorDescription());
    }
    emit("git/status", statusPayload(project.id.toString(), GitStatusSummary{}));
}

void GitService::doFetchStatusDetail(const ProjectContext& project) {
    std::vector<std::string> args(std::begin(kStatusCommand), std::end(kStatusCommand));
    auto output = runGit(args, project, false);
    if (!output) {
        handleGitError(output.error(), "git status", project.id);
        return;
    }
    m_missingRemoteProjects.erase(project.id);
    GitStatusDetailComponents components = GitStatusDetailMapper::parse(*output);
    auto staged = GitStatusDetailMapper::buildTree(components.staged);
    auto unstaged = GitStatusDetailMapper::buildTree(components.unstaged);
    auto untracked = GitStatusDetailMapper::buildTree(components.untracked);
    std::string headSha = "--";
    // An unborn branch has no HEAD; that is no error worth a message.
    if (auto head = runGit({"rev-parse", "HEAD"}, project, false)) headSha = std::string(trimWhitespace(*head));

    OrderedJson payload;
    payload["projectId"] = project.id.toString();
    payload["branch"] = components.branch.empty() ? "--" : components.branch;
    payload["headSha"] = headSha;
    payload["ahead"] = components.ahead;
    payload["behind"] = components.behind;
    if (components.remote) payload["remote"] = *components.remote;
    payload["staged"] = treeNodes(staged);
    payload["unstaged"] = treeNodes(unstaged);
    payload["untracked"] = treeNodes(untracked);
    emit("git/status/detail", payload);
}

void GitService::doFetchWorkingTree(const ProjectContext& project) {
    auto output = runGit({"status", "--porcelain=v2", "--branch", "--untracked-files=all"}, project, false);
    std::vector<GitWorkingTreeEntry> entries;
    if (output) entries = GitWorkingTreeParser::parse(*output);
    emitEncoded("git/working-tree", encodeWorkingTreePayload(entries, project.id.toString()));
}

// --- diffs -------------------------------------------------------------------------

bool GitService::isUntrackedFile(const std::string& path, const ProjectContext& project) {
    if (path.empty()) return false;
    // "--" keeps a path that begins with a dash from being read as an option.
    auto result = runGit({"ls-files", "--error-unmatch", "--", path}, project, false);
    return !result && result.error().kind == GitError::Kind::CommandFailed;
}

namespace {

OrderedJson diffFilePayload(const std::string& path, GitDiffStage stage, const GitNumstat& counts,
                            std::string patch) {
    OrderedJson file;
    file["path"] = path.empty() ? "." : path;
    file["stage"] = toString(stage);
    file["additions"] = counts.additions;
    file["deletions"] = counts.deletions;
    file["isBinary"] = counts.isBinary;
    file["patch"] = std::move(patch);
    return file;
}

bool isEmptyDiff(std::string_view patch, const GitNumstat& counts) {
    return trimWhitespace(patch).empty() && counts.additions == 0 && counts.deletions == 0 && !counts.isBinary;
}

}  // namespace

std::optional<OrderedJson> GitService::buildDiffPayloadForUntracked(const GitDiffTarget& target,
                                                                    const ProjectContext& project) {
    auto numstat = runGitAllowingDifferences({"diff", "--no-index", "--numstat", "/dev/null", "--", target.path},
                                             project, {0, 1});
    if (!numstat) {
        handleGitError(numstat.error(), "git diff --no-index --numstat", project.id);
        return std::nullopt;
    }
    GitNumstat counts = parseNumstat(numstat->stdout);
    auto patch = runGitAllowingDifferences(
        {"diff", "--no-index", "--patch", "--text", "/dev/null", "--", target.path}, project, {0, 1});
    if (!patch) {
        handleGitError(patch.error(), "git diff --no-index", project.id);
        return std::nullopt;
    }
    if (isEmptyDiff(patch->stdout, counts)) return std::nullopt;
    return diffFilePayload(target.path, target.stage, counts, std::move(patch->stdout));
}

std::optional<OrderedJson> GitService::buildDiffPayload(const GitDiffTarget& target, const ProjectContext& project) {
    if (target.stage == GitDiffStage::Unstaged && !target.path.empty() && isUntrackedFile(target.path, project)) {
        return buildDiffPayloadForUntracked(target, project);
    }
    if (m_missingRemoteProjects.count(project.id)) return std::nullopt;
    auto numstat = runGit(diffArguments(target, GitDiffMode::Numstat), project, false);
    if (!numstat) {
        handleGitError(numstat.error(), "git diff --numstat", project.id);
        return std::nullopt;
    }
    GitNumstat counts = parseNumstat(*numstat);
    auto patch = runGit(diffArguments(target, GitDiffMode::Patch), project, false);
    if (!patch) {
        handleGitError(patch.error(), "git diff", project.id);
        return std::nullopt;
    }
    if (isEmptyDiff(*patch, counts)) return std::nullopt;
    return diffFilePayload(target.path, target.stage, counts, std::move(*patch));
}

void GitService::doFetchDiff(const ProjectContext& project, std::vector<GitDiffTarget> targets) {
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

std::optional<int> GitService::commitParentCount(const std::string& commit, const ProjectContext& project) {
    auto output = runGit({"rev-list", "--parents", "-n", "1", commit}, project, false);
    if (!output) {
        handleGitError(output.error(), "git rev-list --parents", project.id);
        return std::nullopt;
    }
    auto pieces = splitOnBlanks(trimWhitespace(*output));
    return pieces.empty() ? 0 : static_cast<int>(pieces.size()) - 1;
}

namespace {

OrderedJson commitDiffFile(const std::string& commit, const std::string& path, const GitNumstat& counts,
                           std::string patch, bool resolved) {
    OrderedJson file;
    file["commit"] = commit;
    file["path"] = path;
    file["additions"] = counts.additions;
    file["deletions"] = counts.deletions;
    file["isBinary"] = counts.isBinary;
    file["patch"] = std::move(patch);
    file["resolved"] = resolved;
    return file;
}

}  // namespace

std::optional<OrderedJson> GitService::buildCommitDiffPayload(const std::string& commit,
                                                              const std::optional<std::string>& path,
                                                              const ProjectContext& project) {
    int parents = commitParentCount(commit, project).value_or(1);
    auto numstat = runGit(commitDiffArguments(commit, GitDiffMode::Numstat, path, parents), project, false);
    if (!numstat) {
        handleGitError(numstat.error(), parents != 0 ? "git diff --numstat" : "git diff-tree --numstat", project.id);
        return std::nullopt;
    }
    GitNumstat counts = parseNumstat(*numstat);
    auto patch = runGit(commitDiffArguments(commit, GitDiffMode::Patch, path, parents), project, false);
    if (!patch) {
        handleGitError(patch.error(), parents != 0 ? "git diff" : "git show", project.id);
        return std::nullopt;
    }
    std::string patchText = std::move(*patch);
    if (parents >= 2 && trimWhitespace(patchText).empty()) {
        // A clean merge has no combined diff; show it against each parent instead.
        auto merged = runGit(mergeCommitPatchArguments(commit, path), project, false);
        if (!merged) {
            handleGitError(merged.error(), "git show -m", project.id);
            return std::nullopt;
        }
        patchText = std::move(*merged);
    }
    if (isEmptyDiff(patchText, counts)) return std::nullopt;
    return commitDiffFile(commit, path && !path->empty() ? *path : ".", counts, std::move(patchText), true);
}

OrderedJson GitService::buildCommitDiffSummary(const std::string& commit, const ProjectContext& project) {
    OrderedJson files = OrderedJson::array();
    // "--numstat" alone already replaces the patch; "--no-patch" next to it
    // would also silence the numbers on git before 2.43.
    auto output = runGit({"show", commit, "--numstat", "--format=", "--find-renames"}, project, false);
    if (!output) {
        handleGitError(output.error(), "git show --numstat", project.id);
        return files;
    }
    for (std::string_view rawLine : splitLines(*output, false)) {
        std::string_view line = trimWhitespace(rawLine);
        if (line.empty()) continue;
        size_t firstTab = line.find('\t');
        if (firstTab == std::string_view::npos) continue;
        size_t secondTab = line.find('\t', firstTab + 1);
        if (secondTab == std::string_view::npos) continue;
        std::string_view added = line.substr(0, firstTab);
        std::string_view deleted = line.substr(firstTab + 1, secondTab - firstTab - 1);
        GitNumstat counts;
        if (added == "-" || deleted == "-") {
            counts.isBinary = true;
        } else {
            counts.additions = decimalOrZero(added);
            counts.deletions = decimalOrZero(deleted);
        }
        std::string path = normalizeRenamedPath(line.substr(secondTab + 1));
        files.push_back(commitDiffFile(commit, path, counts, "", false));
    }
    return files;
}

void GitService::doFetchCommitDiff(const ProjectContext& project, const std::string& rawCommit,
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
            files.push_back(commitDiffFile(commit, shown.empty() ? "." : shown, GitNumstat{}, "", true));
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

void GitService::doCommit(const ProjectContext& project, const std::string& message) {
    if (auto added = runGit({"add", "-A"}, project, false); !added) {
        handleGitError(added.error(), "git add", project.id);
        return;
    }
    // The message goes as received: surrounding line feeds are the user's.
    if (auto committed = runGit({"commit", "-m", message}, project, false); !committed) {
        handleGitError(committed.error(), "git commit", project.id);
        return;
    }
    sendResult(true, "コミットしました");
    refreshStatus(project.id);
}

void GitService::doRemoteAction(const ProjectContext& project, RemoteAction action) {
    struct Shape {
        std::vector<std::string> arguments;
        const char* operation;
        const char* description;
        const char* success;
    };
    static const Shape kShapes[] = {
        {{"push"}, "Push", "git push", "Push が完了しました"},
        {{"pull", "--rebase"}, "Pull", "git pull", "Pull が完了しました"},
        {{"fetch"}, "Fetch", "git fetch", "Fetch が完了しました"},
    };
    const Shape& shape = kShapes[static_cast<int>(action)];
    auto url = remoteURL(project, std::nullopt);
    if (!url) {
        notifyMissingRemoteIfNeeded(project.id);
        return;
    }
    m_missingRemoteProjects.erase(project.id);
    bool requiresOAuth = requiresGitHubOAuth(*url, m_gitHubWebHost);
    if (requiresOAuth && !ensureAuthenticated(shape.operation, false)) return;
    auto output = runGit(shape.arguments, project, requiresOAuth, sshEnvironment(*url, project));
    if (!output) {
        handleGitError(output.error(), shape.description, project.id);
        return;
    }
    sendResult(true, shape.success);
    refreshStatus(project.id);
}

void GitService::doFetchRemoteTracking(const ProjectContext& project) {
    auto emitTracking = [&](const std::string& branch, const std::optional<std::string>& remote, int64_t ahead,
                            int64_t behind) {
        OrderedJson payload;
        payload["projectId"] = project.id.toString();
        payload["branch"] = branch;
        if (remote) payload["remote"] = *remote;
        payload["ahead"] = ahead;
        payload["behind"] = behind;
        emit("git/remote/tracking", payload);
    };
    if (remoteURL(project, std::nullopt)) m_missingRemoteProjects.erase(project.id);
    else notifyMissingRemoteIfNeeded(project.id);

    auto head = runGit({"rev-parse", "--abbrev-ref", "HEAD"}, project, false);
    if (!head) {
        handleGitError(head.error(), "git rev-parse --abbrev-ref HEAD", project.id);
        return;
    }
    std::string branch(trimWhitespace(*head));
    auto upstream = runGit({"rev-parse", "--abbrev-ref", "--symbolic-full-name", "@{u}"}, project, false);
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
    auto counts = runGit({"rev-list", "--left-right", "--count", "@{u}...HEAD"}, project, false);
    if (!counts) {
        emitTracking(branch, remote, 0, 0);
        return;
    }
    std::string_view text = trimWhitespace(*counts);
    std::vector<std::string> pieces;
    if (size_t tab = text.find('\t'); tab != std::string_view::npos && text.find('\t', tab + 1) == std::string_view::npos) {
        pieces = {std::string(text.substr(0, tab)), std::string(text.substr(tab + 1))};
    } else {
        pieces = splitOnBlanks(text);
    }
    if (pieces.size() != 2) {
        emitTracking(branch, remote, 0, 0);
        return;
    }
    emitTracking(branch, remote, decimalOrZero(pieces[1]), decimalOrZero(pieces[0]));
}

// --- remotes -----------------------------------------------------------------------

GitEnvironment GitService::sshEnvironment(const std::string& remoteURL, const ProjectContext& project) {
    if (!reachedThroughSsh(remoteURL)) return {};
    // The child has no terminal, so ssh could not ask for a passphrase or a new
    // host key anyway; BatchMode makes it fail at once with its reason instead
    // of trying. A user who chose their own ssh command keeps it untouched.
    if (m_environment.count("GIT_SSH_COMMAND") || m_environment.count("GIT_SSH")) return {};
    if (auto own = runGit({"config", "--get", "core.sshCommand"}, project, false);
        own && !trimWhitespace(*own).empty()) {
        return {};
    }
    return {{"GIT_SSH_COMMAND", "ssh -o BatchMode=yes"}};
}

std::optional<std::string> GitService::upstreamRemoteName(const ProjectContext& project) {
    auto output = runGit({"rev-parse", "--abbrev-ref", "--symbolic-full-name", "@{u}"}, project, false);
    if (!output) return std::nullopt;
    std::string_view text = trimWhitespace(*output);
    std::string_view name = text.substr(0, text.find('/'));
    if (name.empty()) return std::nullopt;
    return std::string(name);
}

std::optional<std::string> GitService::pushDefaultRemoteName(const ProjectContext& project) {
    auto output = runGit({"config", "--get", "remote.pushDefault"}, project, false);
    if (!output) return std::nullopt;
    std::string_view text = trimWhitespace(*output);
    if (text.empty()) return std::nullopt;
    return std::string(text);
}

std::optional<std::string> GitService::remoteURLUsingGit(const std::string& name, const ProjectContext& project) {
    if (name.empty()) return std::nullopt;
    auto output = runGit({"config", "--get", "remote." + name + ".url"}, project, false);
    if (!output) return std::nullopt;
    std::string_view text = trimWhitespace(*output);
    if (text.empty()) return std::nullopt;
    return std::string(text);
}

std::optional<std::string> GitService::remoteURL(const ProjectContext& project,
                                                 const std::optional<std::string>& preferredRemote) {
    std::string configText;
    std::map<std::string, std::string> remotes;
    if (readWholeFile(project.directory + "/.git/config", configText)) {
        remotes = parseRemoteURLsFromConfig(configText);
    }
    auto lookup = [&](const std::string& name) -> std::optional<std::string> {
        auto it = remotes.find(name);
        if (it == remotes.end() || it->second.empty()) return std::nullopt;
        return it->second;
    };
    if (preferredRemote) {
        if (auto url = lookup(*preferredRemote)) return url;
    }
    if (auto url = lookup("origin")) return url;
    if (remotes.empty()) return std::nullopt;
    auto byName = [&](const std::optional<std::string>& name) -> std::optional<std::string> {
        if (!name) return std::nullopt;
        if (auto url = lookup(*name)) return url;
        if (m_runnerIsProcess) return remoteURLUsingGit(*name, project);
        return std::nullopt;
    };
    if (auto url = byName(upstreamRemoteName(project))) return url;
    if (auto url = byName(pushDefaultRemoteName(project))) return url;
    if (m_runnerIsProcess) return remoteURLUsingGit("origin", project);
    return std::nullopt;
}

}  // namespace velko
