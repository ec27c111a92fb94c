// The input sources of a real IBus daemon, started for the test on the
// virtual display with a private home: found through the address file it
// writes, its engines read, switched, and followed when another client
// switches them.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "GuiSupport.h"
#include "platform/IBusInputSources.h"
#include "support/TestSupport.h"

extern char** environ;

using namespace velko;

namespace {

// ibus-daemon in a session of its own, so that its helpers end with it.
class IBusDaemon {
public:
    IBusDaemon() {
        std::vector<std::string> args = {"ibus-daemon", "--panel=disable", "--config=/usr/libexec/ibus-memconf",
                                         "--emoji-extension=", "--replace"};
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        if (posix_spawnp(&m_pid, "ibus-daemon", &actions, &attr, argv.data(), environ) != 0) m_pid = 0;
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
    ~IBusDaemon() {
        if (m_pid <= 0) return;
        ::kill(-m_pid, SIGTERM);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        ::kill(-m_pid, SIGKILL);  // a helper that ignored the hang-up
    }
    bool started() const { return m_pid > 0; }

private:
    pid_t m_pid = 0;
};

bool haveIBus() {
    const char* path = std::getenv("PATH");
    std::string folders = path ? path : "/usr/bin:/bin";
    for (size_t at = 0; at <= folders.size();) {
        size_t end = folders.find(':', at);
        std::string folder = folders.substr(at, end == std::string::npos ? std::string::npos : end - at);
        if (::access((folder + "/ibus-daemon").c_str(), X_OK) == 0) return true;
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return false;
}

}  // namespace

TEST(IBusInputSources, FollowsTheRealDaemonsEngineAndDecidesTheKeysPath) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    if (!haveIBus()) GTEST_SKIP() << "ibus-daemon is not installed (scripts/deps.sh installs it)";
    test::IsolatedHome home;
    test::ScopedEnv config("XDG_CONFIG_HOME", home.home() + "/.config");
    test::ScopedEnv settings("GSETTINGS_BACKEND", "memory");
    ::unsetenv("IBUS_ADDRESS");

    // No daemon: no service, every key takes the web path.
    EXPECT_EQ(connectIBusInputSources(), nullptr);

    IBusDaemon daemon;
    ASSERT_TRUE(daemon.started());
    std::shared_ptr<InputSourceServicing> sources;
    ASSERT_TRUE(test::pumpUntil([&] { return (sources = connectIBusInputSources()) != nullptr; },
                                std::chrono::seconds(20)))
        << "no address file under " << home.home() << "/.config/ibus/bus";
    ASSERT_TRUE(sources->isAvailable());

    struct Case {
        const char* engine;
        bool asciiCapable;
        bool letterGoesNative;
    };
    const Case cases[] = {
        {"xkb:us::eng", true, true},
        {"xkb:ru::rus", false, false},  // the layout must turn the key into its letter
        {"xkb:jp::jpn", true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.engine);
        ASSERT_TRUE(sources->select(InputSourceInfo{c.engine, true, true, std::nullopt, std::nullopt, std::nullopt}));
        // Read back from the daemon, not from what we asked for.
        ASSERT_TRUE(test::pumpUntil([&] {
            auto current = sources->currentSource();
            return current && current->id == c.engine && current->isASCIICapable.has_value();
        }, std::chrono::seconds(10)));
        EXPECT_EQ(sources->currentSource()->isASCIICapable, std::optional<bool>(c.asciiCapable));
        EXPECT_EQ(TerminalInputModeSwitcher::currentInputSourceRequiresComposition(*sources), !c.asciiCapable);
    }

    // Another client switches the engine: the cached one follows the daemon's signal.
    std::string address;
    for (const auto& entry : std::filesystem::directory_iterator(home.home() + "/.config/ibus/bus")) {
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            if (line.rfind("IBUS_ADDRESS=", 0) == 0) address = line.substr(13);
    }
    ASSERT_FALSE(address.empty());
    std::string command = "gdbus call -a '" + address +
                          "' -d org.freedesktop.IBus -o /org/freedesktop/IBus "
                          "-m org.freedesktop.IBus.SetGlobalEngine xkb:gb::eng >/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_TRUE(test::pumpUntil([&] {
        auto current = sources->currentSource();
        return current && current->id == "xkb:gb::eng";
    }, std::chrono::seconds(10)));
}
