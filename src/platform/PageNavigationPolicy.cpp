#include "platform/PageNavigationPolicy.h"

#include <cctype>
#include <string>

namespace velko {

namespace {

std::string lowercase(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// The scheme, lower-cased, or "" when the text has none.
std::string schemeOf(std::string_view uri) {
    size_t colon = uri.find(':');
    if (colon == std::string_view::npos || colon == 0) return {};
    for (size_t i = 0; i < colon; ++i) {
        char c = uri[i];
        bool ok = std::isalpha(static_cast<unsigned char>(c)) ||
                  (i > 0 && (std::isdigit(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.'));
        if (!ok) return {};
    }
    return lowercase(uri.substr(0, colon));
}

}  // namespace

bool isOwnPageURI(std::string_view uri) {
    if (schemeOf(uri) != "app") return false;
    std::string_view rest = uri.substr(4);
    if (rest.substr(0, 2) != "//") return false;
    rest.remove_prefix(2);
    // The authority ends at the path, the query or the fragment; a user part
    // ("bundle@elsewhere") or a port makes it another origin.
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    return lowercase(authority) == "bundle";
}

NavigationDecision decideNavigation(std::string_view uri, NavigationTarget target, UserGesture gesture) {
    std::string scheme = schemeOf(uri);
    if (target == NavigationTarget::View) {
        if (isOwnPageURI(uri)) return NavigationDecision::LoadInView;
        // The documents a frame starts with, and the fallback pages loaded
        // without a base; they inherit their opener's origin or have none.
        if (uri == "about:blank" || uri == "about:srcdoc") return NavigationDecision::LoadInView;
    }
    // Only a link the user followed reaches the browser: a page script or a
    // frame cannot start one on its own.
    if ((scheme == "http" || scheme == "https") && gesture == UserGesture::Present)
        return NavigationDecision::OpenInBrowser;
    return NavigationDecision::Ignore;
}

}  // namespace velko
