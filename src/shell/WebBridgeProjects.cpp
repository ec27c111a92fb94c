// Project and workspace messages: open, close, activate, resume, reorder. The
// page gets no direct reply; it learns the outcome from the next "app/config"
// the store's publication causes.
#include "core/TaskQueue.h"
#include "shell/ProjectStoring.h"
#include "shell/ShellMessages.h"
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleProjectOpen(std::string_view, const Json*) {
    if (!m_folderPicker) return;
    std::weak_ptr<WebBridge> weak = weak_from_this();
    m_folderPicker->pickFolders([weak](std::vector<std::string> folders) {
        if (folders.empty()) return;
        runOnMainWeak(weak, [folders = std::move(folders)](WebBridge& self) {
            auto store = self.m_projectStore.lock();
            std::vector<ProjectMetadata> opened = store ? store->openProjects(folders) : std::vector<ProjectMetadata>{};
            for (const auto& project : opened) self.refreshGitStatus(project.id);
        });
    });
}

void WebBridge::handleProjectClose(std::string_view, const Json* payload) {
    auto id = json::uuid(payload, "projectId");
    if (!id) return;
    runOnMainWeak(weak_from_this(), [id = *id](WebBridge& self) {
        if (self.m_monitoredExplorerProjectID == id) {
            // Release the folder before the project leaves the configuration.
            self.stopExplorerMonitoring();
        }
        auto store = self.m_projectStore.lock();
        if (!store) return;
        auto removedSessions = store->closeProject(id);
        if (!removedSessions.empty()) self.terminateTerminalSessions(removedSessions);
    });
}

void WebBridge::handleProjectActivate(std::string_view, const Json* payload) {
    // The key is `id` here, unlike every other project message.
    auto id = json::uuid(payload, "id");
    if (!id) return;
    runOnMainWeak(weak_from_this(), [id = *id](WebBridge& self) {
        auto store = self.m_projectStore.lock();
        std::optional<ProjectMetadata> project = store ? store->project(id) : std::nullopt;
        if (store) store->setActiveProject(id);
        // Set even for an unknown id: the page asked for it, and the explorer and
        // previews follow the bridge's notion of the active project.
        self.m_activeProjectID = id;
        self.activateExplorerMonitoring(id);
        self.dispatchPreviewTabs(id);
        if (auto dashboard = self.m_dashboardController.lock())
            dashboard->noteCardOpened(id, project ? std::optional<std::string>(project->name) : std::nullopt);
        self.refreshGitStatus(id);
    });
}

void WebBridge::handleProjectResume(std::string_view, const Json*) {
    runOnMainWeak(weak_from_this(), [](WebBridge& self) {
        auto store = self.m_projectStore.lock();
        if (!store) {
            self.dispatchEvent("project/resume/error",
                               OrderedJson{{"reason", "config-unavailable"},
                                           {"message", shell_messages::kResumeConfigUnavailable}});
            return;
        }
        auto active = store->resumeWorkspace();
        if (!active) {
            self.dispatchEvent("project/resume/error", OrderedJson{{"reason", "no-projects"},
                                                                   {"message", shell_messages::kResumeNoProjects}});
            return;
        }
        self.refreshGitStatus(*active);
    });
}

void WebBridge::handleProjectReorder(std::string_view, const Json* payload) {
    const Json* order = json::array(payload, "order");
    if (!order) return;
    std::vector<Uuid> ids;
    for (const auto& entry : *order) {
        // The order must be a list of text: one number, null or object in it and
        // nothing is reordered. Text that is no id is only skipped.
        if (!entry.is_string()) return;
        if (auto id = Uuid::parse(entry.get_ref<const std::string&>())) ids.push_back(*id);
    }
    if (ids.empty()) return;
    runOnMainWeak(weak_from_this(), [ids = std::move(ids)](WebBridge& self) {
        if (auto store = self.m_projectStore.lock()) store->reorderProjects(ids);
    });
}

}  // namespace velko
