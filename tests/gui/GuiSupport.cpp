#include "GuiSupport.h"

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/XKBlib.h>
#include <X11/keysym.h>
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "core/Json.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "shell/VelkoApp.h"

namespace velko::test {

using Clock = std::chrono::steady_clock;

std::string sourcePath(const std::string& relative) {
    const char* source = std::getenv("VELKO_SOURCE_DIR");
    return std::string(source ? source : ".") + "/" + relative;
}

std::string outputPath(const std::string& name) {
    const char* binary = std::getenv("VELKO_BINARY_DIR");
    std::string folder = std::string(binary ? binary : ".") + "/test-output";
    createDirectories(folder);
    return folder + "/" + name;
}

bool pumpUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline) return false;
        g_main_context_iteration(nullptr, FALSE);
        if (!g_main_context_pending(nullptr)) g_usleep(2000);
    }
    return true;
}

std::string evaluate(GtkWidget* view, const std::string& expression) {
    struct Pending {
        bool done = false;
        std::string text;
    } pending;
    std::string script = "JSON.stringify(" + expression + ")";
    webkit_web_view_evaluate_javascript(
        WEBKIT_WEB_VIEW(view), script.c_str(), -1, nullptr, nullptr, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            auto* p = static_cast<Pending*>(data);
            GError* error = nullptr;
            JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, &error);
            if (value) {
                char* text = jsc_value_to_string(value);
                p->text = text ? text : "";
                g_free(text);
                g_object_unref(value);
            } else {
                p->text = std::string("error: ") + (error ? error->message : "?");
                if (error) g_error_free(error);
            }
            p->done = true;
        },
        &pending);
    pumpUntil([&] { return pending.done; });
    return pending.text;
}

std::optional<std::pair<int, int>> screenCentre(GtkWidget* window, GtkWidget* view, const std::string& selector) {
    auto box = parseJson(evaluate(view, "(() => { const r = document.querySelector('" + selector +
                                            "')?.getBoundingClientRect(); "
                                            "return r && r.width > 0 ? [r.x + r.width / 2, r.y + r.height / 2] : null; })()"));
    if (!box || !box->is_array() || box->size() != 2) return std::nullopt;
    graphene_point_t inView = GRAPHENE_POINT_INIT((*box)[0].get<float>(), (*box)[1].get<float>()), inWindow;
    if (!gtk_widget_compute_point(view, window, &inView, &inWindow)) return std::nullopt;
    // Undecorated under a bare X server: the window's surface is at (0, 0).
    return std::make_pair(static_cast<int>(inWindow.x), static_cast<int>(inWindow.y));
}

ShownWindow::ShownWindow(const std::string& resources) {
    gtk_init();
    setMainQueue(std::make_shared<GlibMainQueue>());
    app = std::make_unique<VelkoApp>();
    DesktopWindow::Options options;
    options.resourceDirectory = resources;
    window = DesktopWindow::create(*app, nullptr, options);
    window->present();
}

ShownWindow::~ShownWindow() {
    window.reset();
    app.reset();
    for (int i = 0; i < 200 && g_main_context_pending(nullptr); ++i) g_main_context_iteration(nullptr, FALSE);
}

namespace {

// One connection of our own: the events reach the server and come back to
// the program's connection as real device events.
template <typename F>
bool withXTest(F&& body) {
    Display* display = XOpenDisplay(nullptr);
    if (!display) return false;
    int event = 0, error = 0, major = 0, minor = 0;
    bool ok = XTestQueryExtension(display, &event, &error, &major, &minor);
    if (ok) {
        body(display);
        XSync(display, False);
    }
    XCloseDisplay(display);
    return ok;
}

}  // namespace

bool moveRealPointer(int x, int y) {
    return withXTest([&](Display* display) { XTestFakeMotionEvent(display, -1, x, y, CurrentTime); });
}

bool clickRealPointer(int x, int y) {
    return withXTest([&](Display* display) {
        XTestFakeMotionEvent(display, -1, x, y, CurrentTime);
        XTestFakeButtonEvent(display, 1, True, CurrentTime);
        XTestFakeButtonEvent(display, 1, False, CurrentTime);
    });
}

bool pressRealChord(const std::vector<unsigned long>& keysyms) {
    return withXTest([&](Display* display) {
        for (unsigned long symbol : keysyms)
            XTestFakeKeyEvent(display, XKeysymToKeycode(display, symbol), True, CurrentTime);
        for (auto it = keysyms.rbegin(); it != keysyms.rend(); ++it)
            XTestFakeKeyEvent(display, XKeysymToKeycode(display, *it), False, CurrentTime);
    });
}

bool typeRealKeys(const std::string& text) {
    return withXTest([&](Display* display) {
        KeyCode shift = XKeysymToKeycode(display, XK_Shift_L);
        for (char c : text) {
            KeySym symbol = c == '\n' ? XK_Return : static_cast<KeySym>(static_cast<unsigned char>(c));
            KeyCode code = XKeysymToKeycode(display, symbol);
            if (code == 0) continue;
            // Shifted when the key's first level is not the character.
            bool shifted = XkbKeycodeToKeysym(display, code, 0, 0) != symbol;
            if (shifted) XTestFakeKeyEvent(display, shift, True, CurrentTime);
            XTestFakeKeyEvent(display, code, True, CurrentTime);
            XTestFakeKeyEvent(display, code, False, CurrentTime);
            if (shifted) XTestFakeKeyEvent(display, shift, False, CurrentTime);
        }
    });
}

IBusDaemon::IBusDaemon() {
    const char* argv[] = {"ibus-daemon", "--panel=disable", "--config=/usr/libexec/ibus-memconf",
                          "--emoji-extension=", "--replace", nullptr};
    auto flags = GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDIN_FROM_DEV_NULL |
                             G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL);
    GPid pid = 0;
    if (g_spawn_async(nullptr, const_cast<char**>(argv), nullptr, flags, [](gpointer) { setsid(); }, nullptr, &pid,
                      nullptr))
        m_pid = pid;
}

IBusDaemon::~IBusDaemon() {
    if (m_pid <= 0) return;
    ::kill(-m_pid, SIGTERM);
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    ::kill(-m_pid, SIGKILL);  // a helper that ignored the hang-up
}

bool haveIBus() {
    g_autofree gchar* path = g_find_program_in_path("ibus-daemon");
    return path != nullptr;
}

}  // namespace velko::test
