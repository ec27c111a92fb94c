#include "platform/gtk/WebViewHost.h"

#include <webkit/webkit.h>

namespace velko {

WebViewHost::WebViewHost(WebKitWebView* view) : m_view(WEBKIT_WEB_VIEW(g_object_ref(view))) {}

WebViewHost::~WebViewHost() { g_object_unref(m_view); }

void WebViewHost::evaluateScript(const std::string& script) {
    webkit_web_view_evaluate_javascript(m_view, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr,
                                        nullptr, nullptr, nullptr);
}

}  // namespace velko
