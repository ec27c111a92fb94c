#pragma once
// What the engine reads about remotes without asking a server: the remotes of
// ".git/config", the remote part of an upstream name, and the two decisions
// taken on a remote's URL (does it carry the GitHub token, does git reach it
// through ssh). Parsers never fail: unreadable input gives nothing.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace velko {

// GitHub's hosts, in one place so that tests can reason about them.
inline constexpr std::string_view kGitHubWebHost = "github.com";
inline constexpr std::string_view kGitHubApiHost = "api.github.com";

// Remote name to URL, from the text of ".git/config"; a later URL of a remote
// wins, and a "url" key in a later section still counts for the last remote.
std::map<std::string, std::string> parseRemoteURLsFromConfig(std::string_view configText);

// "origin" of `git rev-parse --abbrev-ref --symbolic-full-name @{u}` output
// such as "origin/main\n"; nothing when the text before the first "/" is empty.
std::optional<std::string> parseUpstreamRemoteName(std::string_view revParseOutput);

// True for http(s) URLs on GitHub's web host or one of its subdomains: only
// those runs carry the token. ssh and scp-like remotes never do.
bool requiresGitHubOAuth(std::string_view remoteURL, std::string_view webHost = kGitHubWebHost);

// True for remotes git reaches through ssh: "ssh://", "git+ssh://" and the
// scp-like "host:path" (a colon before any slash). Local paths, "file://",
// "git://" and HTTP remotes never start ssh.
bool reachedThroughSsh(std::string_view remoteURL);

struct RepositoryCoordinates {
    std::string owner;
    std::string name;
    friend bool operator==(const RepositoryCoordinates&, const RepositoryCoordinates&) = default;
};

// Owner and name of a GitHub repository from a remote URL: scp-like
// "git@<host>:o/r.git", ssh/http(s) URLs on the host, or any text that names
// the host followed by a path; the last two path segments count. Nothing for
// a URL that does not name the web host at all.
std::optional<RepositoryCoordinates> parseGitHubRemoteURL(std::string_view remoteURL,
                                                          std::string_view webHost = kGitHubWebHost);

}  // namespace velko
