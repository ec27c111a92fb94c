#pragma once
// ZoomGestureView: the web view as the pinch logic sees it, over a zoom
// gesture on the view (capture phase, never claimed, so the page still gets
// the pinch). GTK reports the scale since the start; the logic gets steps.
//
// Main thread only. Owned by the window; the view owns the gesture.

#include <functional>
#include <utility>

#include "shell/GestureBridge.h"

typedef struct _GtkWidget GtkWidget;
typedef struct _GtkGesture GtkGesture;

namespace velko {

class ZoomGestureView final : public GestureViewing {
public:
    explicit ZoomGestureView(GtkWidget* view);
    ~ZoomGestureView() override;
    ZoomGestureView(const ZoomGestureView&) = delete;
    ZoomGestureView& operator=(const ZoomGestureView&) = delete;

    const void* window() const override;
    double originX() const override { return origin().first; }
    double originY() const override { return origin().second; }
    double width() const override;
    double height() const override;
    double scaleFactor() const override;
    std::optional<MonitorHandle> installMagnifyMonitor(std::function<void(const MagnifyEvent&)> handler) override;
    void removeMagnifyMonitor(MonitorHandle) override { m_handler = nullptr; }

private:
    // The view's top-left corner in the window.
    std::pair<double, double> origin() const;
    void emit(GesturePhase phase, double magnification);

    GtkWidget* m_view;
    GtkGesture* m_gesture;
    std::function<void(const MagnifyEvent&)> m_handler;
    double m_lastScale = 1.0;
    bool m_cancelled = false;
};

}  // namespace velko
