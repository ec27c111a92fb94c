// The velko:// sign-in redirect between two real desktop processes: the
// test's default browser fetches the authorize URL and hands the redirect to
// `gio open`, whose handler for velko:// links starts a second velko; that one
// forwards the link to the first (one instance per session bus) and exits,
// and the first completes the sign-in.
#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>


#include "core/Paths.h"
#include "integration/AccountTestSupport.h"

using namespace velko;
using namespace velko::test;

namespace {

// The running processes whose program is `path`.
size_t processesOf(const std::string& path) {
    size_t count = 0;
    DIR* proc = opendir("/proc");
    while (dirent* entry = proc ? readdir(proc) : nullptr) {
        std::error_code ec;
        auto exe = std::filesystem::read_symlink(std::string("/proc/") + entry->d_name + "/exe", ec);
        if (!ec && exe == path) ++count;
    }
    if (proc) closedir(proc);
    return count;
}

}  // namespace

TEST(SignInHandOff, ASecondVelkoForwardsTheRedirectToTheFirstAndExits) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    IsolatedHome home;
    VELKO_IN_PRIVATE_KEYRING();
    TempDir base;
    ScopedEnv configHome("XDG_CONFIG_HOME", home.home() + "/config");

    // The program as installed: velko with the sign-in page beside it.
    std::string program = base.file("velko");
    std::filesystem::copy_file(std::string(std::getenv("VELKO_BINARY_DIR")) + "/velko", program);
    chmod(program.c_str(), 0755);
    std::filesystem::create_directory_symlink(std::string(std::getenv("VELKO_SOURCE_DIR")) + "/tests/gui/resources-signin",
                                              base.file("resources"));

    // The test's browser, and this velko for velko:// links.
    installTestBrowser(base, {{"velko", program}});

    FakeGitHub github(base, base.path());
    ASSERT_GT(github.port, 0);
    ScopedEnv web("VELKO_GITHUB_WEB_URL", github.url());
    ScopedEnv api("VELKO_GITHUB_API_URL", github.url("/api"));
    ScopedEnv client("VELKO_GITHUB_OAUTH_CLIENT_ID_DEV", "Iv1.velkoTest");

    // The first velko; its page asks for the sign-in as soon as it loads.
    pid_t first = spawnChild({program});
    ASSERT_GT(first, 0);
    std::string log = cacheDirectory() + "/security-events.log";
    const auto minute = std::chrono::seconds(60);
    bool signedIn = waitUntil([&] { return readFile(log).find("\"oauthSuccess\"") != std::string::npos; }, minute);
    EXPECT_TRUE(signedIn) << readFile(log) << readFile(cacheDirectory() + "/velko-webview.log");
    // The second one, started by the link, forwarded it and is gone; the first runs on.
    EXPECT_TRUE(waitUntil([&] { return processesOf(program) == 1; }, minute));

    EXPECT_EQ(keyringItems("app.velko.github.oauth"), 1u) << "no token stored";

    kill(first, SIGTERM);
    EXPECT_EQ(waitChild(first), 0);
}
