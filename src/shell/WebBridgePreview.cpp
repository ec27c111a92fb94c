// Preview tabs, dashboard and analytics messages. Their services are not part
// of the program yet, so the messages are recognised and dropped.
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handlePreviewTabsMessage(std::string_view, const Json*) {}
void WebBridge::handleDashboardPresent(const Json*) {}
void WebBridge::handleDashboardDismiss() {}
void WebBridge::handleAnalyticsEvent(const Json*) {}
void WebBridge::dispatchPreviewTabs(const std::optional<Uuid>&) {}

}  // namespace velko
