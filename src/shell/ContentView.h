#pragma once
// ContentView: the window's root logic, free of toolkit types. It loads the
// configuration when the window first appears, turns every published
// configuration into an "app/config" snapshot and, when the active project
// changed, into a project activation; and it switches projects for the menu.
//
// Main thread only. Owned by the composition root.

#include <functional>
#include <memory>
#include <optional>

#include "core/Uuid.h"
#include "workspace/Models.h"

namespace velko {

class WebBridge;
class ConfigStore;

class ContentView {
public:
    ContentView(std::shared_ptr<WebBridge> bridge, std::shared_ptr<ConfigStore> configStore);

    // Called once when the window's content first appears (at start in the
    // headless host): reads the configuration file and applies it.
    void bootstrap();
    void applyConfiguration(const AppConfig& config);
    void moveToNextProject();
    void moveToPreviousProject();

    const std::optional<Uuid>& activeProjectID() const { return m_activeProjectID; }

    // Runs after the first configuration was applied (the terminal service's
    // first snapshot goes out here).
    std::function<void()> afterBootstrap;

private:
    void setActiveProject(const ProjectMetadata& project);
    void performActivation(const ProjectMetadata& project);

    std::weak_ptr<WebBridge> m_bridge;
    std::weak_ptr<ConfigStore> m_configStore;
    std::optional<Uuid> m_activeProjectID;
};

}  // namespace velko
