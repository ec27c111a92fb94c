#pragma once
// AnalyticsLogging: the narrow road by which any part of velko records a
// usage event. Analytics stay on this machine: each event becomes one line in
// the system log, nothing is sent anywhere.
//
// Callers hold it as an optional reference; it never fails towards them and
// may be called from any thread. Values are what a property can be after
// sanitising: a flag, a whole number, a fraction, or text (nested data arrives
// as its compact JSON text).

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

namespace velko {

using AnalyticsValue = std::variant<bool, int64_t, double, std::string>;
using AnalyticsProperties = std::map<std::string, AnalyticsValue>;

class AnalyticsLogging {
public:
    virtual ~AnalyticsLogging() = default;
    virtual void log(std::string_view event, const AnalyticsProperties& properties = {}) = 0;
};

}  // namespace velko
