#pragma once
// TerminalProcess: one terminal child's pid and how it ended.
//
// Made by TerminalReaper::watch(), whose thread notices the exit, reaps the
// child and runs the termination handler, never on the main thread: the
// handler must hop to the main queue itself.
//
// Dropping a TerminalProcess whose child still runs leaves no zombie: the
// reaper gives the child a grace period to leave after its terminal closed,
// then kills its process group and reaps it.

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace velko {

struct TerminalReaperCore;

class TerminalProcess {
public:
    using TerminationHandler = std::function<void(TerminalProcess&)>;

    ~TerminalProcess();
    TerminalProcess(const TerminalProcess&) = delete;
    TerminalProcess& operator=(const TerminalProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // The exit code, or the negated signal number for a child killed by a signal.
    int terminationStatus() const { return m_terminationStatus.load(); }
    bool terminated() const { return m_terminated.load(); }

    // Called once, on the reaper's thread. Set after the exit, it runs at once
    // on the caller's thread, so an early death is never missed.
    void setTerminationHandler(TerminationHandler handler);

private:
    friend class TerminalReaper;
    friend struct TerminalReaperCore;
    TerminalProcess(pid_t pid, std::weak_ptr<TerminalReaperCore> reaper);
    // `status` is waitpid's; `reaped` false when the child was reaped elsewhere.
    void handleExit(int status, bool reaped);

    const pid_t m_pid;
    const std::weak_ptr<TerminalReaperCore> m_reaper;  // told when this owner lets go of a running child
    std::atomic<int> m_terminationStatus{0};
    std::atomic<bool> m_terminated{false};
    std::mutex m_handlerMutex;
    TerminationHandler m_terminationHandler;
    bool m_handlerCalled = false;
};

}  // namespace velko
