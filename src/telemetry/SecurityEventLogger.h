#pragma once
// SecurityEventLogger: "security-events.log" in the cache directory, one JSON
// line per sign-in event ({"timestamp", "action", "login"?, "metadata"?}). No
// rotation, no size limit; the file keeps the process's default permissions.
//
// log() returns at once; the line is written on "app.velko.security-events.logger"
// (the queue given in tests), in the order of the log() calls, with the time
// taken on that queue. Every failure is swallowed: a sign-in never notices a
// lost line.

#include <memory>

#include "core/TaskQueue.h"
#include "telemetry/SecurityEventLogging.h"

namespace velko {

class SecurityEventLogger final : public SecurityEventLogging {
public:
    // No path: the cache directory (the temporary directory when it cannot be
    // made) and "security-events.log". No queue: a serial queue of its own.
    static std::shared_ptr<SecurityEventLogger> create(std::optional<std::string> filePath = std::nullopt,
                                                       std::shared_ptr<TaskQueue> queue = nullptr);

    void log(SecurityAction action, std::optional<std::string> login = std::nullopt,
             std::optional<Metadata> metadata = std::nullopt) override;
    const std::string& filePath() const { return m_filePath; }

    // The line as written, without its line feed.
    static std::string encodeLine(SecurityAction action, const std::optional<std::string>& login,
                                  const std::optional<Metadata>& metadata, const std::string& timestamp);

private:
    SecurityEventLogger(std::string filePath, std::shared_ptr<TaskQueue> queue)
        : m_filePath(std::move(filePath)), m_queue(std::move(queue)) {}
    static void append(const std::string& path, const std::string& line);

    std::string m_filePath;
    std::shared_ptr<TaskQueue> m_queue;
};

}  // namespace velko
