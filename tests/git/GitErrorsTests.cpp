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
