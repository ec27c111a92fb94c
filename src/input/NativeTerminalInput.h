#pragma once
// NativeTerminalInput: a short path for keys into the focused terminal beside
// the web view's own. The Japanese keyboard's Eisu and Kana keys switch the
// input source (to an ASCII-capable one, or to the Japanese input method), and
// a plain printable ASCII key goes straight to the session's PTY while the
// current source needs no composition. Everything else, and every key while
// no input-source service is running, takes the web view's path.
//
// The input sources are reached through InputSourceServicing; on Linux the
// platform implements it over IBus. Without IBus the service is absent and
// this class consumes nothing.
//
// Main thread only (the window's key monitor).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Uuid.h"
#include "input/KeyTable.h"

namespace velko {

// One keyboard input source as the platform describes it. A property the
// platform could not read is absent.
struct InputSourceInfo {
    std::string id;
    std::optional<bool> isEnabled;
    std::optional<bool> isSelectCapable;
    std::optional<bool> isASCIICapable;
    std::optional<std::string> sourceType;
    std::optional<std::string> inputModeID;
};

// The source type of an input method's mode (as opposed to a plain layout).
inline constexpr const char* kInputSourceTypeInputMode = "input-mode";
// The mode id the platform gives the Japanese input method.
inline constexpr const char* kJapaneseInputModeID = "ja.input-method";

class InputSourceServicing {
public:
    virtual ~InputSourceServicing() = default;
    // False while the platform's service is gone; every key then takes the web path.
    virtual bool isAvailable() { return true; }
    virtual std::optional<InputSourceInfo> currentSource() = 0;
    virtual std::optional<InputSourceInfo> currentASCIICapableSource() = 0;
    virtual std::optional<InputSourceInfo> sourceForLanguage(const std::string& language) = 0;
    // Every keyboard source in the platform's order; nullopt when listing failed.
    virtual std::optional<std::vector<InputSourceInfo>> keyboardSources() = 0;
    // True when the platform switched to `source`.
    virtual bool select(const InputSourceInfo& source) = 0;
};

enum class InputMode { Ascii, Japanese };

namespace TerminalNativeInputClassifier {
// Modifiers that keep a key off the native path: Ctrl (the Command role), Alt
// (Option) and Super. Shift and Caps Lock are allowed.
inline constexpr uint32_t kDisqualifyingModifiers = kModifierControl | kModifierAlt | kModifierSuper;

// The text to write for a key, or nullopt when the key belongs to the web path.
std::optional<std::string> printableASCIIText(const std::optional<std::string>& characters, uint32_t modifiers,
                                              std::optional<uint16_t> keyCode,
                                              bool currentInputSourceRequiresComposition);
}  // namespace TerminalNativeInputClassifier

namespace TerminalInputModeSwitcher {
bool requiresComposition(std::optional<bool> isASCIICapable, const std::optional<std::string>& sourceType,
                         const std::optional<std::string>& inputModeID);
bool currentInputSourceRequiresComposition(InputSourceServicing& sources);
std::vector<InputSourceInfo> enabledKeyboardInputSources(InputSourceServicing& sources);
std::optional<InputSourceInfo> inputSource(InputMode mode, InputSourceServicing& sources);
}  // namespace TerminalInputModeSwitcher

// Where natively typed text goes: the terminal that has the input focus.
class NativeTerminalTarget {
public:
    virtual ~NativeTerminalTarget() = default;
    virtual std::optional<Uuid> activeInputSessionID() const = 0;
    // Writes to the session, or tells the user once that terminals are off.
    virtual void writeInput(const Uuid& sessionID, const std::string& text) = 0;
};

class TerminalService;

// The terminal service as a target: its focused session, and its own input
// message, so a write obeys the same "terminal.v2" switch as the page's input.
std::shared_ptr<NativeTerminalTarget> terminalServiceTarget(std::weak_ptr<TerminalService> service);

class NativeTerminalInput final : public NativeKeyHandling {
public:
    // The target is held; it reaches its terminals weakly itself.
    NativeTerminalInput(std::shared_ptr<NativeTerminalTarget> target, std::shared_ptr<InputSourceServicing> sources)
        : m_target(std::move(target)), m_sources(std::move(sources)) {}

    bool handleNativeKeyDown(const KeyPress& press) override;

private:
    std::shared_ptr<NativeTerminalTarget> m_target;
    std::shared_ptr<InputSourceServicing> m_sources;
};

}  // namespace velko
