#pragma once
// GestureBridge: turns a finished pinch over the web view into one
// "layout/column-pinch" event, which the page uses to widen or narrow its
// columns. A pinch is summed from its steps; at its end the sum must reach a
// threshold, a cooldown since the previous pinch must have passed, and the
// point must lie inside the view.
//
// Free of toolkit types: the view is seen through GestureViewing, which the
// platform implements over a zoom gesture. Main thread only. Owned by the
// composition root; the delegate and the view are held weakly.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "telemetry/AnalyticsLogging.h"

namespace velko {

enum class GesturePhase { Began, Changed, Ended, Cancelled };

struct MagnifyEvent {
    GesturePhase phase = GesturePhase::Changed;
    double magnification = 0;     // change since the previous step
    const void* window = nullptr;  // the window the event happened in
    double windowX = 0;           // location in that window's coordinates
    double windowY = 0;
};

// The watched view as the gesture logic needs it.
class GestureViewing {
public:
    using MonitorHandle = int;
    virtual ~GestureViewing() = default;
    virtual const void* window() const = 0;  // nullptr when not in a window
    // The view's frame in its window's coordinates.
    virtual double originX() const = 0;
    virtual double originY() const = 0;
    virtual double width() const = 0;
    virtual double height() const = 0;
    virtual double scaleFactor() const = 0;
    // Sees every magnify step over the view; the view keeps seeing it too.
    virtual std::optional<MonitorHandle> installMagnifyMonitor(std::function<void(const MagnifyEvent&)> handler) = 0;
    virtual void removeMagnifyMonitor(MonitorHandle handle) = 0;
};

enum class PinchDirection { Expand, Collapse };

struct ColumnPinchEvent {
    PinchDirection direction = PinchDirection::Expand;
    double timestamp = 0;  // seconds since 1970
    double magnitude = 0;  // signed: positive expands
    double locationX = 0;
    double locationY = 0;
    double normalizedX = 0.5;
    double normalizedY = 0.5;
    double scaleFactor = 1;
};

// The "layout/column-pinch" payload.
OrderedJson columnPinchPayload(const ColumnPinchEvent& event);

class GestureBridgeDelegate {
public:
    virtual ~GestureBridgeDelegate() = default;
    virtual void gestureBridgeDidDetect(const ColumnPinchEvent& event) = 0;
};

// The delegate of the program: records the pinch as the analytics event
// "column_pinch_gesture" (when there is a logger), then sends it to the page
// through the bridge.
class ColumnPinchDispatcher final : public GestureBridgeDelegate {
public:
    explicit ColumnPinchDispatcher(std::weak_ptr<EventDispatching> events,
                                   std::shared_ptr<AnalyticsLogging> analytics = {})
        : m_events(std::move(events)), m_analytics(std::move(analytics)) {}
    void gestureBridgeDidDetect(const ColumnPinchEvent& event) override;

private:
    std::weak_ptr<EventDispatching> m_events;
    std::shared_ptr<AnalyticsLogging> m_analytics;
};

class GestureBridge : public std::enable_shared_from_this<GestureBridge> {
public:
    static constexpr double kMagnitudeThreshold = 0.12;
    static constexpr double kDispatchCooldown = 0.35;  // seconds

    // `clock`: seconds since 1970; the system clock when empty.
    explicit GestureBridge(std::function<double()> clock = {});
    ~GestureBridge();

    void setDelegate(std::weak_ptr<GestureBridgeDelegate> delegate) { m_delegate = std::move(delegate); }
    void attach(const std::shared_ptr<GestureViewing>& view);
    void stopMonitoring();

    void handleMagnify(const MagnifyEvent& event);

    double accumulatedMagnification() const { return m_accumulated; }
    bool isAttached() const { return m_monitor.has_value(); }

private:
    void dispatchEventIfNeeded(double windowX, double windowY);

    std::weak_ptr<GestureBridgeDelegate> m_delegate;
    std::weak_ptr<GestureViewing> m_view;
    std::optional<GestureViewing::MonitorHandle> m_monitor;
    double m_accumulated = 0;
    double m_lastDispatchTimestamp = 0;
    std::function<double()> m_clock;
};

}  // namespace velko
