// Git messages of the page, handed to the git service with their arguments
// read from the payload. Each operation schedules its work on the git queue
// and returns; a message without the ids or texts it needs is dropped without
// an answer.
#include "shell/GitOperating.h"
#include "shell/WebBridge.h"

namespace velko {

namespace {

// The service and the message's project, or nothing when either is missing.
template <typename Body>
void withProject(const std::weak_ptr<GitOperating>& weak, const Json* payload, Body&& body) {
    auto service = weak.lock();
    if (!service) return;
    if (auto projectId = json::uuid(payload, "projectId")) body(*service, *projectId);
}

}  // namespace

void WebBridge::handleGitStatus(std::string_view, const Json* payload) {
    // The one git message whose project is optional: no project, an empty status.
    if (auto service = m_gitService.lock()) service->refreshStatus(json::uuid(payload, "projectId"));
}

void WebBridge::handleGitStatusDetail(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [](GitOperating& git, const Uuid& id) { git.fetchStatusDetail(id); });
}

void WebBridge::handleGitCommit(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        if (auto message = json::string(payload, "message")) git.commit(id, std::move(*message));
    });
}

void WebBridge::handleGitPush(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [](GitOperating& git, const Uuid& id) { git.push(id); });
}

void WebBridge::handleGitPull(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [](GitOperating& git, const Uuid& id) { git.pull(id); });
}

void WebBridge::handleGitFetch(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [](GitOperating& git, const Uuid& id) { git.fetch(id); });
}

void WebBridge::handleGitDiff(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        std::vector<GitDiffTarget> targets;
        if (const Json* list = json::array(payload, "targets")) {
            for (const Json& item : *list) {
                auto path = json::string(&item, "path");
                if (!path) continue;
                auto stage = json::string(&item, "stage");
                targets.push_back({std::move(*path), diffStageFromString(stage.value_or("unstaged"))});
            }
        }
        git.fetchDiff(id, std::move(targets));
    });
}

void WebBridge::handleGitHistory(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        // The page's cursor comes in `cursorPayload`; a bare `cursor` is GitHub's own.
        auto cursor = json::string(payload, "cursorPayload");
        if (!cursor) cursor = json::string(payload, "cursor");
        git.fetchCommitHistory(id, std::move(cursor), json::integer(payload, "pageSize").value_or(20),
                               json::string(payload, "requestId"));
    });
}

void WebBridge::handleGitGraph(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        git.fetchCommitGraph(id, json::integer(payload, "pageSize").value_or(50));
    });
}

void WebBridge::handleGitBranchMap(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        git.fetchBranchMap(id, json::integer(payload, "limit").value_or(50));
    });
}

void WebBridge::handleGitRemoteTracking(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [](GitOperating& git, const Uuid& id) { git.fetchRemoteTracking(id); });
}

void WebBridge::handleGitWorkingTree(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [](GitOperating& git, const Uuid& id) { git.fetchWorkingTree(id); });
}

void WebBridge::handleGitRefreshBarrier(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        if (auto requestId = json::string(payload, "requestId")) git.reachRefreshBarrier(id, std::move(*requestId));
    });
}

void WebBridge::handleGitCommitDiff(std::string_view, const Json* payload) {
    withProject(m_gitService, payload, [payload](GitOperating& git, const Uuid& id) {
        if (auto commit = json::string(payload, "commit"))
            git.fetchCommitDiff(id, std::move(*commit), json::string(payload, "path"));
    });
}

void WebBridge::refreshGitStatus(const std::optional<Uuid>& projectID) {
    if (auto service = m_gitService.lock()) service->refreshStatus(projectID);
}

}  // namespace velko
