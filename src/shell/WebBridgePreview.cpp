// Preview tabs, dashboard and analytics messages.
//
// Preview tabs: the page persists a project's tabs as it changes them and gets
// them back when the project becomes active. The stored state goes out at
// once from memory; whether the tabs' files still exist is asked on the file
// queue, since the project may sit on a slow or hung disk, and its warning
// follows the hydrate event.
#include "core/Log.h"
#include "core/Paths.h"
#include "core/TaskQueue.h"
#include "preview/PreviewTabsPersistenceService.h"
#include "shell/ProjectFileAccessing.h"
#include "shell/ProjectStoring.h"
#include "shell/WebBridge.h"
#include "telemetry/AnalyticsLogging.h"
#include "telemetry/AnalyticsProperties.h"

namespace velko {

namespace {
const Logger& previewTabsLogger() {
    static const Logger logger("app.velko.webbridge", "previewTabs");
    return logger;
}
}  // namespace

void WebBridge::handlePreviewTabsPersist(std::string_view, const Json* payload) {
    auto projectId = json::uuid(payload, "projectId");
    const Json* snapshot = json::member(payload, "snapshot");
    if (!projectId || !snapshot || !m_previewTabsService) return;
    auto store = m_projectStore.lock();
    if (!store || !store->project(*projectId)) return;
    auto state = decodePreviewTabsState(*snapshot);
    if (!state) {
        previewTabsLogger().error("previewTabs: invalid snapshot payload for project " + projectId->toString());
        return;
    }
    auto saved = m_previewTabsService->persist(*state, *projectId);
    if (!saved)
        previewTabsLogger().error("previewTabs: failed to persist snapshot for project " + projectId->toString() +
                                  ": " + saved.error().description);
}

void WebBridge::handlePreviewTabsCacheWrite(std::string_view, const Json* payload) {
    if (auto projectId = json::string(payload, "projectId"))
        previewTabsLogger().info("previewTabs: session cache write for project " + *projectId);
}

void WebBridge::handlePreviewTabsLimitReached(std::string_view, const Json* payload) {
    if (auto projectId = json::string(payload, "projectId"))
        previewTabsLogger().info("previewTabs: limit reached for project " + *projectId);
}

void WebBridge::dispatchPreviewTabs(const std::optional<Uuid>& projectID) {
    auto store = m_projectStore.lock();
    if (!projectID || !store || !m_previewTabsService) return;
    auto project = store->project(*projectID);
    if (!project) return;
    PreviewTabsState state = m_previewTabsService->storedState(*projectID);
    std::string id = projectID->toString();
    dispatchEvent("previewTab:hydrate", OrderedJson{{"projectId", id}, {"snapshot", encodePreviewTabsState(state)}});
    if (state.tabs.empty() || !m_files) return;
    std::weak_ptr<WebBridge> weak = weak_from_this();
    fileQueue().post([weak, files = m_files, project = std::move(*project), state = std::move(state),
                      id = std::move(id), home = homeDirectory()] {
        if (weak.expired()) return;
        auto warnings = PreviewTabsPersistenceService::detectMissingTabs(state, files->rootPath(project), home);
        auto bridge = weak.lock();
        if (!bridge || warnings.empty()) return;
        OrderedJson tabs = OrderedJson::array();
        for (const auto& warning : warnings) tabs.push_back(encodePreviewTabWarning(warning));
        bridge->dispatchEvent("previewTab:warning", OrderedJson{{"projectId", id}, {"tabs", std::move(tabs)}});
    });
}

void WebBridge::handleAnalyticsEvent(std::string_view, const Json* payload) {
    if (!m_analyticsLogger || !payload || payload->empty()) return;
    auto name = json::string(payload, "name");
    if (!name || name->empty()) return;
    m_analyticsLogger->log(*name, sanitizeAnalyticsProperties(json::member(payload, "properties")));
}

}  // namespace velko
