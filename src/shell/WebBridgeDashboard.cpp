// Dashboard messages and events. The page asks to show or hide the
// dashboard; the controller decides, and its answers come back through the
// three events here.
#include "dashboard/DashboardModels.h"
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleDashboardPresent(std::string_view, const Json* payload) {
    // A flag of any other JSON type counts as false, a source of another type as none.
    bool forceRefresh = json::boolean(payload, "forceRefresh").value_or(false);
    auto source = json::string(payload, "source");
    if (auto controller = m_dashboardController.lock()) controller->present(forceRefresh, source);
}

void WebBridge::handleDashboardDismiss(std::string_view, const Json*) {
    if (auto controller = m_dashboardController.lock()) controller->dismiss();
}

void WebBridge::emitDashboardToggled(bool open) { dispatchEvent("dashboard.toggled", OrderedJson{{"open", open}}); }

void WebBridge::emitDashboardMetrics(const DashboardSnapshot& snapshot) {
    dispatchEvent("dashboard.metrics", dashboardSnapshotJson(snapshot));
}

void WebBridge::emitDashboardMetricsError(const std::string& message) {
    dispatchEvent("dashboard.metrics.error", OrderedJson{{"message", message}});
}

}  // namespace velko
