#pragma once
// The text side of analytics: how free-form properties from the page become
// AnalyticsProperties, and how an event becomes its one log line.
//
// Pure functions, safe on any thread. Nothing here fails: a value that fits
// no rule still arrives as text, so no property can make a line fail.

#include <cstddef>
#include <string>
#include <string_view>

#include "core/Json.h"
#include "telemetry/AnalyticsLogging.h"

namespace velko {

// Lines longer than this are cut (at a character boundary) and marked.
inline constexpr size_t kMaxAnalyticsLineBytes = 64 * 1024;
inline constexpr std::string_view kAnalyticsTruncationMark = " [truncated]";

// The properties of an "analytics/event" message. Anything but an object is
// no properties. Each key is kept as it is; flags, text, whole numbers and
// fractions keep their kind (a whole number past the 64-bit range becomes a
// fraction), null becomes the text "null", and objects and arrays their
// compact JSON text. No key list, no limits of length or count.
AnalyticsProperties sanitizeAnalyticsProperties(const Json* value);

// A value as the line shows it: true/false, 42, 0.5 or 2.0, text as it is.
std::string describeAnalyticsValue(const AnalyticsValue& value);

// "event=NAME", or "event=NAME properties=k=v, k=v" with the "k=v" texts in
// ascending order. Token-shaped text is masked, and the line is cut to
// kMaxAnalyticsLineBytes.
std::string formatAnalyticsLine(std::string_view event, const AnalyticsProperties& properties);

// Replaces GitHub token shapes (ghp_…, gho_…, ghu_…, ghs_…, ghr_…,
// github_pat_…) with "***", wherever they occur in `text`.
std::string maskTokens(std::string_view text);

}  // namespace velko
