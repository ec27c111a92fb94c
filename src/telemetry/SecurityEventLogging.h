#pragma once
// SecurityEventLogging: the narrow road by which the account code records what
// happened in the life of a GitHub sign-in. Never fails towards its caller and
// may be called from any thread. Logins and small metadata only: a token, a
// code or a URL never goes in.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace velko {

enum class SecurityAction {
    oauthStart,
    oauthSuccess,
    oauthFailure,
    oauthLogout,
    oauthRefreshSuccess,
    oauthRefreshFailure,
    oauthTokenInvalid,
};

// The raw text of the action, which is its own name.
std::string_view securityActionName(SecurityAction action);

class SecurityEventLogging {
public:
    using Metadata = std::map<std::string, std::string>;
    virtual ~SecurityEventLogging() = default;
    virtual void log(SecurityAction action, std::optional<std::string> login = std::nullopt,
                     std::optional<Metadata> metadata = std::nullopt) = 0;
};

}  // namespace velko
