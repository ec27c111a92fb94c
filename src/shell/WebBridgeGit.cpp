// Git messages of the page. Not served yet: recognised and dropped.
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleGitMessage(std::string_view, const Json*) {}

void WebBridge::refreshGitStatus(const std::optional<Uuid>&) {}

}  // namespace velko
