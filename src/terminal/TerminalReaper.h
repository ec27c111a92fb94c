#pragma once
// TerminalReaper: the one thread that waits for terminal children to exit and
// reaps them. Every child is watched through a pidfd in a single poll loop; an
// eventfd wakes the loop when a child is added or let go, when the program
// ends its children, and when the reaper stops.
//
// A child whose TerminalProcess is dropped while it runs (its session was
// closed) stays watched: it gets a grace period to leave after its terminal
// hung up, then it is killed with its process group, and reaped either way.
//
// Owned by the composition root and shared with the terminal coordinator; its
// destructor, on the thread that drops the last reference, kills and reaps the
// children still there and joins the thread. A TerminalProcess holds only the
// reaper's shared state, never the reaper, so the thread never owns itself.
// Every operation may be called from any thread.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "core/Result.h"

namespace velko {

class TerminalProcess;
struct TerminalReaperCore;

class TerminalReaper {
public:
    // How long a child may take to leave after its session was closed.
    static constexpr std::chrono::milliseconds kAbandonGracePeriod{2000};

    explicit TerminalReaper(std::chrono::milliseconds abandonGracePeriod = kAbandonGracePeriod);
    ~TerminalReaper();
    TerminalReaper(const TerminalReaper&) = delete;
    TerminalReaper& operator=(const TerminalReaper&) = delete;

    // Starts watching `pid`, a child of this process. Fails with an errno when
    // no pidfd or no wake-up descriptor can be had (the descriptor limit); the
    // caller still owns the child then.
    Result<std::shared_ptr<TerminalProcess>, int> watch(pid_t pid);

    // Ends every child: each one still there after `grace` is killed with its
    // process group. `done` runs once none is left: on the reaper's thread, or
    // at once on the caller's thread when there is none. The caller hangs up
    // the terminals first; this never blocks.
    void endAll(std::chrono::milliseconds grace, std::function<void()> done);

    // Children started and not yet reaped, whether a session still owns them or not.
    size_t childCount() const;

private:
    friend class TerminalProcess;
    // The owner of a running child let go of it: the grace period starts.
    static void abandon(const std::weak_ptr<TerminalReaperCore>& core, pid_t pid);
    Status<int> startIfNeeded();

    std::shared_ptr<TerminalReaperCore> m_core;
    std::mutex m_startMutex;
    std::thread m_thread;
};

}  // namespace velko
