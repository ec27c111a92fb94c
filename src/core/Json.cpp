#include "core/Json.h"

#include <cmath>

namespace velko {

size_t jsonNestingDepth(std::string_view text) {
    size_t depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            continue;
        }
        switch (c) {
            case '"': inString = true; break;
            case '[':
            case '{':
                if (++depth > deepest) deepest = depth;
                break;
            case ']':
            case '}':
                if (depth > 0) --depth;
                break;
            default: break;
        }
    }
    return deepest;
}

std::optional<Json> parseJson(std::string_view text, size_t maxDepth) {
    if (jsonNestingDepth(text) > maxDepth) return std::nullopt;
    Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded()) return std::nullopt;
    return value;
}

std::string dumpJson(const OrderedJson& value) {
    return value.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

std::string dumpJson(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

namespace json {

const Json* member(const Json* object, std::string_view key) {
    if (!object || !object->is_object()) return nullptr;
    auto it = object->find(key);
    return it == object->end() ? nullptr : &*it;
}

const Json* objectMember(const Json* object, std::string_view key) {
    const Json* value = member(object, key);
    return value && value->is_object() ? value : nullptr;
}

std::optional<std::string> string(const Json* object, std::string_view key) {
    const Json* value = member(object, key);
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<bool> boolean(const Json* object, std::string_view key) {
    const Json* value = member(object, key);
    if (!value || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<double> number(const Json* object, std::string_view key) {
    const Json* value = member(object, key);
    if (!value || !value->is_number()) return std::nullopt;
    return value->get<double>();
}

std::optional<int64_t> integer(const Json* object, std::string_view key) {
    const Json* value = member(object, key);
    if (!value || !value->is_number()) return std::nullopt;
    if (value->is_number_integer()) return value->get<int64_t>();
    if (value->is_number_unsigned()) {
        auto u = value->get<uint64_t>();
        if (u > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
        return static_cast<int64_t>(u);
    }
    double d = value->get<double>();
    if (!std::isfinite(d) || std::floor(d) != d || d < -9.2e18 || d > 9.2e18) return std::nullopt;
    return static_cast<int64_t>(d);
}

std::optional<Uuid> uuid(const Json* object, std::string_view key) {
    auto text = string(object, key);
    if (!text) return std::nullopt;
    return Uuid::parse(*text);
}

const Json* array(const Json* object, std::string_view key) {
    const Json* value = member(object, key);
    return value && value->is_array() ? value : nullptr;
}

}  // namespace json
}  // namespace velko
