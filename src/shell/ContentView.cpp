#include "shell/ContentView.h"

#include "core/Json.h"
#include "shell/WebBridge.h"
#include "workspace/ConfigStore.h"

namespace velko {

ContentView::ContentView(std::shared_ptr<WebBridge> bridge, std::shared_ptr<ConfigStore> configStore)
    : m_bridge(bridge), m_configStore(configStore) {}

void ContentView::bootstrap() {
    auto store = m_configStore.lock();
    if (!store) return;
    (void)store->bootstrap();  // a failure leaves the in-memory value in force
    applyConfiguration(store->config());
    if (afterBootstrap) afterBootstrap();
    if (auto bridge = m_bridge.lock()) bridge->refreshGitStatus(store->config().activeProjectID);
}

void ContentView::applyConfiguration(const AppConfig& config) {
    auto bridge = m_bridge.lock();
    if (!bridge) return;
    std::optional<Uuid> target = config.activeProjectID;
    if (!target && !config.projects.empty()) target = config.projects.front().id;
    bridge->updateConfigSnapshot(config);
    if (!target) {
        m_activeProjectID.reset();
        return;
    }
    if (target == m_activeProjectID) return;
    const ProjectMetadata* project = config.project(*target);
    if (!project) return;
    m_activeProjectID = target;
    performActivation(*project);
}

void ContentView::performActivation(const ProjectMetadata& project) {
    auto bridge = m_bridge.lock();
    if (!bridge) return;
    bridge->setActiveProjectID(project.id);
    bridge->activateExplorerMonitoring(project.id);
    bridge->dispatchEvent("project/activate", OrderedJson{{"id", project.id.toString()},
                                                          {"name", project.name},
                                                          {"rootPath", project.rootPath}});
    bridge->dispatchPreviewTabs(project.id);
    bridge->refreshGitStatus(project.id);
}

void ContentView::moveToNextProject() {
    auto store = m_configStore.lock();
    if (!store) return;
    if (auto next = store->nextProject(m_activeProjectID)) setActiveProject(*next);
}

void ContentView::moveToPreviousProject() {
    auto store = m_configStore.lock();
    if (!store) return;
    if (auto previous = store->previousProject(m_activeProjectID)) setActiveProject(*previous);
}

void ContentView::setActiveProject(const ProjectMetadata& project) {
    // First, so that the store's publication below does not activate a second time.
    m_activeProjectID = project.id;
    if (auto store = m_configStore.lock()) store->setActiveProject(project.id);
    performActivation(project);
}

}  // namespace velko
