#include "platform/gtk/WindowEventMonitoring.h"

namespace velko {

std::optional<EventMonitoring::MonitorHandle> WindowEventMonitoring::installKeyDownMonitor(
    std::function<bool(const KeyPress&)> handler) {
    m_keys[++m_next] = std::move(handler);
    return m_next;
}

std::optional<EventMonitoring::MonitorHandle> WindowEventMonitoring::installSwipeMonitor(
    std::function<void(double)> handler) {
    m_swipes[++m_next] = std::move(handler);
    return m_next;
}

void WindowEventMonitoring::removeMonitor(MonitorHandle handle) {
    m_keys.erase(handle);
    m_swipes.erase(handle);
}

bool WindowEventMonitoring::keyDown(const KeyPress& press) {
    auto keys = m_keys;  // a handler may remove monitors
    for (auto& [handle, handler] : keys)
        if (handler(press)) return true;
    return false;
}

void WindowEventMonitoring::swipe(double deltaX) {
    auto swipes = m_swipes;
    for (auto& [handle, handler] : swipes) handler(deltaX);
}

}  // namespace velko
