#include "git/GitJsonWriter.h"

#include <charconv>

namespace velko {

namespace {

// True for bytes the encoder must escape; everything else is copied in runs.
constexpr bool needsEscape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    size_t run = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (!needsEscape(c)) continue;
        out.append(text.data() + run, i - run);
        run = i + 1;
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '\b': out.append("\\b"); break;
        case '\f': out.append("\\f"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default:
            out.append("\\u00");
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xF]);
        }
    }
    out.append(text.data() + run, text.size() - run);
    out.push_back('"');
}

void appendJsonInteger(std::string& out, int64_t value) {
    char buffer[24];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, static_cast<size_t>(end - buffer));
}

std::string makeEventEnvelope(std::string_view type, std::string_view payloadJson) {
    std::string envelope;
    envelope.reserve(payloadJson.size() + type.size() + 24);
    envelope.append("{\"type\":");
    appendJsonString(envelope, type);
    envelope.append(",\"payload\":");
    envelope.append(payloadJson);
    envelope.push_back('}');
    return envelope;
}

}  // namespace velko
