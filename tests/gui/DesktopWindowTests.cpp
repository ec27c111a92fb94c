// The window with real WebKit on a display (Xvfb): the page is a small test
// page served through the app scheme; it records what it receives, and the
// tests read that back by evaluating scripts in it. Only our own page gets the
// bridge: links out go to the user's browser (the test's own, a desktop file
// that records what it is given) and never load in the view.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <webkit/webkit.h>
#include <X11/keysym.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "core/Json.h"
#include "core/Paths.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"
#include "GuiSupport.h"
#include "integration/AccountTestSupport.h"
#include "ScreenGrab.h"
#include "workspace/Models.h"

using namespace velko;
using Clock = std::chrono::steady_clock;
using test::evaluate;
using test::outputPath;
using test::pumpUntil;
using test::sourcePath;

namespace {

// Every character the event script has to survive: apostrophes, backslashes
// (also before an apostrophe and a quote), line breaks, double quotes, U+2028
// and U+2029, a NUL-free control character and non-ASCII text.
const std::string kTrickyName = "it's \"velko\" \\ \\' \\\" a\nb\r\n\u2028\u2029\t end \xE3\x83\x86\xE3\x82\xB9\xE3\x83\x88";
const char* kFirstId = "A1B2C3D4-0000-4000-8000-000000000001";
const char* kSecondId = "A1B2C3D4-0000-4000-8000-000000000002";

// The events the page has received, in order; only those of `type` when one is given.
std::vector<Json> receivedEvents(GtkWidget* view, const std::string& type = "") {
    std::vector<Json> events;
    auto list = parseJson(evaluate(view, "window.__received || []"));
    if (!list || !list->is_array()) return events;
    for (const auto& text : *list)
        if (auto event = parseJson(text.get<std::string>()); event && (type.empty() || event->value("type", "") == type))
            events.push_back(*event);
    return events;
}

class DesktopWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) GTEST_SKIP() << "no display";
        writeConfiguration();
        installTestBrowser();
        shown = std::make_unique<test::ShownWindow>(sourcePath("tests/gui/resources"));
        app = shown->app.get();
        window = shown->window.get();
    }

    void writeConfiguration() {
        AppConfig config;
        projectFolders = {home.home() + "/first", home.home() + "/second"};
        for (const auto& folder : projectFolders) createDirectories(folder);
        config.projects.push_back(ProjectMetadata{*Uuid::parse(kFirstId), kTrickyName, projectFolders[0], {}, {}});
        config.projects.push_back(ProjectMetadata{*Uuid::parse(kSecondId), "second", projectFolders[1], {}, {}});
        config.activeProjectID = *Uuid::parse(kFirstId);
        createDirectories(home.dataDir());
        ASSERT_TRUE(writeFileAtomically(home.dataDir() + "/config.json", dumpJson(encodeAppConfig(config))));
    }

    // The page has asked for the configuration and got it.
    bool waitForPage() {
        return pumpUntil([&] { return receivedEvents(webView(), "app/config").size() >= 2; });
    }

    GtkWidget* webView() const { return window->webView(); }

    // The default handler of http and https in this home: a script that
    // appends each URL it is started with to a file.
    void installTestBrowser() {
        std::string applications = home.home() + "/data/applications";
        ASSERT_TRUE(createDirectories(applications));
        ASSERT_TRUE(createDirectories(configDir));
        std::string script = home.home() + "/test-browser.sh";
        ASSERT_TRUE(writeFileAtomically(script, "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + browserCalls + "'\n", 0755));
        ASSERT_TRUE(writeFileAtomically(applications + "/velko-test-browser.desktop",
                                        "[Desktop Entry]\nType=Application\nName=Test browser\nExec=" + script +
                                            " %u\nMimeType=x-scheme-handler/http;x-scheme-handler/https;\n"));
        ASSERT_TRUE(writeFileAtomically(configDir + "/mimeapps.list",
                                        "[Default Applications]\n"
                                        "x-scheme-handler/http=velko-test-browser.desktop\n"
                                        "x-scheme-handler/https=velko-test-browser.desktop\n"));
    }

    std::string webViewLog() const { return test::readFile(home.cacheDir() + "/velko-webview.log"); }
    bool clickOn(const std::string& selector) {
        std::optional<std::pair<int, int>> at;
        if (!pumpUntil([&] { return (at = test::screenCentre(window->window(), webView(), selector)).has_value(); }))
            return false;
        return test::clickRealPointer(at->first, at->second);
    }

    test::IsolatedHome home;
    std::string configDir = home.home() + "/config";
    test::ScopedEnv configHome{"XDG_CONFIG_HOME", configDir};
    std::string browserCalls = home.home() + "/browser-calls";
    std::vector<std::string> projectFolders;
    std::unique_ptr<test::ShownWindow> shown;
    VelkoApp* app = nullptr;
    DesktopWindow* window = nullptr;
};

}  // namespace

TEST_F(DesktopWindowTest, EventsQueuedBeforeLoadArriveInOrderAndByteForByte) {
    // Nothing has run the main loop yet: the page is still loading. (The order
    // of many queued events is the bridge's own tests' concern.)
    ASSERT_FALSE(app->bridge().isWebViewReady());
    app->bridge().dispatchEvent("test/queued", OrderedJson{{"n", 1}});
    ASSERT_TRUE(waitForPage());
    auto events = receivedEvents(webView());
    auto indexOf = [&](const std::string& type) {
        auto at = std::find_if(events.begin(), events.end(), [&](const Json& e) { return e.value("type", "") == type; });
        return static_cast<size_t>(at - events.begin());
    };
    // The first appearance's activation was queued before it and comes first.
    size_t activation = indexOf("project/activate");
    ASSERT_LT(activation, indexOf("test/queued"));
    ASSERT_LT(indexOf("test/queued"), events.size());
    EXPECT_EQ(events[activation]["payload"].value("id", ""), kFirstId);
    EXPECT_EQ(events[activation]["payload"].value("name", ""), kTrickyName);

    // Page -> bridge -> page: the page asks again and gets the snapshot.
    evaluate(webView(), "window.__received.length = 0, "
                        "window.webkit.messageHandlers.velko.postMessage({type: 'app/config/request'})");
    ASSERT_TRUE(pumpUntil([&] { return receivedEvents(webView(), "app/config").size() == 1; }));
    auto answer = receivedEvents(webView(), "app/config");
    EXPECT_EQ(answer[0]["payload"]["projects"][0].value("name", ""), kTrickyName);
    EXPECT_EQ(answer[0]["payload"].value("activeProjectId", ""), kFirstId);

    // The page's log messages reached the log file; they never reached the bridge.
    std::string log = webViewLog();
    EXPECT_NE(log.find("] [test-page] [info] event app/config\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] [test-page] [debug] {\n  \"loaded\": true\n}\n"), std::string::npos) << log;

    // What the display shows: the page's text drawn over the window background.
    test::ScreenGrab grab;
    ASSERT_TRUE(pumpUntil([&] {
        grab = test::grabScreenToPng(outputPath("velko-window.png"));
        return grab.ok && grab.contentPixels > 500;
    }, std::chrono::seconds(20))) << "content pixels: " << grab.contentPixels;
}

TEST_F(DesktopWindowTest, KeysAndDropsReachThePageAndACrashedPageComesBackOnReload) {
    ASSERT_TRUE(waitForPage());
    auto activations = [&] { return receivedEvents(webView(), "project/activate").size(); };
    size_t before = activations();

    // The chord from the keyboard, through the X server and the window's key controller.
    int width = gtk_widget_get_width(window->window()), height = gtk_widget_get_height(window->window());
    ASSERT_TRUE(test::moveRealPointer(width / 2, height / 2));  // no window manager: focus follows the pointer
    ASSERT_TRUE(pumpUntil([&] { return gtk_window_is_active(GTK_WINDOW(window->window())); }, std::chrono::seconds(10)));
    ASSERT_TRUE(test::pressRealChord({XK_Control_L, XK_Alt_L, XK_Right}));
    ASSERT_TRUE(pumpUntil([&] { return activations() == before + 1; }));
    EXPECT_EQ(receivedEvents(webView(), "project/activate").back()["payload"].value("id", ""), kSecondId);

    EXPECT_TRUE(window->handleKeyPress(GDK_KEY_Left, GDK_CONTROL_MASK | GDK_ALT_MASK));
    ASSERT_TRUE(pumpUntil([&] { return activations() == before + 2; }));

    // A plain key goes on to the page untouched.
    EXPECT_FALSE(window->handleKeyPress(GDK_KEY_a, 0));

    // Only the synthetic zoom keys from here on (the real chord's modifiers reached the page).
    evaluate(webView(), "window.__keys.length = 0");
    EXPECT_TRUE(window->handleKeyPress(GDK_KEY_plus, GDK_CONTROL_MASK | GDK_SHIFT_MASK));
    ASSERT_TRUE(pumpUntil([&] { return evaluate(webView(), "window.__keys.length") == "2"; }));
    EXPECT_EQ(evaluate(webView(), "window.__keys"),
              R"(["keydown + Equal true true false false","keyup + Equal true true false false"])");

    std::vector<std::string> dropped = {projectFolders[0] + "/a file.txt", projectFolders[1] + "/it's\n.txt"};
    window->handleFileDrop(dropped);
    ASSERT_TRUE(pumpUntil([&] { return evaluate(webView(), "window.__drops.length") == "1"; }));
    auto detail = parseJson(parseJson(evaluate(webView(), "window.__drops[0]"))->get<std::string>());
    ASSERT_TRUE(detail.has_value());
    EXPECT_EQ((*detail)["paths"].get<std::vector<std::string>>(), dropped);
    EXPECT_TRUE((*detail)["timestamp"].is_number());

    // The page's process crashes: a message instead of an empty page, and the page back on reload.
    webkit_web_view_terminate_web_process(WEBKIT_WEB_VIEW(webView()));
    ASSERT_TRUE(pumpUntil([&] { return webViewLog().find("web content process") != std::string::npos; }));
    EXPECT_FALSE(app->bridge().isWebViewReady());
    // The message is on screen, not an empty page.
    test::ScreenGrab grab;
    EXPECT_TRUE(pumpUntil([&] {
        grab = test::grabScreenToPng(outputPath("velko-window-crashed.png"));
        return grab.ok && grab.contentPixels > 500;
    }, std::chrono::seconds(20))) << "content pixels: " << grab.contentPixels;

    // Events while the page is gone wait for the reloaded page.
    app->bridge().dispatchEvent("test/while-crashed", OrderedJson{{"n", 1}});
    EXPECT_TRUE(window->handleKeyPress(GDK_KEY_R, GDK_CONTROL_MASK | GDK_SHIFT_MASK));
    ASSERT_TRUE(pumpUntil([&] {
        return receivedEvents(webView(), "test/while-crashed").size() == 1 &&
               !receivedEvents(webView(), "app/config").empty();
    }));
}

TEST_F(DesktopWindowTest, LinksTheUserFollowsOpenInTheBrowserAndNothingLeavesThePage) {
    ASSERT_TRUE(waitForPage());
    GtkWidget* view = webView();
    evaluate(view, "window.__marker = 'still the same page'");
    // Navigations no user asked for: the view ignores them, the browser never
    // hears of them. (WebKit lends a script evaluated from outside a user
    // gesture, and passes it on to timers of up to a second: these start later.)
    evaluate(view, "(setTimeout(() => {"
                   "  location.href = 'https://example.invalid/by-script';"
                   "  setTimeout(() => { window.open('https://example.invalid/popup-by-script'); }, 0);"
                   "  setTimeout(() => { document.getElementById('link-out').click(); }, 10);"
                   "  setTimeout(() => { location.href = 'data:text/html,<p>not ours'; }, 20);"
                   "  setTimeout(() => { location.href = 'app://elsewhere/index.html'; }, 30);"
                   "  setTimeout(() => { window.__scripted = true; }, 40);"
                   "}, 1500), 0)");
    ASSERT_TRUE(pumpUntil([&] { return evaluate(view, "window.__scripted === true") == "true"; }));

    // Real clicks from the pointer: a link, and a link into a new window.
    ASSERT_TRUE(clickOn("#link-out")) << "the X server has no XTest";
    ASSERT_TRUE(pumpUntil([&] { return test::readFile(browserCalls).find("/docs") != std::string::npos; }));
    ASSERT_TRUE(clickOn("#link-new-window"));
    ASSERT_TRUE(pumpUntil([&] { return test::readFile(browserCalls).find("/new") != std::string::npos; }));

    EXPECT_EQ(test::readFile(browserCalls),
              "https://example.invalid/docs?from=velko\nhttps://example.invalid/new\n");
    const char* uri = webkit_web_view_get_uri(WEBKIT_WEB_VIEW(view));
    EXPECT_EQ(std::string(uri ? uri : "").rfind("app://bundle/", 0), 0u) << (uri ? uri : "");
    EXPECT_EQ(evaluate(view, "window.__marker"), "\"still the same page\"");
}

// A frame of another origin inside the page cannot post to the bridge.
TEST_F(DesktopWindowTest, AFrameOfAnotherOriginCannotReachTheBridge) {
    ASSERT_TRUE(waitForPage());
    GtkWidget* view = webView();
    // A sandboxed frame has an origin of its own. It tries every way to the
    // bridge it can name, then reports to the page.
    evaluate(view, R"JS((() => {
      const attempt = `
        const body = (how) => ({ type: 'webview/log', source: 'foreign-frame', message: how });
        const tries = [];
        const run = (name, f) => { try { f(); tries.push(name + ':sent'); } catch (e) { tries.push(name + ':' + e.name); } };
        run('own', () => window.webkit.messageHandlers.velko.postMessage(body('own channel')));
        run('parent', () => parent.webkit.messageHandlers.velko.postMessage(body('parent channel')));
        run('relay', () => parent.dispatchEvent(new CustomEvent('velko:channel',
              { detail: JSON.stringify(body('relay event')) })));
        parent.postMessage(JSON.stringify(body('window message')), '*');
        parent.postMessage('done ' + tries.join(' '), '*');`;
      const frame = document.createElement('iframe');
      frame.setAttribute('sandbox', 'allow-scripts');
      frame.srcdoc = '<script>' + attempt + '<' + '/script>';
      document.body.appendChild(frame);
      return 0;
    })())JS");
    ASSERT_TRUE(pumpUntil([&] {
        return evaluate(view, "window.__frameReports.some((r) => r.startsWith('done'))") == "true";
    })) << "the frame did not run";
    std::string reports = evaluate(view, "window.__frameReports");

    // The page's own message after the frame's: once it is logged, anything
    // the frame got through would have been logged before it.
    evaluate(view, "window.webkit.messageHandlers.velko.postMessage("
                   "{ type: 'webview/log', source: 'test-page', message: 'after the frame' })");
    ASSERT_TRUE(pumpUntil([&] { return webViewLog().find("after the frame") != std::string::npos; }));
    EXPECT_EQ(webViewLog().find("foreign-frame"), std::string::npos) << webViewLog() << "\n" << reports;
}

// The whole program, started as a user starts it, installed without a built page.
TEST(DesktopProgram, ShowsTheFallbackPageWithoutABuiltPage) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    test::IsolatedHome home;
    test::TempDir install;
    std::string program = install.file("velko");
    std::filesystem::copy_file(std::string(std::getenv("VELKO_BINARY_DIR")) + "/velko", program);
    ::chmod(program.c_str(), 0755);
    createDirectories(install.file("resources"));
    pid_t pid = test::spawnChild({program});
    ASSERT_GT(pid, 0);
    test::ScreenGrab grab;
    bool exited = false;
    for (auto deadline = Clock::now() + std::chrono::seconds(60); Clock::now() < deadline; ::usleep(50000)) {
        grab = test::grabScreenToPng(outputPath("velko-program-fallback.png"));
        if ((exited = ::waitpid(pid, nullptr, WNOHANG) == pid) || (grab.ok && grab.contentPixels > 500)) break;
    }
    EXPECT_FALSE(exited);
    EXPECT_GT(grab.contentPixels, 500);
    if (!exited) {
        ::kill(pid, SIGTERM);
        test::waitChild(pid);
    }
}
