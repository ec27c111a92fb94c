#include "platform/gtk/OwnPageGuard.h"

#include <webkit/webkit.h>

#include "core/Log.h"
#include "platform/BrowserLauncher.h"
#include "platform/PageNavigationPolicy.h"

namespace velko {

namespace {

const Logger kLog("app.velko", "webview");

// In the page's own world: the channel the page posts to. The body crosses
// into the channel's world as JSON text, the form the bridge reads anyway.
constexpr const char* kPageSideRelay = R"JS((() => {
  const velko = Object.freeze({
    postMessage(body) {
      const text = JSON.stringify(body);
      if (typeof text === 'string') window.dispatchEvent(new CustomEvent('velko:channel', { detail: text }));
    },
  });
  Object.defineProperty(window, 'webkit', { value: Object.freeze({ messageHandlers: Object.freeze({ velko }) }) });
})();)JS";

// In the channel's world, top frame only: forwards while the frame is ours.
constexpr const char* kChannelSideRelay = R"JS((() => {
  if (location.protocol !== 'app:' || location.host !== 'bundle') return;
  const channel = window.webkit.messageHandlers.velko;
  window.addEventListener('velko:channel', (event) => {
    if (location.protocol === 'app:' && location.host === 'bundle' && typeof event.detail === 'string')
      channel.postMessage(event.detail);
  });
})();)JS";

void addTopFrameScript(WebKitUserContentManager* manager, const char* source, const char* world) {
    WebKitUserScript* script =
        world ? webkit_user_script_new_for_world(source, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                                 WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, world, nullptr, nullptr)
              : webkit_user_script_new(source, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                       WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
    webkit_user_content_manager_add_script(manager, script);
    webkit_user_script_unref(script);
}

gboolean decidePolicy(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type, gpointer) {
    if (type != WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION && type != WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION)
        return FALSE;  // responses: WebKit's own handling
    WebKitNavigationAction* action =
        webkit_navigation_policy_decision_get_navigation_action(WEBKIT_NAVIGATION_POLICY_DECISION(decision));
    const char* uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
    std::string target = uri ? uri : "";
    // A click that a script made on a link is a link click too, but not the user's.
    auto gesture = webkit_navigation_action_is_user_gesture(action) ? UserGesture::Present : UserGesture::Absent;
    auto where = type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION ? NavigationTarget::NewWindow
                                                                       : NavigationTarget::View;
    switch (decideNavigation(target, where, gesture)) {
        case NavigationDecision::LoadInView:
            webkit_policy_decision_use(decision);
            return TRUE;
        case NavigationDecision::OpenInBrowser:
            webkit_policy_decision_ignore(decision);
            openInDefaultBrowser(target);
            return TRUE;
        case NavigationDecision::Ignore: {
            webkit_policy_decision_ignore(decision);
            // The scheme only: the rest of a URL may be private.
            const char* scheme = g_uri_peek_scheme(target.c_str());  // interned, not ours to free
            kLog.notice(std::string("ignored a navigation away from the page (") + (scheme ? scheme : "no scheme") +
                        ")");
            return TRUE;
        }
    }
    return FALSE;
}

}  // namespace

void installPageChannel(WebKitUserContentManager* manager) {
    addTopFrameScript(manager, kPageSideRelay, nullptr);
    addTopFrameScript(manager, kChannelSideRelay, kPageChannelWorld);
    webkit_user_content_manager_register_script_message_handler(manager, "velko", kPageChannelWorld);
}

void keepViewOnOwnPage(WebKitWebView* view) {
    g_signal_connect(view, "decide-policy", G_CALLBACK(decidePolicy), nullptr);
}

}  // namespace velko
