#include "shell/VelkoApp.h"

#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/TaskQueue.h"
#include "files/ExplorerService.h"
#include "git/GitService.h"
#include "github/GitHubEndpoints.h"
#include "platform/http/CurlHttpClient.h"
#include "input/NativeTerminalInput.h"
#include "shell/ContentView.h"
#include "shell/GestureBridge.h"
#include "shell/InputCommandCenter.h"
#include "shell/ServiceAdapters.h"
#include "shell/WebBridge.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/TerminalCoordinator.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalReaper.h"
#include "terminal/TerminalService.h"
#include "workspace/ConfigStore.h"

namespace velko {

namespace {
// How long queued git work, history pages asking GitHub included, may still
// run once quitting has begun; the stop's grace follows within the deadline.
constexpr auto kGitPatience = std::chrono::seconds(2);
}  // namespace

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

    m_http = std::make_shared<CurlHttpClient>();

    // --- git: runner, credential broker, service ---
    {
        const GitHubEndpoints endpoints = GitHubEndpoints::fromEnvironment();
        GitService::Dependencies git;
        git.gitHubWebHost = endpoints.webHost();
        git.http = m_http;
        git.graphqlURL = endpoints.graphqlURL();
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
    m_pinchDispatcher = std::make_shared<ColumnPinchDispatcher>(m_bridge);
    m_gestureBridge->setDelegate(m_pinchDispatcher);
    m_commandCenter = std::make_shared<InputCommandCenter>();
    m_commandCenter->onNextProject = [view] {
        if (auto v = view.lock()) v->moveToNextProject();
    };
    m_commandCenter->onPreviousProject = [view] {
        if (auto v = view.lock()) v->moveToPreviousProject();
    };
    m_nativeTerminalTarget = terminalServiceTarget(m_terminalService);
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
    if (!m_gitService) return files();
    auto once = std::make_shared<std::function<void()>>(std::move(files));
    auto next = [once] {  // main thread only, so a plain flag decides
        if (!*once) return;
        auto go = std::move(*once);
        *once = nullptr;
        go();
    };
    std::weak_ptr<GitService> git = m_gitService;
    m_gitService->whenIdle([next] { runOnMain(next); });
    mainQueue().postDelayed(kGitPatience, [git, http = m_http, next] {
        // Requests to GitHub in flight end with the client.
        if (http) http->cancelAll();
        auto service = git.lock();
        if (!service) return next();
        service->stop(GitService::kStopGrace, [next] { runOnMain(next); });
    });
}

}  // namespace velko
