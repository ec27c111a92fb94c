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
// Keys arrive as GDK keyvals with our own modifier flags, so this file needs
// no toolkit header; the one table below maps the physical key codes that the
// page's conventions are written in onto keyvals.
//
// Main thread only. Owned by the composition root; the platform installs the
// monitors through EventMonitoring.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velko {

enum KeyModifier : uint32_t {
    kModifierShift = 1u << 0,
    kModifierControl = 1u << 1,
    kModifierAlt = 1u << 2,
    kModifierSuper = 1u << 3,
};

struct KeyPress {
    uint32_t keyval = 0;     // GDK keyval (an X keysym)
    uint32_t modifiers = 0;  // KeyModifier flags
    std::string text;        // the characters the key produces, UTF-8 (may be empty)
};

// Physical keys of the conventional key-code table, by the code the page and
// its shortcuts are documented with.
namespace MacKeyCode {
inline constexpr int kEqual = 24;
inline constexpr int kMinus = 27;
inline constexpr int kDigit0 = 29;
inline constexpr int kSemicolon = 41;
inline constexpr int kNumpadAdd = 69;
inline constexpr int kNumpadSubtract = 78;
inline constexpr int kNumpad0 = 82;
inline constexpr int kEisu = 102;
inline constexpr int kKana = 104;
inline constexpr int kR = 15;
inline constexpr int kLeftArrow = 123;
inline constexpr int kRightArrow = 124;
}  // namespace MacKeyCode

// GDK keyvals used by the table (checked against gdkkeysyms.h where GTK is built).
namespace Keyval {
inline constexpr uint32_t kEqual = 0x03d, kPlus = 0x02b, kMinus = 0x02d, kUnderscore = 0x05f;
inline constexpr uint32_t k0 = 0x030, kParenRight = 0x029, kSemicolon = 0x03b, kColon = 0x03a;
inline constexpr uint32_t kLowerR = 0x072, kUpperR = 0x052;
inline constexpr uint32_t kKPAdd = 0xffab, kKPSubtract = 0xffad, kKP0 = 0xffb0, kKPInsert = 0xff9e;
inline constexpr uint32_t kLeft = 0xff51, kRight = 0xff53, kKPLeft = 0xff96, kKPRight = 0xff98;
inline constexpr uint32_t kEisuToggle = 0xff30, kMuhenkan = 0xff22;
inline constexpr uint32_t kHiraganaKatakana = 0xff27, kHenkanMode = 0xff23;
}  // namespace Keyval

// The physical key a keyval comes from (with or without Shift), or nullopt.
std::optional<int> macKeyCodeForKeyval(uint32_t keyval);

struct SyntheticKey {
    std::string key;
    std::string code;
    bool shift = false;
    bool operator==(const SyntheticKey&) const = default;
};

// The page-side zoom key for Ctrl (without Alt) and a zoom key, else nullopt.
std::optional<SyntheticKey> zoomShortcut(const KeyPress& press);
// The script that replays a zoom key in the page as keydown and keyup.
std::string syntheticKeyScript(const SyntheticKey& key);

// The script that hands dropped files to the page ("velko:native-drop").
// nullopt when no path is left after standardising.
std::optional<std::string> nativeDropScript(const std::vector<std::string>& paths, double timestamp);

enum class KeyCommand { None, NextProject, PreviousProject, Zoom, ReloadPage };
KeyCommand commandForKey(const KeyPress& press);

// The terminal's native input path; answers true when it consumed the key.
class NativeKeyHandling {
public:
    virtual ~NativeKeyHandling() = default;
    virtual bool handleNativeKeyDown(const KeyPress& press) = 0;
};

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
