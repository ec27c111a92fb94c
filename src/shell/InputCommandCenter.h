#pragma once
// InputCommandCenter: sees the program's input before the web view does.
//
// Key presses go first to the native terminal input (when a handler is set;
// it may consume them), then to the window's key commands: project switching
// (Ctrl+Alt+Right / Ctrl+Alt+Left), page zoom (Ctrl with =, -, 0, ;, and the
// keypad's +, -, 0), which reaches the page as synthetic key events because
// the page zooms itself, and reloading the page (Ctrl+Shift+R). A horizontal
// swipe switches projects too. Ctrl plays the role the Command key has on
// other desktops, Alt that of Option.
//
// Keys arrive as GDK keyvals with our own modifier flags (input/KeyPress.h),
// so this file needs no toolkit header; the key tables are in input/KeyTable.h.
//
// Main thread only. Owned by the composition root; the platform installs the
// monitors through EventMonitoring.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "input/KeyTable.h"

namespace velko {

// The script that replays a zoom key in the page as keydown and keyup.
std::string syntheticKeyScript(const SyntheticKey& key);

// The script that hands dropped files to the page ("velko:native-drop").
// nullopt when no path is left after standardising.
std::optional<std::string> nativeDropScript(const std::vector<std::string>& paths, double timestamp);

// Application-wide monitors: each sees its kind of event on the main thread
// before the normal dispatch.
class EventMonitoring {
public:
    using MonitorHandle = int;
    virtual ~EventMonitoring() = default;
    // The handler answers true to consume the key.
    virtual std::optional<MonitorHandle> installKeyDownMonitor(std::function<bool(const KeyPress&)> handler) = 0;
    // Horizontal delta of a swipe; the event always passes on.
    virtual std::optional<MonitorHandle> installSwipeMonitor(std::function<void(double deltaX)> handler) = 0;
    virtual void removeMonitor(MonitorHandle handle) = 0;
};

class InputCommandCenter : public std::enable_shared_from_this<InputCommandCenter> {
public:
    std::function<void()> onNextProject;
    std::function<void()> onPreviousProject;
    std::function<void(const SyntheticKey&)> onZoomShortcut;
    std::function<void()> onReloadPage;

    void setEventMonitoring(std::weak_ptr<EventMonitoring> monitoring) { m_monitoring = std::move(monitoring); }
    void setNativeKeyHandler(std::weak_ptr<NativeKeyHandling> handler) { m_nativeKeys = std::move(handler); }

    // Installs the key-down and swipe monitors; a second call does nothing.
    void activateGestureMonitoring();
    void deactivateGestureMonitoring();
    bool isMonitoring() const { return !m_monitors.empty(); }

    // True when the key was consumed (the web view must not see it).
    bool handleKeyDown(const KeyPress& press);
    void handleSwipe(double deltaX);

private:
    std::weak_ptr<EventMonitoring> m_monitoring;
    std::weak_ptr<NativeKeyHandling> m_nativeKeys;
    // A slot stays even when installing yielded no handle.
    std::vector<std::optional<EventMonitoring::MonitorHandle>> m_monitors;
};

}  // namespace velko
