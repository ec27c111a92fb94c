// The window with real WebKit on a display (Xvfb): the page is a small test
// page served through the app scheme; it records what it receives, and the
// tests read that back by evaluating scripts in it.
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

    test::IsolatedHome home;
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
    std::string log = test::readFile(home.cacheDir() + "/velko-webview.log");
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
    std::string logPath = home.cacheDir() + "/velko-webview.log";
    ASSERT_TRUE(pumpUntil([&] { return test::readFile(logPath).find("web content process") != std::string::npos; }));
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
