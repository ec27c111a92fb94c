#pragma once
// Sign-in sessions in the user's default browser. The authorize URL opens
// there; the redirect comes back one of two ways, by the redirect URI:
//
//  - a custom scheme (velko://oauth/callback): the desktop registers velko as
//    the scheme's handler; a second `velko velko://…` forwards the link to the
//    running instance, whose host hands it to deliverRedirect(). Needs a
//    handler for the scheme and a host that receives links (not headless).
//  - http://127.0.0.1:<port>/<path> or http://[::1]:<port>/<path>: a listener
//    on exactly that port (the token request repeats the redirect URI, so the
//    port is fixed), answering the browser with a short page and closing after
//    the one callback.
//
// No browser, no scheme handler, a port in use or a custom scheme where links
// are not received: the session completes with invalidRedirect at start.
// Main thread; the listener has a thread of its own, which cancel() ends.

#include <functional>
#include <memory>
#include <string>

#include "github/OAuthSession.h"

namespace velko {

class BrowserOAuthSessionFactory final : public OAuthSessionFactory,
                                         public std::enable_shared_from_this<BrowserOAuthSessionFactory> {
public:
    struct Options {
        // The host hands velko:// links to deliverRedirect() (the desktop does).
        bool receivesLinks = false;
        // Opens a URL in its scheme's default application; false when none
        // could. Default: GIO's default handler (the browser for https).
        std::function<bool(const std::string& url)> openURL;
    };
    explicit BrowserOAuthSessionFactory(Options options);

    std::shared_ptr<OAuthSession> makeSession(const std::string& authorizeURL, const std::string& redirectURI,
                                              Completion completion) override;
    void setUnclaimedRedirectHandler(std::function<void(const std::string& url)> handler) override {
        m_unclaimed = std::move(handler);
    }
    // A link the program was opened with. A redirect goes to its session, or
    // to the unclaimed handler; anything else is not ours (false).
    bool deliverRedirect(const std::string& url);

    // Whether `url` is a redirect to `redirectURI` (the same scheme, host and
    // path; the query is the redirect's own).
    static bool isRedirectTo(const std::string& url, const std::string& redirectURI);

    class LinkSession;
private:
    Options m_options;
    std::function<void(const std::string&)> m_unclaimed;
    std::weak_ptr<LinkSession> m_waiting;
    std::string m_lastRedirectURI;
};

}  // namespace velko
