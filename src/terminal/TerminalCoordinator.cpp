#include "terminal/TerminalCoordinator.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "core/Paths.h"
#include "core/TaskQueue.h"
#include "terminal/PTYDriver.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalOutputPump.h"
#include "terminal/TerminalProcess.h"
#include "terminal/TerminalReaper.h"

namespace velko {

namespace {

std::string describeErrno(int code) {
    return "errno " + std::to_string(code) + " (" + std::strerror(code) + ")";
}

// Writes every byte, waiting up to a second at a time for the shell to read.
// Returns 0 or the errno that stopped it.
int writeAll(int fd, std::string_view data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) return EIO;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return errno;
        for (;;) {
            pollfd pfd{fd, POLLOUT, 0};
            int ready = ::poll(&pfd, 1, 1000);
            if (ready > 0) break;
            if (ready == 0) return EAGAIN;
            if (errno != EINTR) return errno;
        }
    }
    return 0;
}

}  // namespace

const char* SessionStatus::text() const {
    switch (kind) {
        case Kind::Booting: return "booting";
        case Kind::Ready: return "ready";
        case Kind::Terminated: return "terminated";
        case Kind::Failed: return "failed";
    }
    return "failed";
}

struct TerminalCoordinator::SessionState {
    CLISessionConfig config;
    std::shared_ptr<TerminalProcess> process;
    FileHandle master;
    std::unique_ptr<TerminalOutputPump> pump;
    int cols = kInitialCols;
    int rows = kInitialRows;
    SessionStatus status;
    bool disposed = false;
};

TerminalCoordinator::TerminalCoordinator(Options options)
    : m_logger(options.logger ? std::move(options.logger) : TerminalLogger::create()),
      m_dumpStore(std::move(options.dumpStore)),
      m_maxPendingOutputBytes(options.maxPendingOutputBytes),
      m_reaper(options.reaper ? std::move(options.reaper) : std::make_shared<TerminalReaper>()) {}

TerminalCoordinator::~TerminalCoordinator() {
    // Pumps read descriptors owned by the states: stop them before those close.
    for (auto& [id, state] : m_sessions) dispose(*state);
}

std::string TerminalCoordinator::resolvedWorkingDirectory(const CLISessionConfig& config) {
    std::string home = homeDirectory();
    std::string path = expandTilde(config.workingDirectory, home);
    struct stat info {};
    if (!path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return path;
    return home;
}

void TerminalCoordinator::log(const Uuid& id, TerminalLogEvent::Event event, std::optional<std::string> chunk,
                              std::optional<std::string> message,
                              std::optional<std::map<std::string, std::string>> metadata) {
    m_logger->record({id, event, std::move(chunk), std::move(message), std::move(metadata)});
}

void TerminalCoordinator::startSession(const CLISessionConfig& config) {
    // One shell per session id: a second start (a publication that arrived
    // while the first start was under way) must not orphan the first shell.
    if (m_sessions.count(config.id)) return;
    const std::string directory = resolvedWorkingDirectory(config);
    auto spawned = PTYDriver::spawn(*m_reaper, config.shell, {"-l"}, directory, m_environmentOverrides, kInitialCols,
                                    kInitialRows);
    if (!spawned) {
        std::string description = spawned.error().description();
        log(config.id, TerminalLogEvent::Event::Error, std::nullopt, "spawn_failed",
            std::map<std::string, std::string>{{"error", description}});
        transitionToFailure(config.id, description);
        return;
    }

    auto state = std::make_shared<SessionState>();
    state->config = config;
    state->process = spawned->process;
    state->master = std::move(spawned->masterHandle);
    state->status = SessionStatus::booting();
    std::weak_ptr<EventDispatching> dispatcher;
    if (auto delegate = m_delegate.lock()) dispatcher = delegate->outputDispatcher();
    state->pump = std::make_unique<TerminalOutputPump>(config.id, state->master.get(), m_logger, dispatcher,
                                                       m_maxPendingOutputBytes);
    if (m_debugDumpEnabled) attachDebugDump(*state);
    m_sessions[config.id] = state;

    log(config.id, TerminalLogEvent::Event::Spawn, std::nullopt, std::nullopt,
        std::map<std::string, std::string>{{"shell", config.shell},
                                           {"cwd", directory},
                                           {"cols", std::to_string(kInitialCols)},
                                           {"rows", std::to_string(kInitialRows)}});

    std::weak_ptr<TerminalCoordinator> weakSelf = weak_from_this();
    std::weak_ptr<SessionState> weakState = state;
    state->process->setTerminationHandler([weakSelf, weakState](TerminalProcess&) {
        mainQueue().post([weakSelf, weakState] {
            auto self = weakSelf.lock();
            auto state = weakState.lock();
            if (self && state) self->handleExit(state);
        });
    });
    state->pump->start();

    auto delegate = m_delegate.lock();
    if (delegate) {
        delegate->terminalCoordinatorDidCreateSession(SessionInfo{config.id, config.title, kInitialCols, kInitialRows,
                                                                  state->process->pid(), config.shell, directory});
    }
    state->status = SessionStatus::booting();
    if (delegate) delegate->terminalCoordinatorDidUpdateStatus(state->status, config.id, std::nullopt);
    // "ready" means only that the main queue turned once since the spawn.
    mainQueue().post([weakSelf, weakState] {
        auto self = weakSelf.lock();
        auto state = weakState.lock();
        if (!self || !state) return;
        state->status = SessionStatus::ready();
        if (auto d = self->m_delegate.lock())
            d->terminalCoordinatorDidUpdateStatus(state->status, state->config.id, std::nullopt);
    });
}

void TerminalCoordinator::handleExit(const std::shared_ptr<SessionState>& state) {
    if (state->disposed) return;
    // Whatever the shell wrote before it died is read and handed on first;
    // the rest waits one turn so those events stay ahead of the exit.
    state->pump->finish();
    std::weak_ptr<TerminalCoordinator> weakSelf = weak_from_this();
    std::weak_ptr<SessionState> weakState = state;
    mainQueue().post([weakSelf, weakState] {
        auto self = weakSelf.lock();
        auto state = weakState.lock();
        if (!self || !state || state->disposed) return;
        const Uuid id = state->config.id;
        const int code = state->process->terminationStatus();
        self->log(id, TerminalLogEvent::Event::Exit, std::nullopt, std::nullopt,
                  std::map<std::string, std::string>{{"code", std::to_string(code)}});
        self->dispose(*state);
        self->m_sessions.erase(id);
        state->status = SessionStatus::terminated();
        if (auto d = self->m_delegate.lock()) d->terminalCoordinatorDidUpdateStatus(state->status, id, code);
    });
}

void TerminalCoordinator::transitionToFailure(const Uuid& id, const std::string& message) {
    auto it = m_sessions.find(id);
    if (it != m_sessions.end()) it->second->status = SessionStatus::failed(message);
    if (auto d = m_delegate.lock()) d->terminalCoordinatorDidUpdateStatus(SessionStatus::failed(message), id, std::nullopt);
    log(id, TerminalLogEvent::Event::Error, std::nullopt, message);
}

void TerminalCoordinator::dispose(SessionState& state) {
    if (state.disposed) return;
    state.disposed = true;
    if (state.pump) state.pump->stop();
    // Closing the master hangs up the terminal: the shell and its jobs get SIGHUP.
    state.master.reset();
}

void TerminalCoordinator::terminateSession(const Uuid& id) {
    auto it = m_sessions.find(id);
    if (it == m_sessions.end()) return;
    auto state = it->second;
    m_sessions.erase(it);
    dispose(*state);
    const pid_t pid = state->process->pid();
    if (!state->process->terminated() && ::kill(pid, 0) == 0) {
        if (!state->process->terminated()) ::kill(pid, SIGTERM);
        // Dropping the state hands the child to the reaper, which reaps it,
        // or kills its group if it outlives the grace period.
        return;
    }
    state->status = SessionStatus::terminated();
    if (auto d = m_delegate.lock()) d->terminalCoordinatorDidUpdateStatus(state->status, id, state->process->terminationStatus());
}

void TerminalCoordinator::terminateAll() {
    std::vector<Uuid> ids;
    for (const auto& [id, state] : m_sessions) ids.push_back(id);
    for (const auto& id : ids) terminateSession(id);
}

void TerminalCoordinator::synchronize(const std::vector<CLISessionConfig>& wanted) {
    std::set<Uuid> wantedIDs;
    for (const auto& config : wanted) wantedIDs.insert(config.id);
    std::vector<Uuid> stale;
    for (const auto& [id, state] : m_sessions)
        if (!wantedIDs.count(id)) stale.push_back(id);
    for (const auto& id : stale) terminateSession(id);
    for (const auto& config : wanted) {
        auto it = m_sessions.find(config.id);
        if (it == m_sessions.end()) {
            startSession(config);
        } else if (m_debugDumpEnabled && it->second->pump && !it->second->pump->hasDebugDump()) {
            attachDebugDump(*it->second);
        }
    }
}

void TerminalCoordinator::write(const Uuid& sessionID, std::string_view data) {
    auto it = m_sessions.find(sessionID);
    if (it == m_sessions.end() || it->second->disposed) return;
    if (int error = writeAll(it->second->master.get(), data)) {
        transitionToFailure(sessionID, "write_failed: " + describeErrno(error));
        return;
    }
    // The log keeps what was typed, passwords too; it lives in the user's own cache.
    log(sessionID, TerminalLogEvent::Event::Input, std::string(data));
}

void TerminalCoordinator::sendSignal(const Uuid& sessionID, int signal) {
    auto it = m_sessions.find(sessionID);
    if (it == m_sessions.end() || it->second->disposed) return;
    const pid_t shell = it->second->process->pid();
    // A job running in the foreground has a process group of its own (the
    // shell's job control gives it one); Ctrl+C from the page is meant for
    // it, as the terminal's own interrupt key would be.
    const pid_t foreground = ::tcgetpgrp(it->second->master.get());
    if (foreground > 0 && foreground != shell) (void)::kill(-foreground, signal);
    auto result = PTYDriver::sendSignal(shell, signal);
    if (result) {
        log(sessionID, TerminalLogEvent::Event::Signal, std::nullopt, std::nullopt,
            std::map<std::string, std::string>{{"signal", std::to_string(signal)}});
    } else {
        log(sessionID, TerminalLogEvent::Event::Error, std::nullopt, "signal_failed",
            std::map<std::string, std::string>{{"signal", std::to_string(signal)},
                                               {"error", result.error().description()}});
    }
}

void TerminalCoordinator::resize(const Uuid& sessionID, int cols, int rows) {
    auto it = m_sessions.find(sessionID);
    if (it == m_sessions.end() || it->second->disposed) return;
    cols = std::clamp(cols, 2, PTYDriver::kMaxDimension);
    rows = std::clamp(rows, 2, PTYDriver::kMaxDimension);
    auto& state = *it->second;
    auto result = PTYDriver::resize(state.master.get(), state.process->pid(), cols, rows);
    if (!result) {
        transitionToFailure(sessionID, "resize_failed: " + result.error().description());
        return;
    }
    state.cols = cols;
    state.rows = rows;
    log(sessionID, TerminalLogEvent::Event::Resize, std::nullopt, std::nullopt,
        std::map<std::string, std::string>{{"cols", std::to_string(cols)}, {"rows", std::to_string(rows)}});
}

std::optional<std::pair<int, int>> TerminalCoordinator::dimensions(const Uuid& sessionID) const {
    auto it = m_sessions.find(sessionID);
    if (it == m_sessions.end()) return std::nullopt;
    return std::make_pair(it->second->cols, it->second->rows);
}

std::optional<int> TerminalCoordinator::processID(const Uuid& sessionID) const {
    auto it = m_sessions.find(sessionID);
    if (it == m_sessions.end()) return std::nullopt;
    return it->second->process->pid();
}

std::optional<std::pair<uint64_t, uint64_t>> TerminalCoordinator::pendingOutput(const Uuid& sessionID) const {
    auto it = m_sessions.find(sessionID);
    if (it == m_sessions.end() || !it->second->pump) return std::nullopt;
    return std::make_pair(it->second->pump->pendingBytes(), it->second->pump->peakPendingBytes());
}

void TerminalCoordinator::attachDebugDump(SessionState& state) {
    if (!m_dumpStore || !state.pump) return;
    if (auto writer = TerminalDebugDumpWriter::create(m_dumpStore, state.config.id)) state.pump->setDebugDump(writer);
}

void TerminalCoordinator::updateDebugDump(bool enabled) {
    if (enabled == m_debugDumpEnabled) return;
    m_debugDumpEnabled = enabled;
    if (!enabled) {
        for (auto& [id, state] : m_sessions)
            if (state->pump) state->pump->setDebugDump(nullptr);
        return;
    }
    if (!m_dumpStore || !m_dumpStore->prepareForWriting()) {
        m_debugDumpEnabled = false;
        return;
    }
    for (auto& [id, state] : m_sessions) attachDebugDump(*state);
}

}  // namespace velko
