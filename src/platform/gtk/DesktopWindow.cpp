#include "platform/gtk/DesktopWindow.h"

#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <chrono>
#include <cmath>

#include "core/Json.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "input/KeyTable.h"
#include "platform/PageNavigationPolicy.h"
#include "platform/gtk/AppScheme.h"
#include "platform/gtk/NativeFolderPicker.h"
#include "platform/gtk/OwnPageGuard.h"
#include "platform/gtk/WebViewHost.h"
#include "platform/gtk/WindowEventMonitoring.h"
#include "platform/gtk/ZoomGestureView.h"
#include "shell/AppBundleSchemeHandler.h"
#include "shell/GestureBridge.h"
#include "shell/InputCommandCenter.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"
#include "shell/WebViewLogger.h"

namespace velko {

// The key table is written with plain numbers so the logic builds without GTK;
// these keep it honest.
static_assert(Keyval::kEqual == GDK_KEY_equal && Keyval::kPlus == GDK_KEY_plus);
static_assert(Keyval::kMinus == GDK_KEY_minus && Keyval::kUnderscore == GDK_KEY_underscore);
static_assert(Keyval::k0 == GDK_KEY_0 && Keyval::kParenRight == GDK_KEY_parenright);
static_assert(Keyval::kSemicolon == GDK_KEY_semicolon && Keyval::kColon == GDK_KEY_colon);
static_assert(Keyval::kLowerR == GDK_KEY_r && Keyval::kUpperR == GDK_KEY_R);
static_assert(Keyval::kKPAdd == GDK_KEY_KP_Add && Keyval::kKPSubtract == GDK_KEY_KP_Subtract);
static_assert(Keyval::kKP0 == GDK_KEY_KP_0 && Keyval::kKPInsert == GDK_KEY_KP_Insert);
static_assert(Keyval::kLeft == GDK_KEY_Left && Keyval::kRight == GDK_KEY_Right);
static_assert(Keyval::kKPLeft == GDK_KEY_KP_Left && Keyval::kKPRight == GDK_KEY_KP_Right);
static_assert(Keyval::kEisuToggle == GDK_KEY_Eisu_toggle && Keyval::kMuhenkan == GDK_KEY_Muhenkan);
static_assert(Keyval::kHiraganaKatakana == GDK_KEY_Hiragana_Katakana && Keyval::kHenkanMode == GDK_KEY_Henkan_Mode);

namespace {

const Logger kLog("app.velko", "webview");

constexpr const char* kCrashMessage =
    "ページの表示プロセスが終了しました。Ctrl+Shift+R で再読み込みできます。";

uint32_t keyModifiers(unsigned state) {
    uint32_t modifiers = 0;
    if (state & GDK_SHIFT_MASK) modifiers |= kModifierShift;
    if (state & GDK_CONTROL_MASK) modifiers |= kModifierControl;
    if (state & GDK_ALT_MASK) modifiers |= kModifierAlt;
    if (state & GDK_SUPER_MASK) modifiers |= kModifierSuper;
    return modifiers;
}

double secondsSince1970() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

class DesktopWindowImpl final : public DesktopWindow {
public:
    DesktopWindowImpl(VelkoApp& app, GtkApplication* application, Options options) : m_app(app) {
        registerAppScheme();
        buildWindow(application);
        buildWebView();
        wireInput();
        locatePage(options);
        loadPage();
    }

    ~DesktopWindowImpl() override {
        m_app.commandCenter().deactivateGestureMonitoring();
        m_app.gestureBridge().stopMonitoring();
        if (m_webView) g_signal_handlers_disconnect_by_data(m_webView, this);
        if (m_contentManager) g_signal_handlers_disconnect_by_data(m_contentManager, this);
        if (m_window) {
            g_signal_handlers_disconnect_by_data(m_window, this);
            gtk_window_destroy(GTK_WINDOW(m_window));
            g_object_unref(m_window);
        }
    }

    GtkWidget* window() const override { return m_window; }
    GtkWidget* webView() const override { return GTK_WIDGET(m_webView); }

    void present() override {
        gtk_window_present(GTK_WINDOW(m_window));
        if (m_appeared) return;
        m_appeared = true;
        // First appearance: monitors on, then the configuration is read and applied.
        m_app.commandCenter().activateGestureMonitoring();
        m_app.contentDidAppear();
    }

    void reloadPage() override {
        gtk_widget_set_visible(m_crashBanner, FALSE);
        loadPage();
    }

    bool handleKeyPress(unsigned keyval, unsigned state) override {
        KeyPress press;
        press.keyval = keyval;
        press.modifiers = keyModifiers(state);
        gunichar c = gdk_keyval_to_unicode(keyval);
        if (c != 0) {
            char utf8[8] = {};
            press.text.assign(utf8, static_cast<size_t>(g_unichar_to_utf8(c, utf8)));
        }
        return m_monitoring->keyDown(press);
    }

    void handleFileDrop(const std::vector<std::string>& paths) override {
        auto script = nativeDropScript(paths, secondsSince1970());
        // Straight into the page, not through the bridge's queue.
        if (script) m_webViewHost->evaluateScript(*script);
    }

private:
    void buildWindow(GtkApplication* application) {
        m_window = application ? gtk_application_window_new(application) : gtk_window_new();
        g_object_ref_sink(m_window);
        gtk_window_set_title(GTK_WINDOW(m_window), "velko");
        gtk_window_set_default_size(GTK_WINDOW(m_window), 1440, 900);
        gtk_window_set_icon_name(GTK_WINDOW(m_window), "velko");
        if (application) gtk_application_window_set_show_menubar(GTK_APPLICATION_WINDOW(m_window), TRUE);
        gtk_widget_add_css_class(m_window, "velko-window");

        static bool styled = false;
        if (!styled) {
            styled = true;
            GtkCssProvider* css = gtk_css_provider_new();
            gtk_css_provider_load_from_data(css,
                                            ".velko-window, .velko-window > overlay { background-color: rgb(5,6,10); }"
                                            ".velko-window menubar { color: #d8d8e0; }"
                                            ".velko-crash { background-color: rgba(5,6,10,0.92); color: #fff;"
                                            " padding: 24px; font-size: 16px; }",
                                            -1);
            gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(css),
                                                       GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
            g_object_unref(css);
        }
        m_overlay = gtk_overlay_new();
        // The content's minimum; the window cannot shrink below it.
        gtk_widget_set_size_request(m_overlay, 1280, 800);
        gtk_window_set_child(GTK_WINDOW(m_window), m_overlay);
    }

    void buildWebView() {
        m_contentManager = webkit_user_content_manager_new();
        g_signal_connect(m_contentManager, "script-message-received::velko", G_CALLBACK(onScriptMessage), this);
        installPageChannel(m_contentManager);

        WebKitSettings* settings = webkit_settings_new();
        webkit_settings_set_enable_developer_extras(settings, TRUE);
        webkit_settings_set_allow_file_access_from_file_urls(settings, TRUE);
        webkit_settings_set_allow_universal_access_from_file_urls(settings, TRUE);

        m_webView = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "user-content-manager", m_contentManager,
                                                 "settings", settings, "web-context",
                                                 webkit_web_context_get_default(), nullptr));
        g_object_unref(settings);
        g_object_unref(m_contentManager);  // the view keeps it
        GdkRGBA background = {5 / 255.0f, 6 / 255.0f, 10 / 255.0f, 1.0f};
        webkit_web_view_set_background_color(m_webView, &background);
        gtk_widget_set_hexpand(GTK_WIDGET(m_webView), TRUE);
        gtk_widget_set_vexpand(GTK_WIDGET(m_webView), TRUE);
        gtk_overlay_set_child(GTK_OVERLAY(m_overlay), GTK_WIDGET(m_webView));

        keepViewOnOwnPage(m_webView);
        g_signal_connect(m_webView, "load-changed", G_CALLBACK(onLoadChanged), this);
        g_signal_connect(m_webView, "web-process-terminated", G_CALLBACK(onWebProcessTerminated), this);

        m_crashBanner = gtk_label_new(kCrashMessage);
        gtk_widget_add_css_class(m_crashBanner, "velko-crash");
        gtk_widget_set_halign(m_crashBanner, GTK_ALIGN_FILL);
        gtk_widget_set_valign(m_crashBanner, GTK_ALIGN_FILL);
        gtk_widget_set_visible(m_crashBanner, FALSE);
        gtk_overlay_add_overlay(GTK_OVERLAY(m_overlay), m_crashBanner);

        m_webViewHost = std::make_shared<WebViewHost>(m_webView);
        m_folderPicker = std::make_shared<NativeFolderPicker>(GTK_WINDOW(m_window));
        WebBridge& bridge = m_app.bridge();
        bridge.setWebView(m_webViewHost);
        bridge.setFolderPicker(m_folderPicker);

        m_gestureView = std::make_shared<ZoomGestureView>(GTK_WIDGET(m_webView));
        m_app.gestureBridge().attach(m_gestureView);
    }

    void wireInput() {
        m_monitoring = std::make_shared<WindowEventMonitoring>();
        InputCommandCenter& commands = m_app.commandCenter();
        commands.setEventMonitoring(m_monitoring);
        commands.onZoomShortcut = [this](const SyntheticKey& key) {
            m_webViewHost->evaluateScript(syntheticKeyScript(key));
        };
        commands.onReloadPage = [this] { reloadPage(); };

        GtkEventController* keys = gtk_event_controller_key_new();
        // Capture: the window sees keys before the page and its input method.
        gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
        g_signal_connect(keys, "key-pressed",
                         G_CALLBACK(+[](GtkEventControllerKey*, guint keyval, guint, GdkModifierType state,
                                        gpointer data) -> gboolean {
                             return static_cast<DesktopWindowImpl*>(data)->handleKeyPress(keyval, state);
                         }),
                         this);
        gtk_widget_add_controller(m_window, keys);

        GtkGesture* swipe = gtk_gesture_swipe_new();
        // Touch only: a mouse drag (selecting text) must never switch projects.
        gtk_gesture_single_set_touch_only(GTK_GESTURE_SINGLE(swipe), TRUE);
        gtk_event_controller_set_propagation_phase(GTK_EVENT_CONTROLLER(swipe), GTK_PHASE_CAPTURE);
        g_signal_connect(swipe, "swipe",
                         G_CALLBACK(+[](GtkGestureSwipe*, double vx, double vy, gpointer data) {
                             // Only a clearly horizontal swipe; a vertical flick scrolls.
                             if (std::abs(vx) > 2 * std::abs(vy))
                                 static_cast<DesktopWindowImpl*>(data)->m_monitoring->swipe(vx);
                         }),
                         this);
        gtk_widget_add_controller(m_window, GTK_EVENT_CONTROLLER(swipe));

        GtkDropTarget* drop = gtk_drop_target_new(GDK_TYPE_FILE_LIST, GDK_ACTION_COPY);
        gtk_event_controller_set_propagation_phase(GTK_EVENT_CONTROLLER(drop), GTK_PHASE_CAPTURE);
        g_signal_connect(drop, "drop",
                         G_CALLBACK(+[](GtkDropTarget*, const GValue* value, double, double, gpointer data) -> gboolean {
                             if (!G_VALUE_HOLDS(value, GDK_TYPE_FILE_LIST)) return FALSE;
                             auto* list = static_cast<GdkFileList*>(g_value_get_boxed(value));
                             std::vector<std::string> paths;
                             for (GSList* item = gdk_file_list_get_files(list); item; item = item->next) {
                                 if (char* path = g_file_get_path(G_FILE(item->data))) {
                                     paths.emplace_back(path);
                                     g_free(path);
                                 }
                             }
                             if (paths.empty()) return FALSE;
                             static_cast<DesktopWindowImpl*>(data)->handleFileDrop(paths);
                             return TRUE;
                         }),
                         this);
        gtk_widget_add_controller(m_window, GTK_EVENT_CONTROLLER(drop));
    }

    void locatePage(const Options& options) {
        std::optional<std::string> resources = options.resourceDirectory;
        if (!resources) {
            if (auto exe = executablePath()) resources = locateResourceDirectory(*exe);
        }
        if (resources) m_pageFile = locatePageFile(*resources);
        if (m_pageFile) {
            std::string folder = m_pageFile->substr(0, m_pageFile->rfind('/'));
            setAppSchemeHandler(std::make_shared<AppBundleSchemeHandler>(folder));
        } else {
            setAppSchemeHandler(nullptr);
        }
    }

    void loadPage() {
        if (!m_pageFile) {
            webkit_web_view_load_html(m_webView, kFallbackPageHtml, nullptr);
            return;
        }
        std::string html;
        if (!readWholeFile(*m_pageFile, html)) {
            kLog.error("cannot read the page " + *m_pageFile);
            webkit_web_view_load_html(m_webView, kUnreadablePageText, nullptr);
            return;
        }
        webkit_web_view_load_html(m_webView, rewritePageHtml(std::move(html)).c_str(), kAppBundleBaseURI);
    }

    static void onScriptMessage(WebKitUserContentManager*, JSCValue* value, gpointer data) {
        auto* self = static_cast<DesktopWindowImpl*>(data);
        // The relay only runs in our page's top frame; this holds even if a
        // message were still in flight when the view left the page.
        const char* shown = webkit_web_view_get_uri(self->m_webView);
        if (!shown || !isOwnPageURI(shown)) return;
        // The relay posts the body as its JSON text (nothing for a value JSON
        // cannot express).
        if (!jsc_value_is_string(value)) return;
        char* text = jsc_value_to_string(value);
        if (!text) return;
        std::string_view json(text);
        if (auto body = parseJson(json)) {
            if (auto line = webViewLogText(*body))
                appendWebViewLogLine(webViewLogPath(), *line);
            else
                self->m_app.bridge().handle(*body);
        }
        g_free(text);
    }

    static void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, gpointer data) {
        auto* self = static_cast<DesktopWindowImpl*>(data);
        if (event == WEBKIT_LOAD_STARTED) self->m_app.bridge().notifyWebViewDidStartNavigation();
        if (event == WEBKIT_LOAD_FINISHED) self->m_app.bridge().notifyWebViewDidFinishNavigation();
    }

    static void onWebProcessTerminated(WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer data) {
        auto* self = static_cast<DesktopWindowImpl*>(data);
        const char* why = reason == WEBKIT_WEB_PROCESS_CRASHED             ? "crashed"
                          : reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT ? "exceeded its memory limit"
                                                                                : "was terminated";
        kLog.error(std::string("the web content process ") + why + "; the page waits for a reload");
        appendWebViewLogLine(webViewLogPath(), std::string("[native] [error] web content process ") + why);
        // Events queue in the bridge until the reloaded page has finished loading.
        self->m_app.bridge().notifyWebViewDidStartNavigation();
        gtk_widget_set_visible(self->m_crashBanner, TRUE);
    }

    VelkoApp& m_app;
    GtkWidget* m_window = nullptr;
    GtkWidget* m_overlay = nullptr;
    GtkWidget* m_crashBanner = nullptr;
    WebKitWebView* m_webView = nullptr;
    WebKitUserContentManager* m_contentManager = nullptr;
    std::shared_ptr<WebViewHost> m_webViewHost;
    std::shared_ptr<NativeFolderPicker> m_folderPicker;
    std::shared_ptr<WindowEventMonitoring> m_monitoring;
    std::shared_ptr<ZoomGestureView> m_gestureView;
    std::optional<std::string> m_pageFile;
    bool m_appeared = false;
};

}  // namespace

std::unique_ptr<DesktopWindow> DesktopWindow::create(VelkoApp& app, GtkApplication* application, Options options) {
    return std::make_unique<DesktopWindowImpl>(app, application, std::move(options));
}

}  // namespace velko
