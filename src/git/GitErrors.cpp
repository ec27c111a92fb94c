#include "git/GitErrors.h"

#include <array>

namespace velko {

std::string GitError::errorDescription() const {
    switch (kind) {
    case Kind::LaunchFailed:
        return "Git コマンド起動に失敗: " + text;
    case Kind::CommandFailed:
        return text.empty() ? "Git コマンドで不明なエラー" : text;
    case Kind::AuthenticationFailed:
        return text.empty() ? "GitHub 認証に失敗しました" : text;
    case Kind::AuthenticationRequired:
        return "GitHub にサインインしてください";
    }
    return text;
}

std::string toLower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string_view trimWhitespace(std::string_view text) {
    constexpr std::string_view kSpace = " \t\n\r\v\f";
    size_t start = text.find_first_not_of(kSpace);
    if (start == std::string_view::npos) return {};
    size_t end = text.find_last_not_of(kSpace);
    return text.substr(start, end - start + 1);
}

std::string_view trimBlanks(std::string_view text) {
    constexpr std::string_view kBlank = " \t";
    size_t start = text.find_first_not_of(kBlank);
    if (start == std::string_view::npos) return {};
    size_t end = text.find_last_not_of(kBlank);
    return text.substr(start, end - start + 1);
}

std::optional<std::string> friendlyMessageForGitCommandFailure(std::string_view stderrText) {
    static constexpr std::array<std::string_view, 12> kMarkers = {
        "no remote repository",
        "no configured push destination",
        "no remote configured",
        "no remote refs",
        "no such remote",
        "no upstream configured",
        "no tracking information for the current branch",
        "no tracking information",
        "no upstream",
        "not a git repository",
        "is outside repository",
        "unknown option `cached'",
    };
    std::string lower = toLower(stderrText);
    for (auto marker : kMarkers) {
        if (lower.find(marker) != std::string::npos) return std::string(kMissingRemoteMessage);
    }
    return std::nullopt;
}

bool isAuthenticationFailure(std::string_view stderrText) {
    std::string lower = toLower(stderrText);
    return lower.find("authentication failed") != std::string::npos || lower.find("http 401") != std::string::npos;
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

}  // namespace velko
