#include "telemetry/AnalyticsProperties.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <vector>

namespace velko {

AnalyticsProperties sanitizeAnalyticsProperties(const Json* value) {
    AnalyticsProperties properties;
    if (!value || !value->is_object()) return properties;
    for (const auto& [key, item] : value->items()) {
        switch (item.type()) {
            case Json::value_t::boolean: properties[key] = item.get<bool>(); break;
            case Json::value_t::string: properties[key] = item.get_ref<const std::string&>(); break;
            case Json::value_t::number_integer: properties[key] = item.get<int64_t>(); break;
            case Json::value_t::number_unsigned: {
                auto number = item.get<uint64_t>();
                if (number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
                    properties[key] = static_cast<int64_t>(number);
                else
                    properties[key] = static_cast<double>(number);
                break;
            }
            case Json::value_t::number_float: properties[key] = item.get<double>(); break;
            case Json::value_t::null: properties[key] = std::string("null"); break;
            default: properties[key] = dumpJson(item); break;  // objects, arrays, binary
        }
    }
    return properties;
}

std::string describeAnalyticsValue(const AnalyticsValue& value) {
    struct Describe {
        std::string operator()(bool flag) const { return flag ? "true" : "false"; }
        std::string operator()(int64_t number) const { return std::to_string(number); }
        std::string operator()(double number) const {
            char buffer[64];
            auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, number);
            if (ec != std::errc()) return "nan";
            std::string text(buffer, end);
            // A fraction that happens to be whole still reads as one: 2.0, not 2.
            if (text.find_first_of(".eni") == std::string::npos) text += ".0";
            return text;
        }
        std::string operator()(const std::string& text) const { return text; }
    };
    return std::visit(Describe{}, value);
}

namespace {

bool isTokenCharacter(char c, bool underscore) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || (underscore && c == '_');
}

// Length of a token starting at `at`, or 0.
size_t tokenLengthAt(std::string_view text, size_t at) {
    constexpr size_t kMinimumBody = 20;
    std::string_view rest = text.substr(at);
    size_t prefix = 0;
    bool underscore = false;
    if (rest.starts_with("github_pat_")) {
        prefix = 11;
        underscore = true;
    } else if (rest.size() > 4 && rest.starts_with("gh") && std::string_view("pousr").find(rest[2]) != std::string_view::npos &&
               rest[3] == '_') {
        prefix = 4;
    } else {
        return 0;
    }
    size_t end = prefix;
    while (end < rest.size() && isTokenCharacter(rest[end], underscore)) ++end;
    return end - prefix >= kMinimumBody ? end : 0;
}

// The longest prefix of `text` of at most `limit` bytes that ends on a character boundary.
size_t utf8PrefixLength(std::string_view text, size_t limit) {
    if (text.size() <= limit) return text.size();
    size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return cut;
}

}  // namespace

std::string maskTokens(std::string_view text) {
    std::string out;
    size_t copied = 0;
    for (size_t at = text.find('g'); at != std::string_view::npos; at = text.find('g', at + 1)) {
        // A token starts a word: "xghp_…" is someone's text, not a token.
        if (at > 0 && isTokenCharacter(text[at - 1], true)) continue;
        size_t length = tokenLengthAt(text, at);
        if (length == 0) continue;
        out.append(text.substr(copied, at - copied));
        out.append("***");
        copied = at + length;
        at = copied - 1;
    }
    if (copied == 0) return std::string(text);
    out.append(text.substr(copied));
    return out;
}

std::string formatAnalyticsLine(std::string_view event, const AnalyticsProperties& properties) {
    std::string line = "event=";
    line.append(event);
    if (!properties.empty()) {
        std::vector<std::string> entries;
        entries.reserve(properties.size());
        for (const auto& [key, value] : properties) entries.push_back(key + "=" + describeAnalyticsValue(value));
        std::sort(entries.begin(), entries.end());
        line.append(" properties=");
        for (size_t i = 0; i < entries.size(); ++i) {
            if (i) line.append(", ");
            line.append(entries[i]);
        }
    }
    line = maskTokens(line);
    if (line.size() > kMaxAnalyticsLineBytes) {
        line.resize(utf8PrefixLength(line, kMaxAnalyticsLineBytes - kAnalyticsTruncationMark.size()));
        line.append(kAnalyticsTruncationMark);
    }
    return line;
}

}  // namespace velko
