#include "shell/InputCommandCenter.h"

#include "core/Json.h"
#include "core/PathText.h"

namespace velko {

std::string syntheticKeyScript(const SyntheticKey& key) {
    // The values come from the fixed zoom key table, so they are inserted as they are.
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
