#pragma once
// OAuthSession: something that opens the authorize URL for the user and
// catches the redirect back. The desktop opens the default browser and takes
// the redirect from a velko:// link or a one-shot loopback listener
// (platform/BrowserOAuthSessionFactory); tests use fakes.
//
// Main thread. The completion runs on the main thread, at most once: with the
// redirect's whole URL, or with a failure (invalidRedirect when the session
// cannot begin: no browser, no handler for the scheme, a port in use).

#include <functional>
#include <memory>
#include <string>

#include "core/Result.h"
#include "github/OAuthError.h"

namespace velko {

class OAuthSession {
public:
    virtual ~OAuthSession() = default;
    virtual void start() = 0;
    // Ends the session without a completion (a newer flow, the time limit):
    // a listener closes, a late redirect is no longer this session's.
    virtual void cancel() = 0;
};

class OAuthSessionFactory {
public:
    using Completion = std::function<void(Result<std::string, OAuthError>)>;
    virtual ~OAuthSessionFactory() = default;
    virtual std::shared_ptr<OAuthSession> makeSession(const std::string& authorizeURL,
                                                      const std::string& redirectURI, Completion completion) = 0;
    // Where a redirect goes that reached the program while no session waited
    // for it (a velko:// link opened late, or twice). Main thread.
    virtual void setUnclaimedRedirectHandler(std::function<void(const std::string& url)>) {}
};

// For a composition without any way to show a page: start() does nothing.
class NoopOAuthSessionFactory final : public OAuthSessionFactory {
public:
    std::shared_ptr<OAuthSession> makeSession(const std::string&, const std::string&, Completion) override {
        struct Noop final : OAuthSession {
            void start() override {}
            void cancel() override {}
        };
        return std::make_shared<Noop>();
    }
};

}  // namespace velko
