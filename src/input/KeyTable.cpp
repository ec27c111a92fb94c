#include "input/KeyTable.h"

#include <array>

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

}  // namespace velko
