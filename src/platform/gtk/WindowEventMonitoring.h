#pragma once
// WindowEventMonitoring: the command centre's monitors over the window's
// capture-phase controllers. The window hands each key press and horizontal
// swipe in; every installed monitor sees it, in the order installed.
//
// Main thread only. Owned by the window; the command centre holds it weakly.

#include <functional>
#include <map>

#include "shell/InputCommandCenter.h"

namespace velko {

class WindowEventMonitoring final : public EventMonitoring {
public:
    std::optional<MonitorHandle> installKeyDownMonitor(std::function<bool(const KeyPress&)> handler) override;
    std::optional<MonitorHandle> installSwipeMonitor(std::function<void(double)> handler) override;
    void removeMonitor(MonitorHandle handle) override;

    // True when a monitor consumed the key.
    bool keyDown(const KeyPress& press);
    void swipe(double deltaX);

private:
    MonitorHandle m_next = 0;
    std::map<MonitorHandle, std::function<bool(const KeyPress&)>> m_keys;
    std::map<MonitorHandle, std::function<void(double)>> m_swipes;
};

}  // namespace velko
