#pragma once
// ISO 8601 date-times with fractional seconds in UTC ("2026-11-23T09:33:36.123Z"),
// the form every log line and dated payload uses.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace velko {

using SystemTime = std::chrono::system_clock::time_point;

std::string formatIso8601(SystemTime time);
std::string iso8601Now();
// Accepts the form above, with or without fractional seconds, and a "Z" or
// "+hh:mm" offset. Anything else is nullopt.
std::optional<SystemTime> parseIso8601(std::string_view text);
// Reads exactly `count` decimal digits at `pos` into `out`, for the fixed-width
// date parsers; false when the text is short or a character is not a digit.
bool readFixedDigits(std::string_view text, size_t pos, size_t count, int& out);

}  // namespace velko
