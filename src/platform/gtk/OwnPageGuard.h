#pragma once
// Keeps the bridge to our own page. The view's navigations follow
// PageNavigationPolicy (links out open in the default browser). The "velko"
// message channel lives in a script world of its own, reached through a relay
// injected into the top frame only, and only while that frame shows our page:
// a frame of another origin (an embedded site, a data: or sandboxed document)
// finds no channel to post to.
//
// Main thread only.

typedef struct _WebKitUserContentManager WebKitUserContentManager;
typedef struct _WebKitWebView WebKitWebView;

namespace velko {

// The script world that holds the channel; messages arrive on the manager's
// "script-message-received::velko" signal as the JSON text of the body.
inline constexpr const char* kPageChannelWorld = "velko-bridge";

void installPageChannel(WebKitUserContentManager* manager);
void keepViewOnOwnPage(WebKitWebView* view);

}  // namespace velko
