#pragma once
// WebBridge: the single meeting point of the web page and the native services.
//
// Inbound, it takes each message the page posts ({type, payload}) and routes it
// by exact type to its handler; anything it does not recognise is ignored.
// Outbound, it turns an event into one script (the fixed two-piece wrapper
// around the escaped JSON envelope) and evaluates it in the web view, or keeps
// it in `pendingScripts` until the view has finished a navigation.
//
// Lives on the main thread: handle(), readiness, the pending queue and the
// cached configuration are touched there only. dispatchEvent() may be called
// from any thread; it encodes on the caller's thread and hops to the main
// thread for delivery. Owned by the composition root; services hold it weakly.
//
// Every inbound type is matched once, in the route table of WebBridge.cpp,
// which names the handler of that exact message. The handlers of each
// subsystem are defined in their own file (WebBridgeProjects.cpp,
// WebBridgeTerminal.cpp, WebBridgeFiles.cpp, WebBridgeGit.cpp, ...), the way
// one class is spread over several sources. Services are reached through
// small roles (ProjectStoring, GitOperating, ...), so the handlers run against
// fakes in tests.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "core/Uuid.h"
#include "dashboard/DashboardEventEmitting.h"
#include "shell/WebViewHosting.h"
#include "workspace/Models.h"

namespace velko {

class TaskQueue;
class ProjectStoring;
class TerminalMessageHandling;
class GitOperating;
class ExplorerMonitoring;
class ProjectFileAccessing;
class PreviewTabsPersistenceService;
class AnalyticsLogging;
class GitAuthManager;
class GitHubOAuthCoordinator;
class GitTokenRefresher;
class SecurityEventLogging;
struct OAuthTokenRecord;
enum class OAuthError;

// The fixed pieces of the injected script; the page's one convention with us.
extern const char* const kEventScriptPrefix;
extern const char* const kEventScriptSuffix;

// Escapes JSON text for the single-quoted literal: backslashes first, then apostrophes.
std::string escapeForScriptLiteral(std::string_view json);
// The whole script for one encoded envelope.
std::string buildEventScript(std::string_view envelopeJson);
// The envelope JSON back out of a script built above, or nullopt (headless host).
std::optional<std::string> envelopeFromEventScript(std::string_view script);

class WebBridge final : public EventDispatching,
                        public DashboardEventEmitting,
                        public std::enable_shared_from_this<WebBridge> {
public:
    using EventObserver = std::function<void(const std::string& type, const std::string& payloadJson)>;

    // What the bridge owns. Without file access the file and explorer requests
    // are dropped; without a monitor the explorer is never watched.
    struct Collaborators {
        std::shared_ptr<ExplorerMonitoring> explorer;
        std::shared_ptr<ProjectFileAccessing> files;
        std::shared_ptr<TaskQueue> fileQueue;  // default: serial "app.velko.webbridge.fs"
    };

    explicit WebBridge(Collaborators collaborators = {});
    ~WebBridge() override;

    // --- inbound (main thread) ---
    void handle(const Json& messageBody);
    // The page's message as JSON text (web view channel, headless stdin line).
    // Text that is not JSON, or nested too deeply, is ignored.
    void handleMessageText(std::string_view text);

    // --- outbound (any thread) ---
    void dispatchEvent(std::string_view type, const OrderedJson& payload) override;
    void dispatchEncodedEvent(std::string_view type, std::string envelopeJson,
                              std::function<void()> onDelivered = {}) override;

    // --- web view lifecycle (main thread) ---
    void setWebView(std::weak_ptr<WebViewHosting> webView);  // a new view starts not ready
    void notifyWebViewDidStartNavigation();
    void notifyWebViewDidFinishNavigation();
    bool isWebViewReady() const { return m_isWebViewReady; }
    size_t pendingScriptCount() const { return m_pendingScripts.size(); }

    // --- configuration snapshot (main thread) ---
    void updateConfigSnapshot(const AppConfig& config);
    static OrderedJson configSnapshotPayload(const AppConfig& config);

    // --- GitHub account (WebBridgeOAuth.cpp; main thread) ---
    // The status of the stored token, if any.
    void dispatchOAuthStatus();
    // "connected" with the record, else "disconnected" with only `reason`.
    void dispatchOAuthStatus(const OAuthTokenRecord* record, bool refreshed, std::optional<std::string> reason);
    static OrderedJson oauthStatusPayload(const OAuthTokenRecord* record, bool refreshed,
                                          const std::optional<std::string>& reason);
    void setAuthManager(std::shared_ptr<GitAuthManager> manager);
    void setSecurityLogger(std::shared_ptr<SecurityEventLogging> logger);
    // Keeps both, becomes the delegate of both, and sends the status once more.
    void attach(std::shared_ptr<GitHubOAuthCoordinator> coordinator, std::shared_ptr<GitTokenRefresher> refresher);
    // The git engine's word that the server refused the token (any thread).
    void gitServiceDidUpdateOAuthStatus(const OrderedJson& payload);

    // --- collaborators, assigned by the composition root ---
    void setProjectStore(std::weak_ptr<ProjectStoring> store) { m_projectStore = std::move(store); }
    void setFolderPicker(std::shared_ptr<FolderPicking> picker) { m_folderPicker = std::move(picker); }
    void setTerminalService(std::weak_ptr<TerminalMessageHandling> service) { m_terminalService = std::move(service); }
    void setGitService(std::weak_ptr<GitOperating> service) { m_gitService = std::move(service); }
    void setEventObserver(EventObserver observer) { m_eventObserver = std::move(observer); }
    void setPreviewTabsService(std::shared_ptr<PreviewTabsPersistenceService> service) {
        m_previewTabsService = std::move(service);
    }
    void setAnalyticsLogger(std::shared_ptr<AnalyticsLogging> logger) { m_analyticsLogger = std::move(logger); }
    void setDashboardController(std::weak_ptr<DashboardControlling> controller) {
        m_dashboardController = std::move(controller);
    }

    // --- dashboard events (any thread; WebBridgeDashboard.cpp) ---
    void emitDashboardToggled(bool open) override;
    void emitDashboardMetrics(const DashboardSnapshot& snapshot) override;
    void emitDashboardMetricsError(const std::string& message) override;

    const std::optional<Uuid>& activeProjectID() const { return m_activeProjectID; }
    void setActiveProjectID(std::optional<Uuid> id) { m_activeProjectID = std::move(id); }

    // --- calls of the composition root into subsystems (main thread) ---
    void activateExplorerMonitoring(const std::optional<Uuid>& projectID);  // WebBridgeFiles.cpp
    void stopExplorerMonitoring();                                          // WebBridgeFiles.cpp
    void dispatchPreviewTabs(const std::optional<Uuid>& projectID);         // WebBridgePreview.cpp
    void refreshGitStatus(const std::optional<Uuid>& projectID);            // WebBridgeGit.cpp
    void terminateTerminalSessions(const std::vector<Uuid>& ids);            // WebBridgeTerminal.cpp

    // The queue of file work ("app.velko.webbridge.fs"), one job after another.
    TaskQueue& fileQueue() { return *m_fileQueue; }

private:
    // Every handler of the route table has this shape: the type as received
    // (aliases keep their own spelling) and the payload object, or null.
    using MessageHandler = void (WebBridge::*)(std::string_view type, const Json* payload);
    struct Route {
        std::string_view type;
        MessageHandler handler;
    };
    static const Route* routeFor(std::string_view type);

    void deliver(std::string script, std::function<void()> onDelivered);
    void flushPendingScripts();
    void handleAppConfigRequest(std::string_view, const Json*);

    // --- projects (WebBridgeProjects.cpp) ---
    void handleProjectOpen(std::string_view, const Json*);
    void handleProjectClose(std::string_view, const Json* payload);
    void handleProjectActivate(std::string_view, const Json* payload);
    void handleProjectResume(std::string_view, const Json*);
    void handleProjectReorder(std::string_view, const Json* payload);

    // --- terminal (WebBridgeTerminal.cpp) ---
    void handleTerminalMessage(std::string_view type, const Json* payload);

    // --- files and explorer (WebBridgeFiles.cpp) ---
    void handleExplorerDirectoriesRequest(std::string_view, const Json* payload);
    void handleFileOpen(std::string_view, const Json* payload);
    void handleFileSave(std::string_view, const Json* payload);
    void handleFileRename(std::string_view, const Json* payload);
    // The project's folder, if the project is known and the folder is there (main thread).
    std::optional<std::string> projectRootForFiles(const Uuid& projectId) const;

    // --- git (WebBridgeGit.cpp) ---
    void handleGitStatus(std::string_view, const Json* payload);
    void handleGitStatusDetail(std::string_view, const Json* payload);
    void handleGitCommit(std::string_view, const Json* payload);
    void handleGitPush(std::string_view, const Json* payload);
    void handleGitPull(std::string_view, const Json* payload);
    void handleGitFetch(std::string_view, const Json* payload);
    void handleGitDiff(std::string_view, const Json* payload);
    void handleGitHistory(std::string_view, const Json* payload);
    void handleGitGraph(std::string_view, const Json* payload);
    void handleGitRemoteTracking(std::string_view, const Json* payload);
    void handleGitWorkingTree(std::string_view, const Json* payload);
    void handleGitRefreshBarrier(std::string_view, const Json* payload);
    void handleGitCommitDiff(std::string_view, const Json* payload);
    void handleGitBranchMap(std::string_view, const Json* payload);

    // --- GitHub account (WebBridgeOAuth.cpp) ---
    void handleOAuthStart(std::string_view, const Json*);
    void handleOAuthLogout(std::string_view, const Json*);
    void handleOAuthRequestStatus(std::string_view, const Json*);
    class OAuthDelegate;
    friend class OAuthDelegate;
    void oauthDidComplete(const OAuthTokenRecord& record);
    void oauthDidFail(OAuthError error);
    void tokenDidRefresh(const OAuthTokenRecord& record);
    void tokenRefreshDidFail(OAuthError error);
    std::optional<std::string> storedLogin();

    // --- preview tabs, dashboard, analytics (WebBridgePreview.cpp) ---
    void handlePreviewTabsPersist(std::string_view, const Json* payload);
    void handlePreviewTabsCacheWrite(std::string_view, const Json* payload);
    void handlePreviewTabsLimitReached(std::string_view, const Json* payload);
    void handleDashboardPresent(std::string_view, const Json* payload);
    void handleDashboardDismiss(std::string_view, const Json*);
    void handleAnalyticsEvent(std::string_view, const Json* payload);

    std::optional<Uuid> m_activeProjectID;
    std::weak_ptr<WebViewHosting> m_webView;
    bool m_isWebViewReady = false;
    std::weak_ptr<TerminalMessageHandling> m_terminalService;
    std::weak_ptr<GitOperating> m_gitService;
    std::weak_ptr<ProjectStoring> m_projectStore;
    std::shared_ptr<FolderPicking> m_folderPicker;
    struct PendingScript {
        std::string script;
        std::function<void()> onDelivered;
    };
    std::vector<PendingScript> m_pendingScripts;
    std::optional<AppConfig> m_cachedConfig;
    std::shared_ptr<TaskQueue> m_fileQueue;
    std::shared_ptr<ProjectFileAccessing> m_files;
    std::shared_ptr<ExplorerMonitoring> m_explorer;
    std::optional<Uuid> m_monitoredExplorerProjectID;
    EventObserver m_eventObserver;
    std::shared_ptr<PreviewTabsPersistenceService> m_previewTabsService;
    std::shared_ptr<AnalyticsLogging> m_analyticsLogger;
    std::weak_ptr<DashboardControlling> m_dashboardController;
    std::shared_ptr<GitAuthManager> m_authManager;
    std::shared_ptr<GitHubOAuthCoordinator> m_oauthCoordinator;
    std::shared_ptr<GitTokenRefresher> m_tokenRefresher;
    std::shared_ptr<SecurityEventLogging> m_securityLogger;
    std::shared_ptr<OAuthDelegate> m_oauthDelegate;
};

}  // namespace velko
