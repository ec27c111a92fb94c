#include "github/OAuthError.h"

namespace velko {

std::string_view oauthErrorName(OAuthError error) {
    switch (error) {
        case OAuthError::invalidRedirect: return "invalidRedirect";
        case OAuthError::missingState: return "missingState";
        case OAuthError::stateMismatch: return "stateMismatch";
        case OAuthError::missingCode: return "missingCode";
        case OAuthError::timedOut: return "timedOut";
        case OAuthError::invalidConfiguration: return "invalidConfiguration";
        case OAuthError::invalidResponse: return "invalidResponse";
        case OAuthError::missingAccessToken: return "missingAccessToken";
        case OAuthError::missingRefreshToken: return "missingRefreshToken";
        case OAuthError::userFetchFailed: return "userFetchFailed";
        case OAuthError::decodingFailed: return "decodingFailed";
        case OAuthError::cannotConnect: return "cannotConnect";
        case OAuthError::tlsFailed: return "tlsFailed";
        case OAuthError::transportFailed: return "transportFailed";
        case OAuthError::cancelled: return "cancelled";
        case OAuthError::secretServiceUnavailable: return "secretServiceUnavailable";
        case OAuthError::keyringLocked: return "keyringLocked";
    }
    return "transportFailed";
}

OAuthError oauthErrorFor(const HttpError& error) {
    switch (error.kind) {
        case HttpError::Kind::UrlRefused:
        case HttpError::Kind::InvalidRequest: return OAuthError::invalidConfiguration;
        case HttpError::Kind::CannotConnect: return OAuthError::cannotConnect;
        case HttpError::Kind::TimedOut: return OAuthError::timedOut;
        case HttpError::Kind::TooLarge: return OAuthError::invalidResponse;
        case HttpError::Kind::Tls: return OAuthError::tlsFailed;
        case HttpError::Kind::Transport: return OAuthError::transportFailed;
        case HttpError::Kind::Cancelled: return OAuthError::cancelled;
    }
    return OAuthError::transportFailed;
}

namespace {
// The store's failures say what the user can do about them; the rest name the case.
const char* storeMessage(OAuthError error) {
    if (error == OAuthError::secretServiceUnavailable)
        return "トークンを安全に保存できません: Secret Service (GNOME Keyring など) が使えません";
    if (error == OAuthError::keyringLocked) return "キーリングがロックされています";
    return nullptr;
}
}  // namespace

std::string signInFailureMessage(OAuthError error) {
    if (const char* text = storeMessage(error)) return text;
    return "GitHub サインインに失敗しました: " + std::string(oauthErrorName(error));
}

std::string refreshFailureMessage(OAuthError error) {
    if (const char* text = storeMessage(error)) return text;
    return "GitHub トークンの更新に失敗しました: " + std::string(oauthErrorName(error));
}

}  // namespace velko
