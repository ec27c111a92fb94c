#include "platform/BrowserLauncher.h"

#include <gio/gio.h>

#include "core/Log.h"

namespace velko {

namespace {

const Logger kLog("app.velko", "browser");

// Only the scheme and host go to the log: a URL's path or query may hold
// what the user would not want written down.
std::string describe(const std::string& uri) {
    GUri* parsed = g_uri_parse(uri.c_str(), G_URI_FLAGS_NONE, nullptr);
    if (!parsed) return "an unparsable URL";
    std::string text = g_uri_get_scheme(parsed);
    if (const char* host = g_uri_get_host(parsed)) text += std::string("://") + host;
    g_uri_unref(parsed);
    return text;
}

}  // namespace

void openInDefaultBrowser(const std::string& uri) {
    kLog.info("opening " + describe(uri) + " in the default browser");
    g_app_info_launch_default_for_uri_async(
        uri.c_str(), nullptr, nullptr,
        +[](GObject*, GAsyncResult* result, gpointer) {
            GError* error = nullptr;
            if (!g_app_info_launch_default_for_uri_finish(result, &error)) {
                kLog.error(std::string("no browser could open the link: ") + (error ? error->message : "unknown error"));
                if (error) g_error_free(error);
            }
        },
        nullptr);
}

}  // namespace velko
