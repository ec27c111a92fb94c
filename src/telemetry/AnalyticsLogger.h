#pragma once
// AnalyticsLogger: writes each analytics event as one info line to the system
// log, under the subsystem "app.velko.analytics" and the category "events".
// Nothing leaves the machine.
//
// No state: any thread may call it. The sink is where the finished line goes
// (the structured log in the program; tests capture it).

#include <functional>
#include <string>

#include "core/Log.h"
#include "telemetry/AnalyticsLogging.h"

namespace velko {

class AnalyticsLogger final : public AnalyticsLogging {
public:
    using Sink = std::function<void(LogLevel level, const std::string& line)>;

    // No sink: the structured log.
    explicit AnalyticsLogger(Sink sink = {});
    void log(std::string_view event, const AnalyticsProperties& properties = {}) override;

private:
    Sink m_sink;
};

}  // namespace velko
