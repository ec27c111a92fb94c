// Terminal messages of the page. Sessions are not served yet: every terminal
// message is recognised by the router and dropped here.
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleTerminalMessage(std::string_view, const Json*) {}

void WebBridge::terminateTerminalSessions(const std::vector<Uuid>&) {}

}  // namespace velko
