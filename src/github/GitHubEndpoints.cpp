#include "github/GitHubEndpoints.h"

#include <algorithm>
#include <cctype>

#include "core/Environment.h"
#include "core/Log.h"

namespace velko {
namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool isSpaceOrControl(unsigned char c) { return c <= 0x20 || c == 0x7f; }

bool validHostName(std::string_view host) {
    if (host.empty() || host.front() == '.' || host.back() == '.' || host.find("..") != std::string_view::npos)
        return false;
    return std::all_of(host.begin(), host.end(),
                       [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '.'; });
}

bool validIPv6Literal(std::string_view inside) {
    return !inside.empty() && inside.find(':') != std::string_view::npos &&
           std::all_of(inside.begin(), inside.end(),
                       [](unsigned char c) { return std::isxdigit(c) || c == ':' || c == '.'; });
}

GitHubBaseURL defaultBase(std::string_view url) {
    auto parsed = parseGitHubBaseURL(url);
    return parsed.value();
}

GitHubBaseURL chooseBase(std::string_view value, std::string_view fallback, std::string_view what) {
    // Blanks only: unset, like an empty value.
    if (std::all_of(value.begin(), value.end(), [](unsigned char c) { return isSpaceOrControl(c); }))
        return defaultBase(fallback);
    auto parsed = parseGitHubBaseURL(value);
    if (parsed) return parsed.value();
    Logger("app.velko.github", "endpoints")
        .error(std::string(what) + " ignored: " + std::string(describe(parsed.error())) + "; using " +
               std::string(fallback));
    return defaultBase(fallback);
}

std::string pathSegment(std::string_view name) {
    static const char* const hex = "0123456789ABCDEF";
    std::string out;
    // "." and ".." would be read as moves in the path, not as names.
    bool dotsOnly = !name.empty() && name.find_first_not_of('.') == std::string_view::npos && name.size() <= 2;
    for (unsigned char c : name) {
        if (!dotsOnly && (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~')) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

}  // namespace

Result<GitHubBaseURL, GitHubBaseURLError> parseGitHubBaseURL(std::string_view text) {
    while (!text.empty() && isSpaceOrControl(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && isSpaceOrControl(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return isSpaceOrControl(c); }))
        return fail(GitHubBaseURLError::NotAURL);

    size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string_view::npos || schemeEnd == 0) return fail(GitHubBaseURLError::NotAURL);
    std::string scheme = lower(text.substr(0, schemeEnd));
    if (scheme != "https" && scheme != "http") return fail(GitHubBaseURLError::SchemeNotAllowed);
    std::string_view rest = text.substr(schemeEnd + 3);

    size_t authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    std::string_view path = authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);
    if (authority.find('@') != std::string_view::npos) return fail(GitHubBaseURLError::UserInformation);
    if (path.find_first_of("?#") != std::string_view::npos) return fail(GitHubBaseURLError::QueryOrFragment);
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);

    std::string host;
    std::string_view portText;
    bool hasPort = false;
    if (!authority.empty() && authority.front() == '[') {
        size_t close = authority.find(']');
        if (close == std::string_view::npos || !validIPv6Literal(authority.substr(1, close - 1)))
            return fail(GitHubBaseURLError::BadHost);
        host = lower(authority.substr(0, close + 1));
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after.front() != ':') return fail(GitHubBaseURLError::BadHost);
            hasPort = true;
            portText = after.substr(1);
        }
    } else {
        size_t colon = authority.find(':');
        host = lower(authority.substr(0, colon));
        if (colon != std::string_view::npos) {
            hasPort = true;
            portText = authority.substr(colon + 1);
        }
        if (!validHostName(host)) return fail(GitHubBaseURLError::BadHost);
    }

    std::string port;
    if (hasPort) {
        if (portText.empty() || portText.size() > 5 ||
            !std::all_of(portText.begin(), portText.end(), [](unsigned char c) { return std::isdigit(c); }))
            return fail(GitHubBaseURLError::BadPort);
        int number = std::stoi(std::string(portText));
        if (number < 1 || number > 65535) return fail(GitHubBaseURLError::BadPort);
        bool defaultPort = (scheme == "https" && number == 443) || (scheme == "http" && number == 80);
        if (!defaultPort) port = std::to_string(number);
    }
    // Plain http would show the token to anyone on the way; a test server on
    // this machine is the one exception.
    if (scheme == "http" && host != "127.0.0.1" && host != "[::1]")
        return fail(GitHubBaseURLError::PlainHttpOffLoopback);

    GitHubBaseURL base;
    base.hostPort = port.empty() ? host : host + ":" + port;
    base.url = scheme + "://" + base.hostPort + std::string(path);
    return base;
}

std::string_view describe(GitHubBaseURLError error) {
    switch (error) {
        case GitHubBaseURLError::NotAURL: return "not a URL";
        case GitHubBaseURLError::SchemeNotAllowed: return "scheme is neither https nor http";
        case GitHubBaseURLError::PlainHttpOffLoopback: return "http is allowed for 127.0.0.1 and [::1] only";
        case GitHubBaseURLError::UserInformation: return "carries user information";
        case GitHubBaseURLError::QueryOrFragment: return "carries a query or fragment";
        case GitHubBaseURLError::BadHost: return "host is not valid";
        case GitHubBaseURLError::BadPort: return "port is not valid";
    }
    return "not a URL";
}

GitHubEndpoints::GitHubEndpoints() : m_web(defaultBase(kDefaultWebURL)), m_api(defaultBase(kDefaultApiURL)) {}

GitHubEndpoints::GitHubEndpoints(std::string_view webURL, std::string_view apiURL)
    : m_web(chooseBase(webURL, kDefaultWebURL, "VELKO_GITHUB_WEB_URL")),
      m_api(chooseBase(apiURL, kDefaultApiURL, "VELKO_GITHUB_API_URL")) {}

GitHubEndpoints GitHubEndpoints::fromEnvironment() {
    return GitHubEndpoints(environmentValue("VELKO_GITHUB_WEB_URL").value_or(std::string(kDefaultWebURL)),
                           environmentValue("VELKO_GITHUB_API_URL").value_or(std::string(kDefaultApiURL)));
}

std::string GitHubEndpoints::languagesURL(std::string_view owner, std::string_view repository) const {
    return m_api.url + "/repos/" + pathSegment(owner) + "/" + pathSegment(repository) + "/languages";
}

}  // namespace velko
