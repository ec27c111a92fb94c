#include <gtest/gtest.h>

#include "core/Json.h"
#include "shell/InputCommandCenter.h"

using namespace velko;

TEST(KeyCommand, DropScriptCarriesStandardisedAbsolutePathsInOrder) {
    struct Case {
        std::vector<std::string> paths;
        std::optional<std::vector<std::string>> expected;
    };
    const Case cases[] = {
        {{"/home/u/a.txt", "/home/u/b dir/"}, std::vector<std::string>{"/home/u/a.txt", "/home/u/b dir"}},
        {{"/home/u/./x/../y.txt"}, std::vector<std::string>{"/home/u/y.txt"}},
        {{"/it's \"quoted\"\\path\u2028"}, std::vector<std::string>{"/it's \"quoted\"\\path\u2028"}},
        {{"relative.txt", ""}, std::nullopt},
        {{}, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.paths.empty() ? "none" : c.paths.front());
        auto script = nativeDropScript(c.paths, 1700000000.5);
        ASSERT_EQ(script.has_value(), c.expected.has_value());
        if (!script) continue;
        // The payload is the JSON between the assignment and the statement's end.
        size_t at = script->find(" = ") + 3;
        auto payload = parseJson(script->substr(at, script->find(";\n", at) - at));
        ASSERT_TRUE(payload.has_value());
        EXPECT_EQ((*payload)["paths"].get<std::vector<std::string>>(), *c.expected);
        EXPECT_DOUBLE_EQ((*payload)["timestamp"].get<double>(), 1700000000.5);
    }
}

namespace {

constexpr uint32_t kCtrl = kModifierControl, kShift = kModifierShift, kAlt = kModifierAlt;

struct FakeMonitoring final : EventMonitoring {
    std::optional<MonitorHandle> installKeyDownMonitor(std::function<bool(const KeyPress&)> handler) override {
        keys.push_back(std::move(handler));
        return static_cast<int>(keys.size() + swipes.size());
    }
    std::optional<MonitorHandle> installSwipeMonitor(std::function<void(double)> handler) override {
        swipes.push_back(std::move(handler));
        return static_cast<int>(keys.size() + swipes.size());
    }
    void removeMonitor(MonitorHandle handle) override { removed.push_back(handle); }
    std::vector<std::function<bool(const KeyPress&)>> keys;
    std::vector<std::function<void(double)>> swipes;
    std::vector<int> removed;
};

struct FakeNativeKeys final : NativeKeyHandling {
    bool handleNativeKeyDown(const KeyPress& press) override {
        seen.push_back(press.keyval);
        return press.keyval == consumes;
    }
    uint32_t consumes = 0;
    std::vector<uint32_t> seen;
};

struct CenterFixture {
    std::shared_ptr<InputCommandCenter> center = std::make_shared<InputCommandCenter>();
    std::shared_ptr<FakeMonitoring> monitoring = std::make_shared<FakeMonitoring>();
    std::vector<std::string> calls;
    CenterFixture() {
        center->setEventMonitoring(monitoring);
        center->onNextProject = [this] { calls.push_back("next"); };
        center->onPreviousProject = [this] { calls.push_back("previous"); };
        center->onZoomShortcut = [this](const SyntheticKey& key) { calls.push_back("zoom " + key.code); };
        center->onReloadPage = [this] { calls.push_back("reload"); };
    }
};

}  // namespace

TEST(KeyCommand, MonitorsInstallOnceAndRouteKeysAndSwipes) {
    CenterFixture f;
    f.center->activateGestureMonitoring();
    f.center->activateGestureMonitoring();
    ASSERT_EQ(f.monitoring->keys.size(), 1u);
    ASSERT_EQ(f.monitoring->swipes.size(), 1u);

    struct Case {
        uint32_t keyval;
        uint32_t modifiers;
        bool consumed;
        std::vector<std::string> calls;
    };
    const Case cases[] = {
        {Keyval::kRight, kCtrl | kAlt, true, {"next"}},
        {Keyval::kLeft, kCtrl | kAlt, true, {"previous"}},
        {Keyval::kMinus, kCtrl, true, {"zoom Minus"}},
        {Keyval::kUpperR, kCtrl | kShift, true, {"reload"}},
        {0x061, 0, false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.keyval);
        f.calls.clear();
        EXPECT_EQ(f.monitoring->keys[0](KeyPress{c.keyval, c.modifiers, {}}), c.consumed);
        EXPECT_EQ(f.calls, c.calls);
    }

    f.calls.clear();
    for (double delta : {-3.0, 0.0, 2.5}) f.monitoring->swipes[0](delta);
    EXPECT_EQ(f.calls, (std::vector<std::string>{"previous", "next"}));

    f.center->deactivateGestureMonitoring();
    EXPECT_EQ(f.monitoring->removed, (std::vector<int>{1, 2}));
    EXPECT_FALSE(f.center->isMonitoring());
    f.center->activateGestureMonitoring();
    EXPECT_EQ(f.monitoring->keys.size(), 2u);
}

TEST(KeyCommand, TheTerminalSeesKeysFirstAndAConsumedKeyGoesNoFurther) {
    CenterFixture f;
    auto native = std::make_shared<FakeNativeKeys>();
    native->consumes = Keyval::kRight;
    f.center->setNativeKeyHandler(native);
    EXPECT_TRUE(f.center->handleKeyDown(KeyPress{Keyval::kRight, kCtrl | kAlt, {}}));
    EXPECT_TRUE(f.calls.empty());
    EXPECT_TRUE(f.center->handleKeyDown(KeyPress{Keyval::kLeft, kCtrl | kAlt, {}}));
    EXPECT_EQ(f.calls, std::vector<std::string>{"previous"});
    EXPECT_EQ(native->seen, (std::vector<uint32_t>{Keyval::kRight, Keyval::kLeft}));

    // A terminal that is gone no longer takes keys; unset callbacks do nothing.
    native.reset();
    f.center->onNextProject = nullptr;
    f.calls.clear();
    EXPECT_TRUE(f.center->handleKeyDown(KeyPress{Keyval::kRight, kCtrl | kAlt, {}}));
    EXPECT_TRUE(f.calls.empty());
}
