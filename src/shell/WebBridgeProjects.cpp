// Project and workspace messages: open, close, activate, resume, reorder, and
// the unpacking of explorer and file requests. The page gets no direct reply;
// it learns the outcome from the next "app/config" the store's publication
// causes.
#include "core/TaskQueue.h"
#include "shell/ShellMessages.h"
#include "shell/WebBridge.h"
#include "workspace/ConfigStore.h"

namespace velko {

void WebBridge::handleProjectMessage(std::string_view type, const Json& body) {
    const Json* payload = json::objectMember(&body, "payload");
    if (type == "project/open") {
        openProjectsFromPicker();
    } else if (type == "project/close") {
        if (auto id = json::uuid(payload, "projectId")) closeProject(*id);
    } else if (type == "project/explorer/directories/request") {
        handleExplorerDirectoriesRequest(payload);
    } else if (type == "project/file/open") {
        handleFileOpen(payload);
    } else if (type == "project/file/save") {
        handleFileSave(payload);
    } else if (type == "project/file/rename") {
        handleFileRename(payload);
    } else if (type == "project/activate") {
        // The key is `id` here, unlike every other project message.
        if (auto id = json::uuid(payload, "id")) activateProject(*id);
    } else if (type == "project/resume") {
        resumeProjects();
    } else if (type == "project/reorder") {
        if (const Json* order = json::member(payload, "order")) reorderProjects(*order);
    }
}

void WebBridge::openProjectsFromPicker() {
    if (!m_folderPicker) return;
    std::weak_ptr<WebBridge> weak = weak_from_this();
    m_folderPicker->pickFolders([weak](std::vector<std::string> folders) {
        if (folders.empty()) return;
        runOnMainWeak(weak, [folders = std::move(folders)](WebBridge& self) {
            auto store = self.m_configStore.lock();
            std::vector<ProjectMetadata> opened = store ? store->openProjects(folders) : std::vector<ProjectMetadata>{};
            for (const auto& project : opened) self.refreshGitStatus(project.id);
        });
    });
}

void WebBridge::closeProject(const Uuid& id) {
    runOnMainWeak(weak_from_this(), [id](WebBridge& self) {
        if (self.m_monitoredExplorerProjectID == id) {
            // Release the folder before the project leaves the configuration.
            self.stopExplorerMonitoring();
        }
        auto store = self.m_configStore.lock();
        if (!store) return;
        auto result = store->closeProject(id);
        if (result && !result->removedSessionIDs.empty()) self.terminateTerminalSessions(result->removedSessionIDs);
    });
}

void WebBridge::activateProject(const Uuid& id) {
    runOnMainWeak(weak_from_this(), [id](WebBridge& self) {
        auto store = self.m_configStore.lock();
        if (store) store->setActiveProject(id);
        // Set even for an unknown id: the page asked for it, and the explorer and
        // previews follow the bridge's notion of the active project.
        self.m_activeProjectID = id;
        self.activateExplorerMonitoring(id);
        self.dispatchPreviewTabs(id);
        self.refreshGitStatus(id);
    });
}

void WebBridge::resumeProjects() {
    runOnMainWeak(weak_from_this(), [](WebBridge& self) {
        auto store = self.m_configStore.lock();
        if (!store) {
            self.dispatchEvent("project/resume/error", OrderedJson{{"reason", "config-unavailable"},
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

void WebBridge::reorderProjects(const Json& order) {
    if (!order.is_array()) return;
    std::vector<Uuid> ids;
    for (const auto& entry : order) {
        if (!entry.is_string()) continue;
        if (auto id = Uuid::parse(entry.get<std::string>())) ids.push_back(*id);
    }
    if (ids.empty()) return;
    runOnMainWeak(weak_from_this(), [ids = std::move(ids)](WebBridge& self) {
        if (auto store = self.m_configStore.lock()) store->reorderProjects(ids);
    });
}

}  // namespace velko
