#include <gtest/gtest.h>

#include "input/KeyTable.h"

using namespace velko;

constexpr uint32_t kCtrl = kModifierControl, kShift = kModifierShift, kAlt = kModifierAlt;

TEST(KeyTable, ZoomKeysBecomeThePagesKeysWithCtrlAndNeverWithAlt) {
    struct Case {
        uint32_t keyval;
        uint32_t modifiers;
        std::optional<SyntheticKey> expected;
    };
    const Case cases[] = {
        // Shift turns "=" into "+" on the same key
        {Keyval::kPlus, kCtrl | kShift, SyntheticKey{"+", "Equal", true}},
        {Keyval::kUnderscore, kCtrl | kShift, SyntheticKey{"_", "Minus", true}},
        {Keyval::kParenRight, kCtrl | kShift, SyntheticKey{"0", "Digit0", true}},
        // Shift+";" is zoom in, not a colon
        {Keyval::kColon, kCtrl | kShift, SyntheticKey{"+", "Semicolon", true}},
        {Keyval::kKPSubtract, kCtrl | kShift, SyntheticKey{"-", "NumpadSubtract", true}},
        // the keypad with NumLock off
        {Keyval::kKPInsert, kCtrl, SyntheticKey{"0", "Numpad0", false}},
        {Keyval::kEqual, kCtrl | kAlt, std::nullopt},
        {Keyval::kEqual, 0, std::nullopt},
        {Keyval::kEqual, kShift, std::nullopt},
        {Keyval::kRight, kCtrl, std::nullopt},
        {0x061 /* a */, kCtrl, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.keyval << " mods " << c.modifiers);
        EXPECT_EQ(zoomShortcut(KeyPress{c.keyval, c.modifiers, {}}), c.expected);
    }
}

TEST(KeyTable, CommandsTakeOnlyTheirExactChords) {
    struct Case {
        uint32_t keyval;
        uint32_t modifiers;
        KeyCommand command;
    };
    const Case cases[] = {
        {Keyval::kRight, kCtrl | kAlt, KeyCommand::NextProject},
        {Keyval::kKPRight, kCtrl | kAlt, KeyCommand::NextProject},
        {Keyval::kLeft, kCtrl | kAlt, KeyCommand::PreviousProject},
        {Keyval::kRight, kCtrl | kAlt | kShift, KeyCommand::None},
        {Keyval::kRight, kCtrl, KeyCommand::None},  // word motion in the shell
        {Keyval::kRight, kAlt, KeyCommand::None},
        {Keyval::kUpperR, kCtrl | kShift, KeyCommand::ReloadPage},
        {Keyval::kLowerR, kCtrl | kShift, KeyCommand::ReloadPage},
        {Keyval::kLowerR, kCtrl, KeyCommand::None},  // reverse history search stays with the shell
        {Keyval::kEqual, kCtrl, KeyCommand::Zoom},
        {Keyval::kEqual, kCtrl | kAlt, KeyCommand::None},
        {Keyval::kEisuToggle, 0, KeyCommand::None},
        {0x063 /* c */, kCtrl, KeyCommand::None},  // interrupt must reach the terminal
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.keyval << " mods " << c.modifiers);
        EXPECT_EQ(commandForKey(KeyPress{c.keyval, c.modifiers, {}}), c.command);
    }
}
