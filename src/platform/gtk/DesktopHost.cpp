#include "platform/gtk/DesktopHost.h"

#include <glib-unix.h>
#include <gtk/gtk.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "platform/BrowserOAuthSessionFactory.h"
#include "platform/IBusInputSources.h"
#include "platform/SecretServiceKeychainStore.h"
#include "platform/gtk/DesktopWindow.h"
#include "platform/gtk/UpdateDialog.h"
#include "shell/AppBundleSchemeHandler.h"
#include "shell/InputCommandCenter.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"
#include "shell/WebViewHosting.h"

namespace velko {

namespace {

const Logger kLog("app.velko", "app");

struct DesktopState {
    GtkApplication* application = nullptr;
    std::vector<std::string> pickFolders;
    std::shared_ptr<BrowserOAuthSessionFactory> oauthSessions;
    std::unique_ptr<VelkoApp> app;
    std::unique_ptr<DesktopWindow> window;
    bool quitting = false;
};

// Closing the window, the Quit command and SIGTERM/SIGINT all end the program
// the same way: the shells get their hang-up and are reaped, queued file work
// finishes, then the application quits. A second request while that runs
// changes nothing.
void beginQuit(DesktopState* state) {
    if (state->quitting) return;
    state->quitting = true;
    if (state->window) gtk_widget_set_visible(state->window->window(), FALSE);
    if (!state->app) {
        g_application_quit(G_APPLICATION(state->application));
        return;
    }
    // Keep the application running while the window is hidden.
    g_application_hold(G_APPLICATION(state->application));
    state->app->shutdown([state] {
        g_application_release(G_APPLICATION(state->application));
        g_application_quit(G_APPLICATION(state->application));
    });
}

std::optional<std::string> resourceDirectory() {
    auto exe = executablePath();
    return exe ? locateResourceDirectory(*exe) : std::nullopt;
}

void addAction(GtkApplication* application, const char* name, GCallback callback, DesktopState* state,
               bool enabled = true) {
    GSimpleAction* action = g_simple_action_new(name, nullptr);
    g_simple_action_set_enabled(action, enabled);
    g_signal_connect(action, "activate", callback, state);
    g_action_map_add_action(G_ACTION_MAP(application), G_ACTION(action));
    g_object_unref(action);
}

void buildMenus(GtkApplication* application, DesktopState* state) {
    addAction(application, "next-project", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                  auto* s = static_cast<DesktopState*>(data);
                  if (s->app && s->app->commandCenter().onNextProject) s->app->commandCenter().onNextProject();
              }),
              state);
    addAction(application, "previous-project", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                  auto* s = static_cast<DesktopState*>(data);
                  if (s->app && s->app->commandCenter().onPreviousProject)
                      s->app->commandCenter().onPreviousProject();
              }),
              state);
    addAction(application, "reload", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                  auto* s = static_cast<DesktopState*>(data);
                  if (s->window) s->window->reloadPage();
              }),
              state);
    // Greyed out unless the resources name an update feed and its public key.
    addAction(application, "check-for-updates", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                  auto* s = static_cast<DesktopState*>(data);
                  if (s->app) s->app->checkForUpdates();
              }),
              state, state->app && state->app->canCheckForUpdates());
    addAction(application, "quit", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                  beginQuit(static_cast<DesktopState*>(data));
              }),
              state);

    // Ctrl+Shift for the program's own commands: plain Ctrl+letter belongs to the shells.
    const char* next[] = {"<Control><Alt>Right", nullptr};
    const char* previous[] = {"<Control><Alt>Left", nullptr};
    const char* reload[] = {"<Control><Shift>r", nullptr};
    const char* quit[] = {"<Control><Shift>q", nullptr};
    gtk_application_set_accels_for_action(application, "app.next-project", next);
    gtk_application_set_accels_for_action(application, "app.previous-project", previous);
    gtk_application_set_accels_for_action(application, "app.reload", reload);
    gtk_application_set_accels_for_action(application, "app.quit", quit);

    GMenu* menubar = g_menu_new();
    GMenu* appMenu = g_menu_new();
    GMenu* updates = g_menu_new();
    g_menu_append(updates, "Check for Updates...", "app.check-for-updates");
    g_menu_append_section(appMenu, nullptr, G_MENU_MODEL(updates));
    GMenu* pageSection = g_menu_new();
    g_menu_append(pageSection, "Reload Page", "app.reload");
    g_menu_append_section(appMenu, nullptr, G_MENU_MODEL(pageSection));
    GMenu* quitSection = g_menu_new();
    g_menu_append(quitSection, "Quit velko", "app.quit");
    g_menu_append_section(appMenu, nullptr, G_MENU_MODEL(quitSection));
    g_menu_append_submenu(menubar, "velko", G_MENU_MODEL(appMenu));

    GMenu* projects = g_menu_new();
    g_menu_append(projects, "Next Project", "app.next-project");
    g_menu_append(projects, "Previous Project", "app.previous-project");
    g_menu_append_submenu(menubar, "Projects", G_MENU_MODEL(projects));

    gtk_application_set_menubar(application, G_MENU_MODEL(menubar));
    for (GMenu* menu : {updates, pageSection, quitSection, appMenu, projects, menubar}) g_object_unref(menu);
}

void showWindow(GtkApplication* application, DesktopState* state) {
    if (!state->window) {
        state->window = DesktopWindow::create(*state->app, application, {});
        if (!state->pickFolders.empty())
            state->app->bridge().setFolderPicker(makeFixedFolderPicker(state->pickFolders));
        // Closing the one window ends the program.
        g_signal_connect(state->window->window(), "close-request",
                         G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                             beginQuit(static_cast<DesktopState*>(data));
                             return TRUE;
                         }),
                         state);
    }
    state->window->present();
}

}  // namespace

int runDesktop(int argc, char** argv) {
    GtkApplication* application = gtk_application_new("app.velko.Velko", G_APPLICATION_HANDLES_OPEN);
    DesktopState state;
    state.application = application;
    // Our own options leave the argument list before GApplication reads it
    // (it would take them for files to open).
    std::vector<char*> arguments;
    for (int i = 0; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--pick-folder" && i + 1 < argc) {
            state.pickFolders.emplace_back(argv[++i]);
            continue;
        }
        arguments.push_back(argv[i]);
    }
    arguments.push_back(nullptr);
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
        g_unix_signal_add(signal, +[](gpointer data) -> gboolean {
            beginQuit(static_cast<DesktopState*>(data));
            return G_SOURCE_CONTINUE;
        }, &state);
    }

    g_signal_connect(application, "startup", G_CALLBACK(+[](GApplication* app, gpointer data) {
                         auto* s = static_cast<DesktopState*>(data);
                         setMainQueue(std::make_shared<GlibMainQueue>());
                         if (auto resources = resourceDirectory()) {
                             // The icon is found from the resources both in the build tree and installed.
                             gtk_icon_theme_add_search_path(gtk_icon_theme_get_for_display(gdk_display_get_default()),
                                                            (*resources + "/icons").c_str());
                         }
                         gtk_window_set_default_icon_name("velko");
                         VelkoApp::Options options;
                         options.updatePresenter = makeUpdateDialogPresenter([s]() -> GtkWindow* {
                             return s->window ? GTK_WINDOW(s->window->window()) : nullptr;
                         });
                         options.keychain = std::make_shared<SecretServiceKeychainStore>();
                         s->oauthSessions = std::make_shared<BrowserOAuthSessionFactory>(
                             BrowserOAuthSessionFactory::Options{.receivesLinks = true, .openURL = {}});
                         options.oauthSessions = s->oauthSessions;
                         options.resourceDirectory = resourceDirectory();
                         s->app = std::make_unique<VelkoApp>(std::move(options));
                         s->app->setInputSources(connectIBusInputSources());
                         buildMenus(GTK_APPLICATION(app), s);
                     }),
                     &state);
    g_signal_connect(application, "activate", G_CALLBACK(+[](GApplication* app, gpointer data) {
                         showWindow(GTK_APPLICATION(app), static_cast<DesktopState*>(data));
                     }),
                     &state);
    g_signal_connect(application, "open",
                     G_CALLBACK(+[](GApplication* app, GFile** files, gint count, gchar*, gpointer data) {
                         // velko:// links (the sign-in redirect, also forwarded by a
                         // second `velko velko://…`) go to the sign-in and bring the
                         // window forward. The link itself is never logged: it holds the code.
                         auto* s = static_cast<DesktopState*>(data);
                         for (gint i = 0; i < count; ++i) {
                             char* uri = g_file_get_uri(files[i]);
                             bool link = g_str_has_prefix(uri, "velko:");
                             bool taken = link && s->oauthSessions && s->oauthSessions->deliverRedirect(uri);
                             kLog.info(std::string("opened with ") +
                                       (taken ? "the sign-in redirect" : link ? "a velko link" : "a file"));
                             explicit_bzero(uri, strlen(uri));
                             g_free(uri);
                         }
                         showWindow(GTK_APPLICATION(app), s);
                     }),
                     &state);
    g_signal_connect(application, "shutdown", G_CALLBACK(+[](GApplication*, gpointer data) {
                         auto* s = static_cast<DesktopState*>(data);
                         s->window.reset();
                     }),
                     &state);

    int status = g_application_run(G_APPLICATION(application), static_cast<int>(arguments.size() - 1), arguments.data());
    state.window.reset();
    state.app.reset();
    g_object_unref(application);
    return status;
}

}  // namespace velko
