#include "core/Base64.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace velko {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeDecodeTable() {
    std::array<int8_t, 256> table{};
    for (auto& v : table) v = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int8_t>(i);
    return table;
}
constexpr auto kDecode = makeDecodeTable();

// The two characters of every 12-bit value: three bytes become two lookups
// instead of four, which halves the encoder's time on a terminal's output.
constexpr std::array<char, 8192> makePairTable() {
    std::array<char, 8192> table{};
    for (int v = 0; v < 4096; ++v) {
        table[2 * v] = kAlphabet[v >> 6];
        table[2 * v + 1] = kAlphabet[v & 63];
    }
    return table;
}
constexpr auto kPairs = makePairTable();

inline void putPair(char* dst, uint32_t twelveBits) { std::memcpy(dst, &kPairs[2 * twelveBits], 2); }
}  // namespace

void base64EncodeAppend(std::string_view bytes, std::string& out) {
    size_t start = out.size();
    out.resize(start + (bytes.size() + 2) / 3 * 4);
    char* dst = out.data() + start;
    const auto* src = reinterpret_cast<const uint8_t*>(bytes.data());
    size_t n = bytes.size();
    size_t i = 0;
    // Six bytes at a time from one eight-byte load, read most significant first.
    for (; i + 8 <= n; i += 6, dst += 8) {
        uint64_t word;
        std::memcpy(&word, src + i, 8);
        word = __builtin_bswap64(word);
        putPair(dst, static_cast<uint32_t>(word >> 52));
        putPair(dst + 2, static_cast<uint32_t>(word >> 40) & 0xfff);
        putPair(dst + 4, static_cast<uint32_t>(word >> 28) & 0xfff);
        putPair(dst + 6, static_cast<uint32_t>(word >> 16) & 0xfff);
    }
    for (; i + 3 <= n; i += 3, dst += 4) {
        uint32_t v = uint32_t(src[i]) << 16 | uint32_t(src[i + 1]) << 8 | src[i + 2];
        putPair(dst, v >> 12);
        putPair(dst + 2, v & 0xfff);
    }
    if (size_t rest = n - i) {
        uint32_t v = uint32_t(src[i]) << 16 | (rest == 2 ? uint32_t(src[i + 1]) << 8 : 0);
        *dst++ = kAlphabet[v >> 18];
        *dst++ = kAlphabet[(v >> 12) & 63];
        *dst++ = rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        *dst++ = '=';
    }
}

std::string base64Encode(std::string_view bytes) {
    std::string out;
    base64EncodeAppend(bytes, out);
    return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
    // Padding may be left out, but when present it must complete the last quantum.
    if (!text.empty() && text.back() == '=') {
        if (text.size() % 4 != 0) return std::nullopt;
        text.remove_suffix(1);
        if (!text.empty() && text.back() == '=') text.remove_suffix(1);
    }
    if (text.size() % 4 == 1) return std::nullopt;
    std::string out;
    out.reserve(text.size() * 3 / 4);
    uint32_t acc = 0;
    int bits = 0;
    for (char c : text) {
        int8_t v = kDecode[static_cast<uint8_t>(c)];
        if (v < 0) return std::nullopt;
        acc = acc << 6 | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((acc >> bits) & 0xFF));
        }
    }
    return out;
}

}  // namespace velko
