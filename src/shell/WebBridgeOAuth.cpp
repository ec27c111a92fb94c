// GitHub account messages. Without a configured OAuth client there is no
// sign-in flow and no stored token: the page hears the disconnected status,
// and a sign-in attempt is answered with an error instead of silence.
#include "shell/ShellMessages.h"
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleGitHubOAuthMessage(std::string_view type) {
    if (type == "github/oauth/requestStatus") {
        dispatchOAuthStatus();
    } else if (type == "github/oauth/logout") {
        dispatchEvent("github/oauth/status", OrderedJson{{"status", "disconnected"}, {"reason", "userLogout"}});
    } else if (type == "github/oauth/start") {
        dispatchEvent("github/oauth/error",
                      OrderedJson{{"message", shell_messages::kOAuthNotConfigured}, {"recoverable", true}});
    }
}

}  // namespace velko
