// The reaper with many real children: every exit is seen once with its
// status, children let go of or left at the end are killed and reaped, and
// no child of the test is left behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "support/ChildProcesses.h"
#include "terminal/TerminalProcess.h"
#include "terminal/TerminalReaper.h"

using namespace velko;
using velko::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Starts `sh -c script` leading its own session, as terminal shells do
// (setsid runs it in its own process: a spawned child leads no group).
std::shared_ptr<TerminalProcess> start(TerminalReaper& reaper, const std::string& script) {
    pid_t pid = test::spawnChild({"setsid", "/bin/sh", "-c", script});
    if (pid <= 0) return nullptr;
    auto process = reaper.watch(pid);
    return process ? *process : nullptr;
}

// Only once the reaper has reaped everything: otherwise this would steal its exits.
bool noChildLeft() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

}  // namespace

TEST(TerminalReaper, SeesEveryExitOfManyChildrenOnceWithItsStatus) {
    TerminalReaper reaper;
    std::mutex mutex;
    std::map<pid_t, int> expected, seen;
    int calls = 0;
    std::vector<std::shared_ptr<TerminalProcess>> processes;  // a process let go of is killed
    for (int i = 0; i < 150; ++i) {
        const bool killed = i % 5 == 4;
        auto process = start(reaper, killed ? "kill -9 $$" : "sleep 0.0" + std::to_string(i % 10) + "; exit " +
                                                                 std::to_string(i % 120));
        ASSERT_TRUE(process);
        processes.push_back(process);
        expected[process->pid()] = killed ? -9 : i % 120;
        process->setTerminationHandler([&](TerminalProcess& p) {
            std::lock_guard lock(mutex);
            seen[p.pid()] = p.terminationStatus();
            ++calls;
        });
    }
    ASSERT_TRUE(waitUntil([&] { return reaper.childCount() == 0; }));
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard lock(mutex);
        return calls >= 150;
    }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(calls, 150);
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(noChildLeft());
}

// Children that never leave by themselves: those let go of are killed after
// the grace period, the rest when the program ends them, and the reaper's own
// end kills and reaps whatever is still there.
TEST(TerminalReaper, KillsAndReapsChildrenThatWillNotLeave) {
    struct Case {
        const char* name;
        bool letGo;
        bool endAll;
    } cases[] = {
        {"let go of", true, false},
        {"ended with the program", false, true},
        {"still there when the reaper goes", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::shared_ptr<TerminalProcess>> kept;
        {
            TerminalReaper reaper(100ms);
            for (int i = 0; i < 20; ++i) {
                auto process = start(reaper, "trap '' HUP TERM; while :; do sleep 1; done");
                ASSERT_TRUE(process);
                if (!c.letGo) kept.push_back(process);
            }
            if (c.endAll) {
                std::atomic<bool> done{false};
                reaper.endAll(100ms, [&] { done = true; });
                EXPECT_TRUE(waitUntil([&] { return done.load(); }));
            }
            if (c.letGo || c.endAll) {
                EXPECT_TRUE(waitUntil([&] { return reaper.childCount() == 0; }));
            }
        }
        for (const auto& process : kept) EXPECT_EQ(process->terminationStatus(), -SIGKILL);
        EXPECT_TRUE(noChildLeft());
    }
}
