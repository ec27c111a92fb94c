#pragma once
// VelkoApp: the composition root. Builds every service once, in a fixed order,
// wires them to each other and to the bridge, and hands the host (the GTK
// window or the headless stdio host) what it needs.
//
// Main thread only. Lives as long as the process. A service that is not built
// is left out: the bridge's reference to it stays empty and its messages do
// nothing.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace velko {

class WebBridge;
class ConfigStore;
class ContentView;
class TerminalService;
class TerminalReaper;
class GitService;
class ExplorerService;
class InputCommandCenter;
class GestureBridge;
class GestureBridgeDelegate;
class InputSourceServicing;
class NativeTerminalTarget;
class NativeTerminalInput;
class ProjectStoring;
class TerminalMessageHandling;
class GitOperating;
class PreviewTabsPersistenceService;
class AnalyticsLogger;
class SystemMetricsService;
class Updater;
class UpdatePresenting;
class EventDispatching;
class KeychainStore;
class OAuthSessionFactory;
class GitAuthManager;
class GitHubOAuthCoordinator;
class GitTokenRefresher;
class SecurityEventLogger;
class TaskQueue;
class GitAuthProviding;
class CurlHttpClient;
class DashboardMetricsService;
class DashboardController;

class VelkoApp {
public:
    struct Options {
        // Where config.json lives; empty means $XDG_DATA_HOME/velko.
        std::optional<std::string> storageDirectory = {};
        // Where the outcome of an update check is shown; empty: a log line.
        std::shared_ptr<UpdatePresenting> updatePresenter = {};
        // Where Info.json and Config.json are (the update feed, the OAuth
        // client's settings); empty: the resources beside the program.
        std::optional<std::string> resourceDirectory = {};
        // --- GitHub account: the host's platform pieces ---
        // The token store; none: nothing can be kept, the account stays disconnected.
        std::shared_ptr<KeychainStore> keychain = {};
        // Sign-in sessions in the browser; none: a session that never starts.
        std::shared_ptr<OAuthSessionFactory> oauthSessions = {};
    };

    VelkoApp();
    explicit VelkoApp(Options options);
    ~VelkoApp();

    WebBridge& bridge() { return *m_bridge; }
    const std::shared_ptr<WebBridge>& bridgePtr() const { return m_bridge; }
    ConfigStore& configStore() { return *m_configStore; }
    ContentView& contentView() { return *m_contentView; }

    // The window's content appeared: load the configuration and apply it.
    void contentDidAppear();
    // Ends terminal sessions and waits for queued work; `done` runs on the main
    // thread when it is safe to exit, or once kShutdownDeadline has passed.
    // Children still running then are killed by the destructor.
    void shutdown(std::function<void()> done);
    static constexpr std::chrono::milliseconds kShutdownDeadline{4000};
    // How long shells get to leave after their hang-up before they are killed.
    static constexpr std::chrono::milliseconds kShellGracePeriod{2000};

private:
    std::shared_ptr<ConfigStore> m_configStore;
    std::shared_ptr<WebBridge> m_bridge;
    std::shared_ptr<ContentView> m_contentView;
    // --- terminal ---
    std::shared_ptr<TerminalReaper> m_terminalReaper;
    std::shared_ptr<TerminalService> m_terminalService;
    // --- git ---
    std::shared_ptr<GitService> m_gitService;
    // --- files ---
    std::shared_ptr<ExplorerService> m_explorerService;
    // --- shared by git, the dashboard and the account ---
    std::shared_ptr<GitAuthProviding> m_gitAuth;
    std::shared_ptr<CurlHttpClient> m_http;
    // --- dashboard ---
    std::shared_ptr<DashboardMetricsService> m_dashboardMetrics;
    std::shared_ptr<DashboardController> m_dashboardController;
    // --- preview tabs, telemetry ---
    std::shared_ptr<PreviewTabsPersistenceService> m_previewTabsService;
    std::shared_ptr<AnalyticsLogger> m_analyticsLogger;
    std::shared_ptr<SystemMetricsService> m_systemMetricsService;
    std::shared_ptr<Updater> m_updater;  // none without a key and a feed
    // --- the services as the bridge reaches them; it holds these weakly ---
    std::shared_ptr<ProjectStoring> m_projectStore;
    std::shared_ptr<TerminalMessageHandling> m_terminalMessages;
    std::shared_ptr<GitOperating> m_gitOperations;
    // --- GitHub account ---
    std::shared_ptr<GitAuthManager> m_authManager;
    std::shared_ptr<SecurityEventLogger> m_securityLogger;
    std::shared_ptr<EventDispatching> m_gitEventSink;
    std::shared_ptr<TaskQueue> m_refreshQueue;
    std::shared_ptr<TaskQueue> m_oauthQueue;
    std::shared_ptr<GitTokenRefresher> m_tokenRefresher;
    std::shared_ptr<GitHubOAuthCoordinator> m_oauthCoordinator;
    // --- desktop ---
    std::shared_ptr<InputCommandCenter> m_commandCenter;
    std::shared_ptr<GestureBridge> m_gestureBridge;
    std::shared_ptr<GestureBridgeDelegate> m_pinchDispatcher;
    std::shared_ptr<NativeTerminalTarget> m_nativeTerminalTarget;
    std::shared_ptr<NativeTerminalInput> m_nativeTerminalInput;

public:
    InputCommandCenter& commandCenter() { return *m_commandCenter; }
    // "Check for Updates..." is enabled only with an updater.
    bool canCheckForUpdates() const { return m_updater != nullptr; }
    void checkForUpdates();
    GestureBridge& gestureBridge() { return *m_gestureBridge; }
    // Keys go natively to the focused terminal once the platform has an
    // input-source service (null: every key takes the web view's path).
    void setInputSources(std::shared_ptr<InputSourceServicing> sources);
};

}  // namespace velko
