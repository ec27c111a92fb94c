// File and explorer requests of the page: open, save, rename, directory
// listings, and the monitoring of the active project's folder.
//
// The project's folder is looked up on the main thread (the configuration
// lives there); the disk work then runs on the file queue, one request after
// another in the order they came, and every answer goes back through
// dispatchEvent. A bridge that is gone by then ends the job silently; a
// bridge without file access drops the requests.
#include <unordered_set>

#include "core/Base64.h"
#include "core/TaskQueue.h"
#include "files/ExplorerService.h"
#include "files/FileMessages.h"
#include "shell/ExplorerMonitoring.h"
#include "shell/ProjectFileAccessing.h"
#include "shell/ProjectStoring.h"
#include "shell/ShellMessages.h"
#include "shell/WebBridge.h"

namespace velko {

namespace {

constexpr size_t kMaxExplorerPathsPerRequest = 512;

OrderedJson fileErrorPayload(const Uuid& projectId, const std::string& path, const std::string& message,
                             const std::optional<std::string>& code = std::nullopt) {
    OrderedJson payload{{"projectId", projectId.toString()}, {"path", path}, {"message", message}};
    if (code) payload["code"] = *code;
    return payload;
}

}  // namespace

std::optional<std::string> WebBridge::projectRootForFiles(const Uuid& projectId) const {
    auto store = m_projectStore.lock();
    if (!store || !m_files) return std::nullopt;
    auto project = store->project(projectId);
    if (!project) return std::nullopt;
    return m_files->rootPath(*project);
}

void WebBridge::handleExplorerDirectoriesRequest(std::string_view, const Json* payload) {
    auto projectId = json::uuid(payload, "projectId");
    const Json* paths = json::array(payload, "paths");
    if (!projectId || !paths || paths->empty() || !m_files) return;
    std::vector<std::string> relativePaths;
    std::unordered_set<std::string> seen;
    for (const auto& entry : *paths) {
        if (!entry.is_string()) continue;
        const auto& text = entry.get_ref<const std::string&>();
        if (!seen.insert(text).second) continue;
        relativePaths.push_back(text);
        if (relativePaths.size() == kMaxExplorerPathsPerRequest) break;
    }
    std::string requestId = json::string(payload, "requestId").value_or(Uuid::random().toString());

    runOnMainWeak(weak_from_this(), [id = *projectId, relativePaths = std::move(relativePaths),
                                     requestId = std::move(requestId)](WebBridge& self) mutable {
        auto answer = [id, requestId](WebBridge& bridge, const std::vector<ExplorerDirectorySnapshot>& snapshots) {
            OrderedJson directories = OrderedJson::array();
            for (const auto& snapshot : snapshots) directories.push_back(explorerSnapshotJson(snapshot));
            bridge.dispatchEvent("project/explorer/directories", OrderedJson{{"projectId", id.toString()},
                                                                             {"requestId", requestId},
                                                                             {"directories", std::move(directories)}});
        };
        auto store = self.m_projectStore.lock();
        auto project = store ? store->project(id) : std::nullopt;
        auto root = project ? self.m_files->rootPath(*project) : std::nullopt;
        if (!root) {
            std::vector<ExplorerDirectorySnapshot> snapshots;
            for (const auto& path : relativePaths) snapshots.push_back({path, {}, "invalidProject"});
            answer(self, snapshots);
            return;
        }
        std::weak_ptr<WebBridge> weak = self.weak_from_this();
        self.fileQueue().post([weak, files = self.m_files, answer, root = std::move(*root),
                               relativePaths = std::move(relativePaths), excluded = project->explorerExcludedPaths] {
            // The bridge is held only to send the answer: a listing may take long, and
            // the program may quit meanwhile.
            if (weak.expired()) return;
            auto snapshots = files->listDirectories(root, relativePaths, excluded);
            if (auto bridge = weak.lock()) answer(*bridge, snapshots);
        });
    });
}

void WebBridge::handleFileOpen(std::string_view, const Json* payload) {
    auto projectId = json::uuid(payload, "projectId");
    auto path = json::string(payload, "path");
    if (!projectId || !path || !m_files) return;
    auto policy = json::boolean(payload, "allowLargeFile").value_or(false) ? LargeFilePolicy::Allow
                                                                           : LargeFilePolicy::AskFirst;
    runOnMainWeak(weak_from_this(), [id = *projectId, path = std::move(*path), policy](WebBridge& self) {
        auto root = self.projectRootForFiles(id);
        if (!root) {
            self.dispatchEvent("project/file/error", fileErrorPayload(id, path, std::string(file_messages::kMissingRoot)));
            return;
        }
        std::weak_ptr<WebBridge> weak = self.weak_from_this();
        self.fileQueue().post([weak, files = self.m_files, id, path, policy, root = std::move(*root)] {
            if (weak.expired()) return;
            auto result = files->readFile(root, path, policy);
            auto bridge = weak.lock();
            if (!bridge) return;
            if (!result) {
                bridge->dispatchEvent("project/file/error",
                                      fileErrorPayload(id, path, result.error().errorDescription()));
                return;
            }
            if (auto* text = std::get_if<FileTextContent>(&result.value())) {
                bridge->dispatchEvent("project/file/content",
                                      OrderedJson{{"projectId", id.toString()}, {"path", path}, {"content", text->text}});
            } else if (auto* binary = std::get_if<FileBinaryContent>(&result.value())) {
                OrderedJson content{{"projectId", id.toString()},
                                    {"path", path},
                                    {"content", base64Encode(binary->bytes)},
                                    {"encoding", "base64"}};
                if (binary->mimeType) content["mimeType"] = *binary->mimeType;
                bridge->dispatchEvent("project/file/content", content);
            } else if (auto* confirm = std::get_if<FileRequiresConfirmation>(&result.value())) {
                bridge->dispatchEvent("project/file/confirm", OrderedJson{{"projectId", id.toString()},
                                                                          {"path", path},
                                                                          {"sizeBytes", confirm->fileSize},
                                                                          {"softLimitBytes", confirm->softLimit},
                                                                          {"hardLimitBytes", confirm->hardLimit}});
            }
        });
    });
}

void WebBridge::handleFileSave(std::string_view, const Json* payload) {
    auto projectId = json::uuid(payload, "projectId");
    auto path = json::string(payload, "path");
    auto content = json::string(payload, "content");
    if (!projectId || !path || !content || !m_files) return;
    runOnMainWeak(weak_from_this(), [id = *projectId, path = std::move(*path),
                                     content = std::move(*content)](WebBridge& self) mutable {
        auto root = self.projectRootForFiles(id);
        if (!root) {
            self.dispatchEvent("project/file/error", fileErrorPayload(id, path, std::string(file_messages::kMissingRoot)));
            return;
        }
        std::weak_ptr<WebBridge> weak = self.weak_from_this();
        self.fileQueue().post([weak, files = self.m_files, id, path, content = std::move(content),
                               root = std::move(*root)] {
            if (weak.expired()) return;
            auto saved = files->saveFile(root, path, content);
            auto bridge = weak.lock();
            if (!bridge) return;
            if (saved) {
                bridge->dispatchEvent("project/file/saved", OrderedJson{{"projectId", id.toString()}, {"path", path}});
            } else {
                bridge->dispatchEvent("project/file/error", fileErrorPayload(id, path, saved.error().message));
            }
        });
    });
}

void WebBridge::handleFileRename(std::string_view, const Json* payload) {
    auto projectId = json::uuid(payload, "projectId");
    auto path = json::string(payload, "path");
    auto nextPath = json::string(payload, "nextPath");
    if (!projectId || !path || !nextPath || !m_files) return;
    auto entityType = json::string(payload, "entityType");
    EntityTypeHint hint = !entityType              ? EntityTypeHint::None
                          : *entityType == "folder" ? EntityTypeHint::Folder
                                                    : EntityTypeHint::File;
    runOnMainWeak(weak_from_this(), [id = *projectId, path = std::move(*path), nextPath = std::move(*nextPath),
                                     hint](WebBridge& self) {
        auto root = self.projectRootForFiles(id);
        if (!root) {
            self.dispatchEvent("project/file/error", fileErrorPayload(id, path, std::string(file_messages::kMissingRoot),
                                                                      "rename_invalid_project"));
            return;
        }
        std::weak_ptr<WebBridge> weak = self.weak_from_this();
        self.fileQueue().post([weak, files = self.m_files, id, path, nextPath, hint, root = std::move(*root)] {
            if (weak.expired()) return;
            auto renamed = files->renameItem(root, path, nextPath, hint);
            auto bridge = weak.lock();
            if (!bridge) return;
            if (!renamed) {
                bridge->dispatchEvent("project/file/error",
                                      fileErrorPayload(id, path, renamed.error().message, renamed.error().code));
                return;
            }
            runOnMainWeak(weak, [id, outcome = std::move(renamed.value())](WebBridge& self) {
                self.dispatchEvent("project/file/renamed", OrderedJson{{"projectId", id.toString()},
                                                                       {"path", outcome.path},
                                                                       {"nextPath", outcome.nextPath},
                                                                       {"entityType", outcome.isFolder ? "folder" : "file"}});
                // The explorer hears of it at once; monitoring reports the same
                // change later, which is harmless.
                self.dispatchEvent("project/explorer/changed",
                                   OrderedJson{{"projectId", id.toString()},
                                               {"directoryPaths", OrderedJson::array({outcome.parentDirectory})},
                                               {"requiresResync", false}});
                self.refreshGitStatus(id);
            });
        });
    });
}

void WebBridge::activateExplorerMonitoring(const std::optional<Uuid>& projectID) {
    if (projectID && m_monitoredExplorerProjectID == projectID) return;
    auto root = projectID ? projectRootForFiles(*projectID) : std::nullopt;
    auto store = m_projectStore.lock();
    auto project = store && projectID ? store->project(*projectID) : std::nullopt;
    if (!m_explorer || !root || !project) {
        stopExplorerMonitoring();
        return;
    }
    std::weak_ptr<WebBridge> weak = weak_from_this();
    bool started = m_explorer->activateMonitoring(
        *projectID, *root, project->explorerExcludedPaths, [weak](const ExplorerChangeBatch& batch) {
            auto bridge = weak.lock();
            if (!bridge) return;
            bridge->dispatchEvent("project/explorer/changed", OrderedJson{{"projectId", batch.projectId.toString()},
                                                                          {"directoryPaths", batch.directoryPaths},
                                                                          {"requiresResync", batch.requiresResync}});
        });
    if (started) {
        m_monitoredExplorerProjectID = projectID;
    } else {
        stopExplorerMonitoring();
    }
}

void WebBridge::stopExplorerMonitoring() {
    if (m_explorer) m_explorer->stopMonitoring();
    m_monitoredExplorerProjectID.reset();
}

}  // namespace velko
