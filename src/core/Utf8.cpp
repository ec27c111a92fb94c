#include "core/Utf8.h"

#include <cstdint>
#include <cstring>

namespace velko {

bool isValidUtf8(std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        // ASCII runs are the common case: skip eight bytes at a time.
        while (end - p >= 8) {
            uint64_t word;
            std::memcpy(&word, p, 8);
            if (word & 0x8080808080808080ull) break;
            p += 8;
        }
        if (p >= end) break;
        unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        size_t length;
        uint32_t codePoint;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
            codePoint = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            codePoint = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            codePoint = c & 0x07;
        } else {
            return false;
        }
        if (static_cast<size_t>(end - p) < length) return false;
        for (size_t i = 1; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
            codePoint = (codePoint << 6) | (p[i] & 0x3F);
        }
        if ((length == 3 && codePoint < 0x800) || (length == 4 && (codePoint < 0x10000 || codePoint > 0x10FFFF)) ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        p += length;
    }
    return true;
}

}  // namespace velko
