#pragma once
// TerminalProcess: owns one child's pid, notices its exit and reaps it.
//
// A monitor thread per process waits on a pidfd and reaps with waitpid when
// the child exits; the termination handler runs on that thread, never on the
// main thread, so it must hop to the main queue itself.
//
// Dropping a TerminalProcess whose child still runs does not leave a zombie:
// the monitor lives on, detached, gives the child a grace period to go away
// after its terminal closed, then kills its process group and reaps it.
// waitForAbandonedChildren() lets the program wait for those at exit.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace velko {

class TerminalProcess : public std::enable_shared_from_this<TerminalProcess> {
public:
    using TerminationHandler = std::function<void(TerminalProcess&)>;

    // Arms the monitor. Use create(): the monitor needs a shared owner.
    static std::shared_ptr<TerminalProcess> create(pid_t pid);
    ~TerminalProcess();
    TerminalProcess(const TerminalProcess&) = delete;
    TerminalProcess& operator=(const TerminalProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // The exit code, or the negated signal number for a child killed by a signal.
    int terminationStatus() const { return m_terminationStatus.load(); }
    bool terminated() const { return m_terminated.load(); }

    // Called once, on the monitor thread. Set after the exit, it runs at once
    // on the caller's thread, so an early death is never missed.
    void setTerminationHandler(TerminationHandler handler);

    // How long an abandoned child may take to leave after its terminal closed
    // before its process group is killed.
    static constexpr std::chrono::milliseconds kAbandonGracePeriod{2000};

    // Blocks until every abandoned child was reaped or `timeout` passed.
    // True when none is left. Not for the main thread of a running program.
    static bool waitForAbandonedChildren(std::chrono::milliseconds timeout);
    static int abandonedChildCount();

private:
    struct Monitor;
    explicit TerminalProcess(pid_t pid);
    void arm();
    void handleExit(int status, bool reaped);

    const pid_t m_pid;
    std::atomic<int> m_terminationStatus{0};
    std::atomic<bool> m_terminated{false};
    std::mutex m_handlerMutex;
    TerminationHandler m_terminationHandler;
    bool m_handlerCalled = false;
    std::shared_ptr<Monitor> m_monitor;
};

}  // namespace velko
