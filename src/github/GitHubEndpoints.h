#pragma once
// Where GitHub is: the web host (sign-in pages, the token endpoint, the host
// of git remotes) and the API host (GraphQL, the user, repository languages).
// Both come from VELKO_GITHUB_WEB_URL and VELKO_GITHUB_API_URL, so a GitHub
// Enterprise server or a test's loopback server can stand in for github.com.
// A plain value, copied freely and read from any thread.

#include <string>
#include <string_view>

#include "core/Result.h"

namespace velko {

// A base URL as the endpoints are built on: lower-case scheme and host, no
// default port, no trailing slash; a path prefix is kept ("/api/v3").
struct GitHubBaseURL {
    std::string url;       // "https://github.com", "http://127.0.0.1:8080/prefix"
    std::string hostPort;  // "github.com", "127.0.0.1:8080", "[::1]:8080"
};

enum class GitHubBaseURLError {
    NotAURL,               // no "scheme://", or blanks and control characters inside
    SchemeNotAllowed,      // neither https nor http
    PlainHttpOffLoopback,  // http to anything but 127.0.0.1 or [::1]
    UserInformation,       // "user@" or "user:password@" before the host
    QueryOrFragment,
    BadHost,
    BadPort,
};

// Surrounding blanks are ignored.
Result<GitHubBaseURL, GitHubBaseURLError> parseGitHubBaseURL(std::string_view text);
std::string_view describe(GitHubBaseURLError error);

class GitHubEndpoints {
public:
    static constexpr std::string_view kDefaultWebURL = "https://github.com";
    static constexpr std::string_view kDefaultApiURL = "https://api.github.com";

    GitHubEndpoints();
    // A value that parseGitHubBaseURL refuses is replaced by its default, with
    // a log line saying why (the value itself is not logged).
    GitHubEndpoints(std::string_view webURL, std::string_view apiURL);
    // From VELKO_GITHUB_WEB_URL and VELKO_GITHUB_API_URL; unset or empty
    // means the default.
    static GitHubEndpoints fromEnvironment();

    const std::string& webURL() const { return m_web.url; }
    const std::string& apiURL() const { return m_api.url; }
    // The web host as git remote URLs name it: "github.com", "127.0.0.1:8080".
    const std::string& webHost() const { return m_web.hostPort; }

    std::string graphqlURL() const { return m_api.url + "/graphql"; }
    std::string userURL() const { return m_api.url + "/user"; }
    std::string authorizeURL() const { return m_web.url + "/login/oauth/authorize"; }
    std::string accessTokenURL() const { return m_web.url + "/login/oauth/access_token"; }
    // The names are percent-encoded as path segments, so no name can add a
    // segment, a query or a fragment to the URL.
    std::string languagesURL(std::string_view owner, std::string_view repository) const;

private:
    GitHubBaseURL m_web;
    GitHubBaseURL m_api;
};

}  // namespace velko
