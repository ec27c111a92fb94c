// The input sources of a real IBus daemon, started for the test on the
// virtual display with a private home: found through the address file it
// writes, its engines read, switched, and followed when another client
// switches them.
#include <gtest/gtest.h>
#include <glib.h>

#include <cstdlib>

#include "GuiSupport.h"
#include "platform/IBusInputSources.h"
#include "support/TestSupport.h"

using namespace velko;

TEST(IBusInputSources, FollowsTheRealDaemonsEngineAndDecidesTheKeysPath) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    if (!test::haveIBus()) GTEST_SKIP() << "ibus-daemon is not installed (scripts/deps.sh installs it)";
    test::IsolatedHome home;
    test::ScopedEnv config("XDG_CONFIG_HOME", home.home() + "/.config");
    test::ScopedEnv settings("GSETTINGS_BACKEND", "memory");
    ::unsetenv("IBUS_ADDRESS");

    // No daemon: no service, every key takes the web path.
    EXPECT_EQ(connectIBusInputSources(), nullptr);

    test::IBusDaemon daemon;
    ASSERT_TRUE(daemon.started());
    std::shared_ptr<InputSourceServicing> sources;
    ASSERT_TRUE(test::pumpUntil([&] { return (sources = connectIBusInputSources()) != nullptr; },
                                std::chrono::seconds(20)))
        << "no address file under " << home.home() << "/.config/ibus/bus";
    ASSERT_TRUE(sources->isAvailable());

    struct Case {
        const char* engine;
        bool asciiCapable;
    };
    const Case cases[] = {
        {"xkb:us::eng", true},
        {"xkb:ru::rus", false},  // the layout must turn the key into its letter
        {"xkb:jp::jpn", true},
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
    ASSERT_EQ(std::system("ibus engine xkb:gb::eng"), 0);
    EXPECT_TRUE(test::pumpUntil([&] {
        auto current = sources->currentSource();
        return current && current->id == "xkb:gb::eng";
    }, std::chrono::seconds(10)));
}
