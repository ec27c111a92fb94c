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
// The handlers of each subsystem are defined in their own file
// (WebBridgeProjects.cpp, WebBridgeTerminal.cpp, WebBridgeFiles.cpp,
// WebBridgeGit.cpp, ...), the way one class is spread over several sources.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "core/Uuid.h"
#include "shell/WebViewHosting.h"
#include "workspace/Models.h"

namespace velko {

class ConfigStore;
class SerialQueue;
class TerminalService;
class GitService;
class ExplorerService;

// The fixed pieces of the injected script; the page's one convention with us.
extern const char* const kEventScriptPrefix;
extern const char* const kEventScriptSuffix;

// Escapes JSON text for the single-quoted literal: backslashes first, then apostrophes.
std::string escapeForScriptLiteral(std::string_view json);
// The whole script for one encoded envelope.
std::string buildEventScript(std::string_view envelopeJson);
// The envelope JSON back out of a script built above, or nullopt (headless host).
std::optional<std::string> envelopeFromEventScript(std::string_view script);

// Where an inbound message goes. Types are compared whole and case-sensitively;
// anything not listed has no route and is ignored.
enum class MessageRoute {
    Terminal,
    Project,
    GitHubOAuth,
    Git,
    PreviewTabs,
    DashboardPresent,
    DashboardDismiss,
    AppConfigRequest,
    Analytics,
};
std::optional<MessageRoute> routeForMessageType(std::string_view type);

class WebBridge final : public EventDispatching, public std::enable_shared_from_this<WebBridge> {
public:
    using EventObserver = std::function<void(const std::string& type, const std::string& payloadJson)>;

    explicit WebBridge(std::shared_ptr<ExplorerService> explorerService = nullptr);
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
    void dispatchOAuthStatus();

    // --- collaborators, assigned by the composition root ---
    void setConfigStore(std::weak_ptr<ConfigStore> store) { m_configStore = std::move(store); }
    void setFolderPicker(std::shared_ptr<FolderPicking> picker) { m_folderPicker = std::move(picker); }
    void setTerminalService(std::weak_ptr<TerminalService> service) { m_terminalService = std::move(service); }
    void setGitService(std::weak_ptr<GitService> service) { m_gitService = std::move(service); }
    void setEventObserver(EventObserver observer) { m_eventObserver = std::move(observer); }

    const std::optional<Uuid>& activeProjectID() const { return m_activeProjectID; }
    void setActiveProjectID(std::optional<Uuid> id) { m_activeProjectID = std::move(id); }

    // --- calls of the composition root into subsystems (main thread) ---
    void activateExplorerMonitoring(const std::optional<Uuid>& projectID);  // WebBridgeFiles.cpp
    void stopExplorerMonitoring();                                          // WebBridgeFiles.cpp
    void dispatchPreviewTabs(const std::optional<Uuid>& projectID);         // WebBridgePreview.cpp
    void refreshGitStatus(const std::optional<Uuid>& projectID);            // WebBridgeGit.cpp
    void terminateTerminalSessions(const std::vector<Uuid>& ids);            // WebBridgeTerminal.cpp

    // The serial queue of file work ("app.velko.webbridge.fs").
    SerialQueue& fileQueue() { return *m_fileQueue; }

private:
    void deliver(std::string script, std::function<void()> onDelivered);
    void flushPendingScripts();
    void handleAppConfigRequest();

    // --- projects (WebBridgeProjects.cpp) ---
    void handleProjectMessage(std::string_view type, const Json& body);
    void openProjectsFromPicker();
    void closeProject(const Uuid& id);
    void activateProject(const Uuid& id);
    void resumeProjects();
    void reorderProjects(const Json& order);

    // --- terminal (WebBridgeTerminal.cpp) ---
    void handleTerminalMessage(std::string_view type, const Json* payload);

    // --- files and explorer (WebBridgeFiles.cpp) ---
    void handleExplorerDirectoriesRequest(const Json* payload);
    void handleFileOpen(const Json* payload);
    void handleFileSave(const Json* payload);
    void handleFileRename(const Json* payload);
    // The project's folder, if the project is known and the folder is there (main thread).
    std::optional<std::string> projectRootForFiles(const Uuid& projectId) const;

    // --- git (WebBridgeGit.cpp) ---
    void handleGitMessage(std::string_view type, const Json* payload);

    // --- GitHub account (WebBridgeOAuth.cpp) ---
    void handleGitHubOAuthMessage(std::string_view type);

    // --- preview tabs, dashboard, analytics (WebBridgePreview.cpp) ---
    void handlePreviewTabsMessage(std::string_view type, const Json* payload);
    void handleDashboardPresent(const Json* payload);
    void handleDashboardDismiss();
    void handleAnalyticsEvent(const Json* payload);

    std::optional<Uuid> m_activeProjectID;
    std::weak_ptr<WebViewHosting> m_webView;
    bool m_isWebViewReady = false;
    std::weak_ptr<TerminalService> m_terminalService;
    std::weak_ptr<GitService> m_gitService;
    std::weak_ptr<ConfigStore> m_configStore;
    std::shared_ptr<FolderPicking> m_folderPicker;
    struct PendingScript {
        std::string script;
        std::function<void()> onDelivered;
    };
    std::vector<PendingScript> m_pendingScripts;
    std::optional<AppConfig> m_cachedConfig;
    std::unique_ptr<SerialQueue> m_fileQueue;
    std::shared_ptr<ExplorerService> m_explorerService;
    std::optional<Uuid> m_monitoredExplorerProjectID;
    EventObserver m_eventObserver;
};

}  // namespace velko
