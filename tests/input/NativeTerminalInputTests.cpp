#include <gtest/gtest.h>

#include "input/NativeTerminalInput.h"

using namespace velko;
namespace Classifier = TerminalNativeInputClassifier;
namespace Switcher = TerminalInputModeSwitcher;

namespace {

constexpr uint32_t kShift = kModifierShift, kCtrl = kModifierControl, kAlt = kModifierAlt,
                   kSuper = kModifierSuper;
const Uuid kSession = *Uuid::parse("0F0E0D0C-0000-4000-8000-00000000000A");

struct FakeSources final : InputSourceServicing {
    std::optional<InputSourceInfo> current, currentASCII, japanese;
    std::optional<std::vector<InputSourceInfo>> all = std::vector<InputSourceInfo>{};
    bool selectAnswers = true;
    std::vector<std::string> selected;

    std::optional<InputSourceInfo> currentSource() override { return current; }
    std::optional<InputSourceInfo> currentASCIICapableSource() override { return currentASCII; }
    std::optional<InputSourceInfo> sourceForLanguage(const std::string& language) override {
        return language == "ja" ? japanese : std::nullopt;
    }
    std::optional<std::vector<InputSourceInfo>> keyboardSources() override { return all; }
    bool select(const InputSourceInfo& source) override {
        selected.push_back(source.id);
        return selectAnswers;
    }
};

struct FakeTarget final : NativeTerminalTarget {
    std::optional<Uuid> active;
    std::vector<std::pair<Uuid, std::string>> writes;
    std::optional<Uuid> activeInputSessionID() const override { return active; }
    void writeInput(const Uuid& id, const std::string& text) override { writes.emplace_back(id, text); }
};

InputSourceInfo layout(std::string id) {
    return InputSourceInfo{std::move(id), true, true, true, std::nullopt, std::nullopt};
}
InputSourceInfo japaneseMethod(std::string id) {
    return InputSourceInfo{std::move(id), true, true, false, kInputSourceTypeInputMode, kJapaneseInputModeID};
}

}  // namespace

TEST(NativeTerminalInput, OnlyPlainPrintableASCIIGoesNative) {
    struct Case {
        const char* name;
        std::optional<std::string> characters;
        uint32_t modifiers;
        std::optional<std::string> expected;
        std::optional<uint16_t> keyCode = std::nullopt;
        bool composing = false;
    };
    const Case cases[] = {
        {"letter", "a", 0, "a"},
        {"shifted letter", "A", kShift, "A"},
        {"space", " ", 0, " "},
        {"delete", "\x7f", 0, std::nullopt},
        {"return", "\r", 0, std::nullopt},
        {"control-a", "a", kCtrl, std::nullopt},
        {"alt-a", "a", kAlt, std::nullopt},
        {"super-a", "a", kSuper, std::nullopt},
        {"e acute", "\xC3\xA9", 0, std::nullopt},
        {"two letters", "ab", 0, std::nullopt},
        {"no characters", std::nullopt, 0, std::nullopt},
        {"empty characters", "", 0, std::nullopt},
        {"composing source", "a", 0, std::nullopt, std::nullopt, true},
        {"eisu key", "a", 0, std::nullopt, MacKeyCode::kEisu},
        {"kana key", "a", 0, std::nullopt, MacKeyCode::kKana},
        {"other key code", "=", 0, "=", MacKeyCode::kEqual},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(Classifier::printableASCIIText(c.characters, c.modifiers, c.keyCode, c.composing), c.expected);
    }
}

TEST(NativeTerminalInput, CompositionFollowsASCIICapabilityThenTypeThenModeID) {
    struct Case {
        std::optional<bool> ascii;
        std::optional<std::string> type;
        std::optional<std::string> mode;
        bool expected;
    };
    const Case cases[] = {
        {true, kInputSourceTypeInputMode, "ja", false},
        {false, std::nullopt, std::nullopt, true},
        {std::nullopt, kInputSourceTypeInputMode, std::nullopt, true},
        {std::nullopt, "layout", std::nullopt, false},
        {std::nullopt, std::nullopt, "any.mode", true},
        {std::nullopt, std::nullopt, std::nullopt, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ascii.value_or(2) << " " << c.type.value_or("-") << " "
                                        << c.mode.value_or("-"));
        EXPECT_EQ(Switcher::requiresComposition(c.ascii, c.type, c.mode), c.expected);
    }
    FakeSources none;
    EXPECT_FALSE(Switcher::currentInputSourceRequiresComposition(none));
}

TEST(NativeTerminalInput, SourcesForEachModeAreChosenInOrder) {
    // Fields: id, enabled, selectable, ASCII-capable, then the input method's type and mode.
    const InputSourceInfo disabled{"disabled-us", false, true, true, std::nullopt, std::nullopt},
        unselectable{"unselectable-us", true, std::nullopt, true, std::nullopt, std::nullopt},
        unknownEnabled{"de", std::nullopt, true, true, std::nullopt, std::nullopt},
        japaneseLayout{"jp-layout", true, true, std::nullopt, std::nullopt, std::nullopt};

    struct Case {
        const char* name;
        std::optional<InputSourceInfo> currentASCII, japanese;
        std::optional<std::vector<InputSourceInfo>> all;
        std::optional<std::string> ascii, japaneseChoice;
    };
    const Case cases[] = {
        {"platform answers directly", layout("us"), japaneseMethod("mozc"), std::vector<InputSourceInfo>{}, "us",
         "mozc"},
        {"list order, disabled and unselectable skipped", unselectable, std::nullopt,
         std::vector<InputSourceInfo>{disabled, unselectable, japaneseLayout, japaneseMethod("anthy"),
                                      unknownEnabled, japaneseMethod("kkc")},
         "de", "anthy"},
        {"listing failed", std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt},
        {"nothing fits", std::nullopt, std::nullopt, std::vector<InputSourceInfo>{japaneseLayout, disabled},
         std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FakeSources sources;
        sources.currentASCII = c.currentASCII;
        sources.japanese = c.japanese;
        sources.all = c.all;
        auto ascii = Switcher::inputSource(InputMode::Ascii, sources);
        auto japanese = Switcher::inputSource(InputMode::Japanese, sources);
        EXPECT_EQ(ascii ? std::optional(ascii->id) : std::nullopt, c.ascii);
        EXPECT_EQ(japanese ? std::optional(japanese->id) : std::nullopt, c.japaneseChoice);
    }
}

TEST(NativeTerminalInput, KeysAreTakenOnlyForAFocusedTerminalWithASourceService) {
    struct Case {
        const char* name;
        bool withService;
        bool focused;
        std::optional<InputSourceInfo> current;
        KeyPress press;
        bool selectAnswers;
        bool consumed;
        std::vector<std::string> written;
        std::vector<std::string> selected;
    };
    const Case cases[] = {
        {"letter to the focused terminal", true, true, layout("us"), {0x61, 0, "a"}, true, true, {"a"}, {}},
        {"control letter", true, true, layout("us"), {0x61, kCtrl, "a"}, true, false, {}, {}},
        {"no focused terminal", true, false, layout("us"), {0x61, 0, "a"}, true, false, {}, {}},
        {"composing input method", true, true, japaneseMethod("mozc"), {0x61, 0, "a"}, true, false, {}, {}},
        {"no input-source service", false, true, layout("us"), {0x61, 0, "a"}, true, false, {}, {}},
        {"eisu selects the ascii source", true, true, japaneseMethod("mozc"), {Keyval::kEisuToggle, 0, ""},
         true, true, {}, {"us"}},
        {"kana selects the japanese source", true, true, layout("us"), {Keyval::kHiraganaKatakana, 0, ""}, true,
         true, {}, {"mozc"}},
        {"a refused switch is not consumed", true, true, layout("us"), {Keyval::kHenkanMode, 0, ""}, false,
         false, {}, {"mozc"}},
        {"eisu without focus", true, false, layout("us"), {Keyval::kMuhenkan, 0, ""}, true, false, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto sources = std::make_shared<FakeSources>();
        sources->current = c.current;
        sources->currentASCII = layout("us");
        sources->japanese = japaneseMethod("mozc");
        sources->selectAnswers = c.selectAnswers;
        auto target = std::make_shared<FakeTarget>();
        if (c.focused) target->active = kSession;
        NativeTerminalInput input(target, c.withService ? sources : nullptr);
        EXPECT_EQ(input.handleNativeKeyDown(c.press), c.consumed);
        std::vector<std::string> written;
        for (const auto& [id, text] : target->writes) {
            EXPECT_EQ(id, kSession);
            written.push_back(text);
        }
        EXPECT_EQ(written, c.written);
        EXPECT_EQ(sources->selected, c.selected);
    }
}
