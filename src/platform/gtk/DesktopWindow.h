#pragma once
// DesktopWindow: the velko window. It hosts the one web view (the page served
// from the resources through the "app" scheme, its message channel into the
// bridge, navigation into the bridge's readiness, and nothing but our own page
// in it: links out go to the browser), watches the input that must
// be seen before the page (keys, pinch, swipe, file drops), shows the folder
// picker, and puts up a message when the page's process dies.
//
// Main thread only. Created by the desktop host (or a test) after VelkoApp,
// which must outlive it.

#include <memory>
#include <optional>
#include <string>
#include <vector>

typedef struct _GtkApplication GtkApplication;
typedef struct _GtkWidget GtkWidget;

namespace velko {

class VelkoApp;

class DesktopWindow {
public:
    struct Options {
        // The resource folder; found beside the executable when empty.
        std::optional<std::string> resourceDirectory;
    };

    // `application` may be null (tests); the window then has no menubar.
    static std::unique_ptr<DesktopWindow> create(VelkoApp& app, GtkApplication* application, Options options);
    virtual ~DesktopWindow() = default;

    virtual GtkWidget* window() const = 0;
    virtual GtkWidget* webView() const = 0;
    // Shows the window; the first time, the content's first-appearance steps run.
    virtual void present() = 0;
    // Loads the page again (after a crash of the page's process, or by hand).
    virtual void reloadPage() = 0;

    // What the window does with a key press seen before the page (GDK keyval
    // and modifier state); true when it was consumed.
    virtual bool handleKeyPress(unsigned keyval, unsigned gdkModifierState) = 0;
    // What the window does with files dropped on it.
    virtual void handleFileDrop(const std::vector<std::string>& paths) = 0;
};

}  // namespace velko
