// The window with real WebKit on a display (Xvfb): the page is a small test
// page served through the app scheme; it records what it receives, and the
// tests read that back by evaluating scripts in it.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "core/Json.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "platform/DesktopWindow.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"
#include "ScreenGrab.h"
#include "workspace/Models.h"

extern char** environ;

using namespace velko;
using Clock = std::chrono::steady_clock;

namespace {

// Every character the event script has to survive: apostrophes, backslashes
// (also before an apostrophe and a quote), line breaks, double quotes, U+2028
// and U+2029, a NUL-free control character and non-ASCII text.
const std::string kTrickyName = "it's \"velko\" \\ \\' \\\" a\nb\r\n\u2028\u2029\t end \xE3\x83\x86\xE3\x82\xB9\xE3\x83\x88";
const char* kFirstId = "A1B2C3D4-0000-4000-8000-000000000001";
const char* kSecondId = "A1B2C3D4-0000-4000-8000-000000000002";

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

// Runs the GLib main context until `done` holds or the deadline passes.
bool pumpUntil(const std::function<bool()>& done, std::chrono::seconds limit = std::chrono::seconds(60)) {
    auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline) return false;
        g_main_context_iteration(nullptr, FALSE);
        if (!g_main_context_pending(nullptr)) g_usleep(2000);
    }
    return true;
}

// The page's value of `expression` as text (JSON for structures).
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

std::vector<Json> receivedEvents(GtkWidget* view) {
    std::vector<Json> events;
    auto list = parseJson(evaluate(view, "window.__received || []"));
    if (!list || !list->is_array()) return events;
    for (const auto& text : *list)
        if (auto event = parseJson(text.get<std::string>())) events.push_back(*event);
    return events;
}

size_t countOfType(const std::vector<Json>& events, const std::string& type) {
    return static_cast<size_t>(std::count_if(events.begin(), events.end(), [&](const Json& e) {
        return e.value("type", "") == type;
    }));
}

class DesktopWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) GTEST_SKIP() << "no display";
        gtk_init();
        setMainQueue(std::make_shared<GlibMainQueue>());
        writeConfiguration();
        app = std::make_unique<VelkoApp>();
        DesktopWindow::Options options;
        options.resourceDirectory = sourcePath("tests/gui/resources");
        window = DesktopWindow::create(*app, nullptr, options);
        window->present();
    }

    void TearDown() override {
        window.reset();
        app.reset();
        // Let the web process go before the temporary home is removed.
        for (int i = 0; i < 200 && g_main_context_pending(nullptr); ++i) g_main_context_iteration(nullptr, FALSE);
    }

    void writeConfiguration() {
        AppConfig config;
        projectFolders.emplace_back(home.home() + "/first");
        projectFolders.emplace_back(home.home() + "/second");
        for (const auto& folder : projectFolders) createDirectories(folder);
        config.projects.push_back(ProjectMetadata{*Uuid::parse(kFirstId), kTrickyName, projectFolders[0], {}, {}});
        config.projects.push_back(ProjectMetadata{*Uuid::parse(kSecondId), "second", projectFolders[1], {}, {}});
        config.activeProjectID = *Uuid::parse(kFirstId);
        createDirectories(home.dataDir());
        ASSERT_TRUE(writeFileAtomically(home.dataDir() + "/config.json", dumpJson(encodeAppConfig(config))));
    }

    // The page has asked for the configuration and got it.
    bool waitForPage() {
        return pumpUntil([&] { return countOfType(receivedEvents(webView()), "app/config") >= 2; });
    }

    GtkWidget* webView() const { return window->webView(); }

    test::IsolatedHome home;
    std::vector<std::string> projectFolders;
    std::unique_ptr<VelkoApp> app;
    std::unique_ptr<DesktopWindow> window;
};

}  // namespace

TEST_F(DesktopWindowTest, EventsQueuedBeforeLoadArriveInOrderAndByteForByte) {
    ASSERT_TRUE(waitForPage());
    auto events = receivedEvents(webView());
    std::vector<std::string> types;
    for (const auto& event : events) types.push_back(event.value("type", ""));
    // Construction and the first appearance dispatched these before the page
    // finished loading; they come in their order, then the page's own request.
    ASSERT_GE(types.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(types.begin(), types.begin() + 4),
              (std::vector<std::string>{"github/oauth/status", "app/config", "github/oauth/status", "project/activate"}));

    // Page -> bridge -> page: the page asks again and gets the snapshot.
    evaluate(webView(), "window.__received.length = 0, "
                        "window.webkit.messageHandlers.velko.postMessage({type: 'app/config/request'})");
    ASSERT_TRUE(pumpUntil([&] { return countOfType(receivedEvents(webView()), "app/config") == 1; }));
    auto answer = receivedEvents(webView());
    EXPECT_EQ(answer[0]["payload"]["projects"][0].value("name", ""), kTrickyName);
    EXPECT_EQ(answer[0]["payload"].value("activeProjectId", ""), kFirstId);

    const Json& activation = events[3]["payload"];
    EXPECT_EQ(activation.value("id", ""), kFirstId);
    EXPECT_EQ(activation.value("name", ""), kTrickyName);
    // Read straight from the page's own objects too, not only through our parser.
    EXPECT_EQ(parseJson(evaluate(webView(), "window.__velkoEventHistory.find(e => e.type === 'project/activate')"
                                            ".payload.name"))
                  ->get<std::string>(),
              kTrickyName);
    EXPECT_EQ(evaluate(webView(), "window.__velkoEventHistory.find(e => e.type === 'project/activate')"
                                  ".payload.name.length"),
              std::to_string(g_utf8_strlen(kTrickyName.c_str(), -1)));

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

TEST_F(DesktopWindowTest, KeysSwitchProjectsAndZoomThePageAndDropsReachIt) {
    ASSERT_TRUE(waitForPage());
    auto activations = [&] { return countOfType(receivedEvents(webView()), "project/activate"); };
    size_t before = activations();

    EXPECT_TRUE(window->handleKeyPress(GDK_KEY_Right, GDK_CONTROL_MASK | GDK_ALT_MASK));
    ASSERT_TRUE(pumpUntil([&] { return activations() == before + 1; }));
    auto events = receivedEvents(webView());
    auto last = std::find_if(events.rbegin(), events.rend(),
                             [](const Json& e) { return e.value("type", "") == "project/activate"; });
    EXPECT_EQ((*last)["payload"].value("id", ""), kSecondId);

    EXPECT_TRUE(window->handleKeyPress(GDK_KEY_Left, GDK_CONTROL_MASK | GDK_ALT_MASK));
    ASSERT_TRUE(pumpUntil([&] { return activations() == before + 2; }));

    // A plain key goes on to the page untouched.
    EXPECT_FALSE(window->handleKeyPress(GDK_KEY_a, 0));

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
}

TEST_F(DesktopWindowTest, ACrashedPageShowsAMessageAndComesBackOnReload) {
    ASSERT_TRUE(waitForPage());
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
        auto events = receivedEvents(webView());
        return countOfType(events, "test/while-crashed") == 1 && countOfType(events, "app/config") >= 1;
    }));
}

// The whole program, started as a user starts it, with the test page beside it.
TEST(DesktopProgram, StartsOnThePageAndAnswersItsConfigurationRequest) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    test::IsolatedHome home;
    test::TempDir install;
    std::string program = install.path() + "/velko";
    {
        std::ifstream in(std::string(std::getenv("VELKO_BINARY_DIR")) + "/velko", std::ios::binary);
        std::ofstream out(program, std::ios::binary);
        out << in.rdbuf();
    }
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    ASSERT_EQ(::symlink(sourcePath("tests/gui/resources").c_str(), (install.path() + "/resources").c_str()), 0);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    char* argv[] = {program.data(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, program.c_str(), &actions, &attr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);

    std::string logPath = home.cacheDir() + "/velko-webview.log";
    auto count = [&](const std::string& needle) {
        std::string log = test::readFile(logPath);
        size_t n = 0;
        for (size_t at = 0; (at = log.find(needle, at)) != std::string::npos; at += needle.size()) ++n;
        return n;
    };
    // The pending snapshot and the answer to the page's request.
    auto deadline = Clock::now() + std::chrono::seconds(60);
    int status = 0;
    bool exited = false;
    while (count("event app/config\n") < 2 && Clock::now() < deadline) {
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            exited = true;
            break;
        }
        ::usleep(50000);
    }
    EXPECT_FALSE(exited) << "velko exited with status " << status;
    EXPECT_GE(count("event app/config\n"), 2u) << test::readFile(logPath);
    if (!exited) {
        ::kill(-pid, SIGTERM);
        ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(test::readFile(home.dataDir() + "/config.json").size() > 0);
}
