// File and explorer requests of the page. Not served yet: the requests are
// recognised and dropped.
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleExplorerDirectoriesRequest(const Json*) {}
void WebBridge::handleFileOpen(const Json*) {}
void WebBridge::handleFileSave(const Json*) {}
void WebBridge::handleFileRename(const Json*) {}

void WebBridge::activateExplorerMonitoring(const std::optional<Uuid>&) {}
void WebBridge::stopExplorerMonitoring() { m_monitoredExplorerProjectID.reset(); }

}  // namespace velko
