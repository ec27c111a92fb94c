#include "git/GitRemoteParsing.h"

#include <vector>

#include "git/GitText.h"

namespace velko {

std::map<std::string, std::string> parseRemoteURLsFromConfig(std::string_view configText) {
    std::map<std::string, std::string> remotes;
    std::string current;
    for (std::string_view rawLine : splitLines(configText, true)) {
        std::string_view line = trimBlanks(rawLine);
        if (line.substr(0, 9) == "[remote \"") {
            size_t open = line.find('"');
            size_t close = line.find('"', open + 1);
            current = close == std::string_view::npos ? std::string()
                                                      : std::string(line.substr(open + 1, close - open - 1));
            continue;
        }
        if (line.substr(0, 3) != "url") continue;
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        // Split at the first "=" with empty pieces left out: "url=" has one piece
        // only and sets nothing; the value may itself hold "=".
        std::string_view before = line.substr(0, eq);
        std::string_view after = line.substr(eq + 1);
        if (before.empty() || after.empty()) continue;
        std::string_view value = trimBlanks(after);
        if (!current.empty()) remotes[current] = std::string(value);
    }
    return remotes;
}

std::optional<std::string> parseUpstreamRemoteName(std::string_view revParseOutput) {
    std::string_view text = trimWhitespace(revParseOutput);
    std::string_view name = text.substr(0, text.find('/'));
    if (name.empty()) return std::nullopt;
    return std::string(name);
}

bool requiresGitHubOAuth(std::string_view url, std::string_view webHost) {
    size_t schemeEnd = url.find("://");
    if (schemeEnd == std::string_view::npos) return false;
    std::string scheme = toLower(url.substr(0, schemeEnd));
    if (scheme != "http" && scheme != "https") return false;
    std::string_view rest = url.substr(schemeEnd + 3);
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    if (size_t at = authority.rfind('@'); at != std::string_view::npos) authority = authority.substr(at + 1);
    std::string_view host = authority;
    if (!host.empty() && host.front() == '[') {
        size_t close = host.find(']');
        if (close == std::string_view::npos) return false;
        host = host.substr(0, close + 1);
    } else if (size_t colon = host.find(':'); colon != std::string_view::npos) {
        host = host.substr(0, colon);
    }
    if (host.empty()) return false;
    std::string lowerHost = toLower(host);
    std::string lowerWeb = toLower(webHost);
    if (lowerHost == lowerWeb) return true;
    std::string suffix = "." + lowerWeb;
    return lowerHost.size() > suffix.size() &&
           lowerHost.compare(lowerHost.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool reachedThroughSsh(std::string_view url) {
    std::string lower = toLower(url);
    for (std::string_view scheme : {"ssh://", "git+ssh://", "ssh+git://"}) {
        if (lower.rfind(scheme, 0) == 0) return true;
    }
    if (lower.find("://") != std::string::npos) return false;
    size_t colon = url.find(':');
    return colon != std::string_view::npos && colon > 0 && url.substr(0, colon).find('/') == std::string_view::npos;
}

namespace {

std::string_view trimSlashes(std::string_view text) {
    while (!text.empty() && text.front() == '/') text.remove_prefix(1);
    while (!text.empty() && text.back() == '/') text.remove_suffix(1);
    return text;
}

std::optional<RepositoryCoordinates> coordinatesFromPath(std::string_view path) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        if (end > start) pieces.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    if (pieces.size() < 2) return std::nullopt;
    return RepositoryCoordinates{std::string(pieces[pieces.size() - 2]), std::string(pieces.back())};
}

// The host of "scheme://[user@]host[:port]/path" and the path behind it.
bool splitURL(std::string_view url, std::string_view& host, std::string_view& path) {
    size_t schemeEnd = url.find("://");
    if (schemeEnd == std::string_view::npos) return false;
    std::string_view rest = url.substr(schemeEnd + 3);
    size_t authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    if (size_t at = authority.rfind('@'); at != std::string_view::npos) authority = authority.substr(at + 1);
    if (!authority.empty() && authority.front() == '[') {
        size_t close = authority.find(']');
        if (close == std::string_view::npos) return false;
        host = authority.substr(0, close + 1);
    } else {
        host = authority.substr(0, authority.find(':'));
    }
    path = authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
    path = path.substr(0, path.find_first_of("?#"));
    return !host.empty();
}

}  // namespace

std::optional<RepositoryCoordinates> parseGitHubRemoteURL(std::string_view remoteURL, std::string_view webHost) {
    if (webHost.empty()) return std::nullopt;
    std::string_view text = remoteURL.substr(0, remoteURL.find('\n'));
    if (text.size() >= 4 && text.substr(text.size() - 4) == ".git") text.remove_suffix(4);
    std::string scpPrefix = "git@" + std::string(webHost) + ":";
    if (text.rfind(scpPrefix, 0) == 0) return coordinatesFromPath(text.substr(scpPrefix.size()));
    for (std::string_view scheme : {"ssh://", "http://", "https://"}) {
        if (text.rfind(scheme, 0) != 0) continue;
        std::string_view host, path;
        if (splitURL(text, host, path) && toLower(host).find(toLower(webHost)) != std::string::npos) {
            return coordinatesFromPath(trimSlashes(path));
        }
        break;
    }
    size_t at = text.find(webHost);
    if (at == std::string_view::npos) return std::nullopt;
    return coordinatesFromPath(trimSlashes(text.substr(at + webHost.size())));
}

}  // namespace velko
