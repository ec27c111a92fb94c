#pragma once
// WebViewLogger: the page's own diagnostics. Messages of type "webview/log"
// are taken off the page's channel before the bridge sees them and appended as
// one dated line each to "velko-webview.log" in the cache folder (mode 0600,
// folder 0700).
//
// Main thread only. Writing never fails towards the caller: a failed write is
// reported once in the system log and dropped. The file has no rotation.

#include <optional>
#include <string>

#include "core/Json.h"

namespace velko {

// The text to log for a "webview/log" message ("[source] [level] message"),
// or nullopt when `body` is not one (it then belongs to the bridge).
std::optional<std::string> webViewLogText(const Json& body);

// $XDG_CACHE_HOME/velko/velko-webview.log.
std::string webViewLogPath();

// Appends "[<ISO 8601 time>] <text>\n" to `path`.
void appendWebViewLogLine(const std::string& path, const std::string& text);

}  // namespace velko
