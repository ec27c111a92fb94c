#pragma once
// Structured diagnostics: subsystem, category, level, message. Written through
// GLib's structured logging, so lines reach journald when it runs and stderr
// otherwise. Never fails towards its caller.

#include <string>
#include <string_view>

namespace velko {

enum class LogLevel { Debug, Info, Notice, Error, Fault };

void logMessage(LogLevel level, std::string_view subsystem, std::string_view category,
                std::string_view message);

// A logger bound to one subsystem and category.
class Logger {
public:
    Logger(std::string subsystem, std::string category)
        : m_subsystem(std::move(subsystem)), m_category(std::move(category)) {}
    void debug(std::string_view message) const { logMessage(LogLevel::Debug, m_subsystem, m_category, message); }
    void info(std::string_view message) const { logMessage(LogLevel::Info, m_subsystem, m_category, message); }
    void notice(std::string_view message) const { logMessage(LogLevel::Notice, m_subsystem, m_category, message); }
    void error(std::string_view message) const { logMessage(LogLevel::Error, m_subsystem, m_category, message); }
    void fault(std::string_view message) const { logMessage(LogLevel::Fault, m_subsystem, m_category, message); }

private:
    std::string m_subsystem;
    std::string m_category;
};

}  // namespace velko
