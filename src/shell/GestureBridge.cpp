#include "shell/GestureBridge.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace velko {

OrderedJson columnPinchPayload(const ColumnPinchEvent& event) {
    OrderedJson payload;
    payload["direction"] = event.direction == PinchDirection::Expand ? "expand" : "collapse";
    payload["magnitude"] = event.magnitude;
    payload["normalizedX"] = event.normalizedX;
    payload["normalizedY"] = event.normalizedY;
    payload["locationX"] = event.locationX;
    payload["locationY"] = event.locationY;
    payload["scaleFactor"] = event.scaleFactor;
    payload["timestamp"] = event.timestamp;
    return payload;
}

void ColumnPinchDispatcher::gestureBridgeDidDetect(const ColumnPinchEvent& event) {
    if (m_analytics) {
        m_analytics->log("column_pinch_gesture",
                         {{"direction", event.direction == PinchDirection::Expand ? "expand" : "collapse"},
                          {"magnitude", event.magnitude},
                          {"normalizedX", event.normalizedX},
                          {"normalizedY", event.normalizedY}});
    }
    if (auto events = m_events.lock()) events->dispatchEvent("layout/column-pinch", columnPinchPayload(event));
}

GestureBridge::GestureBridge(std::function<double()> clock) : m_clock(std::move(clock)) {
    if (!m_clock) {
        m_clock = [] {
            using namespace std::chrono;
            return duration<double>(system_clock::now().time_since_epoch()).count();
        };
    }
}

GestureBridge::~GestureBridge() { stopMonitoring(); }

void GestureBridge::attach(const std::shared_ptr<GestureViewing>& view) {
    if (!view) return;
    if (m_view.lock() == view && m_monitor) return;
    stopMonitoring();
    m_view = view;
    std::weak_ptr<GestureBridge> weak = weak_from_this();
    m_monitor = view->installMagnifyMonitor([weak](const MagnifyEvent& event) {
        if (auto self = weak.lock()) self->handleMagnify(event);
    });
}

void GestureBridge::stopMonitoring() {
    if (auto view = m_view.lock(); view && m_monitor) view->removeMagnifyMonitor(*m_monitor);
    m_monitor.reset();
    m_view.reset();
    m_accumulated = 0;
}

void GestureBridge::handleMagnify(const MagnifyEvent& event) {
    auto view = m_view.lock();
    if (!view || !view->window()) return;
    // A pinch over another window of the program leaves the sum alone.
    if (event.window != view->window()) return;
    switch (event.phase) {
        case GesturePhase::Ended:
            m_accumulated += event.magnification;
            dispatchEventIfNeeded(event.windowX, event.windowY);
            m_accumulated = 0;
            break;
        case GesturePhase::Began:
        case GesturePhase::Cancelled:
            m_accumulated = 0;
            break;
        case GesturePhase::Changed:
            m_accumulated += event.magnification;
            break;
    }
}

void GestureBridge::dispatchEventIfNeeded(double windowX, double windowY) {
    auto view = m_view.lock();
    if (!view) return;
    if (std::fabs(m_accumulated) < kMagnitudeThreshold) return;
    double now = m_clock();
    // The epsilon keeps "exactly the cooldown later" on the allowed side despite rounding.
    if (now - m_lastDispatchTimestamp < kDispatchCooldown - 1e-9) return;
    // Set before the bounds test: a pinch that ends outside still starts a cooldown.
    m_lastDispatchTimestamp = now;

    double x = windowX - view->originX();
    double y = windowY - view->originY();
    double width = view->width();
    double height = view->height();
    if (x < 0 || y < 0 || x > width || y > height) return;
    if (width > 0 && height > 0) {
        x = std::clamp(x, 0.0, width);
        y = std::clamp(y, 0.0, height);
    }
    ColumnPinchEvent pinch;
    pinch.normalizedX = width > 0 ? x / width : 0.5;
    pinch.normalizedY = height > 0 ? y / height : 0.5;
    pinch.locationX = x;
    pinch.locationY = y;
    pinch.scaleFactor = view->scaleFactor();
    pinch.magnitude = m_accumulated;
    pinch.direction = m_accumulated > 0 ? PinchDirection::Expand : PinchDirection::Collapse;
    pinch.timestamp = now;
    if (auto delegate = m_delegate.lock()) delegate->gestureBridgeDidDetect(pinch);
}

}  // namespace velko
