#include "shell/InputCommandCenter.h"

#include <array>

#include "core/Json.h"
#include "shell/AppBundleSchemeHandler.h"

namespace velko {

namespace {

struct KeyvalEntry {
    uint32_t keyval;
    int macKeyCode;
};

// One table from keyvals to physical keys: the unshifted and shifted keyval of
// each key (US layout), the keypad's keys with NumLock on and off.
constexpr std::array kKeyTable = {
    KeyvalEntry{Keyval::kEqual, MacKeyCode::kEqual},
    KeyvalEntry{Keyval::kPlus, MacKeyCode::kEqual},
    KeyvalEntry{Keyval::kMinus, MacKeyCode::kMinus},
    KeyvalEntry{Keyval::kUnderscore, MacKeyCode::kMinus},
    KeyvalEntry{Keyval::k0, MacKeyCode::kDigit0},
    KeyvalEntry{Keyval::kParenRight, MacKeyCode::kDigit0},
    KeyvalEntry{Keyval::kSemicolon, MacKeyCode::kSemicolon},
    KeyvalEntry{Keyval::kColon, MacKeyCode::kSemicolon},
    KeyvalEntry{Keyval::kKPAdd, MacKeyCode::kNumpadAdd},
    KeyvalEntry{Keyval::kKPSubtract, MacKeyCode::kNumpadSubtract},
    KeyvalEntry{Keyval::kKP0, MacKeyCode::kNumpad0},
    KeyvalEntry{Keyval::kKPInsert, MacKeyCode::kNumpad0},
    KeyvalEntry{Keyval::kLowerR, MacKeyCode::kR},
    KeyvalEntry{Keyval::kUpperR, MacKeyCode::kR},
    KeyvalEntry{Keyval::kLeft, MacKeyCode::kLeftArrow},
    KeyvalEntry{Keyval::kKPLeft, MacKeyCode::kLeftArrow},
    KeyvalEntry{Keyval::kRight, MacKeyCode::kRightArrow},
    KeyvalEntry{Keyval::kKPRight, MacKeyCode::kRightArrow},
    KeyvalEntry{Keyval::kEisuToggle, MacKeyCode::kEisu},
    KeyvalEntry{Keyval::kMuhenkan, MacKeyCode::kEisu},
    KeyvalEntry{Keyval::kHiraganaKatakana, MacKeyCode::kKana},
    KeyvalEntry{Keyval::kHenkanMode, MacKeyCode::kKana},
};

struct ZoomEntry {
    int macKeyCode;
    const char* key;
    const char* shiftedKey;
    const char* code;
};

// Shift+";" gives "+" rather than ":" on purpose: the page treats it as zoom in.
constexpr std::array kZoomKeys = {
    ZoomEntry{MacKeyCode::kEqual, "=", "+", "Equal"},
    ZoomEntry{MacKeyCode::kMinus, "-", "_", "Minus"},
    ZoomEntry{MacKeyCode::kDigit0, "0", "0", "Digit0"},
    ZoomEntry{MacKeyCode::kSemicolon, ";", "+", "Semicolon"},
    ZoomEntry{MacKeyCode::kNumpadAdd, "+", "+", "NumpadAdd"},
    ZoomEntry{MacKeyCode::kNumpadSubtract, "-", "-", "NumpadSubtract"},
    ZoomEntry{MacKeyCode::kNumpad0, "0", "0", "Numpad0"},
};

bool has(uint32_t modifiers, KeyModifier flag) { return (modifiers & flag) != 0; }

}  // namespace

std::optional<int> macKeyCodeForKeyval(uint32_t keyval) {
    for (const auto& entry : kKeyTable)
        if (entry.keyval == keyval) return entry.macKeyCode;
    return std::nullopt;
}

std::optional<SyntheticKey> zoomShortcut(const KeyPress& press) {
    if (!has(press.modifiers, kModifierControl) || has(press.modifiers, kModifierAlt)) return std::nullopt;
    auto code = macKeyCodeForKeyval(press.keyval);
    if (!code) return std::nullopt;
    bool shift = has(press.modifiers, kModifierShift);
    for (const auto& entry : kZoomKeys) {
        if (entry.macKeyCode == *code) return SyntheticKey{shift ? entry.shiftedKey : entry.key, entry.code, shift};
    }
    return std::nullopt;
}

std::string syntheticKeyScript(const SyntheticKey& key) {
    // The values come from the fixed table above, so they are inserted as they are.
    std::string script = "(function() {\n  const eventInit = { key: \"";
    script += key.key;
    script += "\", code: \"";
    script += key.code;
    script += "\", metaKey: true, shiftKey: ";
    script += key.shift ? "true" : "false";
    script +=
        ", ctrlKey: false, altKey: false, bubbles: true };\n"
        "  window.dispatchEvent(new KeyboardEvent(\"keydown\", eventInit));\n"
        "  window.dispatchEvent(new KeyboardEvent(\"keyup\", eventInit));\n"
        "})();";
    return script;
}

std::optional<std::string> nativeDropScript(const std::vector<std::string>& paths, double timestamp) {
    OrderedJson list = OrderedJson::array();
    for (const auto& path : paths) {
        if (path.empty() || path[0] != '/') continue;
        list.push_back(standardizePath(path, {}));
    }
    if (list.empty()) return std::nullopt;
    OrderedJson payload;
    payload["paths"] = std::move(list);
    payload["timestamp"] = timestamp;
    // JSON text is a valid script expression, so it goes in without escaping.
    std::string script = "(function() {\n  window.__velkoNativeDropPayload = ";
    script += dumpJson(payload);
    script +=
        ";\n  window.dispatchEvent(new CustomEvent('velko:native-drop', { detail: "
        "window.__velkoNativeDropPayload }));\n})();";
    return script;
}

KeyCommand commandForKey(const KeyPress& press) {
    auto code = macKeyCodeForKeyval(press.keyval);
    if (!code) return KeyCommand::None;
    bool control = has(press.modifiers, kModifierControl);
    bool alt = has(press.modifiers, kModifierAlt);
    bool shift = has(press.modifiers, kModifierShift);
    if (control && alt && !shift) {
        if (*code == MacKeyCode::kRightArrow) return KeyCommand::NextProject;
        if (*code == MacKeyCode::kLeftArrow) return KeyCommand::PreviousProject;
    }
    // Plain Ctrl+R stays with the shell (reverse history search).
    if (control && shift && !alt && *code == MacKeyCode::kR) return KeyCommand::ReloadPage;
    if (zoomShortcut(press)) return KeyCommand::Zoom;
    return KeyCommand::None;
}

void InputCommandCenter::activateGestureMonitoring() {
    if (!m_monitors.empty()) return;
    auto monitoring = m_monitoring.lock();
    if (!monitoring) return;
    std::weak_ptr<InputCommandCenter> weak = weak_from_this();
    m_monitors.push_back(monitoring->installKeyDownMonitor([weak](const KeyPress& press) {
        auto self = weak.lock();
        return self && self->handleKeyDown(press);
    }));
    m_monitors.push_back(monitoring->installSwipeMonitor([weak](double deltaX) {
        if (auto self = weak.lock()) self->handleSwipe(deltaX);
    }));
}

void InputCommandCenter::deactivateGestureMonitoring() {
    auto monitoring = m_monitoring.lock();
    for (const auto& handle : m_monitors)
        if (monitoring && handle) monitoring->removeMonitor(*handle);
    m_monitors.clear();
}

bool InputCommandCenter::handleKeyDown(const KeyPress& press) {
    if (auto native = m_nativeKeys.lock(); native && native->handleNativeKeyDown(press)) return true;
    switch (commandForKey(press)) {
        case KeyCommand::NextProject:
            if (onNextProject) onNextProject();
            return true;
        case KeyCommand::PreviousProject:
            if (onPreviousProject) onPreviousProject();
            return true;
        case KeyCommand::Zoom:
            if (onZoomShortcut) onZoomShortcut(*zoomShortcut(press));
            return true;
        case KeyCommand::ReloadPage:
            if (onReloadPage) onReloadPage();
            return true;
        case KeyCommand::None:
            return false;
    }
    return false;
}

void InputCommandCenter::handleSwipe(double deltaX) {
    if (deltaX < 0) {
        if (onPreviousProject) onPreviousProject();
    } else if (deltaX > 0) {
        if (onNextProject) onNextProject();
    }
}

}  // namespace velko
