#include <gtest/gtest.h>

#include "git/GitRemoteParsing.h"

using namespace velko;

namespace {

// ".git/config" after `git remote add origin …`, `git config --add
// remote.origin.url …`, `git remote add q …`, `git config remote.empty.url ""`
// (captured, git 2.39).
const char* const kConfigWithRemotes =
    "[core]\n\trepositoryformatversion = 0\n\tfilemode = true\n\tbare = false\n\tlogallrefupdates = true\n"
    "[remote \"origin\"]\n\turl = https://github.com/o/r.git\n\tfetch = +refs/heads/*:refs/remotes/origin/*\n"
    "\turl = git@github.com:o/mirror.git\n"
    "[remote \"q\"]\n\turl = https://h/x?a=b\n\tfetch = +refs/heads/*:refs/remotes/q/*\n"
    "[branch \"main\"]\n\tremote = origin\n"
    "[remote \"empty\"]\n\turl = \n\tfetch = x\n";

}  // namespace

TEST(GitRemoteParsing, RemotesComeFromConfigText) {
    using M = std::map<std::string, std::string>;
    struct Case {
        const char* name;
        std::string config;
        M expected;
    };
    const Case cases[] = {
        {"captured: later url wins, equals kept, blank url left out", kConfigWithRemotes,
         M{{"origin", "git@github.com:o/mirror.git"}, {"q", "https://h/x?a=b"}}},
        {"url key after another section still counts", "[remote \"o\"]\nurl = a\n[branch \"x\"]\nurl = c\n",
         M{{"o", "c"}}},
        {"url before any remote", "url = a\n", M{}},
        {"unclosed name clears", "[remote \"o\"]\nurl = a\n[remote \"bad\nurl = b\n", M{{"o", "a"}}},
        {"empty name clears", "[remote \"\"]\nurl = a\n", M{}},
        {"garbage", "\xff[remote \"\n\"\"\"]\n=\n", M{}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parseRemoteURLsFromConfig(c.config), c.expected);
    }
}

TEST(GitRemoteParsing, UpstreamRemoteIsTheTextBeforeTheFirstSlash) {
    struct Case {
        const char* output;  // of `git rev-parse --abbrev-ref --symbolic-full-name @{u}`
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"origin/main\n", "origin"},  // captured
        {"team/x/main\n", "team"},
        {"/main", std::nullopt},
        {"\n", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.output);
        EXPECT_EQ(parseUpstreamRemoteName(c.output), c.expected);
    }
}

TEST(GitRemoteParsing, WhichRemotesCarryTheTokenAndWhichGoThroughSsh) {
    struct Case {
        const char* url;
        bool needsToken;
        bool ssh;
    };
    const Case cases[] = {
        {"https://github.com/o/r.git", true, false},
        {"HTTPS://GitHub.COM/o/r", true, false},
        {"http://github.com/o/r", true, false},
        {"https://gist.github.com/x", true, false},
        {"https://user@github.com:443/o/r", true, false},
        {"https://notgithub.com/o/r", false, false},
        {"https://github.com.evil.example/o/r", false, false},
        {"git@github.com:o/r.git", false, true},
        {"SSH://git@github.com/o/r.git", false, true},
        {"git+ssh://example.com/o/r.git", false, true},
        {"git://github.com/o/r", false, false},
        {"file:///srv/git/r.git", false, false},
        {"../up/a:b.git", false, false},
        {"/srv/git/r.git", false, false},
        {"https://", false, false},
        {"", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        EXPECT_EQ(requiresGitHubOAuth(c.url), c.needsToken);
        EXPECT_EQ(reachedThroughSsh(c.url), c.ssh);
    }
}
