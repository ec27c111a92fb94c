// The reaper with many real children: every exit is seen once with its
// status, children let go of or left at the end are killed and reaped, and
// nothing is left behind.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "terminal/TerminalProcess.h"
#include "terminal/TerminalReaper.h"

using namespace velko;
using namespace std::chrono_literals;

extern char** environ;

namespace {

constexpr auto kDeadline = 20s;

// Starts `sh -c script` leading its own session, as terminal shells do.
pid_t spawnScript(const std::string& script) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    const char* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
    pid_t pid = -1;
    int code = posix_spawn(&pid, "/bin/sh", nullptr, &attributes, const_cast<char**>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    return code == 0 ? pid : -1;
}

// Children of this process, zombies included.
int childProcesses() {
    int count = 0;
    const std::string self = std::to_string(::getpid());
    DIR* dir = ::opendir("/proc");
    if (!dir) return -1;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string line;
        if (!std::getline(stat, line)) continue;
        auto close = line.rfind(')');
        char state = 0;
        int ppid = 0;
        if (close != std::string::npos && std::sscanf(line.c_str() + close + 1, " %c %d", &state, &ppid) == 2 &&
            std::to_string(ppid) == self)
            ++count;
    }
    ::closedir(dir);
    return count;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = kDeadline) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// Counts termination handler calls; a test waits for a number of them.
struct Exits {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<pid_t, int> statuses;
    int calls = 0;
    TerminalProcess::TerminationHandler handler() {
        return [this](TerminalProcess& process) {
            std::lock_guard lock(mutex);
            statuses[process.pid()] = process.terminationStatus();
            ++calls;
            changed.notify_all();
        };
    }
    bool waitFor(int count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kDeadline, [&] { return calls >= count; });
    }
};

}  // namespace

TEST(TerminalReaper, SeesEveryExitOfManyChildrenOnceWithItsStatus) {
    struct Case {
        std::string script;
        int expected;
    };
    std::vector<Case> cases;
    for (int i = 0; i < 150; ++i) {
        if (i % 5 == 4) cases.push_back({"kill -9 $$", -9});
        else cases.push_back({"sleep 0.0" + std::to_string(i % 10) + "; exit " + std::to_string(i % 120), i % 120});
    }
    TerminalReaper reaper;
    Exits exits;
    std::vector<std::shared_ptr<TerminalProcess>> processes;
    std::map<pid_t, int> expected;
    for (const auto& c : cases) {
        const pid_t pid = spawnScript(c.script);
        ASSERT_GT(pid, 0);
        auto process = reaper.watch(pid);
        ASSERT_TRUE(process) << "errno " << process.error();
        (*process)->setTerminationHandler(exits.handler());
        processes.push_back(*process);
        expected[pid] = c.expected;
    }
    ASSERT_TRUE(exits.waitFor(static_cast<int>(cases.size())));
    std::lock_guard lock(exits.mutex);
    EXPECT_EQ(exits.calls, static_cast<int>(cases.size()));
    EXPECT_EQ(exits.statuses, expected);
    EXPECT_EQ(reaper.childCount(), 0u);
    EXPECT_EQ(childProcesses(), 0) << "a child was left unreaped";
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
            std::vector<std::shared_ptr<TerminalProcess>> processes;
            for (int i = 0; i < 20; ++i) {
                const pid_t pid = spawnScript("trap '' HUP TERM; while :; do sleep 1; done");
                ASSERT_GT(pid, 0);
                auto process = reaper.watch(pid);
                ASSERT_TRUE(process);
                processes.push_back(*process);
            }
            if (!c.letGo) kept = processes;
            processes.clear();
            if (c.endAll) {
                std::atomic<bool> done{false};
                reaper.endAll(100ms, [&] { done = true; });
                EXPECT_TRUE(waitUntil([&] { return done.load(); }));
            }
            if (c.letGo || c.endAll) {
                EXPECT_TRUE(waitUntil([&] { return reaper.childCount() == 0; }));
            }
        }
        for (const auto& process : kept) {
            EXPECT_TRUE(process->terminated());
            EXPECT_EQ(process->terminationStatus(), -SIGKILL);
        }
        EXPECT_TRUE(waitUntil([] { return childProcesses() == 0; })) << childProcesses() << " children left";
    }
}
