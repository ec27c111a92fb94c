#include "platform/gtk/ZoomGestureView.h"

#include <gtk/gtk.h>

namespace velko {

ZoomGestureView::ZoomGestureView(GtkWidget* view) : m_view(view), m_gesture(gtk_gesture_zoom_new()) {
    // Capture without claiming: the page still gets the pinch.
    gtk_event_controller_set_propagation_phase(GTK_EVENT_CONTROLLER(m_gesture), GTK_PHASE_CAPTURE);
    g_signal_connect(m_gesture, "begin", G_CALLBACK(+[](GtkGesture*, GdkEventSequence*, gpointer data) {
                         auto* self = static_cast<ZoomGestureView*>(data);
                         self->m_lastScale = 1.0;
                         self->m_cancelled = false;
                         self->emit(GesturePhase::Began, 0);
                     }),
                     this);
    g_signal_connect(m_gesture, "scale-changed", G_CALLBACK(+[](GtkGestureZoom*, double scale, gpointer data) {
                         auto* self = static_cast<ZoomGestureView*>(data);
                         // GTK reports the scale since the start; the logic sums steps.
                         double delta = scale - self->m_lastScale;
                         self->m_lastScale = scale;
                         self->emit(GesturePhase::Changed, delta);
                     }),
                     this);
    g_signal_connect(m_gesture, "cancel", G_CALLBACK(+[](GtkGesture*, GdkEventSequence*, gpointer data) {
                         auto* self = static_cast<ZoomGestureView*>(data);
                         self->m_cancelled = true;
                         self->emit(GesturePhase::Cancelled, 0);
                     }),
                     this);
    g_signal_connect(m_gesture, "end", G_CALLBACK(+[](GtkGesture*, GdkEventSequence*, gpointer data) {
                         auto* self = static_cast<ZoomGestureView*>(data);
                         if (self->m_cancelled) return;  // GTK ends a cancelled gesture as well
                         self->emit(GesturePhase::Ended, 0);
                     }),
                     this);
    gtk_widget_add_controller(m_view, GTK_EVENT_CONTROLLER(m_gesture));  // the view owns it
}

ZoomGestureView::~ZoomGestureView() { g_signal_handlers_disconnect_by_data(m_gesture, this); }

const void* ZoomGestureView::window() const { return gtk_widget_get_root(m_view); }
double ZoomGestureView::width() const { return gtk_widget_get_width(m_view); }
double ZoomGestureView::height() const { return gtk_widget_get_height(m_view); }
double ZoomGestureView::scaleFactor() const { return gtk_widget_get_scale_factor(m_view); }

std::optional<GestureViewing::MonitorHandle> ZoomGestureView::installMagnifyMonitor(
    std::function<void(const MagnifyEvent&)> handler) {
    m_handler = std::move(handler);
    return 1;
}

std::pair<double, double> ZoomGestureView::origin() const {
    graphene_point_t zero = GRAPHENE_POINT_INIT(0, 0), out = GRAPHENE_POINT_INIT(0, 0);
    GtkWidget* root = GTK_WIDGET(gtk_widget_get_root(m_view));
    if (root && !gtk_widget_compute_point(m_view, root, &zero, &out)) out = zero;
    return {out.x, out.y};
}

void ZoomGestureView::emit(GesturePhase phase, double magnification) {
    if (!m_handler) return;
    MagnifyEvent event;
    event.phase = phase;
    event.magnification = magnification;
    event.window = window();
    double x = 0, y = 0;
    gtk_gesture_get_bounding_box_center(m_gesture, &x, &y);
    auto [originX, originY] = origin();
    event.windowX = x + originX;
    event.windowY = y + originY;
    m_handler(event);
}

}  // namespace velko
