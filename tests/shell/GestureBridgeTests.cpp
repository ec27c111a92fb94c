#include <gtest/gtest.h>
#include <array>

#include "shell/GestureBridge.h"
#include "telemetry/AnalyticsLogger.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

int kWindow, kOtherWindow;  // identities only

struct FakeView final : GestureViewing {
    const void* window() const override { return inWindow ? &kWindow : nullptr; }
    double originX() const override { return 100; }
    double originY() const override { return 50; }
    double width() const override { return w; }
    double height() const override { return h; }
    double scaleFactor() const override { return 2; }
    std::optional<MonitorHandle> installMagnifyMonitor(std::function<void(const MagnifyEvent&)> handler) override {
        ++installs;
        monitor = std::move(handler);
        return installs;
    }
    void removeMagnifyMonitor(MonitorHandle) override {
        ++removals;
        monitor = nullptr;
    }
    bool inWindow = true;
    double w = 800, h = 400;
    int installs = 0, removals = 0;
    std::function<void(const MagnifyEvent&)> monitor;
};

struct Recorder final : GestureBridgeDelegate {
    void gestureBridgeDidDetect(const ColumnPinchEvent& event) override { events.push_back(event); }
    std::vector<ColumnPinchEvent> events;
};

struct Step {
    GesturePhase phase;
    double magnification;
};

struct Fixture {
    double now = 1000.0;
    std::shared_ptr<GestureBridge> bridge = std::make_shared<GestureBridge>([this] { return now; });
    std::shared_ptr<FakeView> view = std::make_shared<FakeView>();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    Fixture() {
        bridge->setDelegate(recorder);
        bridge->attach(view);
    }
    // A pinch through the view's monitor, ending at (x, y) in window coordinates.
    void pinch(std::vector<Step> steps, double x = 500, double y = 250, const void* window = &kWindow) {
        for (const auto& step : steps) view->monitor(MagnifyEvent{step.phase, step.magnification, window, x, y});
    }
};

using P = GesturePhase;

}  // namespace

TEST(GestureBridge, APinchIsDispatchedOnlyFromTheThreshold) {
    struct Case {
        std::vector<Step> steps;
        std::optional<double> magnitude;  // nullopt: no event
    };
    const Case cases[] = {
        {{{P::Began, 0}, {P::Changed, 0.12}, {P::Ended, 0}}, 0.12},
        {{{P::Began, 0}, {P::Changed, 0.119}, {P::Ended, 0}}, std::nullopt},
        {{{P::Began, 0}, {P::Changed, 0.05}, {P::Changed, 0.05}, {P::Ended, 0.1}}, 0.2},
        {{{P::Began, 0}, {P::Changed, -0.3}, {P::Changed, -0.2}, {P::Ended, 0}}, -0.5},
        // the began step's own magnification is not counted
        {{{P::Began, 0.5}, {P::Changed, 0.1}, {P::Ended, 0}}, std::nullopt},
        {{{P::Began, 0}, {P::Changed, 0.3}, {P::Cancelled, 0}}, std::nullopt},
        {{{P::Began, 0}, {P::Changed, 0.3}, {P::Changed, -0.25}, {P::Ended, 0}}, std::nullopt},
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(index++);
        Fixture f;
        f.pinch(c.steps);
        EXPECT_EQ(f.bridge->accumulatedMagnification(), 0);
        ASSERT_EQ(f.recorder->events.size(), c.magnitude ? 1u : 0u);
        if (!c.magnitude) continue;
        const auto& event = f.recorder->events[0];
        EXPECT_DOUBLE_EQ(event.magnitude, *c.magnitude);
        EXPECT_EQ(event.direction, *c.magnitude > 0 ? PinchDirection::Expand : PinchDirection::Collapse);
    }
}

TEST(GestureBridge, CooldownHoldsBackAQuickSecondPinchEvenAfterOneOutsideTheView) {
    struct Case {
        double firstX;  // window x of the first pinch's end
        double gap;     // seconds to the second pinch
        size_t events;
    };
    const Case cases[] = {
        {500, 0.3, 1},
        {500, 0.35, 2},
        {50, 0.3, 0},   // the first ends left of the view; it still starts the cooldown
        {50, 0.35, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.firstX << " gap " << c.gap);
        Fixture f;
        f.pinch({{P::Began, 0}, {P::Changed, 0.5}, {P::Ended, 0}}, c.firstX);
        f.now += c.gap;
        f.pinch({{P::Began, 0}, {P::Changed, 0.5}, {P::Ended, 0}});
        EXPECT_EQ(f.recorder->events.size(), c.events);
    }
}

TEST(GestureBridge, LocationIsInTheViewAndNormalised) {
    struct Case {
        double x, y;  // window coordinates; the view starts at (100, 50), 800 x 400 unless empty
        std::optional<std::array<double, 4>> expected;  // locationX, locationY, normalizedX, normalizedY
        bool empty = false;
    };
    const Case cases[] = {
        {500, 250, std::array<double, 4>{400, 200, 0.5, 0.5}},
        {100, 50, std::array<double, 4>{0, 0, 0, 0}},
        {900, 450, std::array<double, 4>{800, 400, 1, 1}},
        {901, 250, std::nullopt},
        {500, 49, std::nullopt},
        {100, 50, std::array<double, 4>{0, 0, 0.5, 0.5}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.x << "," << c.y << (c.empty ? " empty" : ""));
        Fixture f;
        if (c.empty) f.view->w = f.view->h = 0;
        f.pinch({{P::Began, 0}, {P::Changed, 0.2}, {P::Ended, 0}}, c.x, c.y);
        ASSERT_EQ(f.recorder->events.size(), c.expected ? 1u : 0u);
        if (!c.expected) continue;
        const auto& e = f.recorder->events[0];
        EXPECT_EQ((std::array{e.locationX, e.locationY, e.normalizedX, e.normalizedY}), *c.expected);
        EXPECT_EQ(e.scaleFactor, 2);
        EXPECT_EQ(e.timestamp, f.now);
    }
}

TEST(GestureBridge, PinchesOverAnotherWindowOrWithoutAWindowAreIgnored) {
    Fixture f;
    f.pinch({{P::Began, 0}, {P::Changed, 0.3}});
    f.pinch({{P::Changed, 0.4}, {P::Cancelled, 0}}, 500, 250, &kOtherWindow);
    EXPECT_DOUBLE_EQ(f.bridge->accumulatedMagnification(), 0.3);
    f.pinch({{P::Ended, 0}});
    ASSERT_EQ(f.recorder->events.size(), 1u);
    EXPECT_DOUBLE_EQ(f.recorder->events[0].magnitude, 0.3);

    f.view->inWindow = false;
    f.now += 10;
    f.pinch({{P::Began, 0}, {P::Changed, 0.3}, {P::Ended, 0}});
    EXPECT_EQ(f.recorder->events.size(), 1u);
}

TEST(GestureBridge, AttachIsIdempotentAndStoppingClearsTheSumButNotTheCooldown) {
    Fixture f;
    f.bridge->attach(f.view);
    EXPECT_EQ(f.view->installs, 1);
    f.pinch({{P::Began, 0}, {P::Changed, 0.5}, {P::Ended, 0}});
    f.pinch({{P::Began, 0}, {P::Changed, 0.2}});
    f.bridge->stopMonitoring();
    EXPECT_EQ(f.view->removals, 1);
    EXPECT_EQ(f.bridge->accumulatedMagnification(), 0);
    f.bridge->attach(f.view);
    EXPECT_EQ(f.view->installs, 2);
    f.now += 0.1;
    f.pinch({{P::Began, 0}, {P::Changed, 0.5}, {P::Ended, 0}});
    EXPECT_EQ(f.recorder->events.size(), 1u);
}

TEST(GestureBridge, ThePinchIsLoggedThenReachesThePageAsColumnPinch) {
    auto events = std::make_shared<test::EventRecorder>();
    std::vector<std::string> lines;
    auto analytics = std::make_shared<AnalyticsLogger>([&](LogLevel, const std::string& line) {
        lines.push_back(line + (events->events().empty() ? "" : " (after the event)"));
    });
    ColumnPinchDispatcher dispatcher(events, analytics);
    ColumnPinchEvent pinch{PinchDirection::Collapse, 1700000000.25, -0.5, 10, 20, 0.25, 0.75, 2};
    dispatcher.gestureBridgeDidDetect(pinch);
    EXPECT_EQ(lines, std::vector<std::string>{"event=column_pinch_gesture properties=direction=collapse, "
                                              "magnitude=-0.5, normalizedX=0.25, normalizedY=0.75"});
    auto recorded = events->eventsOfType("layout/column-pinch");
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(dumpJson(recorded[0].payload),
              dumpJson(Json::parse(R"({"direction":"collapse","magnitude":-0.5,"normalizedX":0.25,"normalizedY":0.75,)"
                                   R"("locationX":10.0,"locationY":20.0,"scaleFactor":2.0,"timestamp":1700000000.25})")));
}
