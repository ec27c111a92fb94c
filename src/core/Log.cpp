#include "core/Log.h"

#include <glib.h>

#include <mutex>

namespace velko {

void logMessage(LogLevel level, std::string_view subsystem, std::string_view category,
                std::string_view message) {
    GLogLevelFlags flags = G_LOG_LEVEL_INFO;
    switch (level) {
        case LogLevel::Debug: flags = G_LOG_LEVEL_DEBUG; break;
        case LogLevel::Info: flags = G_LOG_LEVEL_INFO; break;
        case LogLevel::Notice: flags = G_LOG_LEVEL_MESSAGE; break;
        // G_LOG_LEVEL_CRITICAL/ERROR would abort under G_DEBUG=fatal-criticals;
        // an application error is not a programming error.
        case LogLevel::Error: flags = G_LOG_LEVEL_WARNING; break;
        case LogLevel::Fault: flags = G_LOG_LEVEL_WARNING; break;
    }
    std::string sub(subsystem), cat(category), text(message);
    const GLogField fields[] = {
        {"GLIB_DOMAIN", "velko", -1},
        {"SUBSYSTEM", sub.c_str(), -1},
        {"CATEGORY", cat.c_str(), -1},
        {"MESSAGE", text.c_str(), -1},
    };
    // GLib's default writer stamps each line through localtime(), whose buffer
    // is shared by the process: two of our threads logging at once raced on it.
    static std::mutex writing;
    std::lock_guard lock(writing);
    g_log_structured_array(flags, fields, G_N_ELEMENTS(fields));
}

}  // namespace velko
