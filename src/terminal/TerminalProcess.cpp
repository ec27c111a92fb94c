#include "terminal/TerminalProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <thread>

#include "core/FileHandle.h"

namespace velko {

namespace {

std::mutex g_abandonedMutex;
std::condition_variable g_abandonedChanged;
int g_abandonedCount = 0;

void changeAbandonedCount(int delta) {
    {
        std::lock_guard lock(g_abandonedMutex);
        g_abandonedCount += delta;
    }
    g_abandonedChanged.notify_all();
}

}  // namespace

struct TerminalProcess::Monitor {
    FileHandle pidfd;
    FileHandle wake;  // eventfd: tells the thread its owner let go
    std::mutex mutex;
    bool reaped = false;
    bool abandoned = false;
};

std::shared_ptr<TerminalProcess> TerminalProcess::create(pid_t pid) {
    std::shared_ptr<TerminalProcess> process(new TerminalProcess(pid));
    process->arm();
    return process;
}

TerminalProcess::TerminalProcess(pid_t pid) : m_pid(pid) {}

TerminalProcess::~TerminalProcess() {
    if (!m_monitor) return;
    bool abandon = false;
    {
        std::lock_guard lock(m_monitor->mutex);
        if (!m_monitor->reaped) {
            m_monitor->abandoned = true;
            abandon = true;
        }
    }
    if (abandon) {
        changeAbandonedCount(1);
        uint64_t one = 1;
        if (m_monitor->wake.valid()) (void)!::write(m_monitor->wake.get(), &one, sizeof one);
    }
}

void TerminalProcess::arm() {
    auto monitor = std::make_shared<Monitor>();
    // Called through syscall(): glibc 2.36 declares pidfd_open without C linkage for C++.
    monitor->pidfd = FileHandle(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));  // always close-on-exec
    monitor->wake = FileHandle(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_monitor = monitor;

    std::weak_ptr<TerminalProcess> weak = weak_from_this();
    const pid_t pid = m_pid;
    std::thread([monitor, weak, pid] {
        using Clock = std::chrono::steady_clock;
        std::optional<Clock::time_point> killAt;
        bool killed = false;
        for (;;) {
            int timeout = -1;
            {
                std::lock_guard lock(monitor->mutex);
                if (monitor->abandoned && !killAt) killAt = Clock::now() + kAbandonGracePeriod;
            }
            if (killAt && !killed) {
                auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*killAt - Clock::now()).count();
                timeout = left > 0 ? static_cast<int>(left) : 0;
            }
            // Without a pidfd (descriptor limit), fall back to polling waitpid.
            if (!monitor->pidfd.valid()) timeout = timeout < 0 ? 50 : std::min(timeout, 50);

            pollfd fds[2] = {{monitor->pidfd.get(), POLLIN, 0}, {monitor->wake.get(), POLLIN, 0}};
            int ready = ::poll(fds, 2, timeout);
            if (ready < 0 && errno != EINTR) ready = 0;
            if (fds[1].revents & POLLIN) {
                uint64_t value;
                (void)!::read(monitor->wake.get(), &value, sizeof value);
            }

            int status = 0;
            bool exited = false, reaped = false;
            if ((fds[0].revents & (POLLIN | POLLHUP)) || !monitor->pidfd.valid()) {
                pid_t result;
                do {
                    result = ::waitpid(pid, &status, WNOHANG);
                } while (result < 0 && errno == EINTR);
                // 0: still running (fallback path). ECHILD: reaped elsewhere; the exit still counts.
                reaped = result == pid;
                exited = reaped || result < 0;
            }
            if (exited) {
                bool wasAbandoned;
                {
                    std::lock_guard lock(monitor->mutex);
                    monitor->reaped = true;
                    wasAbandoned = monitor->abandoned;
                }
                if (auto process = weak.lock()) process->handleExit(status, reaped);
                if (wasAbandoned) changeAbandonedCount(-1);
                return;
            }
            if (killAt && !killed && Clock::now() >= *killAt) {
                // The terminal is closed and the grace period is over: a shell
                // that ignores SIGHUP and SIGTERM goes now, with its jobs.
                ::kill(-pid, SIGKILL);
                ::kill(pid, SIGKILL);
                killed = true;
            }
        }
    }).detach();
}

void TerminalProcess::handleExit(int status, bool reaped) {
    if (reaped) {
        if (WIFSIGNALED(status)) m_terminationStatus = -WTERMSIG(status);
        else m_terminationStatus = WEXITSTATUS(status);
    }
    TerminationHandler handler;
    {
        std::lock_guard lock(m_handlerMutex);
        m_terminated = true;
        if (m_terminationHandler && !m_handlerCalled) {
            m_handlerCalled = true;
            handler = m_terminationHandler;
        }
    }
    if (handler) handler(*this);
}

void TerminalProcess::setTerminationHandler(TerminationHandler handler) {
    bool callNow = false;
    {
        std::lock_guard lock(m_handlerMutex);
        m_terminationHandler = handler;
        if (m_terminated && handler && !m_handlerCalled) {
            m_handlerCalled = true;
            callNow = true;
        }
    }
    if (callNow) handler(*this);
}

bool TerminalProcess::waitForAbandonedChildren(std::chrono::milliseconds timeout) {
    std::unique_lock lock(g_abandonedMutex);
    return g_abandonedChanged.wait_for(lock, timeout, [] { return g_abandonedCount == 0; });
}

int TerminalProcess::abandonedChildCount() {
    std::lock_guard lock(g_abandonedMutex);
    return g_abandonedCount;
}

}  // namespace velko
