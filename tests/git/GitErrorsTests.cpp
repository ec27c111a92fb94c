#include <gtest/gtest.h>

#include "git/GitErrors.h"

using namespace velko;

TEST(GitErrors, FriendlyMessageForRemotelessAndNonRepositoryFailures) {
    struct Case {
        const char* stderrText;
        bool friendly;
    };
    const Case cases[] = {
        {"fatal: No configured push destination.\nEither specify the URL ...", true},
        {"fatal: 'origin' does not appear to be a git repository", false},
        {"fatal: No remote repository specified.", true},
        {"There is no tracking information for the current branch.", true},
        {"fatal: no upstream configured for branch 'main'", true},
        {"fatal: not a git repository (or any of the parent directories): .git", true},
        {"fatal: /x: '/x' is outside repository at '/y'", true},
        {"error: unknown option `cached'", true},
        {"fatal: No such remote 'up'", true},
        {"fatal: Authentication failed for 'https://example.com/'", false},
        {"", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stderrText);
        auto message = friendlyMessageForGitCommandFailure(c.stderrText);
        EXPECT_EQ(message.has_value(), c.friendly);
        if (message) {
            EXPECT_EQ(*message, "リモートリポジトリがないプロジェクトです");
        }
    }
}

TEST(GitErrors, AuthenticationFailureWordsInAnyCase) {
    struct Case {
        const char* text;
        bool failure;
    };
    const Case cases[] = {
        {"fatal: Authentication failed for 'https://github.com/o/r.git/'", true},
        {"AUTHENTICATION FAILED", true},
        {"error: RPC failed; HTTP 401 curl 22", true},
        {"fatal: unable to access: The requested URL returned error: 403", false},
        {"", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(isAuthenticationFailure(c.text), c.failure);
    }
}

TEST(GitErrors, OnlyHttpsRemotesOfTheWebHostNeedTheToken) {
    struct Case {
        const char* url;
        bool needsToken;
    };
    const Case cases[] = {
        {"https://github.com/o/r.git", true},
        {"HTTPS://GitHub.COM/o/r", true},
        {"http://github.com/o/r", true},
        {"https://gist.github.com/x", true},
        {"https://user@github.com:443/o/r", true},
        {"https://notgithub.com/o/r", false},
        {"https://github.com.evil.example/o/r", false},
        {"git@github.com:o/r.git", false},
        {"ssh://git@github.com/o/r.git", false},
        {"git://github.com/o/r", false},
        {"../origin.git", false},
        {"https://", false},
        {"", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        EXPECT_EQ(requiresGitHubOAuth(c.url), c.needsToken);
    }
    EXPECT_TRUE(requiresGitHubOAuth("http://127.0.0.1:8080/r.git", "127.0.0.1"));
}

TEST(GitErrors, DescriptionsOfEachCase) {
    struct Case {
        GitError error;
        const char* description;
    };
    const Case cases[] = {
        {GitError::launchFailed("x"), "Git コマンド起動に失敗: x"},
        {GitError::commandFailed("boom"), "boom"},
        {GitError::commandFailed(""), "Git コマンドで不明なエラー"},
        {GitError::authenticationFailed(""), "GitHub 認証に失敗しました"},
        {GitError::authenticationFailed("denied\n"), "denied\n"},
        {GitError::authenticationRequired(), "GitHub にサインインしてください"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        EXPECT_EQ(c.error.errorDescription(), c.description);
    }
}
