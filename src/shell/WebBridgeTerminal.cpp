// Terminal messages of the page, handed to the terminal service with the type
// as received. Without a service (not built, or gone) they are dropped like
// any unknown message.
#include "shell/TerminalMessageHandling.h"
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleTerminalMessage(std::string_view type, const Json* payload) {
    if (auto service = m_terminalService.lock()) service->handleMessage(type, payload);
}

void WebBridge::terminateTerminalSessions(const std::vector<Uuid>& ids) {
    if (auto service = m_terminalService.lock()) service->terminateSessions(ids);
}

}  // namespace velko
