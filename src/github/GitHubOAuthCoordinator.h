#pragma once
// GitHubOAuthCoordinator: the sign-in. The authorization-code flow with PKCE
// through an OAuthSession (the browser), ending in the redirect whose query
// carries `state` and `code`.
//
// Main thread: start, the callback checks, the pending values and the
// delegate calls. The token exchange, the user fetch and the store write run
// on the worker queue, so the window never waits on the network or the
// keyring. The store is asked before the browser opens, so a sign-in cannot
// end with nowhere to keep its token. A flow not finished within ten minutes
// ends with timedOut. A new start replaces the flow in progress.
//
// The state is single use and compared in constant time. Nothing of the URL,
// the code, the verifier or a token is logged.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/TaskQueue.h"
#include "github/GitAuthManager.h"
#include "github/GitHubEndpoints.h"
#include "github/GitHubOAuthHTTPClient.h"
#include "github/GitTokenRefresher.h"
#include "github/OAuthSession.h"

namespace velko {

class GitHubOAuthCoordinatorDelegate {
public:
    virtual ~GitHubOAuthCoordinatorDelegate() = default;
    virtual void gitHubOAuthCoordinatorDidComplete(const OAuthTokenRecord& record) = 0;
    virtual void gitHubOAuthCoordinatorDidFail(OAuthError error) = 0;
};

class GitHubOAuthCoordinator final : public std::enable_shared_from_this<GitHubOAuthCoordinator> {
public:
    static constexpr std::chrono::minutes kFlowTimeLimit{10};

    struct Configuration {
        std::string clientID;
        std::string redirectURI;
        std::vector<std::string> scopes;
        GitHubEndpoints endpoints;
    };
    struct Collaborators {
        std::shared_ptr<GitAuthManager> authManager;
        std::shared_ptr<GitHubOAuthHTTPClient> httpClient;
        std::shared_ptr<GitTokenRefresher> tokenRefresher;  // may be null
        std::shared_ptr<OAuthSessionFactory> sessionFactory;
        std::shared_ptr<TaskQueue> worker;  // exchange, user, store
        OAuthClock clock = oauthNow;
        Duration flowTimeLimit = kFlowTimeLimit;
    };

    GitHubOAuthCoordinator(Configuration configuration, Collaborators collaborators);
    ~GitHubOAuthCoordinator();

    void setDelegate(std::weak_ptr<GitHubOAuthCoordinatorDelegate> delegate) { m_delegate = std::move(delegate); }
    void startAuthorization();
    // A redirect that reached the program without a session (a velko:// link
    // opened while no flow runs, or after it ended): checked like any other,
    // so it ends in missingState or stateMismatch.
    void receiveCallback(const std::string& url);
    bool isPending() const { return m_pendingState.has_value(); }

    // The authorize URL with its query in the fixed order client_id,
    // redirect_uri, scope, state, code_challenge, code_challenge_method.
    static std::string authorizeURL(const Configuration& configuration, const std::string& state,
                                    const std::string& challenge);

private:
    void beginSession(uint64_t generation);
    // The checks made on the main thread; on success the exchange is posted.
    Status<OAuthError> handleCallback(const std::string& url);
    // On the worker, holding what it calls but never the coordinator (or the
    // worker queue), which are released on the main thread only.
    static void exchange(std::weak_ptr<GitHubOAuthCoordinator> weak, std::shared_ptr<GitHubOAuthHTTPClient> client,
                         std::shared_ptr<GitAuthManager> authManager, OAuthClock clock, SecretText code,
                         SecretText verifier);
    void clearPending();
    void report(OAuthError error);

    Configuration m_configuration;
    Collaborators m_collaborators;
    std::weak_ptr<GitHubOAuthCoordinatorDelegate> m_delegate;
    std::shared_ptr<OAuthSession> m_currentSession;
    std::optional<std::string> m_pendingState;
    std::optional<SecretText> m_pendingCodeVerifier;
    // Bumped by every start and every end of a flow: late completions,
    // store checks and timers of an older flow find it changed.
    uint64_t m_generation = 0;
};

}  // namespace velko
