// Git messages of the page, handed to GitService. Each operation schedules its
// work on the git queue and returns; a message without the ids or texts it
// needs is dropped without an answer. History, graph and branch map have no
// service behind them yet and are dropped the same way.
#include "shell/WebBridge.h"

#include "git/GitService.h"

namespace velko {

void WebBridge::handleGitMessage(std::string_view type, const Json* payload) {
    auto service = m_gitService.lock();
    if (!service) return;

    if (type == "git/status") {
        service->refreshStatus(json::uuid(payload, "projectId"));
        return;
    }
    auto projectId = json::uuid(payload, "projectId");
    if (!projectId) return;

    if (type == "git/status/detail") {
        service->fetchStatusDetail(*projectId);
    } else if (type == "git/commit") {
        if (auto message = json::string(payload, "message")) service->commit(*projectId, std::move(*message));
    } else if (type == "git/push") {
        service->push(*projectId);
    } else if (type == "git/pull") {
        service->pull(*projectId);
    } else if (type == "git/fetch") {
        service->fetch(*projectId);
    } else if (type == "git/diff") {
        std::vector<GitDiffTarget> targets;
        if (const Json* list = json::array(payload, "targets")) {
            for (const Json& item : *list) {
                auto path = json::string(&item, "path");
                if (!path) continue;
                auto stage = json::string(&item, "stage");
                targets.push_back({std::move(*path), diffStageFromString(stage.value_or("unstaged"))});
            }
        }
        service->fetchDiff(*projectId, std::move(targets));
    } else if (type == "git/commit/diff") {
        auto commit = json::string(payload, "commit");
        if (!commit) return;
        service->fetchCommitDiff(*projectId, std::move(*commit), json::string(payload, "path"));
    } else if (type == "git/working-tree") {
        service->fetchWorkingTree(*projectId);
    } else if (type == "git/remote/tracking") {
        service->fetchRemoteTracking(*projectId);
    } else if (type == "git/refresh/barrier") {
        if (auto requestId = json::string(payload, "requestId")) {
            service->reachRefreshBarrier(*projectId, std::move(*requestId));
        }
    }
}

void WebBridge::refreshGitStatus(const std::optional<Uuid>& projectID) {
    if (auto service = m_gitService.lock()) service->refreshStatus(projectID);
}

}  // namespace velko
