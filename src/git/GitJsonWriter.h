#pragma once
// Hand-written JSON text for the large git payloads (working trees of tens of
// thousands of entries), where building an nlohmann value per entry costs more
// than git itself. The bytes equal what dumpJson writes for the same value;
// the tests compare the two. Strings must be valid UTF-8 (git output is
// checked when it is decoded), so no replacement is ever needed here.

#include <cstdint>
#include <string>
#include <string_view>

namespace velko {

// Appends `text` as a JSON string literal, quotes included.
void appendJsonString(std::string& out, std::string_view text);
void appendJsonInteger(std::string& out, int64_t value);
inline void appendJsonBool(std::string& out, bool value) { out.append(value ? "true" : "false"); }

// The envelope the bridge would write around an already encoded payload.
std::string makeEventEnvelope(std::string_view type, std::string_view payloadJson);

}  // namespace velko
