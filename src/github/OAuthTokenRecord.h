#pragma once
// OAuthTokenRecord: the account's tokens as one JSON record in the token store
// ({"accessToken", "refreshToken", "expiresAt", "scope", "tokenType",
// "accountLogin"?, "accountAvatarURL"?}). The two tokens wipe themselves when
// the record goes away. A plain value, read from any thread.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "github/SecretText.h"

namespace velko {

// Dates of the account in milliseconds: far enough to hold the "distant
// future" of a token that never expires (a nanosecond clock ends in 2262).
using OAuthTime = std::chrono::sys_time<std::chrono::milliseconds>;
using OAuthClock = std::function<OAuthTime()>;
OAuthTime oauthNow();

// 4001-01-01T00:00:00Z: the date of a token that does not expire.
inline constexpr OAuthTime kDistantFuture{std::chrono::milliseconds(64092211200000)};
// True for the distant future and for any date after the year 2099.
bool isNonExpiring(OAuthTime date);
std::string formatOAuthTime(OAuthTime date);
// The ISO 8601 forms of core/Time.h ("Z" or "+hh:mm", fractions optional).
std::optional<OAuthTime> parseOAuthTime(std::string_view text);
// `now` plus `expiresIn` seconds; the distant future when expiresIn is not positive.
OAuthTime expiryDate(OAuthTime now, int64_t expiresIn);

// What the token endpoint answered, as the client hands it on.
struct OAuthTokenResponse {
    SecretText accessToken;
    SecretText refreshToken;  // empty for a token without refresh
    std::string scope;        // blank-separated
    std::string tokenType;
    int64_t expiresIn = 0;    // seconds; 0 means it does not expire
};

// Scope text split at blanks (and commas), empty pieces dropped, sorted.
std::vector<std::string> sortedScopes(std::string_view scopeText);

struct OAuthTokenRecord {
    SecretText accessToken;
    SecretText refreshToken;
    OAuthTime expiresAt{};
    std::vector<std::string> scope;
    std::string tokenType;
    std::optional<std::string> accountLogin;
    std::optional<std::string> accountAvatarURL;

    // A fresh record from an exchange (no account yet).
    static OAuthTokenRecord from(const OAuthTokenResponse& response, OAuthTime now);
    // The record after a refresh: the new tokens and expiry, the same account.
    OAuthTokenRecord updating(const OAuthTokenResponse& response, OAuthTime now) const;

    // The stored bytes. The caller wipes them once written.
    std::string encode() const;
    // nullopt when a required key is missing or of the wrong type.
    static std::optional<OAuthTokenRecord> decode(std::string_view bytes);
};

}  // namespace velko
