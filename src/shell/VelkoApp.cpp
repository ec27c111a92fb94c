#include "shell/VelkoApp.h"

#include "core/SerialQueue.h"
#include "core/TaskQueue.h"
#include "shell/ContentView.h"
#include "shell/GestureBridge.h"
#include "shell/InputCommandCenter.h"
#include "shell/WebBridge.h"
#include "workspace/ConfigStore.h"

namespace velko {

VelkoApp::VelkoApp(Options options) {
    // The file is not read here: the store holds the samples until the window appears.
    m_configStore = std::make_shared<ConfigStore>(options.storageDirectory);

    // --- files: the explorer service is built before the bridge that owns it ---

    m_bridge = std::make_shared<WebBridge>(m_explorerService);

    // --- terminal: coordinator and service, first snapshot into the pending queue ---

    // --- git: runner, credential broker, service ---

    m_bridge->setConfigStore(m_configStore);
    // No account manager yet: the status of no stored token waits in the queue.
    m_bridge->dispatchOAuthStatus();

    m_contentView = std::make_shared<ContentView>(m_bridge, m_configStore);
    std::weak_ptr<ContentView> view = m_contentView;
    m_configStore->subscribe([view](const AppConfig& config) {
        if (auto v = view.lock()) v->applyConfiguration(config);
    });

    // --- terminal: wiring that needs the content view (first snapshot after bootstrap) ---

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
}

VelkoApp::~VelkoApp() = default;

void VelkoApp::contentDidAppear() { m_contentView->bootstrap(); }

void VelkoApp::shutdown(std::function<void()> done) {
    // --- terminal: end every session ---

    // Work already queued for files finishes first; then the host may exit.
    std::weak_ptr<WebBridge> bridge = m_bridge;
    m_bridge->fileQueue().post([bridge, done = std::move(done)]() mutable {
        runOnMain([done = std::move(done)] { done(); });
    });
}

}  // namespace velko
