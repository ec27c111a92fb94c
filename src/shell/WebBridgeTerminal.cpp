// Terminal messages of the page, handed to the terminal service. Without a
// service (not built, or gone) they are dropped like any unknown message.
#include "shell/WebBridge.h"
#include "terminal/TerminalService.h"

namespace velko {

void WebBridge::handleTerminalMessage(std::string_view type, const Json* payload) {
    if (auto service = m_terminalService.lock()) service->handleMessage(type, payload);
}

void WebBridge::terminateTerminalSessions(const std::vector<Uuid>& ids) {
    if (auto service = m_terminalService.lock()) service->terminateSessions(ids);
}

}  // namespace velko
