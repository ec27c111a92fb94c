// Terminal sessions end to end with a real login zsh on a real PTY: the
// service, the coordinator, the shim and the output pump, driven the way the
// page drives them, with a temporary HOME and ZDOTDIR.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "core/Base64.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "support/ChildProcesses.h"
#include "support/HoldingPage.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalCoordinator.h"
#include "terminal/TerminalLogger.h"
#include "terminal/TerminalReaper.h"
#include "terminal/TerminalService.h"
#include "workspace/ConfigStore.h"

using namespace velko;
using velko::test::processExists;
using namespace std::chrono_literals;

namespace {

constexpr auto kDeadline = 15s;

// Both include the one descriptor the directory listing holds.
int openDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Children of this process, zombies included, whichever thread started them.
int childProcesses() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream children(task.path() / "children");
        for (int pid; children >> pid;) ++count;
    }
    return count;
}

class TerminalSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        setMainQueue(queue);
        ASSERT_TRUE(createDirectories(zdotdir));
        ASSERT_TRUE(createDirectories(home.home() + "/bin"));
        // The user's own start-up file resets PATH, as many do; the prompt is
        // plain so the tests can find it.
        std::ofstream(zdotdir + "/.zshrc") << "PATH=\"$HOME/bin:/usr/bin:/bin\"\nPROMPT='velko%% '\nunsetopt BEEP\n";
        store = std::make_shared<ConfigStore>(home.dataDir());
        (void)store->bootstrap();
        ASSERT_TRUE(store->config().hasFeature(Feature::TerminalV2));
        coordinator = std::make_shared<TerminalCoordinator>(TerminalCoordinator::Options{
            .logger = TerminalLogger::create(home.cacheDir() + "/velko-terminal.log"),
            .dumpStore = TerminalDebugDumpStore::create(home.cacheDir() + "/terminal-dumps"),
            .reaper = nullptr,
            .maxPendingOutputBytes = kCap});
        installer = std::make_shared<CodexShimInstaller>();
        service = TerminalService::create(store, coordinator, installer);
        service->setBridge(page);
        queue->runUntilIdle();
    }

    void TearDown() override {
        page->release();
        service->shutdown();
        queue->runUntilIdle();
        EXPECT_TRUE(waitFor([&] { return coordinator->reaper()->childCount() == 0; },
                            TerminalReaper::kAbandonGracePeriod + kDeadline));
        service.reset();
        coordinator.reset();
        queue->runUntilIdle();
    }

    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = kDeadline) {
        return test::waitUntil([&] {
            queue->runUntilIdle();
            return done();
        }, limit);
    }

    void send(const std::string& type, const Json& payload) {
        service->handleMessage(type, &payload);
        queue->runUntilIdle();
    }
    void type(const Uuid& id, const std::string& text) {
        send("terminal/input", Json{{"sessionId", id.toString()}, {"data", base64Encode(text)}, {"encoding", "base64"}});
    }

    Uuid createSession() {
        service->createSession(std::string("test"), std::nullopt);
        queue->runUntilIdle();
        return store->config().cliSessions.back().id;
    }

    std::string output(const Uuid& id) const { return page->output(id.toString()); }
    // Waits until the output after `from` contains `needle`; returns where it ends.
    size_t waitForOutput(const Uuid& id, const std::string& needle, size_t from = 0) {
        size_t at = std::string::npos;
        bool found = waitFor([&] {
            std::string bytes = output(id);
            at = from < bytes.size() ? bytes.find(needle, from) : std::string::npos;
            return at != std::string::npos;
        });
        EXPECT_TRUE(found) << "never saw \"" << needle << "\" in:\n" << output(id).substr(std::min(from, output(id).size()));
        return found ? at + needle.size() : output(id).size();
    }
    size_t waitForPrompt(const Uuid& id, size_t from = 0) { return waitForOutput(id, "velko% ", from); }

    int pid(const Uuid& id) const { return coordinator->processID(id).value_or(-1); }

    static constexpr uint64_t kCap = 256 * 1024;
    test::IsolatedHome home;
    std::string zdotdir = home.home() + "/zdot";
    test::ScopedEnv zdotdirEnv{"ZDOTDIR", zdotdir};
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<test::HoldingPage> page = std::make_shared<test::HoldingPage>();
    std::shared_ptr<ConfigStore> store;
    std::shared_ptr<TerminalCoordinator> coordinator;
    std::shared_ptr<CodexShimInstaller> installer;
    std::shared_ptr<TerminalService> service;
};

}  // namespace

// What a user types is run by the login shell, which sees the environment
// velko promises: the terminal variables, and the shim first on PATH even
// though the user's .zshrc reset PATH.
TEST_F(TerminalSessionTest, RunsWhatIsTypedInTheEnvironmentVelkoPromisesAndSeesResizes) {
    const char* inheritedTerm = std::getenv("TERM");
    const char* inheritedColor = std::getenv("COLORTERM");
    struct Case {
        std::string input;
        std::string expected;
    } cases[] = {
        {"echo velko-$((40+2))\r", "velko-42"},
        {"print -r -- term=$TERM\r", std::string("term=") + (inheritedTerm ? inheritedTerm : "xterm-256color")},
        {"print -r -- color=$COLORTERM\r", std::string("color=") + (inheritedColor ? inheritedColor : "truecolor")},
        {"print -r -- flag=$VELKO_TERMINAL\r", "flag=1"},
        {"print -r -- first=${PATH%%:*}\r", "first=" + installer->shimDirectory()},
        {"print -r -- dir=$PWD\r", "dir=" + home.home()},
        {"print -r -- zdotdir=$ZDOTDIR\r", "zdotdir=" + zdotdir},
    };
    const Uuid id = createSession();
    size_t at = waitForPrompt(id);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        type(id, c.input);
        at = waitForOutput(id, c.expected + "\r\n", at);
        at = waitForPrompt(id, at);
    }
    // The shell learns of a resize by SIGWINCH and then sees the new size.
    type(id, "TRAPWINCH() { print size=$(stty size) }\r");
    at = waitForPrompt(id, at);
    for (auto [cols, rows] : {std::pair{100, 33}, {300, 90}}) {
        send("terminal/resize", Json{{"sessionId", id.toString()}, {"cols", cols}, {"rows", rows}});
        at = waitForOutput(id, "size=" + std::to_string(rows) + " " + std::to_string(cols), at);
    }
}

// Ctrl+C arrives from the page as the ^C byte, and the terminal's line
// discipline interrupts the foreground job with it. The signal message goes
// to the shell's own process group, which a job started by the shell has left.
TEST_F(TerminalSessionTest, CtrlCInterruptsTheForegroundJobAndTheSignalReachesTheShell) {
    const Uuid id = createSession();
    size_t at = waitForPrompt(id);
    type(id, "trap 'print shell-got-int' INT\r");
    at = waitForPrompt(id, at);
    const std::string job = "sh -c 'trap \"echo job-got-int; exit 0\" INT; echo armed; sleep 1; echo job-done'\r";

    type(id, job);
    at = waitForOutput(id, "armed\r\n", at);
    type(id, "\x03");
    at = waitForOutput(id, "job-got-int", at);
    at = waitForPrompt(id, at);

    type(id, job);
    at = waitForOutput(id, "armed\r\n", at);
    send("terminal/signal", Json{{"sessionId", id.toString()}, {"signal", "sigint"}});
    const size_t done = waitForOutput(id, "job-done", at);
    EXPECT_EQ(output(id).substr(at, done - at).find("job-got-int"), std::string::npos) << "the job was signalled";
    waitForOutput(id, "shell-got-int", at);
}

// The fake tool is first on the user's PATH; the shim still runs first and
// wraps it in its markers. Without any tool the shim says so and ends with 127.
TEST_F(TerminalSessionTest, TheShimWrapsTheToolInItsMarkers) {
    const std::string fake = home.home() + "/bin/codex";
    struct Case {
        bool installed;
        std::string text;
        std::string end;
    } cases[] = {
        {true, "fake-codex one two", "\x1b]633;velko-codex:end;status=3\x07"},
        {false, "velko codex shim: failed to locate real codex binary", "\x1b]633;velko-codex:end;status=127\x07"},
    };
    const Uuid id = createSession();
    size_t at = waitForPrompt(id);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        if (c.installed) {
            std::ofstream(fake) << "#!/bin/sh\necho \"fake-codex $*\"\nexit 3\n";
            ASSERT_EQ(::chmod(fake.c_str(), 0755), 0);
        } else {
            ::unlink(fake.c_str());
        }
        const size_t from = at;
        type(id, "codex one two\r");
        at = waitForPrompt(id, waitForOutput(id, c.end, at));
        const std::string seen = output(id).substr(from);
        const size_t startAt = seen.find("\x1b]633;velko-codex:start\x07"), textAt = seen.find(c.text);
        EXPECT_EQ(startAt == std::string::npos, !c.installed) << "the start marker comes only when a tool runs";
        ASSERT_NE(textAt, std::string::npos);
        EXPECT_LT(textAt, seen.find(c.end));
        if (c.installed) {
            EXPECT_LT(startAt, textAt);
        }
    }
}

// A shell that exits reports its code; one closed on request is ended
// without an exit report, and later input to it goes nowhere. Both are reaped.
TEST_F(TerminalSessionTest, AnExitReportsItsCodeAClosedShellEndsQuietlyAndBothAreReaped) {
    const Uuid exiting = createSession(), closed = createSession();
    waitForPrompt(exiting);
    waitForPrompt(closed);
    const int exitingShell = pid(exiting), closedShell = pid(closed);
    ASSERT_GT(closedShell, 0);
    type(exiting, "exit 7\r");
    ASSERT_TRUE(waitFor([&] { return !page->recorder.eventsOfType("terminal/exit").empty(); }));
    EXPECT_EQ(page->recorder.eventsOfType("terminal/exit").back().payload["exitCode"], 7);
    EXPECT_FALSE(coordinator->processID(exiting));
    send("terminal/close", Json{{"sessionId", closed.toString()}});
    auto snapshot = page->recorder.eventsOfType("terminal/snapshot").back().payload["sessions"];
    for (const auto& entry : snapshot) EXPECT_NE(entry["id"], closed.toString());
    for (int shell : {exitingShell, closedShell})
        EXPECT_TRUE(waitFor([&] { return !processExists(shell); })) << "zsh " << shell << " was not reaped";
    EXPECT_EQ(page->recorder.eventsOfType("terminal/exit").size(), 1u);
    const size_t events = page->recorder.events().size();
    type(closed, "echo late\r");
    EXPECT_EQ(page->recorder.events().size(), events);
}

// Under a flood the output waiting for the page stays bounded, the shell is
// held back instead, Ctrl+C still reaches it, and the session goes on.
TEST_F(TerminalSessionTest, AFloodStaysBoundedAndCanBeInterrupted) {
    const Uuid id = createSession();
    size_t at = waitForPrompt(id);
    page->hold();
    type(id, "yes velko-flood\r");
    ASSERT_TRUE(waitFor([&] { return coordinator->pendingOutput(id).value_or(std::pair{0ull, 0ull}).second >= kCap; }));
    // The reader is parked at the cap: more time gives no more pending bytes.
    for (int i = 0; i < 50; ++i) {
        queue->runUntilIdle();
        std::this_thread::sleep_for(2ms);
    }
    const auto [pending, peak] = *coordinator->pendingOutput(id);
    constexpr uint64_t kOneRead = 65536 * 4 / 3 + 256;
    EXPECT_LE(peak, kCap + kOneRead);
    EXPECT_LE(pending, kCap + kOneRead);
    type(id, "\x03");
    page->release();
    at = output(id).size();
    type(id, "echo after-$((1+1))\r");
    at = waitForOutput(id, "after-2\r\n", at);
    waitForPrompt(id, at);
    EXPECT_LE(coordinator->pendingOutput(id)->second, kCap + kOneRead);
}

TEST_F(TerminalSessionTest, ManySessionsLeaveNoDescriptorOrChildBehind) {
    // One session first, so lazily created resources (log file queue, shim) exist.
    const Uuid warm = createSession();
    waitForPrompt(warm);
    send("terminal/close", Json{{"sessionId", warm.toString()}});
    ASSERT_TRUE(waitFor([&] { return childProcesses() == 0 && coordinator->reaper()->childCount() == 0; }));
    const int descriptors = openDescriptors();
    for (int i = 0; i < 200; ++i) {
        const Uuid id = createSession();
        ASSERT_TRUE(coordinator->processID(id)) << "cycle " << i;
        send("terminal/close", Json{{"sessionId", id.toString()}});
    }
    EXPECT_TRUE(waitFor([&] { return childProcesses() == 0; }, TerminalReaper::kAbandonGracePeriod + kDeadline))
        << childProcesses() << " children left";
    EXPECT_TRUE(waitFor([&] { return openDescriptors() <= descriptors; })) << openDescriptors() << " vs " << descriptors;
    EXPECT_EQ(coordinator->sessionCount(), 0u);
}

// With the dump on, every chunk the shell wrote is in the session's dump
// file, before and after normalising, in the order it was read.
TEST_F(TerminalSessionTest, TheDebugDumpHoldsEveryChunkOfASession) {
    // The feature arrives with the configuration file, as a user turns it on.
    const std::string configPath = home.dataDir() + "/config.json";
    std::string text;
    ASSERT_TRUE(readWholeFile(configPath, text));
    auto config = parseJson(text);
    ASSERT_TRUE(config);
    (*config)["features"] = Json::array({"terminal.v2", "terminal.debugDump"});
    ASSERT_TRUE(writeFileAtomically(configPath, config->dump()));
    (void)store->bootstrap();
    queue->runUntilIdle();
    ASSERT_TRUE(coordinator->debugDumpEnabled());
    const Uuid id = createSession();
    size_t at = waitForPrompt(id);
    type(id, "printf 'dump-%d\\r\\r\\n' 7\r");
    waitForPrompt(id, waitForOutput(id, "dump-7\r\n", at));
    coordinator->debugDumpStore()->drainForTesting();
    std::ifstream dump(home.cacheDir() + "/terminal-dumps/" + id.toString() + ".jsonl");
    std::string raw, normalized;
    for (std::string line; std::getline(dump, line);) {
        auto entry = parseJson(line);
        ASSERT_TRUE(entry) << line;
        raw += *base64Decode((*entry)["rawBase64"].get<std::string>());
        normalized += *base64Decode((*entry)["normalizedBase64"].get<std::string>());
    }
    EXPECT_NE(raw.find("dump-7\r\r\r\n"), std::string::npos) << testing::PrintToString(raw);  // the terminal adds a CR before the LF
    EXPECT_NE(normalized.find("dump-7\r\n"), std::string::npos);
    EXPECT_EQ(normalized, output(id).substr(0, normalized.size()));
}
