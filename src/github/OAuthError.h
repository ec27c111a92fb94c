#pragma once
// OAuthError: every way a sign-in, a token exchange, a refresh or the token
// store can fail, as one typed value. Its name() ("stateMismatch",
// "timedOut", "keyringLocked") is what the page and the security log see;
// never a URL, a code or a token.

#include <string>
#include <string_view>

#include "core/HttpRequesting.h"

namespace velko {

enum class OAuthError {
    // The flow.
    invalidRedirect,
    missingState,
    stateMismatch,
    missingCode,
    timedOut,
    // The HTTP exchanges.
    invalidConfiguration,
    invalidResponse,
    missingAccessToken,
    missingRefreshToken,
    userFetchFailed,
    decodingFailed,
    cannotConnect,
    tlsFailed,
    transportFailed,
    cancelled,
    // The token store.
    secretServiceUnavailable,
    keyringLocked,
};

std::string_view oauthErrorName(OAuthError error);
// A failed exchange in the client's terms: a body over the cap is an invalid
// response, a URL the client refuses a configuration fault.
OAuthError oauthErrorFor(const HttpError& error);

// The texts the page shows for a failed sign-in and a failed refresh.
std::string signInFailureMessage(OAuthError error);
std::string refreshFailureMessage(OAuthError error);

}  // namespace velko
