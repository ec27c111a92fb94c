#include "shell/VelkoApp.h"

#include "core/SerialQueue.h"
#include "core/TaskQueue.h"
#include "files/ExplorerService.h"
#include "git/GitService.h"
#include "shell/ContentView.h"
#include "shell/GestureBridge.h"
#include "shell/InputCommandCenter.h"
#include "shell/NativeTerminalInput.h"
#include "shell/WebBridge.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/TerminalCoordinator.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalReaper.h"
#include "terminal/TerminalService.h"
#include "workspace/ConfigStore.h"

namespace velko {

VelkoApp::VelkoApp(Options options) {
    // The file is not read here: the store holds the samples until the window appears.
    m_configStore = std::make_shared<ConfigStore>(options.storageDirectory);

    // --- files: the explorer service is built before the bridge that owns it ---
    m_explorerService = std::make_shared<ExplorerService>();

    m_bridge = std::make_shared<WebBridge>(m_explorerService);

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
        m_bridge->setTerminalService(m_terminalService);
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
        m_bridge->setGitService(m_gitService);
    }

    m_bridge->setConfigStore(m_configStore);
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

    // --- git: a commit or push in flight finishes before the files step ---
    if (!m_gitService) return files();
    m_gitService->whenIdle([files = std::move(files)] { runOnMain(files); });
}

}  // namespace velko
