#include "core/Json.h"

#include <cmath>

#include "core/Utf8.h"

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

namespace {

// The library's serializer decodes every byte of every string; file contents
// and diffs make strings of megabytes, nearly all plain text. Valid UTF-8 is
// escaped here a run at a time, byte for byte as the library writes it; text
// with invalid sequences, numbers and the rest still go through the library.
void appendEscapedString(std::string_view text, std::string& out) {
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(text.data() + start, i - start);
        start = i + 1;
        switch (c) {
            case '"': out.append("\\\""); break;
            case '\\': out.append("\\\\"); break;
            case '\b': out.append("\\b"); break;
            case '\t': out.append("\\t"); break;
            case '\n': out.append("\\n"); break;
            case '\f': out.append("\\f"); break;
            case '\r': out.append("\\r"); break;
            default:
                out.append("\\u00");
                out.push_back(kHex[c >> 4]);
                out.push_back(kHex[c & 0xF]);
        }
    }
    out.append(text.data() + start, text.size() - start);
    out.push_back('"');
}

template <typename J>
void appendString(const std::string& text, std::string& out) {
    if (isValidUtf8(text)) {
        appendEscapedString(text, out);
    } else {
        out.append(J(text).dump(-1, ' ', false, J::error_handler_t::replace));
    }
}

template <typename J>
void appendJson(const J& value, std::string& out) {
    switch (value.type()) {
        case nlohmann::json::value_t::string:
            appendString<J>(value.template get_ref<const std::string&>(), out);
            return;
        case nlohmann::json::value_t::object: {
            out.push_back('{');
            bool first = true;
            for (auto it = value.begin(); it != value.end(); ++it) {
                if (!first) out.push_back(',');
                first = false;
                appendString<J>(it.key(), out);
                out.push_back(':');
                appendJson(it.value(), out);
            }
            out.push_back('}');
            return;
        }
        case nlohmann::json::value_t::array: {
            out.push_back('[');
            bool first = true;
            for (const auto& element : value) {
                if (!first) out.push_back(',');
                first = false;
                appendJson(element, out);
            }
            out.push_back(']');
            return;
        }
        default:
            out.append(value.dump(-1, ' ', false, J::error_handler_t::replace));
    }
}

}  // namespace

std::string dumpJson(const OrderedJson& value) {
    std::string out;
    appendJson(value, out);
    return out;
}

std::string dumpJson(const Json& value) {
    std::string out;
    appendJson(value, out);
    return out;
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
    // Unsigned first: is_number_integer() holds for unsigned values too, and
    // 2^64-1 read as int64 would wrap to -1.
    if (value->is_number_unsigned()) {
        auto u = value->get<uint64_t>();
        if (u > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
        return static_cast<int64_t>(u);
    }
    if (value->is_number_integer()) return value->get<int64_t>();
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
