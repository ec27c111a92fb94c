// Preview tabs, dashboard and analytics messages. Their services are not part
// of the program yet, so the messages are recognised and dropped.
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handlePreviewTabsPersist(std::string_view, const Json*) {}
void WebBridge::handlePreviewTabsCacheWrite(std::string_view, const Json*) {}
void WebBridge::handlePreviewTabsLimitReached(std::string_view, const Json*) {}
void WebBridge::handleAnalyticsEvent(std::string_view, const Json*) {}
void WebBridge::dispatchPreviewTabs(const std::optional<Uuid>&) {}

}  // namespace velko
