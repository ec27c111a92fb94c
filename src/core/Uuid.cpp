#include "core/Uuid.h"

#include <sys/random.h>

#include <cstring>

namespace velko {

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

Uuid Uuid::random() {
    std::array<uint8_t, 16> bytes{};
    size_t filled = 0;
    while (filled < bytes.size()) {
        ssize_t n = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (n > 0) filled += static_cast<size_t>(n);
    }
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
    return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::array<uint8_t, 16> bytes{};
    size_t byte = 0;
    for (size_t i = 0; i < 36;) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int hi = hexValue(text[i]);
        int lo = hexValue(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        bytes[byte++] = static_cast<uint8_t>(hi << 4 | lo);
        i += 2;
    }
    return Uuid(bytes);
}

std::string Uuid::toString() const {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(kDigits[m_bytes[i] >> 4]);
        out.push_back(kDigits[m_bytes[i] & 0x0F]);
    }
    return out;
}

}  // namespace velko

size_t std::hash<velko::Uuid>::operator()(const velko::Uuid& id) const noexcept {
    uint64_t a = 0, b = 0;
    std::memcpy(&a, id.bytes().data(), 8);
    std::memcpy(&b, id.bytes().data() + 8, 8);
    return std::hash<uint64_t>{}(a ^ (b * 0x9E3779B97F4A7C15ULL));
}
