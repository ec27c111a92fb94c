#pragma once
// AnalyticsLogging: the narrow road by which a subsystem records a local
// analytics event (one line in the system log; nothing leaves the machine).
// Callers hold it as an optional shared reference. Implementations never fail
// towards the caller and may be called from any thread.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

namespace velko {

// A property's value: what survives sanitising of the page's free-form JSON.
using AnalyticsValue = std::variant<bool, int64_t, double, std::string>;
using AnalyticsProperties = std::map<std::string, AnalyticsValue>;

class AnalyticsLogging {
public:
    virtual ~AnalyticsLogging() = default;
    virtual void log(std::string_view event, const AnalyticsProperties& properties) = 0;
};

}  // namespace velko
