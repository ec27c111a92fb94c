#include "github/GitHubOAuthCoordinator.h"

#include "core/Log.h"
#include "core/Uuid.h"
#include "github/GitHubOAuthEnvironment.h"
#include "github/Pkce.h"

namespace velko {

namespace {

const Logger kLog("app.velko.github", "oauth");

std::string queryEncode(std::string_view text) {
    static const char* kHex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
            c == '_' || c == '~') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string queryDecode(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out.push_back(' ');
        } else if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

// The first non-empty value of `name` in the URL's query; nothing else of the
// URL (host, path) matters here: the session decided it is our redirect.
std::optional<SecretText> queryValue(const std::string& url, std::string_view name) {
    size_t question = url.find('?');
    if (question == std::string::npos) return std::nullopt;
    std::string_view query(url);
    query = query.substr(question + 1);
    query = query.substr(0, query.find('#'));
    while (!query.empty()) {
        size_t amp = query.find('&');
        std::string_view item = query.substr(0, amp);
        size_t eq = item.find('=');
        if (eq != std::string_view::npos && queryDecode(item.substr(0, eq)) == name) {
            std::string value = queryDecode(item.substr(eq + 1));
            if (!value.empty()) return SecretText(std::move(value));
        }
        if (amp == std::string_view::npos) break;
        query = query.substr(amp + 1);
    }
    return std::nullopt;
}

bool hasScheme(const std::string& uri) {
    size_t colon = uri.find(':');
    if (colon == 0 || colon == std::string::npos) return false;
    for (size_t i = 0; i < colon; ++i) {
        char c = uri[i];
        bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!alpha && (i == 0 || !((c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'))) return false;
    }
    return true;
}

}  // namespace

GitHubOAuthCoordinator::GitHubOAuthCoordinator(Configuration configuration, Collaborators collaborators)
    : m_configuration(std::move(configuration)), m_collaborators(std::move(collaborators)) {
    m_configuration.scopes = normalizeScopes(m_configuration.scopes);
}

GitHubOAuthCoordinator::~GitHubOAuthCoordinator() {
    if (m_currentSession) m_currentSession->cancel();
}

std::string GitHubOAuthCoordinator::authorizeURL(const Configuration& configuration, const std::string& state,
                                                 const std::string& challenge) {
    std::string scope;
    for (const auto& s : normalizeScopes(configuration.scopes)) scope += (scope.empty() ? "" : " ") + s;
    return configuration.endpoints.authorizeURL() + "?client_id=" + queryEncode(configuration.clientID) +
           "&redirect_uri=" + queryEncode(configuration.redirectURI) + "&scope=" + queryEncode(scope) +
           "&state=" + queryEncode(state) + "&code_challenge=" + queryEncode(challenge) +
           "&code_challenge_method=S256";
}

void GitHubOAuthCoordinator::report(OAuthError error) {
    kLog.notice(std::string("sign-in failed: ") + std::string(oauthErrorName(error)));
    if (auto delegate = m_delegate.lock()) delegate->gitHubOAuthCoordinatorDidFail(error);
}

void GitHubOAuthCoordinator::clearPending() {
    m_pendingState.reset();
    m_pendingCodeVerifier.reset();
    if (m_currentSession) m_currentSession->cancel();
    m_currentSession.reset();
    ++m_generation;
}

void GitHubOAuthCoordinator::startAuthorization() {
    clearPending();
    uint64_t generation = m_generation;
    // The keyring is asked first, off the main thread: an unlock prompt or a
    // slow bus must not freeze the window, and a locked or missing store is
    // reported before the user signs in for nothing.
    std::weak_ptr<GitHubOAuthCoordinator> weak = weak_from_this();
    auto authManager = m_collaborators.authManager;
    m_collaborators.worker->post([weak, authManager, generation] {
        auto available = authManager->checkAvailable();
        std::optional<OAuthError> problem;
        if (!available) problem = available.error();
        runOnMainWeak(weak, [generation, problem](GitHubOAuthCoordinator& self) {
            if (self.m_generation != generation) return;  // a newer start took over
            if (problem) return self.report(*problem);
            self.beginSession(generation);
        });
    });
}

void GitHubOAuthCoordinator::beginSession(uint64_t generation) {
    auto verifier = makeCodeVerifier();
    if (!verifier || !hasScheme(m_configuration.redirectURI)) return report(OAuthError::invalidRedirect);
    m_pendingState = Uuid::random().toString();
    m_pendingCodeVerifier = std::move(*verifier);
    std::string url = authorizeURL(m_configuration, *m_pendingState, codeChallenge(m_pendingCodeVerifier->str()));

    std::weak_ptr<GitHubOAuthCoordinator> weak = weak_from_this();
    m_currentSession = m_collaborators.sessionFactory->makeSession(
        url, m_configuration.redirectURI, [weak, generation](Result<std::string, OAuthError> result) {
            runOnMainWeak(weak, [generation, result = std::move(result)](GitHubOAuthCoordinator& self) {
                if (self.m_generation != generation) return;
                // The session is spent either way: a redirect that fails its
                // checks ends the flow too, rather than the time limit later.
                auto checked = result ? self.handleCallback(result.value()) : Status<OAuthError>(fail(result.error()));
                if (checked) return;
                if (self.m_generation == generation) self.clearPending();
                self.report(checked.error());
            });
        });
    mainQueue().postDelayed(m_collaborators.flowTimeLimit, [weak, generation] {
        auto self = weak.lock();
        if (!self || self->m_generation != generation || !self->m_pendingState) return;
        self->clearPending();
        self->report(OAuthError::timedOut);
    });
    kLog.info("sign-in started in the browser");
    if (auto session = m_currentSession) session->start();
}

void GitHubOAuthCoordinator::receiveCallback(const std::string& url) {
    auto checked = handleCallback(url);
    if (!checked) report(checked.error());
}

Status<OAuthError> GitHubOAuthCoordinator::handleCallback(const std::string& url) {
    if (!m_pendingState || !m_pendingCodeVerifier) return fail(OAuthError::missingState);
    auto state = queryValue(url, "state");
    if (!state) return fail(OAuthError::missingState);
    if (!constantTimeEquals(state->str(), *m_pendingState)) {
        // Reported here and once more by the caller, as the flow always has.
        clearPending();
        report(OAuthError::stateMismatch);
        return fail(OAuthError::stateMismatch);
    }
    // The state is spent: a replay of this URL finds nothing pending.
    SecretText verifier = std::move(*m_pendingCodeVerifier);
    clearPending();
    auto code = queryValue(url, "code");
    if (!code) {
        report(OAuthError::missingCode);
        return fail(OAuthError::missingCode);
    }
    m_collaborators.worker->post([weak = weak_from_this(), client = m_collaborators.httpClient,
                                  authManager = m_collaborators.authManager, clock = m_collaborators.clock,
                                  code = std::move(*code), verifier = std::move(verifier)]() mutable {
        exchange(std::move(weak), std::move(client), std::move(authManager), std::move(clock), std::move(code),
                 std::move(verifier));
    });
    return Ok{};
}

// Worker queue. The outcome is reported once, on the main thread: the
// redirect's completion has long returned by now.
void GitHubOAuthCoordinator::exchange(std::weak_ptr<GitHubOAuthCoordinator> weak,
                                      std::shared_ptr<GitHubOAuthHTTPClient> client,
                                      std::shared_ptr<GitAuthManager> authManager, OAuthClock clock, SecretText code,
                                      SecretText verifier) {
    auto finish = [weak](std::optional<OAuthTokenRecord> record, std::optional<OAuthError> error) {
        runOnMainWeak(weak, [record = std::move(record), error](GitHubOAuthCoordinator& self) {
            if (error) return self.report(*error);
            auto& refresher = self.m_collaborators.tokenRefresher;
            if (refresher && !record->refreshToken.empty() && !refresher->isRunning()) refresher->start();
            kLog.info("signed in");
            if (auto delegate = self.m_delegate.lock()) delegate->gitHubOAuthCoordinatorDidComplete(*record);
        });
    };
    auto tokens = client->exchangeCode(code, verifier);
    if (!tokens) return finish(std::nullopt, tokens.error());
    OAuthTokenRecord record = OAuthTokenRecord::from(tokens.value(), clock());
    // Without the user the sign-in still counts, just without a name to show.
    if (auto user = client->fetchUser(record.accessToken)) {
        record.accountLogin = user->login;
        record.accountAvatarURL = user->avatarUrl;
    } else {
        kLog.notice(std::string("the user could not be read: ") + std::string(oauthErrorName(user.error())));
    }
    auto saved = authManager->save(record);
    if (!saved) return finish(std::nullopt, saved.error());
    finish(std::move(record), std::nullopt);
}

}  // namespace velko
