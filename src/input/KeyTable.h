#pragma once
// The key tables: GDK keyvals onto the physical keys (by the conventional key
// codes the page and its shortcuts are documented with), the page's zoom keys,
// and the window's key commands. Ctrl plays the role the Command key has on
// other desktops, Alt that of Option.
//
// Pure functions over constant tables; any thread.

#include <cstdint>
#include <optional>
#include <string>

#include "input/KeyPress.h"

namespace velko {

// Physical keys of the conventional key-code table.
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

enum class KeyCommand { None, NextProject, PreviousProject, Zoom, ReloadPage };
KeyCommand commandForKey(const KeyPress& press);

}  // namespace velko
