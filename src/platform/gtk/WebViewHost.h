#pragma once
// WebViewHost: the web view as the bridge sees it (script evaluation, fire and
// forget). Holds a reference so a late script never reaches a destroyed view.
//
// Main thread only. Owned by the window; the bridge holds it through
// WebViewHosting.

#include "shell/WebViewHosting.h"

typedef struct _WebKitWebView WebKitWebView;

namespace velko {

class WebViewHost final : public WebViewHosting {
public:
    explicit WebViewHost(WebKitWebView* view);
    ~WebViewHost() override;
    WebViewHost(const WebViewHost&) = delete;
    WebViewHost& operator=(const WebViewHost&) = delete;

    void evaluateScript(const std::string& script) override;

private:
    WebKitWebView* m_view;
};

}  // namespace velko
