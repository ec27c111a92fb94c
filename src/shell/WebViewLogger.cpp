#include "shell/WebViewLogger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/Log.h"
#include "core/Paths.h"
#include "core/PrivateFiles.h"
#include "core/Time.h"

namespace velko {

std::optional<std::string> webViewLogText(const Json& body) {
    if (!body.is_object() || body.empty()) return std::nullopt;
    auto type = json::string(&body, "type");
    if (!type || *type != "webview/log") return std::nullopt;

    std::string source = json::string(&body, "source").value_or("web");
    std::string level = json::string(&body, "level").value_or("info");
    std::string text = "[" + source + "] [" + level + "]";

    auto message = json::string(&body, "message");
    if (message && !message->empty()) {
        text += " " + *message;
    } else if (const Json* payload = json::member(&body, "payload")) {
        // Structures are logged readable; a bare value as its plain text.
        if (payload->is_object() || payload->is_array())
            text += " " + payload->dump(2, ' ', false, Json::error_handler_t::replace);
        else if (payload->is_string())
            text += " " + payload->get<std::string>();
        else
            text += " " + dumpJson(*payload);
    }
    return text;
}

std::string webViewLogPath() {
    std::string folder = cacheDirectory();
    // A folder of velko's own even then: it is made the user's alone.
    if (folder.empty()) folder = temporaryDirectory() + "/velko";
    return folder + "/velko-webview.log";
}

void appendWebViewLogLine(const std::string& path, const std::string& text) {
    std::string line = "[" + iso8601Now() + "] " + text + "\n";
    size_t slash = path.rfind('/');
    // What the page logs may hold what the user typed: folder and file are the user's alone.
    if (slash != std::string::npos && slash > 0) ensurePrivateDirectory(path.substr(0, slash));

    int fd = openPrivateForAppend(path, false);
    if (fd < 0 && errno == ENOENT) {
        if (writeFileAtomically(path, line, 0600)) return;
    }
    bool ok = fd >= 0;
    int error = fd >= 0 ? 0 : errno;
    const char* data = line.data();
    size_t left = line.size();
    while (ok && left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ok = false;
            error = errno;
            break;
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    if (fd >= 0) ::close(fd);
    if (!ok)
        logMessage(LogLevel::Error, "app.velko", "webview",
                   std::string("[WebViewLogger] Failed to write log: ") + std::strerror(error));
}

}  // namespace velko
