#pragma once
// PKCE (RFC 7636, method S256): a verifier of 32 random bytes from the kernel
// (getrandom) and its challenge, SHA-256 by OpenSSL, both as URL-safe base64
// without padding (43 characters).

#include <optional>
#include <string>
#include <string_view>

#include "github/SecretText.h"

namespace velko {

// Base64 with "-" and "_" for "+" and "/", and no "=" padding.
std::string base64UrlNoPadding(const unsigned char* bytes, size_t count);
// nullopt only if the kernel gives no random bytes.
std::optional<SecretText> makeCodeVerifier();
std::string codeChallenge(std::string_view verifier);
// Equal texts, compared in time that depends on their lengths only.
bool constantTimeEquals(std::string_view a, std::string_view b);

}  // namespace velko
