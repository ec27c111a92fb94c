#include "telemetry/SecurityEventLogger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "core/Json.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/Time.h"

namespace velko {

std::string_view securityActionName(SecurityAction action) {
    switch (action) {
        case SecurityAction::oauthStart: return "oauthStart";
        case SecurityAction::oauthSuccess: return "oauthSuccess";
        case SecurityAction::oauthFailure: return "oauthFailure";
        case SecurityAction::oauthLogout: return "oauthLogout";
        case SecurityAction::oauthRefreshSuccess: return "oauthRefreshSuccess";
        case SecurityAction::oauthRefreshFailure: return "oauthRefreshFailure";
        case SecurityAction::oauthTokenInvalid: return "oauthTokenInvalid";
    }
    return "oauthFailure";
}

std::shared_ptr<SecurityEventLogger> SecurityEventLogger::create(std::optional<std::string> filePath,
                                                                 std::shared_ptr<TaskQueue> queue) {
    if (!filePath) {
        std::string directory = cacheDirectory();
        if (!createDirectories(directory)) directory = temporaryDirectory();
        filePath = directory + "/security-events.log";
    }
    if (!queue) queue = std::make_shared<SerialQueue>("app.velko.security-events.logger");
    return std::shared_ptr<SecurityEventLogger>(new SecurityEventLogger(std::move(*filePath), std::move(queue)));
}

std::string SecurityEventLogger::encodeLine(SecurityAction action, const std::optional<std::string>& login,
                                            const std::optional<Metadata>& metadata, const std::string& timestamp) {
    OrderedJson entry;
    entry["timestamp"] = timestamp;
    entry["action"] = std::string(securityActionName(action));
    if (login) entry["login"] = *login;
    if (metadata) {
        OrderedJson values = OrderedJson::object();
        for (const auto& [key, value] : *metadata) values[key] = value;
        entry["metadata"] = std::move(values);
    }
    return dumpJson(entry);
}

void SecurityEventLogger::log(SecurityAction action, std::optional<std::string> login,
                              std::optional<Metadata> metadata) {
    // The task holds the path, not the logger: lines posted just before the
    // logger goes away are still written when its queue winds down.
    m_queue->post([path = m_filePath, action, login = std::move(login), metadata = std::move(metadata)] {
        append(path, encodeLine(action, login, metadata, iso8601Now()) + "\n");
    });
}

void SecurityEventLogger::append(const std::string& path, const std::string& line) {
    // O_APPEND: one write per line lands whole at the end, and a deleted file
    // is simply created again.
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const char* data = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        data += n;
        left -= static_cast<size_t>(n);
    }
    ::close(fd);
}

}  // namespace velko
