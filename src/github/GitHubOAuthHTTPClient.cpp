#include "github/GitHubOAuthHTTPClient.h"

#include <cstring>

#include "core/Json.h"

namespace velko {

namespace {

// RFC 3986 unreserved characters and the rest of the query set, without the
// separators "&" and "=" (and without "+", which a form reads as a blank
// elsewhere but here must survive as itself: it is in the query set).
bool passesUnencoded(unsigned char c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
    return std::strchr("-._~!$'()*+,;:@/?", c) != nullptr && c != '\0';
}

void percentEncode(std::string& out, const std::string& text) {
    static const char* kHex = "0123456789ABCDEF";
    for (unsigned char c : text) {
        if (passesUnencoded(c)) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
}

// Wipes the body, and the parsed JSON's copies of any token, when it goes.
struct WipedResponse {
    HttpResponse response;
    std::optional<Json> json;
    ~WipedResponse() {
        wipe(response.body);
        if (json && json->is_object())
            for (auto it = json->begin(); it != json->end(); ++it)
                if (it->is_string()) wipe(it->get_ref<std::string&>());
    }
};

}  // namespace

std::string HttpGitHubOAuthClient::formEncode(
    const std::vector<std::pair<std::string, const std::string*>>& parameters) {
    std::string body;
    for (const auto& [key, value] : parameters) {
        if (!body.empty()) body.push_back('&');
        percentEncode(body, key);
        body.push_back('=');
        percentEncode(body, *value);
    }
    return body;
}

HttpRequest HttpGitHubOAuthClient::request(HttpMethod method, std::string url) const {
    HttpRequest r;
    r.method = method;
    r.url = std::move(url);
    r.connectTimeout = m_settings.timeout;
    r.idleTimeout = m_settings.timeout;
    r.totalTimeout = m_settings.timeout;
    r.maxResponseBytes = kMaxResponseBytes;
    return r;
}

Result<OAuthTokenResponse, OAuthError> HttpGitHubOAuthClient::exchangeCode(const SecretText& code,
                                                                           const SecretText& codeVerifier) {
    static const std::string kGrant = "authorization_code";
    return requestToken(Grant::AuthorizationCode, {{"client_id", &m_settings.clientID},
                                                   {"redirect_uri", &m_settings.redirectURI},
                                                   {"code", &code.str()},
                                                   {"grant_type", &kGrant},
                                                   {"code_verifier", &codeVerifier.str()}});
}

Result<OAuthTokenResponse, OAuthError> HttpGitHubOAuthClient::refreshToken(const SecretText& refreshToken) {
    static const std::string kGrant = "refresh_token";
    return requestToken(Grant::RefreshToken, {{"client_id", &m_settings.clientID},
                                              {"redirect_uri", &m_settings.redirectURI},
                                              {"grant_type", &kGrant},
                                              {"refresh_token", &refreshToken.str()}});
}

Result<OAuthTokenResponse, OAuthError> HttpGitHubOAuthClient::requestToken(
    Grant grant, std::vector<std::pair<std::string, const std::string*>> form) {
    if (m_settings.clientSecret) form.push_back({"client_secret", &m_settings.clientSecret->str()});
    HttpRequest r = request(HttpMethod::Post, m_settings.endpoints.accessTokenURL());
    r.headers = {{"Accept", "application/json"}, {"Content-Type", "application/x-www-form-urlencoded"}};
    r.body = formEncode(form);
    auto result = m_http->perform(r);
    wipe(r.body);
    if (!result) return fail(oauthErrorFor(result.error()));

    WipedResponse answer{std::move(result.value()), std::nullopt};
    if (answer.response.status != 200) return fail(OAuthError::invalidResponse);
    answer.json = parseJson(answer.response.body);
    const Json* body = answer.json && answer.json->is_object() ? &*answer.json : nullptr;
    if (!body) return fail(OAuthError::decodingFailed);
    // Every key present must have its type; only "scope" is required.
    auto typed = [&](const char* key, bool (Json::*is)() const noexcept) {
        const Json* value = json::member(body, key);
        return !value || value->is_null() || (value->*is)();
    };
    auto scope = json::string(body, "scope");
    if (!scope || !typed("access_token", &Json::is_string) || !typed("refresh_token", &Json::is_string) ||
        !typed("token_type", &Json::is_string) || !typed("expires_in", &Json::is_number_integer))
        return fail(OAuthError::decodingFailed);

    auto access = json::string(body, "access_token");
    if (!access) return fail(OAuthError::missingAccessToken);
    OAuthTokenResponse response;
    response.accessToken = SecretText(std::move(*access));
    auto refresh = json::string(body, "refresh_token");
    if (grant == Grant::RefreshToken && (!refresh || refresh->empty())) {
        if (refresh) wipe(*refresh);
        return fail(OAuthError::missingRefreshToken);
    }
    response.refreshToken = SecretText(refresh ? std::move(*refresh) : std::string());
    for (char& c : *scope)
        if (c == ',') c = ' ';
    response.scope = std::move(*scope);
    response.tokenType = json::string(body, "token_type").value_or("bearer");
    response.expiresIn = json::integer(body, "expires_in").value_or(0);
    return response;
}

Result<GitHubUser, OAuthError> HttpGitHubOAuthClient::fetchUser(const SecretText& accessToken) {
    HttpRequest r = request(HttpMethod::Get, m_settings.endpoints.userURL());
    r.headers = {{"Accept", "application/vnd.github+json"}, {"Authorization", "Bearer " + accessToken.str()}};
    auto result = m_http->perform(r);
    wipe(r.headers[1].value);
    if (!result) return fail(oauthErrorFor(result.error()));
    WipedResponse answer{std::move(result.value()), std::nullopt};
    if (answer.response.status != 200) return fail(OAuthError::userFetchFailed);
    answer.json = parseJson(answer.response.body);
    const Json* body = answer.json && answer.json->is_object() ? &*answer.json : nullptr;
    auto login = json::string(body, "login");
    if (!login) return fail(OAuthError::userFetchFailed);
    return GitHubUser{std::move(*login), json::string(body, "avatar_url")};
}

}  // namespace velko
