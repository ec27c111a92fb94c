// GitHub account messages. Without an account manager the only answer is the
// status of no stored token.
#include "shell/WebBridge.h"

namespace velko {

void WebBridge::handleGitHubOAuthMessage(std::string_view type) {
    if (type == "github/oauth/requestStatus") dispatchOAuthStatus();
}

}  // namespace velko
