#pragma once
// JSON helpers shared by every subsystem.
//
// Inbound values are read with strict casts: a value read as text must be a
// JSON string, a number in its place counts as absent, and the same holds the
// other way round. Parsing refuses input nested deeper than a limit, so that no
// message of any depth can exhaust the stack.

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Uuid.h"

namespace velko {

using Json = nlohmann::json;               // inbound, parsed values
using OrderedJson = nlohmann::ordered_json;  // outbound records keep field order

inline constexpr size_t kMaxJsonDepth = 128;

// nullopt for invalid JSON, trailing garbage or nesting deeper than maxDepth.
std::optional<Json> parseJson(std::string_view text, size_t maxDepth = kMaxJsonDepth);
// Depth of the deepest array/object nesting, ignoring brackets inside strings.
size_t jsonNestingDepth(std::string_view text);

// Compact text of a value; invalid UTF-8 in strings becomes U+FFFD instead of
// failing, so a stray byte in a file name never loses a whole event.
std::string dumpJson(const OrderedJson& value);
std::string dumpJson(const Json& value);

namespace json {

// The member `key` of `object` if `object` is a JSON object holding it.
const Json* member(const Json* object, std::string_view key);
// `payload` as the bridge reads it: the object under the key, else absent.
const Json* objectMember(const Json* object, std::string_view key);

std::optional<std::string> string(const Json* object, std::string_view key);
std::optional<bool> boolean(const Json* object, std::string_view key);
std::optional<double> number(const Json* object, std::string_view key);
// A number with an integral value that fits into int64; 80.0 counts, 80.5 does not.
std::optional<int64_t> integer(const Json* object, std::string_view key);
std::optional<Uuid> uuid(const Json* object, std::string_view key);
const Json* array(const Json* object, std::string_view key);

}  // namespace json
}  // namespace velko
