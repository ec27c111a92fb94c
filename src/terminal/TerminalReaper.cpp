#include "terminal/TerminalReaper.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <system_error>
#include <vector>

#include "core/FileHandle.h"
#include "core/SerialQueue.h"
#include "terminal/TerminalProcess.h"

namespace velko {

namespace {

using Clock = std::chrono::steady_clock;

// Kills a child that is ours and not yet reaped, so its pid and group id
// cannot belong to anyone else; the jobs in its group go with it.
void killWithGroup(pid_t pid) {
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);
}

}  // namespace

struct TerminalReaperCore {
    struct Child {
        pid_t pid = 0;
        FileHandle pidfd;
        std::weak_ptr<TerminalProcess> process;
        std::optional<Clock::time_point> killAt;
        bool killed = false;
    };
    struct Exit {
        std::weak_ptr<TerminalProcess> process;
        int status = 0;
        bool reaped = false;
    };

    explicit TerminalReaperCore(std::chrono::milliseconds grace) : grace(grace) {}

    const std::chrono::milliseconds grace;
    mutable std::mutex mutex;
    std::vector<Child> children;
    std::optional<Clock::time_point> endDeadline;  // set once the program ends its children
    std::vector<std::function<void()>> whenEmpty;
    bool stopping = false;
    FileHandle wake;     // eventfd; set before the thread starts, never changed after
    std::thread orphan;  // set by a destructor that ran on the reaper's own thread

    void notify() {
        uint64_t one = 1;
        // A full counter (never in practice) still leaves the loop woken.
        if (wake.valid()) (void)!::write(wake.get(), &one, sizeof one);
    }

    static void setKillAt(Child& child, Clock::time_point at) {
        if (!child.killAt || at < *child.killAt) child.killAt = at;
    }

    // waitpid for a child whose pidfd reported its exit. Nothing when it has
    // not exited after all.
    static std::optional<Exit> reap(const Child& child) {
        int status = 0;
        pid_t result;
        do {
            result = ::waitpid(child.pid, &status, WNOHANG);
        } while (result < 0 && errno == EINTR);
        if (result == 0) return std::nullopt;
        // ECHILD: reaped by someone else; the exit still counts, without a status.
        return Exit{child.process, status, result == child.pid};
    }

    static void deliver(std::vector<Exit>& exits, std::vector<std::function<void()>>& done) {
        // Outside the lock: a handler may drop the last reference to its
        // process, whose destructor comes back here.
        for (auto& exit : exits)
            if (auto process = exit.process.lock()) process->handleExit(exit.status, exit.reaped);
        exits.clear();
        for (auto& callback : done) callback();
        done.clear();
    }

    void run() {
        pthread_setname_np(pthread_self(), "velko-reaper");
        std::vector<pollfd> fds;
        std::vector<Exit> exits;
        std::vector<std::function<void()>> done;
        for (;;) {
            int timeout = -1;
            {
                std::lock_guard lock(mutex);
                if (stopping) break;
                fds.assign(1, pollfd{wake.get(), POLLIN, 0});
                const auto now = Clock::now();
                for (const auto& child : children) {
                    fds.push_back(pollfd{child.pidfd.get(), POLLIN, 0});
                    if (!child.killAt || child.killed) continue;
                    auto left = std::chrono::ceil<std::chrono::milliseconds>(*child.killAt - now).count();
                    left = std::max<decltype(left)>(left, 0);
                    if (timeout < 0 || left < timeout) timeout = static_cast<int>(std::min<decltype(left)>(left, INT32_MAX));
                }
            }
            int ready = ::poll(fds.data(), fds.size(), timeout);
            if (ready < 0) {
                if (errno != EINTR) ::poll(nullptr, 0, 10);  // ENOMEM: try again shortly rather than spin
                continue;
            }
            if (fds[0].revents & POLLIN) {
                uint64_t value;
                (void)!::read(wake.get(), &value, sizeof value);
            }
            {
                std::lock_guard lock(mutex);
                // Only this thread removes children, so every polled descriptor is still open.
                for (size_t i = 1; i < fds.size(); ++i) {
                    if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                    auto it = std::find_if(children.begin(), children.end(),
                                           [fd = fds[i].fd](const Child& c) { return c.pidfd.get() == fd; });
                    if (it == children.end()) continue;
                    if (auto exit = reap(*it)) {
                        exits.push_back(std::move(*exit));
                        children.erase(it);
                    }
                }
                const auto now = Clock::now();
                for (auto& child : children) {
                    if (!child.killAt || child.killed || now < *child.killAt) continue;
                    // Its terminal hung up and the grace period is over: a
                    // shell that ignores SIGHUP and SIGTERM goes now.
                    killWithGroup(child.pid);
                    child.killed = true;
                }
                if (children.empty()) done.swap(whenEmpty);
            }
            deliver(exits, done);
        }

        // Stopping: whatever still runs is killed and reaped before the thread ends.
        std::vector<Child> left;
        {
            std::lock_guard lock(mutex);
            left.swap(children);
            done.swap(whenEmpty);
        }
        for (auto& child : left) {
            killWithGroup(child.pid);
            int status = 0;
            pid_t result;
            do {
                result = ::waitpid(child.pid, &status, 0);
            } while (result < 0 && errno == EINTR);
            exits.push_back(Exit{child.process, status, result == child.pid});
        }
        left.clear();
        deliver(exits, done);

        std::thread self;
        {
            std::lock_guard lock(mutex);
            self = std::move(orphan);
        }
        if (self.joinable()) joinOnMainQueue(std::move(self));
    }
};

TerminalReaper::TerminalReaper(std::chrono::milliseconds abandonGracePeriod)
    : m_core(std::make_shared<TerminalReaperCore>(abandonGracePeriod)) {}

TerminalReaper::~TerminalReaper() {
    std::lock_guard start(m_startMutex);
    if (!m_thread.joinable()) return;
    const bool onReaper = m_thread.get_id() == std::this_thread::get_id();
    {
        std::lock_guard lock(m_core->mutex);
        m_core->stopping = true;
        // A termination handler let go of the reaper: the thread cannot join
        // itself, so it hands itself on once it has reaped the rest.
        if (onReaper) m_core->orphan = std::move(m_thread);
    }
    m_core->notify();
    if (!onReaper) m_thread.join();
}

Status<int> TerminalReaper::startIfNeeded() {
    std::lock_guard start(m_startMutex);
    if (m_thread.joinable()) return Ok{};
    FileHandle wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake.valid()) return fail(errno);
    m_core->wake = std::move(wake);
    try {
        m_thread = std::thread([core = m_core] { core->run(); });
    } catch (const std::system_error& error) {
        m_core->wake.reset();
        return fail(error.code().value());
    }
    return Ok{};
}

Result<std::shared_ptr<TerminalProcess>, int> TerminalReaper::watch(pid_t pid) {
    if (auto started = startIfNeeded(); !started) return fail(started.error());
    // Called through syscall(): glibc 2.36 declares pidfd_open without C linkage for C++.
    FileHandle pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));  // always close-on-exec
    if (!pidfd.valid()) return fail(errno);
    std::shared_ptr<TerminalProcess> process(new TerminalProcess(pid, m_core));
    {
        std::lock_guard lock(m_core->mutex);
        TerminalReaperCore::Child child;
        child.pid = pid;
        child.pidfd = std::move(pidfd);
        child.process = process;
        // A child started while the program ends its children ends with them.
        if (m_core->endDeadline) child.killAt = m_core->endDeadline;
        m_core->children.push_back(std::move(child));
    }
    m_core->notify();
    return process;
}

void TerminalReaper::abandon(const std::weak_ptr<TerminalReaperCore>& weakCore, pid_t pid) {
    auto core = weakCore.lock();
    if (!core) return;
    {
        std::lock_guard lock(core->mutex);
        auto it = std::find_if(core->children.begin(), core->children.end(),
                               [pid](const TerminalReaperCore::Child& c) { return c.pid == pid; });
        if (it == core->children.end()) return;
        TerminalReaperCore::setKillAt(*it, Clock::now() + core->grace);
    }
    core->notify();
}

void TerminalReaper::endAll(std::chrono::milliseconds grace, std::function<void()> done) {
    bool none;
    {
        std::lock_guard lock(m_core->mutex);
        const auto deadline = Clock::now() + grace;
        if (!m_core->endDeadline || deadline < *m_core->endDeadline) m_core->endDeadline = deadline;
        for (auto& child : m_core->children) TerminalReaperCore::setKillAt(child, deadline);
        none = m_core->children.empty();
        if (!none && done) m_core->whenEmpty.push_back(std::move(done));
    }
    if (none) {
        if (done) done();
        return;
    }
    m_core->notify();
}

size_t TerminalReaper::childCount() const {
    std::lock_guard lock(m_core->mutex);
    return m_core->children.size();
}

}  // namespace velko
