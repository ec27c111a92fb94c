#pragma once
// Helpers of the gui tests: the GLib loop run against a deadline, scripts
// evaluated in the real page, paths of the test's files, and real input
// through the X server (XTest), as a user's keyboard and mouse make it.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/gtk/DesktopWindow.h"

namespace velko::test {

std::string sourcePath(const std::string& relative);
// A file in $VELKO_BINARY_DIR/test-output (created).
std::string outputPath(const std::string& name);

// Runs the GLib main context until `done` holds or the deadline passes.
bool pumpUntil(const std::function<bool()>& done, std::chrono::seconds limit = std::chrono::seconds(60));

// The page's value of `expression` as JSON text ("error: …" when it threw).
std::string evaluate(GtkWidget* webView, const std::string& expression);

// The centre of the element `selector` in the window's coordinates (the
// window sits at the origin of the virtual display), or nullopt while it is
// not laid out.
std::optional<std::pair<int, int>> screenCentre(GtkWidget* window, GtkWidget* view, const std::string& selector);

// The app and its presented window on the pages under `resources` (a fresh
// GLib main queue). At the end the window goes, then the app, then the loop's
// pending work, so the web process is gone before the test's home is removed.
struct ShownWindow {
    explicit ShownWindow(const std::string& resources);
    ~ShownWindow();
    std::unique_ptr<VelkoApp> app;
    std::unique_ptr<DesktopWindow> window;
};

// Real input on the display the program uses. Each returns false when the X
// server does not offer XTest.
bool moveRealPointer(int x, int y);
bool clickRealPointer(int x, int y);
// Presses the keys (X keysyms) in order and releases them in reverse: a chord.
bool pressRealChord(const std::vector<unsigned long>& keysyms);
// Types printable ASCII and "\n" (Return) key by key.
bool typeRealKeys(const std::string& text);

// ibus-daemon in a session of its own (so its helpers end with it), on the
// current display, with the current HOME and XDG_CONFIG_HOME.
class IBusDaemon {
public:
    IBusDaemon();
    ~IBusDaemon();
    IBusDaemon(const IBusDaemon&) = delete;
    IBusDaemon& operator=(const IBusDaemon&) = delete;
    bool started() const { return m_pid > 0; }

private:
    int m_pid = 0;
};
bool haveIBus();

}  // namespace velko::test
