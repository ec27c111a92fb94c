#pragma once
// TerminalCoordinator: owns the running terminal sessions. It starts a login
// shell on a PTY for each configured session, writes input to it, resizes
// and signals it, and tells its delegate (the terminal service) about every
// birth, status change and death. Output leaves through each session's
// TerminalOutputPump, straight from its reader thread to the bridge.
//
// Main thread: every operation, the sessions map, status changes and
// delegate calls. Exit notices arrive on the reaper's thread and hop to the
// main queue. Failures end in the log or in a "failed" status; none is
// returned to the caller.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/EventDispatching.h"
#include "core/Uuid.h"
#include "terminal/TerminalLogger.h"
#include "workspace/Models.h"

namespace velko {

class TerminalDebugDumpStore;
class TerminalReaper;

struct SessionStatus {
    enum class Kind { Booting, Ready, Terminated, Failed };
    Kind kind = Kind::Booting;
    std::string message;  // for Failed

    static SessionStatus booting() { return {Kind::Booting, {}}; }
    static SessionStatus ready() { return {Kind::Ready, {}}; }
    static SessionStatus terminated() { return {Kind::Terminated, {}}; }
    static SessionStatus failed(std::string message) { return {Kind::Failed, std::move(message)}; }
    // "booting", "ready", "terminated", "failed"
    const char* text() const;
    friend bool operator==(const SessionStatus&, const SessionStatus&) = default;
};

struct SessionInfo {
    Uuid id;
    std::string title;
    int cols = 0;
    int rows = 0;
    int pid = 0;
    std::string shell;
    std::string workingDirectory;
};

class TerminalCoordinatorDelegate {
public:
    virtual ~TerminalCoordinatorDelegate() = default;
    virtual void terminalCoordinatorDidCreateSession(const SessionInfo& info) = 0;
    virtual void terminalCoordinatorDidUpdateStatus(const SessionStatus& status, const Uuid& sessionID,
                                                    std::optional<int> exitCode) = 0;
    // Where output events go, reached directly from the reader threads.
    virtual std::weak_ptr<EventDispatching> outputDispatcher() const = 0;
};

// What the terminal service needs of a coordinator; tests give it a fake.
class TerminalCoordinating {
public:
    virtual ~TerminalCoordinating() = default;
    virtual void setDelegate(std::weak_ptr<TerminalCoordinatorDelegate> delegate) = 0;
    virtual void setEnvironmentOverrides(std::map<std::string, std::string> overrides) = 0;
    virtual void synchronize(const std::vector<CLISessionConfig>& wanted) = 0;
    virtual void startSession(const CLISessionConfig& config) = 0;
    virtual void terminateSession(const Uuid& id) = 0;
    virtual void terminateAll() = 0;
    virtual void write(const Uuid& sessionID, std::string_view data) = 0;
    virtual void sendSignal(const Uuid& sessionID, int signal) = 0;
    virtual void resize(const Uuid& sessionID, int cols, int rows) = 0;
    virtual std::optional<std::pair<int, int>> dimensions(const Uuid& sessionID) const = 0;
    virtual void updateDebugDump(bool enabled) = 0;
    virtual std::shared_ptr<TerminalDebugDumpStore> debugDumpStore() const = 0;
};

class TerminalCoordinator final : public TerminalCoordinating,
                                  public std::enable_shared_from_this<TerminalCoordinator> {
public:
    static constexpr int kInitialCols = 120;
    static constexpr int kInitialRows = 40;

    struct Options {
        std::shared_ptr<TerminalLogger> logger;             // none: the default log file
        std::shared_ptr<TerminalDebugDumpStore> dumpStore;  // none: no debug dump
        std::shared_ptr<TerminalReaper> reaper;             // none: a reaper of its own
        uint64_t maxPendingOutputBytes = 4 * 1024 * 1024;
    };

    explicit TerminalCoordinator(Options options);
    ~TerminalCoordinator() override;

    void setDelegate(std::weak_ptr<TerminalCoordinatorDelegate> delegate) override { m_delegate = std::move(delegate); }
    void setEnvironmentOverrides(std::map<std::string, std::string> overrides) override {
        m_environmentOverrides = std::move(overrides);
    }
    void synchronize(const std::vector<CLISessionConfig>& wanted) override;
    void startSession(const CLISessionConfig& config) override;
    void terminateSession(const Uuid& id) override;
    void terminateAll() override;
    void write(const Uuid& sessionID, std::string_view data) override;
    void sendSignal(const Uuid& sessionID, int signal) override;
    void resize(const Uuid& sessionID, int cols, int rows) override;
    std::optional<std::pair<int, int>> dimensions(const Uuid& sessionID) const override;
    void updateDebugDump(bool enabled) override;
    std::shared_ptr<TerminalDebugDumpStore> debugDumpStore() const override { return m_dumpStore; }

    bool debugDumpEnabled() const { return m_debugDumpEnabled; }
    size_t sessionCount() const { return m_sessions.size(); }
    std::optional<int> processID(const Uuid& sessionID) const;
    // Bytes handed to the page but not yet delivered, and the most seen (flood bound).
    std::optional<std::pair<uint64_t, uint64_t>> pendingOutput(const Uuid& sessionID) const;
    const std::shared_ptr<TerminalLogger>& logger() const { return m_logger; }
    const std::shared_ptr<TerminalReaper>& reaper() const { return m_reaper; }

    // Where a session starts: its directory with "~" expanded if it is one, else home.
    static std::string resolvedWorkingDirectory(const CLISessionConfig& config);

private:
    struct SessionState;
    void handleExit(const std::shared_ptr<SessionState>& state);
    void transitionToFailure(const Uuid& id, const std::string& message);
    void dispose(SessionState& state);
    void attachDebugDump(SessionState& state);
    void log(const Uuid& id, TerminalLogEvent::Event event, std::optional<std::string> chunk = std::nullopt,
             std::optional<std::string> message = std::nullopt,
             std::optional<std::map<std::string, std::string>> metadata = std::nullopt);

    std::weak_ptr<TerminalCoordinatorDelegate> m_delegate;
    std::shared_ptr<TerminalLogger> m_logger;
    std::shared_ptr<TerminalDebugDumpStore> m_dumpStore;
    uint64_t m_maxPendingOutputBytes;
    // Declared before the sessions: their processes let go of their children first.
    std::shared_ptr<TerminalReaper> m_reaper;
    std::unordered_map<Uuid, std::shared_ptr<SessionState>> m_sessions;
    bool m_debugDumpEnabled = false;
    std::map<std::string, std::string> m_environmentOverrides;
};

}  // namespace velko
