#include "shell/VelkoApp.h"

#include "core/Environment.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/Log.h"
#include "core/TaskQueue.h"
#include "dashboard/DashboardController.h"
#include "files/ExplorerService.h"
#include "git/GitService.h"
#include "github/GitAuthManager.h"
#include "github/GitHubOAuthCoordinator.h"
#include "github/GitHubOAuthEnvironment.h"
#include "github/GitTokenRefresher.h"
#include "input/NativeTerminalInput.h"
#include "platform/http/CurlHttpClient.h"
#include "preview/PreviewTabsPersistenceService.h"
#include "shell/AppBundleSchemeHandler.h"
#include "shell/ContentView.h"
#include "shell/GestureBridge.h"
#include "shell/InputCommandCenter.h"
#include "shell/ServiceAdapters.h"
#include "shell/WebBridge.h"
#include "telemetry/SecurityEventLogger.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/TerminalCoordinator.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalReaper.h"
#include "terminal/TerminalService.h"
#include "telemetry/AnalyticsLogger.h"
#include "telemetry/SystemMetricsService.h"
#include "updater/Updater.h"
#include "workspace/ConfigStore.h"


namespace velko {

namespace {
// "github.com", "127.0.0.1:8080", "[::1]:8080" → the host as git remote URLs are compared by.
std::string hostWithoutPort(const std::string& hostPort) {
    if (!hostPort.empty() && hostPort.front() == '[') return hostPort.substr(0, hostPort.find(']') + 1);
    return hostPort.substr(0, hostPort.find(':'));
}
// How long queued git work, history pages asking GitHub included, may still
// run once quitting has begun; the stop's grace follows within the deadline.
constexpr auto kGitPatience = std::chrono::seconds(2);
}  // namespace

VelkoApp::VelkoApp() : VelkoApp(Options{}) {}
VelkoApp::VelkoApp(Options options) {
    // The file is not read here: the store holds the samples until the window appears.
    m_configStore = std::make_shared<ConfigStore>(options.storageDirectory);

    // --- GitHub account: the token store, before the git service that reads it ---
    const GitHubEndpoints endpoints = GitHubEndpoints::fromEnvironment();
    {
        auto keychain = options.keychain;
        if (!keychain) {
            auto none = std::make_shared<MemoryKeychainStore>();
            none->failure = OAuthError::secretServiceUnavailable;
            keychain = none;
        }
        m_authManager = std::make_shared<GitAuthManager>(std::move(keychain));
    }

    // --- files: the explorer service is built before the bridge that owns it ---
    m_explorerService = std::make_shared<ExplorerService>();

    WebBridge::Collaborators bridgeCollaborators;
    bridgeCollaborators.explorer = makeExplorerMonitoring(m_explorerService);
    bridgeCollaborators.files = makeDiskProjectFiles(homeDirectory());
    m_bridge = std::make_shared<WebBridge>(std::move(bridgeCollaborators));

    // --- terminal: coordinator and service, first snapshot into the pending queue ---
    {
        TerminalCoordinator::Options terminalOptions;
        terminalOptions.logger = TerminalLogger::create();
        terminalOptions.dumpStore = TerminalDebugDumpStore::create();
        m_terminalReaper = std::make_shared<TerminalReaper>();
        terminalOptions.reaper = m_terminalReaper;
        auto coordinator = std::make_shared<TerminalCoordinator>(std::move(terminalOptions));
        m_terminalService =
            TerminalService::create(m_configStore, coordinator, std::make_shared<CodexShimInstaller>());
        m_terminalService->setBridge(m_bridge);
        m_terminalService->dispatchSnapshot(m_configStore->config().cliSessions,
                                            m_terminalService->isTerminalV2Enabled());
        m_terminalMessages = makeTerminalMessageHandling(m_terminalService);
        m_bridge->setTerminalService(m_terminalMessages);
    }

    // --- git: runner, credential broker, service ---
    {
        // One HTTP client for everything that asks GitHub: history and graph here,
        // languages, the account and the update check below.
        m_http = std::make_shared<CurlHttpClient>();
        GitService::Dependencies git;
        git.http = m_http;
        git.graphqlURL = endpoints.graphqlURL();
        git.configProvider = m_configStore;
        m_gitAuth = m_authManager;
        git.authProvider = m_gitAuth;
        git.credentialBroker = std::make_shared<GitCredentialBroker>();
        git.processRunner = std::make_shared<ProcessGitProcessRunner>();
        git.gitHubWebHost = hostWithoutPort(endpoints.webHost());
        m_gitService = std::make_shared<GitService>(std::move(git));
        m_gitEventSink = makeGitEventSink(m_bridge);
        m_gitService->setEventSink(m_gitEventSink);
        m_gitOperations = makeGitOperating(m_gitService);
        m_bridge->setGitService(m_gitOperations);
    }

    // --- preview tabs, analytics: the database is read once, here ---
    m_previewTabsService = std::make_shared<PreviewTabsPersistenceService>(
        PreviewTabsPersistenceService::Options{.storageDirectory = options.storageDirectory});
    m_analyticsLogger = std::make_shared<AnalyticsLogger>();
    m_bridge->setPreviewTabsService(m_previewTabsService);
    m_bridge->setAnalyticsLogger(m_analyticsLogger);

    m_projectStore = makeProjectStoring(m_configStore);
    m_bridge->setProjectStore(m_projectStore);

    // --- dashboard: languages over the shared HTTP client and token, metrics, controller ---
    {
        auto runner = std::make_shared<ProcessGitProcessRunner>();
        auto languages = std::make_shared<DashboardLanguagesProvider>(DashboardLanguagesProvider::Dependencies{
            .authProvider = m_gitAuth,
            .processRunner = runner,
            .session = m_http,
            .endpoints = endpoints,
            .homePath = homeDirectory(),
        });
        DashboardMetricsService::Dependencies metrics;
        metrics.projectProvider = makeDashboardProjectProvider(m_configStore);
        metrics.languagesProvider = languages;
        metrics.processRunner = runner;
        metrics.analyticsLogger = m_analyticsLogger;
        metrics.homePath = homeDirectory();
        m_dashboardMetrics = std::make_shared<DashboardMetricsService>(std::move(metrics));
        m_dashboardController =
            std::make_shared<DashboardController>(m_dashboardMetrics, m_bridge, m_analyticsLogger);
        m_bridge->setDashboardController(m_dashboardController);
    }

    // --- GitHub account: status, security log, sign-in and refresh ---
    {
        m_bridge->setAuthManager(m_authManager);
        m_bridge->dispatchOAuthStatus();
        m_securityLogger = SecurityEventLogger::create();
        m_bridge->setSecurityLogger(m_securityLogger);
        // Without a client id the account has no sign-in: the status still
        // follows the stored token.
        auto environment = GitHubOAuthEnvironment::fromProcess(options.resourceDirectory);
        if (environment) {
            HttpGitHubOAuthClient::Settings settings{endpoints, environment->clientID, environment->clientSecret,
                                                     environment->redirectURI};
            auto client = std::make_shared<HttpGitHubOAuthClient>(std::move(settings), m_http);
            m_refreshQueue = std::make_shared<SerialQueue>("app.velko.oauth-refresh");
            m_oauthQueue = std::make_shared<SerialQueue>("app.velko.oauth");
            m_tokenRefresher = std::make_shared<GitTokenRefresher>(
                m_authManager, client, std::make_shared<QueueRefreshScheduler>(m_refreshQueue));
            GitHubOAuthCoordinator::Collaborators collaborators;
            collaborators.authManager = m_authManager;
            collaborators.httpClient = client;
            collaborators.tokenRefresher = m_tokenRefresher;
            std::shared_ptr<OAuthSessionFactory> sessions = options.oauthSessions;
            if (!sessions) sessions = std::make_shared<NoopOAuthSessionFactory>();
            collaborators.sessionFactory = sessions;
            collaborators.worker = m_oauthQueue;
            m_oauthCoordinator = std::make_shared<GitHubOAuthCoordinator>(
                GitHubOAuthCoordinator::Configuration{environment->clientID, environment->redirectURI,
                                                      environment->scopes, endpoints},
                std::move(collaborators));
            std::weak_ptr<GitHubOAuthCoordinator> coordinator = m_oauthCoordinator;
            sessions->setUnclaimedRedirectHandler([coordinator](const std::string& url) {
                if (auto c = coordinator.lock()) c->receiveCallback(url);
            });
            m_bridge->attach(m_oauthCoordinator, m_tokenRefresher);
            auto record = m_authManager->loadRecord();
            if (record && !record->refreshToken.empty()) m_tokenRefresher->start();
        }
    }

    m_contentView = std::make_shared<ContentView>(m_bridge, m_configStore);
    std::weak_ptr<ContentView> view = m_contentView;
    m_configStore->subscribe([view](const AppConfig& config) {
        if (auto v = view.lock()) v->applyConfiguration(config);
    });

    // --- terminal: wiring that needs the content view (first snapshot after bootstrap) ---
    {
        std::weak_ptr<TerminalService> terminal = m_terminalService;
        m_contentView->afterBootstrap = [terminal] {
            if (auto service = terminal.lock()) service->bootstrapIfNeeded();
        };
    }

    // --- desktop: command center, gestures ---
    m_gestureBridge = std::make_shared<GestureBridge>();
    m_pinchDispatcher = std::make_shared<ColumnPinchDispatcher>(m_bridge, m_analyticsLogger);
    m_gestureBridge->setDelegate(m_pinchDispatcher);
    m_commandCenter = std::make_shared<InputCommandCenter>();
    m_commandCenter->onNextProject = [view] {
        if (auto v = view.lock()) v->moveToNextProject();
    };
    m_commandCenter->onPreviousProject = [view] {
        if (auto v = view.lock()) v->moveToPreviousProject();
    };
    m_nativeTerminalTarget = terminalServiceTarget(m_terminalService);

    // --- telemetry: the first metrics wait in the pending queue, then every 5 s ---
    m_systemMetricsService = std::make_shared<SystemMetricsService>(m_bridge, SystemMetricsService::Options{});
    m_systemMetricsService->start();

    // --- updates: only with a public key and a feed; the launch probe is silent ---
    auto resources = options.resourceDirectory;
    if (!resources) {
        if (auto exe = executablePath()) resources = locateResourceDirectory(*exe);
    }
    if (resources) {
        if (auto settings = resolveUpdaterSettings(readBundleInfo(*resources), environmentValue)) {
            m_updater = std::make_shared<Updater>(Updater::Dependencies{.settings = std::move(*settings),
                                                                        .http = m_http,
                                                                        .presenter = options.updatePresenter});
            m_updater->probe();
        }
    }
}

void VelkoApp::checkForUpdates() {
    if (m_updater) m_updater->checkForUpdates();
}

void VelkoApp::setInputSources(std::shared_ptr<InputSourceServicing> sources) {
    if (!sources) {
        m_nativeTerminalInput.reset();
        m_commandCenter->setNativeKeyHandler({});
        return;
    }
    m_nativeTerminalInput = std::make_shared<NativeTerminalInput>(m_nativeTerminalTarget, std::move(sources));
    m_commandCenter->setNativeKeyHandler(m_nativeTerminalInput);
}

VelkoApp::~VelkoApp() {
    // A service given up at exit may still hold the store: its saves land now.
    if (m_configStore) m_configStore->waitForSaves();
}

void VelkoApp::contentDidAppear() { m_contentView->bootstrap(); }

void VelkoApp::shutdown(std::function<void()> done) {
    // Two roads run side by side, terminals and git-then-files; `done` follows
    // the later one, or the deadline: nothing that refuses to end holds the
    // window, and the destructors end what is still running then.
    struct Pending {
        int roads = 2;
        std::function<void()> done;
        void finish() {
            if (!done) return;
            auto callback = std::move(done);
            done = nullptr;
            callback();
        }
        void arrive() {
            if (--roads == 0) finish();
        }
    };
    auto pending = std::make_shared<Pending>();
    pending->done = std::move(done);
    mainQueue().postDelayed(kShutdownDeadline, [pending] { pending->finish(); });
    auto arrive = [pending] { runOnMain([pending] { pending->arrive(); }); };

    // --- terminal: end every session ---
    // Shells get their hang-up and SIGTERM now; the reaper kills those still
    // there after the grace period, so no zsh outlives the program.
    if (m_terminalService) m_terminalService->shutdown();
    if (m_terminalReaper) m_terminalReaper->endAll(kShellGracePeriod, arrive);
    else arrive();

    // Work already queued for files finishes first; monitoring ends with it,
    // so no change batch goes out while the program exits.
    std::weak_ptr<WebBridge> bridge = m_bridge;
    std::function<void()> files = [bridge, arrive] {
        auto self = bridge.lock();
        if (!self) return arrive();
        self->fileQueue().post([bridge, arrive] {
            runOnMain([bridge, arrive] {
                if (auto self = bridge.lock()) self->stopExplorerMonitoring();
                arrive();
            });
        });
    };

    // --- git: queued work gets a moment to answer (a script's last messages),
    // then the engine stops: what is still queued is dropped and a git that
    // hangs (a fetch from a silent server) is ended, TERM then KILL; the files
    // step follows whichever comes first ---
    // Requests to GitHub in flight (languages, an update check, history pages)
    // end with the git engine's patience rather than at their time limits.
    auto cancelRequests = [http = m_http] {
        if (http) http->cancelAll();
    };
    if (!m_gitService) {
        cancelRequests();
        return files();
    }
    auto once = std::make_shared<std::function<void()>>(std::move(files));
    auto next = [once] {  // main thread only, so a plain flag decides
        if (!*once) return;
        auto go = std::move(*once);
        *once = nullptr;
        go();
    };
    std::weak_ptr<GitService> git = m_gitService;
    m_gitService->whenIdle([next] { runOnMain(next); });
    mainQueue().postDelayed(kGitPatience, [git, next, cancelRequests] {
        cancelRequests();
        auto service = git.lock();
        if (!service) return next();
        service->stop(GitService::kStopGrace, [next] { runOnMain(next); });
    });
}

}  // namespace velko
