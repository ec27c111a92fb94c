#include "github/Pkce.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <cerrno>

namespace velko {

std::string base64UrlNoPadding(const unsigned char* bytes, size_t count) {
    static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    out.reserve((count * 4 + 2) / 3);
    size_t i = 0;
    for (; i + 2 < count; i += 3) {
        uint32_t n = (uint32_t(bytes[i]) << 16) | (uint32_t(bytes[i + 1]) << 8) | bytes[i + 2];
        for (int shift : {18, 12, 6, 0}) out.push_back(kAlphabet[(n >> shift) & 63]);
    }
    if (size_t rest = count - i; rest > 0) {
        uint32_t n = uint32_t(bytes[i]) << 16;
        if (rest == 2) n |= uint32_t(bytes[i + 1]) << 8;
        out.push_back(kAlphabet[(n >> 18) & 63]);
        out.push_back(kAlphabet[(n >> 12) & 63]);
        if (rest == 2) out.push_back(kAlphabet[(n >> 6) & 63]);
    }
    return out;
}

std::optional<SecretText> makeCodeVerifier() {
    unsigned char bytes[32];
    size_t filled = 0;
    while (filled < sizeof bytes) {
        ssize_t n = getrandom(bytes + filled, sizeof bytes - filled, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        filled += static_cast<size_t>(n);
    }
    SecretText verifier(base64UrlNoPadding(bytes, sizeof bytes));
    OPENSSL_cleanse(bytes, sizeof bytes);
    return verifier;
}

std::string codeChallenge(std::string_view verifier) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(verifier.data(), verifier.size(), digest, &length, EVP_sha256(), nullptr) != 1) return {};
    return base64UrlNoPadding(digest, length);
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace velko
