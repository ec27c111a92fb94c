#include "shell/VelkoApp.h"

#include "core/Environment.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/TaskQueue.h"
#include "files/ExplorerService.h"
#include "git/GitService.h"
#include "input/NativeTerminalInput.h"
#include "preview/PreviewTabsPersistenceService.h"
#include "shell/AppBundleSchemeHandler.h"
#include "shell/ContentView.h"
#include "shell/GestureBridge.h"
#include "shell/InputCommandCenter.h"
#include "shell/ServiceAdapters.h"
#include "shell/WebBridge.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/TerminalCoordinator.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalProcess.h"
#include "terminal/TerminalService.h"
#include "telemetry/AnalyticsLogger.h"
#include "telemetry/SystemMetricsService.h"
#include "updater/Updater.h"
#include "workspace/ConfigStore.h"

#include <thread>

namespace velko {

VelkoApp::VelkoApp() : VelkoApp(Options{}) {}

VelkoApp::VelkoApp(Options options) {
    // The file is not read here: the store holds the samples until the window appears.
    m_configStore = std::make_shared<ConfigStore>(options.storageDirectory);

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
        GitService::Dependencies git;
        git.configProvider = m_configStore;
        // No account manager yet: GitHub HTTPS remotes ask the user to sign in.
        git.authProvider = std::make_shared<NoGitAuthProvider>();
        git.credentialBroker = std::make_shared<GitCredentialBroker>();
        git.processRunner = std::make_shared<ProcessGitProcessRunner>();
        m_gitService = std::make_shared<GitService>(std::move(git));
        m_gitService->setEventSink(m_bridge);
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
    // No account manager yet: the status of no stored token waits in the queue.
    m_bridge->dispatchOAuthStatus();

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
    if (options.http && resources) {
        if (auto settings = resolveUpdaterSettings(readBundleInfo(*resources), environmentValue)) {
            m_updater = std::make_shared<Updater>(Updater::Dependencies{.settings = std::move(*settings),
                                                                        .http = options.http,
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

VelkoApp::~VelkoApp() = default;

void VelkoApp::contentDidAppear() { m_contentView->bootstrap(); }

void VelkoApp::shutdown(std::function<void()> done) {
    // --- terminal: end every session ---
    // Shells get their hang-up now; a helper thread waits (bounded) until the
    // monitors reaped them, so no zsh outlives the program and the main thread never blocks.
    if (m_terminalService) m_terminalService->shutdown();
    done = [done = std::move(done)]() mutable {
        auto shared = std::make_shared<std::function<void()>>(std::move(done));
        std::thread([shared] {
            (void)TerminalProcess::waitForAbandonedChildren(TerminalProcess::kAbandonGracePeriod +
                                                            std::chrono::seconds(1));
            mainQueue().post([shared] { (*shared)(); });
        }).detach();
    };

    // --- git: a commit or push in flight finishes before the files step ---
    if (m_gitService) {
        auto next = std::move(done);
        done = [git = std::weak_ptr<GitService>(m_gitService), next = std::move(next)]() mutable {
            auto service = git.lock();
            if (!service) return next();
            service->whenIdle([next = std::move(next)]() mutable { runOnMain(std::move(next)); });
        };
    }

    // Work already queued for files finishes first; monitoring ends with it,
    // so no change batch goes out while the program exits.
    std::weak_ptr<WebBridge> bridge = m_bridge;
    m_bridge->fileQueue().post([bridge, done = std::move(done)]() mutable {
        runOnMain([bridge, done = std::move(done)] {
            if (auto self = bridge.lock()) self->stopExplorerMonitoring();
            done();
        });
    });
}

}  // namespace velko
