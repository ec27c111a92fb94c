// The PTY driver and the process monitor with real children on real PTYs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/ChildProcesses.h"
#include "terminal/PTYDriver.h"
#include "terminal/TerminalProcess.h"
#include "terminal/TerminalReaper.h"

using namespace velko;
using velko::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Everything the child writes until the slave side closes (EIO).
std::string readToEnd(int master, std::chrono::seconds limit = 10s) {
    std::string out;
    const auto end = std::chrono::steady_clock::now() + limit;
    char buffer[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd pfd{master, POLLIN, 0};
        if (::poll(&pfd, 1, 100) <= 0) continue;
        ssize_t n = ::read(master, buffer, sizeof buffer);
        if (n > 0) out.append(buffer, static_cast<size_t>(n));
        else if (n < 0 && errno == EAGAIN) continue;
        else break;
    }
    return out;
}

TerminalReaper& reaper() {
    static TerminalReaper instance;
    return instance;
}

PTYProcess spawnShell(const std::string& script, const std::string& directory = "/",
                      const std::map<std::string, std::string>& environment = {}, int cols = 120, int rows = 40) {
    auto spawned = PTYDriver::spawn(reaper(), "/bin/sh", {"-c", script}, directory, environment, cols, rows);
    EXPECT_TRUE(spawned) << (spawned ? "" : spawned.error().description());
    return std::move(*spawned);
}

}  // namespace

TEST(PTYDriver, StartsTheChildOnItsOwnTerminalWithNothingElseInherited) {
    test::TempDir dir;
    // A descriptor velko holds without close-on-exec must still not reach the child.
    int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 3);
    // Shell built-ins only: a pipeline would show its own pipe among the shell's descriptors.
    auto child = spawnShell("tty; printf fds:; for n in $(seq 3 64); do [ -e /proc/$$/fd/$n ] && printf ' %s' $n; done; echo; "
                            "pwd; stty size; ps -o sid= -p $$; echo $$",
                            dir.path(), {}, 65535, 65535);
    std::string out = readToEnd(child.masterHandle.get());
    ::close(leaky);
    EXPECT_NE(out.find(child.slavePath + "\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("fds:\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find(dir.path() + "\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("65535 65535\r\n"), std::string::npos) << out;
    // The child leads its own session.
    const std::string pid = std::to_string(child.process->pid());
    EXPECT_NE(out.find(pid + "\r\n" + pid + "\r\n"), std::string::npos) << out;
}

TEST(PTYDriver, GivesTheChildVelkosEnvironmentWithTheOverrides) {
    struct Case {
        const char* name;
        std::map<std::string, std::string> inherited, overrides, expected;
    } cases[] = {
        {"terminal variables default",
         {{"HOME", "/h"}},
         {},
         {{"HOME", "/h"}, {"TERM", "xterm-256color"}, {"COLORTERM", "truecolor"}, {"VELKO_TERMINAL", "1"}}},
        {"inherited TERM kept", {{"TERM", "screen"}, {"COLORTERM", "24bit"}}, {}, {{"TERM", "screen"}, {"COLORTERM", "24bit"}, {"VELKO_TERMINAL", "1"}}},
        {"override replaces", {{"TERM", "screen"}}, {{"TERM", "vt100"}}, {{"TERM", "vt100"}, {"COLORTERM", "truecolor"}, {"VELKO_TERMINAL", "1"}}},
        {"empty override keeps an inherited value", {{"LANG", "C.UTF-8"}}, {{"LANG", ""}}, {{"LANG", "C.UTF-8"}, {"TERM", "xterm-256color"}, {"COLORTERM", "truecolor"}, {"VELKO_TERMINAL", "1"}}},
        {"empty override adds a new key", {}, {{"EMPTY", ""}}, {{"EMPTY", ""}, {"TERM", "xterm-256color"}, {"COLORTERM", "truecolor"}, {"VELKO_TERMINAL", "1"}}},
        {"VELKO_TERMINAL cannot be overridden", {{"VELKO_TERMINAL", "0"}}, {{"VELKO_TERMINAL", "7"}}, {{"TERM", "xterm-256color"}, {"COLORTERM", "truecolor"}, {"VELKO_TERMINAL", "1"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(PTYDriver::childEnvironment(c.inherited, c.overrides), c.expected);
    }
}

// How a child ended is seen by the reaper's tests; here, that one handler
// runs, once, whether installed before or after the exit.
TEST(PTYDriver, RunsOneTerminationHandlerOnce) {
    auto child = spawnShell("kill -TERM $$");
    std::atomic<int> calls{0}, status{99};
    child.process->setTerminationHandler([&](TerminalProcess& p) {
        status = p.terminationStatus();
        ++calls;
    });
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_EQ(status.load(), -SIGTERM);
    int late = 0;
    child.process->setTerminationHandler([&](TerminalProcess&) { ++late; });
    EXPECT_EQ(late, 0) << "the handler already ran once";
    EXPECT_EQ(calls.load(), 1);

    auto early = spawnShell("exit 5");
    ASSERT_TRUE(waitUntil([&] { return early.process->terminated(); }));
    int seen = 0;
    early.process->setTerminationHandler([&](TerminalProcess& p) { seen = p.terminationStatus(); });
    EXPECT_EQ(seen, 5) << "installed after the exit, a handler runs at once";
}

TEST(PTYDriver, FailsCleanlyWhereNothingCanRun) {
    auto missing = PTYDriver::spawn(reaper(), "/nonexistent/zsh", {"-l"}, "/", {}, 80, 24);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), (PTYDriverError{PTYDriverError::Kind::SpawnFailed, ENOENT}));

    auto badDirectory = PTYDriver::spawn(reaper(), "/bin/sh", {"-c", "true"}, "/nonexistent-dir", {}, 80, 24);
    ASSERT_FALSE(badDirectory);
    EXPECT_EQ(badDirectory.error().kind, PTYDriverError::Kind::SpawnFailed);

    // Signals to nobody succeed quietly.
    EXPECT_TRUE(PTYDriver::sendSignal(0, SIGTERM));
    EXPECT_TRUE(PTYDriver::sendSignal(-5, SIGTERM));
    auto gone = spawnShell("exit 0");
    const pid_t pid = gone.process->pid();
    ASSERT_TRUE(waitUntil([&] { return gone.process->terminated(); }));
    EXPECT_TRUE(PTYDriver::sendSignal(pid, SIGTERM));
}
