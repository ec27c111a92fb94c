#include "input/NativeTerminalInput.h"

#include "core/Json.h"
#include "terminal/TerminalService.h"

namespace velko {

namespace TerminalNativeInputClassifier {

std::optional<std::string> printableASCIIText(const std::optional<std::string>& characters, uint32_t modifiers,
                                              std::optional<uint16_t> keyCode,
                                              bool currentInputSourceRequiresComposition) {
    if (keyCode && (*keyCode == MacKeyCode::kEisu || *keyCode == MacKeyCode::kKana)) return std::nullopt;
    // The input method must see the key to compose with it.
    if (currentInputSourceRequiresComposition) return std::nullopt;
    if ((modifiers & kDisqualifyingModifiers) != 0 || !characters) return std::nullopt;
    // One scalar from space to tilde is one byte of UTF-8; anything longer is
    // either outside that range or more than one scalar. Return, Tab, Delete,
    // Escape and the arrows stay with the web view, which knows their sequences.
    if (characters->size() != 1) return std::nullopt;
    auto c = static_cast<unsigned char>((*characters)[0]);
    if (c < 32 || c > 126) return std::nullopt;
    return characters;
}

}  // namespace TerminalNativeInputClassifier

namespace TerminalInputModeSwitcher {

bool requiresComposition(std::optional<bool> isASCIICapable, const std::optional<std::string>& sourceType,
                         const std::optional<std::string>& inputModeID) {
    if (isASCIICapable) return !*isASCIICapable;
    if (sourceType == std::optional<std::string>(kInputSourceTypeInputMode)) return true;
    return inputModeID.has_value();
}

bool currentInputSourceRequiresComposition(InputSourceServicing& sources) {
    auto current = sources.currentSource();
    if (!current) return false;
    return requiresComposition(current->isASCIICapable, current->sourceType, current->inputModeID);
}

std::vector<InputSourceInfo> enabledKeyboardInputSources(InputSourceServicing& sources) {
    std::vector<InputSourceInfo> enabled;
    auto all = sources.keyboardSources();
    if (!all) return enabled;
    // Only an explicit "disabled" removes a source.
    for (auto& source : *all)
        if (source.isEnabled != std::optional<bool>(false)) enabled.push_back(std::move(source));
    return enabled;
}

namespace {
bool selectCapable(const InputSourceInfo& source) { return source.isSelectCapable == std::optional<bool>(true); }
}  // namespace

std::optional<InputSourceInfo> inputSource(InputMode mode, InputSourceServicing& sources) {
    if (mode == InputMode::Ascii) {
        if (auto current = sources.currentASCIICapableSource(); current && selectCapable(*current)) return current;
        for (auto& source : enabledKeyboardInputSources(sources))
            if (selectCapable(source) && source.isASCIICapable == std::optional<bool>(true)) return source;
        return std::nullopt;
    }
    if (auto japanese = sources.sourceForLanguage("ja"); japanese && selectCapable(*japanese)) return japanese;
    for (auto& source : enabledKeyboardInputSources(sources))
        if (selectCapable(source) && source.inputModeID == std::optional<std::string>(kJapaneseInputModeID))
            return source;
    return std::nullopt;
}

}  // namespace TerminalInputModeSwitcher

bool NativeTerminalInput::handleNativeKeyDown(const KeyPress& press) {
    // Without a service that can tell whether the input method composes,
    // every key takes the web view's path.
    if (!m_sources || !m_sources->isAvailable()) return false;
    if (!m_target) return false;
    auto session = m_target->activeInputSessionID();
    // A key is never taken while no terminal has the focus.
    if (!session) return false;

    auto keyCode = macKeyCodeForKeyval(press.keyval);
    if (keyCode == MacKeyCode::kEisu || keyCode == MacKeyCode::kKana) {
        auto source = TerminalInputModeSwitcher::inputSource(
            keyCode == MacKeyCode::kEisu ? InputMode::Ascii : InputMode::Japanese, *m_sources);
        if (!source) return false;
        return m_sources->select(*source);
    }

    std::optional<uint16_t> code;
    if (keyCode) code = static_cast<uint16_t>(*keyCode);
    std::optional<std::string> characters;
    if (!press.text.empty()) characters = press.text;
    auto text = TerminalNativeInputClassifier::printableASCIIText(
        characters, press.modifiers, code, TerminalInputModeSwitcher::currentInputSourceRequiresComposition(*m_sources));
    if (!text) return false;
    m_target->writeInput(*session, *text);
    return true;
}

namespace {

class TerminalServiceTarget final : public NativeTerminalTarget {
public:
    explicit TerminalServiceTarget(std::weak_ptr<TerminalService> service) : m_service(std::move(service)) {}
    std::optional<Uuid> activeInputSessionID() const override {
        auto service = m_service.lock();
        return service ? service->activeInputSessionID() : std::nullopt;
    }
    void writeInput(const Uuid& sessionID, const std::string& text) override {
        auto service = m_service.lock();
        if (!service) return;
        Json payload = {{"sessionId", sessionID.toString()}, {"data", text}};
        service->handleMessage("terminal/input", &payload);
    }

private:
    std::weak_ptr<TerminalService> m_service;
};

}  // namespace

std::shared_ptr<NativeTerminalTarget> terminalServiceTarget(std::weak_ptr<TerminalService> service) {
    return std::make_shared<TerminalServiceTarget>(std::move(service));
}

}  // namespace velko
