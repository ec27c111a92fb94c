#pragma once
// TerminalService: stands between the configuration, the page and the
// coordinator. It keeps what the page is told about each configured session,
// decides by the "terminal.v2" feature whether sessions may run at all,
// turns coordinator news into "terminal/…" events and answers the page's
// session requests.
//
// Main thread only. Owned by the composition root; reaches the bridge
// weakly. Only "terminal/output" and "terminal/activity" leave from other
// threads (the coordinator's reader threads).

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "terminal/TerminalCoordinator.h"
#include "workspace/Models.h"

namespace velko {

class ConfigStore;
class CodexShimInstaller;

class TerminalService final : public TerminalCoordinatorDelegate, public std::enable_shared_from_this<TerminalService> {
public:
    // Subscribes to the store; the current configuration arrives on a later
    // turn of the main queue, which is what starts the configured sessions.
    static std::shared_ptr<TerminalService> create(std::shared_ptr<ConfigStore> configStore,
                                                   std::shared_ptr<TerminalCoordinating> coordinator,
                                                   std::shared_ptr<CodexShimInstaller> codexShimInstaller);
    ~TerminalService() override;

    void setBridge(std::weak_ptr<EventDispatching> bridge) { m_bridge = std::move(bridge); }
    bool hasBootstrapped() const { return m_hasBootstrapped; }
    // Sends the first snapshot for a freshly loaded page, once.
    void bootstrapIfNeeded();
    void dispatchSnapshot(const std::vector<CLISessionConfig>& sessions, bool featureEnabled);
    bool isTerminalV2Enabled() const;

    void createSession(const std::optional<std::string>& title, const std::optional<Uuid>& projectID);
    void closeSession(const Uuid& id);
    void terminateSessions(const std::vector<Uuid>& ids);
    void resizeSession(const Uuid& id, int cols, int rows);
    void setInputFocus(const Uuid& sessionID, bool focused);
    const std::optional<Uuid>& activeInputSessionID() const { return m_activeInputSessionID; }

    // Entry of every "terminal/…" and "cli/…" message; bad ones are dropped silently.
    void handleMessage(std::string_view type, const Json* payload);

    // Ends every session (program exit). The children are reaped off the main thread.
    void shutdown();

    // TerminalCoordinatorDelegate
    void terminalCoordinatorDidCreateSession(const SessionInfo& info) override;
    void terminalCoordinatorDidUpdateStatus(const SessionStatus& status, const Uuid& sessionID,
                                            std::optional<int> exitCode) override;
    std::weak_ptr<EventDispatching> outputDispatcher() const override { return m_bridge; }

private:
    struct RuntimeState {
        SessionStatus status;
        int cols = TerminalCoordinator::kInitialCols;
        int rows = TerminalCoordinator::kInitialRows;
        std::optional<int> pid;
    };

    TerminalService(std::shared_ptr<ConfigStore> configStore, std::shared_ptr<TerminalCoordinating> coordinator,
                    std::shared_ptr<CodexShimInstaller> installer);
    void handleConfigChange(const AppConfig& config);
    // Hands the shim's environment to the coordinator before the first shell starts.
    void useShimEnvironment();
    void notifyUnavailable(const Uuid& sessionID, const std::optional<std::string>& title);
    void dispatch(std::string_view type, const OrderedJson& payload);
    void dispatchCurrentSnapshot(bool featureEnabled);
    void dispatchStatus(const Uuid& id, std::string_view status, std::optional<int> exitCode);
    std::pair<int, int> dimensionsOrDefault(const Uuid& id) const;

    std::shared_ptr<ConfigStore> m_configStore;
    std::shared_ptr<TerminalCoordinating> m_coordinator;
    std::shared_ptr<CodexShimInstaller> m_codexShimInstaller;
    std::weak_ptr<EventDispatching> m_bridge;
    bool m_hasBootstrapped = false;
    std::set<Uuid> m_unavailableNotifiedSessions;
    std::unordered_map<Uuid, RuntimeState> m_runtimeStates;
    std::optional<Uuid> m_activeInputSessionID;
    size_t m_subscription = 0;
    bool m_deliveryPending = false;  // a configuration delivery waits on the main queue
    bool m_shimEnvironmentSet = false;
};

}  // namespace velko
