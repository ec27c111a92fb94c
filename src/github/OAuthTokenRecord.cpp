#include "github/OAuthTokenRecord.h"

#include <algorithm>
#include <cstdio>

#include "core/Json.h"

namespace velko {

using namespace std::chrono;

OAuthTime oauthNow() { return time_point_cast<milliseconds>(system_clock::now()); }

bool isNonExpiring(OAuthTime date) {
    if (date == kDistantFuture) return true;
    return year_month_day{floor<days>(date)}.year() > year{2099};
}

std::string formatOAuthTime(OAuthTime date) {
    auto day = floor<days>(date);
    year_month_day ymd{day};
    hh_mm_ss<milliseconds> time{date - day};
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return buffer;
}

namespace {
bool digits(std::string_view s, size_t pos, size_t count, int& out) {
    if (pos + count > s.size()) return false;
    out = 0;
    for (size_t i = 0; i < count; ++i) {
        if (s[pos + i] < '0' || s[pos + i] > '9') return false;
        out = out * 10 + (s[pos + i] - '0');
    }
    return true;
}
}  // namespace

std::optional<OAuthTime> parseOAuthTime(std::string_view s) {
    int y, mo, d, h, mi, sec;
    if (s.size() < 20 || !digits(s, 0, 4, y) || s[4] != '-' || !digits(s, 5, 2, mo) || s[7] != '-' ||
        !digits(s, 8, 2, d) || s[10] != 'T' || !digits(s, 11, 2, h) || s[13] != ':' || !digits(s, 14, 2, mi) ||
        s[16] != ':' || !digits(s, 17, 2, sec) || h > 23 || mi > 59 || sec > 60)
        return std::nullopt;
    year_month_day date{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!date.ok()) return std::nullopt;
    size_t pos = 19;
    int millis = 0;
    if (s[pos] == '.') {
        size_t start = ++pos;
        int scale = 100;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
            millis += (s[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == start) return std::nullopt;
    }
    int offset = 0;
    if (pos < s.size() && s[pos] == 'Z') {
        ++pos;
    } else if (pos < s.size() && (s[pos] == '+' || s[pos] == '-')) {
        int oh, om;
        if (!digits(s, pos + 1, 2, oh) || pos + 3 >= s.size() || s[pos + 3] != ':' || !digits(s, pos + 4, 2, om))
            return std::nullopt;
        offset = (s[pos] == '-' ? -1 : 1) * (oh * 3600 + om * 60);
        pos += 6;
    } else {
        return std::nullopt;
    }
    if (pos != s.size()) return std::nullopt;
    return OAuthTime{sys_days{date} + hours{h} + minutes{mi} + seconds{sec} - seconds{offset} + milliseconds{millis}};
}

OAuthTime expiryDate(OAuthTime now, int64_t expiresIn) {
    // A lifetime that would pass the distant future is as good as never expiring.
    if (expiresIn <= 0 || expiresIn > 60LL * 60 * 24 * 365 * 1000) return kDistantFuture;
    return now + seconds{expiresIn};
}

std::vector<std::string> sortedScopes(std::string_view text) {
    std::vector<std::string> scopes;
    std::string piece;
    for (size_t i = 0; i <= text.size(); ++i) {
        char c = i < text.size() ? text[i] : ' ';
        if (c == ' ' || c == ',') {
            if (!piece.empty()) scopes.push_back(std::move(piece));
            piece.clear();
        } else {
            piece.push_back(c);
        }
    }
    std::sort(scopes.begin(), scopes.end());
    return scopes;
}

OAuthTokenRecord OAuthTokenRecord::from(const OAuthTokenResponse& response, OAuthTime now) {
    OAuthTokenRecord record;
    record.accessToken = response.accessToken;
    record.refreshToken = response.refreshToken;
    record.expiresAt = expiryDate(now, response.expiresIn);
    record.scope = sortedScopes(response.scope);
    record.tokenType = response.tokenType;
    return record;
}

OAuthTokenRecord OAuthTokenRecord::updating(const OAuthTokenResponse& response, OAuthTime now) const {
    OAuthTokenRecord record = from(response, now);
    record.accountLogin = accountLogin;
    record.accountAvatarURL = accountAvatarURL;
    return record;
}

std::string OAuthTokenRecord::encode() const {
    OrderedJson json;
    json["accessToken"] = accessToken.str();
    json["refreshToken"] = refreshToken.str();
    json["expiresAt"] = formatOAuthTime(expiresAt);
    json["scope"] = scope;
    json["tokenType"] = tokenType;
    if (accountLogin) json["accountLogin"] = *accountLogin;
    if (accountAvatarURL) json["accountAvatarURL"] = *accountAvatarURL;
    std::string bytes = dumpJson(json);
    // The JSON value's own copies of the tokens go too.
    wipe(json["accessToken"].get_ref<std::string&>());
    wipe(json["refreshToken"].get_ref<std::string&>());
    return bytes;
}

std::optional<OAuthTokenRecord> OAuthTokenRecord::decode(std::string_view bytes) {
    auto json = parseJson(bytes);
    if (!json || !json->is_object()) return std::nullopt;
    struct WipeTokens {
        Json& json;
        ~WipeTokens() {
            for (const char* key : {"accessToken", "refreshToken"})
                if (auto it = json.find(key); it != json.end() && it->is_string()) wipe(it->get_ref<std::string&>());
        }
    } wipeOnExit{*json};
    auto access = json::string(&*json, "accessToken");
    auto refresh = json::string(&*json, "refreshToken");
    auto expires = json::string(&*json, "expiresAt");
    auto type = json::string(&*json, "tokenType");
    const Json* scopes = json::array(&*json, "scope");
    std::optional<OAuthTime> date = expires ? parseOAuthTime(*expires) : std::nullopt;
    if (!access || !refresh || !date || !type || !scopes) {
        if (access) wipe(*access);
        if (refresh) wipe(*refresh);
        return std::nullopt;
    }
    OAuthTokenRecord record;
    record.accessToken = SecretText(std::move(*access));
    record.refreshToken = SecretText(std::move(*refresh));
    record.expiresAt = *date;
    for (const auto& scope : *scopes) {
        if (!scope.is_string()) return std::nullopt;
        record.scope.push_back(scope.get<std::string>());
    }
    record.tokenType = std::move(*type);
    record.accountLogin = json::string(&*json, "accountLogin");
    record.accountAvatarURL = json::string(&*json, "accountAvatarURL");
    return record;
}

}  // namespace velko
