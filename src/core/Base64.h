#pragma once
// Standard base64 (RFC 4648, with padding) for terminal bytes and images.

#include <optional>
#include <string>
#include <string_view>

namespace velko {

std::string base64Encode(std::string_view bytes);
// Appends the encoding to `out` without a temporary; the hot output path uses it.
void base64EncodeAppend(std::string_view bytes, std::string& out);
// nullopt for characters outside the alphabet or a bad length; padding optional,
// whitespace refused.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace velko
