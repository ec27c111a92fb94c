#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include "support/TestSupport.h"
#include "terminal/CodexShimInstaller.h"

using namespace velko;

namespace {

time_t modifiedAt(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

}  // namespace

TEST(CodexShimInstaller, NamesTheCacheDirectoryAsTheScriptsSpellIt) {
    struct Case {
        const char* name;
        std::string cache, home, expected;
    } cases[] = {
        {"under home", "/home/u/.cache/velko", "/home/u", "$HOME/.cache/velko"},
        {"custom cache under home", "/home/u/c/velko", "/home/u", "$HOME/c/velko"},
        {"outside home", "/var/cache/velko", "/home/u", "/var/cache/velko"},
        {"a sibling that shares the prefix", "/home/user2/.cache/velko", "/home/u", "/home/user2/.cache/velko"},
        {"home is the root", "/.cache/velko", "/", "/.cache/velko"},
        {"quotes and backslashes escaped", "/tmp/a\"b\\c/velko", "/home/u", "/tmp/a\\\"b\\\\c/velko"},
        {"spaces stay (the scripts quote)", "/home/u/my cache/velko", "/home/u", "$HOME/my cache/velko"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(CodexShimInstaller::scriptCacheDirectory(c.cache, c.home), c.expected);
    }
}

TEST(CodexShimInstaller, PutsTheShimFirstAndHandsZshItsBootstrap) {
    struct Case {
        const char* name;
        std::string path;
        std::string expectedPathTail;  // after "<shims>"
        bool inBackground;
    } cases[] = {{"inherited PATH kept after the shim", "/usr/bin:/bin", ":/usr/bin:/bin", false},
                 {"empty PATH", "", "", false},
                 {"files written on a thread of their own", "/usr/bin:/bin", ":/usr/bin:/bin", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::IsolatedHome home;
        test::ScopedEnv path("PATH", c.path);
        test::ScopedEnv zdotdir("ZDOTDIR", "~/my zsh");
        CodexShimInstaller installer;
        if (c.inBackground) installer.installInBackground();
        auto overrides = installer.environmentOverrides();
        EXPECT_EQ(overrides["PATH"], installer.shimDirectory() + c.expectedPathTail);
        EXPECT_EQ(overrides["ZDOTDIR"], installer.zshBootstrapDirectory());
        EXPECT_EQ(installer.originalZdotdir(), home.home() + "/my zsh");

        struct stat info {};
        ASSERT_EQ(::stat((installer.shimDirectory() + "/codex").c_str(), &info), 0);
        EXPECT_TRUE(info.st_mode & S_IXUSR);
        const std::string zshrc = test::readFile(installer.zshBootstrapDirectory() + "/.zshrc");
        // The cache lies under HOME here, so the scripts say "$HOME/…"; the user's
        // directory with its space stands in double quotes.
        EXPECT_NE(zshrc.find("local target=\"$HOME/cache/velko/codex-shims\""), std::string::npos) << zshrc;
        EXPECT_NE(zshrc.find("source \"" + home.home() + "/my zsh/.zshrc\""), std::string::npos) << zshrc;
        EXPECT_NE(zshrc.find("export ZDOTDIR=\"" + home.home() + "/my zsh\""), std::string::npos) << zshrc;
        const std::string zshenv = test::readFile(installer.zshBootstrapDirectory() + "/.zshenv");
        ASSERT_FALSE(zshenv.empty());
        EXPECT_EQ(zshenv.find("ZDOTDIR="), std::string::npos) << "only .zshrc and .zlogin hand ZDOTDIR back";
    }
}

TEST(CodexShimInstaller, LeavesFilesThatAlreadyHoldTheTextUntouched) {
    test::IsolatedHome home;
    std::string shim, zshrc;
    {
        CodexShimInstaller first;
        first.environmentOverrides();
        shim = first.shimDirectory() + "/codex";
        zshrc = first.zshBootstrapDirectory() + "/.zshrc";
    }
    const utimbuf past{1000000000, 1000000000};
    ASSERT_EQ(::utime(shim.c_str(), &past), 0);
    ASSERT_EQ(::utime(zshrc.c_str(), &past), 0);
    {
        CodexShimInstaller again;
        again.environmentOverrides();
    }
    EXPECT_EQ(modifiedAt(shim), past.modtime);
    EXPECT_EQ(modifiedAt(zshrc), past.modtime);

    // Changed text (another ZDOTDIR) is rewritten.
    test::ScopedEnv zdotdir("ZDOTDIR", home.home() + "/elsewhere");
    CodexShimInstaller changed;
    changed.environmentOverrides();
    EXPECT_NE(modifiedAt(zshrc), past.modtime);
    EXPECT_NE(test::readFile(zshrc).find("/elsewhere/.zshrc"), std::string::npos);
}

TEST(CodexShimInstaller, WithoutAWritableCacheGivesNoOverrides) {
    test::IsolatedHome home;
    test::TempDir blocker;
    const std::string file = blocker.write("not-a-directory", "x");
    test::ScopedEnv cache("XDG_CACHE_HOME", file);
    CodexShimInstaller installer;
    EXPECT_TRUE(installer.environmentOverrides().empty());
}
