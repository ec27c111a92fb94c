// GitHub account messages. Without a configured OAuth client there is no
// sign-in flow and no stored token: the page hears the disconnected status,
// and a sign-in attempt is answered with an error instead of silence.
#include "shell/ShellMessages.h"
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleOAuthStart(std::string_view, const Json*) {
    dispatchEvent("github/oauth/error",
                  OrderedJson{{"message", shell_messages::kOAuthNotConfigured}, {"recoverable", true}});
}

void WebBridge::handleOAuthLogout(std::string_view, const Json*) {
    dispatchEvent("github/oauth/status", OrderedJson{{"status", "disconnected"}, {"reason", "userLogout"}});
}

void WebBridge::handleOAuthRequestStatus(std::string_view, const Json*) { dispatchOAuthStatus(); }

}  // namespace velko
