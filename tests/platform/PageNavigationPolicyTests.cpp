#include <gtest/gtest.h>

#include "platform/PageNavigationPolicy.h"

using namespace velko;

TEST(PageNavigationPolicy, OnlyOurPageLoadsAndOnlyAUsersLinkReachesTheBrowser) {
    using D = NavigationDecision;
    constexpr auto View = NavigationTarget::View, NewWindow = NavigationTarget::NewWindow;
    constexpr auto User = UserGesture::Present, Script = UserGesture::Absent;
    struct Case {
        const char* uri;
        NavigationTarget target;
        UserGesture gesture;
        NavigationDecision expected;
    };
    const Case cases[] = {
        {"app://bundle/", View, Script, D::LoadInView},
        {"app://bundle/index.html?x#y", View, Script, D::LoadInView},
        {"APP://Bundle/assets/a.js", View, Script, D::LoadInView},
        {"app://bundle", View, Script, D::LoadInView},
        {"about:blank", View, Script, D::LoadInView},
        {"about:srcdoc", View, Script, D::LoadInView},
        // other origins on our own scheme
        {"app://elsewhere/index.html", View, User, D::Ignore},
        {"app://bundle.example/", View, Script, D::Ignore},
        {"app://bundle@elsewhere/", View, Script, D::Ignore},
        {"app://bundle:8080/", View, Script, D::Ignore},
        {"app:bundle/", View, Script, D::Ignore},
        // the web: to the browser, and only when the user asked
        {"https://example.com/a?b=c", View, User, D::OpenInBrowser},
        {"HTTP://example.com/", View, User, D::OpenInBrowser},
        {"https://example.com/", NewWindow, User, D::OpenInBrowser},
        {"https://example.com/", View, Script, D::Ignore},
        {"https://example.com/", NewWindow, Script, D::Ignore},
        // nothing else, anywhere
        {"app://bundle/", NewWindow, User, D::Ignore},
        {"about:blank", NewWindow, User, D::Ignore},
        {"data:text/html,<script>1</script>", View, User, D::Ignore},
        {"file:///etc/passwd", View, User, D::Ignore},
        {"javascript:alert(1)", View, User, D::Ignore},
        {"blob:app://bundle/1234", View, User, D::Ignore},
        {"mailto:a@example.com", View, User, D::Ignore},
        {"", View, User, D::Ignore},
        {"https", View, User, D::Ignore},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.uri);
        EXPECT_EQ(decideNavigation(c.uri, c.target, c.gesture), c.expected);
    }
}
