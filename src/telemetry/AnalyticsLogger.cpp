#include "telemetry/AnalyticsLogger.h"

#include "telemetry/AnalyticsProperties.h"

namespace velko {

AnalyticsLogger::AnalyticsLogger(Sink sink) : m_sink(std::move(sink)) {
    if (!m_sink) {
        m_sink = [logger = Logger("app.velko.analytics", "events")](LogLevel, const std::string& line) {
            logger.info(line);
        };
    }
}

void AnalyticsLogger::log(std::string_view event, const AnalyticsProperties& properties) {
    m_sink(LogLevel::Info, formatAnalyticsLine(event, properties));
}

}  // namespace velko
