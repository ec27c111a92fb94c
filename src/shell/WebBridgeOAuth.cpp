// GitHub account messages and the account's events: sign-in, sign-out, the
// status of the stored token, the sign-in and refresh outcomes, each recorded
// in the security log. Without a configured OAuth client there is no
// coordinator: a sign-in attempt is answered with an error instead of silence,
// and the status still follows the stored token.
#include "github/GitAuthManager.h"
#include "github/GitHubOAuthCoordinator.h"
#include "github/GitTokenRefresher.h"
#include "shell/ShellMessages.h"
#include "shell/WebBridge.h"
#include "telemetry/SecurityEventLogging.h"

namespace velko {

// The bridge as the coordinator's and the refresher's delegate. Their calls
// may come from any thread; each hops to the main thread, holding the bridge
// weakly.
class WebBridge::OAuthDelegate final : public GitHubOAuthCoordinatorDelegate, public GitTokenRefresherDelegate {
public:
    explicit OAuthDelegate(std::weak_ptr<WebBridge> bridge) : m_bridge(std::move(bridge)) {}
    void gitHubOAuthCoordinatorDidComplete(const OAuthTokenRecord& record) override {
        runOnMainWeak(m_bridge, [record](WebBridge& bridge) { bridge.oauthDidComplete(record); });
    }
    void gitHubOAuthCoordinatorDidFail(OAuthError error) override {
        runOnMainWeak(m_bridge, [error](WebBridge& bridge) { bridge.oauthDidFail(error); });
    }
    void gitTokenRefresherDidRefresh(const OAuthTokenRecord& record) override {
        runOnMainWeak(m_bridge, [record](WebBridge& bridge) { bridge.tokenDidRefresh(record); });
    }
    void gitTokenRefresherDidFail(OAuthError error) override {
        runOnMainWeak(m_bridge, [error](WebBridge& bridge) { bridge.tokenRefreshDidFail(error); });
    }

private:
    std::weak_ptr<WebBridge> m_bridge;
};

namespace {

OrderedJson errorPayload(const std::string& message) {
    return OrderedJson{{"message", message}, {"recoverable", true}};
}

std::string joinedScopes(const std::vector<std::string>& scopes) {
    std::string out;
    for (const auto& scope : scopes) out += (out.empty() ? "" : " ") + scope;
    return out;
}

}  // namespace

// --- wiring ---

void WebBridge::setAuthManager(std::shared_ptr<GitAuthManager> manager) { m_authManager = std::move(manager); }

void WebBridge::setSecurityLogger(std::shared_ptr<SecurityEventLogging> logger) {
    m_securityLogger = std::move(logger);
}

void WebBridge::attach(std::shared_ptr<GitHubOAuthCoordinator> coordinator,
                       std::shared_ptr<GitTokenRefresher> refresher) {
    m_oauthCoordinator = std::move(coordinator);
    m_tokenRefresher = std::move(refresher);
    if (!m_oauthDelegate) m_oauthDelegate = std::make_shared<OAuthDelegate>(weak_from_this());
    if (m_oauthCoordinator) m_oauthCoordinator->setDelegate(m_oauthDelegate);
    if (m_tokenRefresher) m_tokenRefresher->setDelegate(m_oauthDelegate);
    dispatchOAuthStatus();
}

// --- status ---

OrderedJson WebBridge::oauthStatusPayload(const OAuthTokenRecord* record, bool refreshed,
                                          const std::optional<std::string>& reason) {
    OrderedJson payload;
    if (!record) {
        payload["status"] = "disconnected";
        if (reason) payload["reason"] = *reason;
        return payload;
    }
    payload["status"] = "connected";
    if (record->accountLogin) {
        OrderedJson account;
        account["login"] = *record->accountLogin;
        if (record->accountAvatarURL) account["avatarUrl"] = *record->accountAvatarURL;
        payload["account"] = std::move(account);
    }
    if (!isNonExpiring(record->expiresAt)) payload["expiresAt"] = formatOAuthTime(record->expiresAt);
    if (refreshed) payload["refreshed"] = true;
    if (reason) payload["reason"] = *reason;
    return payload;
}

void WebBridge::dispatchOAuthStatus(const OAuthTokenRecord* record, bool refreshed,
                                    std::optional<std::string> reason) {
    dispatchEvent("github/oauth/status", oauthStatusPayload(record, refreshed, reason));
}

void WebBridge::dispatchOAuthStatus() {
    auto record = m_authManager ? m_authManager->loadRecord() : std::nullopt;
    dispatchOAuthStatus(record ? &*record : nullptr, false, std::nullopt);
}

std::optional<std::string> WebBridge::storedLogin() {
    if (!m_authManager) return std::nullopt;
    auto record = m_authManager->loadRecord();
    return record ? record->accountLogin : std::nullopt;
}

void WebBridge::gitServiceDidUpdateOAuthStatus(const OrderedJson& payload) {
    runOnMainWeak(weak_from_this(), [payload](WebBridge& self) {
        if (payload.value("status", "") == "disconnected" && payload.value("reason", "") == "tokenInvalid" &&
            self.m_securityLogger) {
            std::optional<std::string> login;
            if (auto it = payload.find("account"); it != payload.end() && it->is_object())
                if (auto name = it->find("login"); name != it->end() && name->is_string()) login = name->get<std::string>();
            self.m_securityLogger->log(SecurityAction::oauthTokenInvalid, login,
                                       SecurityEventLogging::Metadata{{"reason", "tokenInvalid"}});
        }
        self.dispatchEvent("github/oauth/status", payload);
    });
}

// --- messages ---

void WebBridge::handleOAuthStart(std::string_view, const Json*) {
    if (!m_oauthCoordinator) {
        dispatchEvent("github/oauth/error", errorPayload(shell_messages::kOAuthNotConfigured));
        return;
    }
    if (m_securityLogger) m_securityLogger->log(SecurityAction::oauthStart);
    m_oauthCoordinator->startAuthorization();
}

void WebBridge::handleOAuthLogout(std::string_view, const Json*) {
    std::optional<std::string> login = storedLogin();
    if (m_authManager) m_authManager->remove();
    if (m_tokenRefresher && m_tokenRefresher->isRunning()) m_tokenRefresher->stop();
    if (m_securityLogger) m_securityLogger->log(SecurityAction::oauthLogout, login);
    dispatchOAuthStatus(nullptr, false, "userLogout");
}

void WebBridge::handleOAuthRequestStatus(std::string_view, const Json*) { dispatchOAuthStatus(); }

// --- outcomes (main thread) ---

void WebBridge::oauthDidComplete(const OAuthTokenRecord& record) {
    if (m_securityLogger)
        m_securityLogger->log(SecurityAction::oauthSuccess, record.accountLogin,
                              SecurityEventLogging::Metadata{{"expiresAt", formatOAuthTime(record.expiresAt)},
                                                             {"scopes", joinedScopes(record.scope)}});
    dispatchOAuthStatus(&record, false, std::nullopt);
}

void WebBridge::oauthDidFail(OAuthError error) {
    if (m_securityLogger)
        m_securityLogger->log(SecurityAction::oauthFailure, storedLogin(),
                              SecurityEventLogging::Metadata{{"error", std::string(oauthErrorName(error))}});
    dispatchEvent("github/oauth/error", errorPayload(signInFailureMessage(error)));
}

void WebBridge::tokenDidRefresh(const OAuthTokenRecord& record) {
    if (m_securityLogger)
        m_securityLogger->log(SecurityAction::oauthRefreshSuccess, record.accountLogin,
                              SecurityEventLogging::Metadata{{"expiresAt", formatOAuthTime(record.expiresAt)}});
    dispatchOAuthStatus(&record, true, std::nullopt);
}

void WebBridge::tokenRefreshDidFail(OAuthError error) {
    if (m_securityLogger)
        m_securityLogger->log(SecurityAction::oauthRefreshFailure, std::nullopt,
                              SecurityEventLogging::Metadata{{"error", std::string(oauthErrorName(error))}});
    dispatchOAuthStatus(nullptr, false, "refreshFailed");
    dispatchEvent("github/oauth/error", errorPayload(refreshFailureMessage(error)));
}

}  // namespace velko
