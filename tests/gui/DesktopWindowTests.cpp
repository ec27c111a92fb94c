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
#include <X11/keysym.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "core/Json.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "platform/gtk/DesktopWindow.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"
#include "GuiSupport.h"
#include "ScreenGrab.h"
#include "workspace/Models.h"

extern char** environ;

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
    // Nothing has run the main loop yet: the page is still loading.
    ASSERT_FALSE(app->bridge().isWebViewReady());
    for (int n = 0; n < 50; ++n) app->bridge().dispatchEvent("test/queued", OrderedJson{{"n", n}});
    ASSERT_TRUE(waitForPage());
    auto events = receivedEvents(webView());
    std::vector<int> queued;
    for (const auto& event : events)
        if (event.value("type", "") == "test/queued") queued.push_back(event["payload"].value("n", -1));
    std::vector<int> expected(50);
    for (int n = 0; n < 50; ++n) expected[static_cast<size_t>(n)] = n;
    EXPECT_EQ(queued, expected);
    // The first appearance's activation was queued before them and comes first.
    auto activation = std::find_if(events.begin(), events.end(),
                                   [](const Json& e) { return e.value("type", "") == "project/activate"; });
    auto firstQueued = std::find_if(events.begin(), events.end(),
                                    [](const Json& e) { return e.value("type", "") == "test/queued"; });
    ASSERT_NE(activation, events.end());
    EXPECT_LT(activation - events.begin(), firstQueued - events.begin());

    // Page -> bridge -> page: the page asks again and gets the snapshot.
    evaluate(webView(), "window.__received.length = 0, "
                        "window.webkit.messageHandlers.velko.postMessage({type: 'app/config/request'})");
    ASSERT_TRUE(pumpUntil([&] { return countOfType(receivedEvents(webView()), "app/config") == 1; }));
    auto answer = receivedEvents(webView());
    EXPECT_EQ(answer[0]["payload"]["projects"][0].value("name", ""), kTrickyName);
    EXPECT_EQ(answer[0]["payload"].value("activeProjectId", ""), kFirstId);

    EXPECT_EQ((*activation)["payload"].value("id", ""), kFirstId);
    EXPECT_EQ((*activation)["payload"].value("name", ""), kTrickyName);
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

    // The chord from the keyboard, through the X server and the window's key controller.
    int width = gtk_widget_get_width(window->window()), height = gtk_widget_get_height(window->window());
    ASSERT_TRUE(test::moveRealPointer(width / 2, height / 2));  // no window manager: focus follows the pointer
    ASSERT_TRUE(pumpUntil([&] { return gtk_window_is_active(GTK_WINDOW(window->window())); }, std::chrono::seconds(10)));
    ASSERT_TRUE(test::pressRealChord({XK_Control_L, XK_Alt_L, XK_Right}));
    ASSERT_TRUE(pumpUntil([&] { return activations() == before + 1; }));
    auto events = receivedEvents(webView());
    auto last = std::find_if(events.rbegin(), events.rend(),
                             [](const Json& e) { return e.value("type", "") == "project/activate"; });
    EXPECT_EQ((*last)["payload"].value("id", ""), kSecondId);

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

namespace {

// The real program, copied into a folder of its own with `resources` beside
// it, started in a session of its own and ended with all its processes.
class RunningProgram {
public:
    explicit RunningProgram(const std::optional<std::string>& resources) {
        std::string program = m_install.path() + "/velko";
        {
            std::ifstream in(std::string(std::getenv("VELKO_BINARY_DIR")) + "/velko", std::ios::binary);
            std::ofstream out(program, std::ios::binary);
            out << in.rdbuf();
        }
        ::chmod(program.c_str(), 0755);
        std::string link = m_install.path() + "/resources";
        if (resources)
            (void)::symlink(resources->c_str(), link.c_str());
        else
            createDirectories(link);

        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        char* argv[] = {program.data(), nullptr};
        if (posix_spawn(&m_pid, program.c_str(), &actions, &attr, argv, environ) != 0) m_pid = 0;
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
    ~RunningProgram() {
        if (m_pid > 0 && !m_exited) {
            ::kill(-m_pid, SIGTERM);
            int status = 0;
            ::waitpid(m_pid, &status, 0);
        }
    }
    bool started() const { return m_pid > 0; }
    // Polls `done` until it holds, the deadline passes or the program exits.
    bool waitFor(const std::function<bool()>& done) {
        auto deadline = Clock::now() + std::chrono::seconds(60);
        while (!done()) {
            if (Clock::now() > deadline || hasExited()) return false;
            ::usleep(50000);
        }
        return true;
    }
    bool hasExited() {
        if (!m_exited && ::waitpid(m_pid, &m_status, WNOHANG) == m_pid) m_exited = true;
        return m_exited;
    }
    int status() const { return m_status; }

private:
    test::TempDir m_install;
    pid_t m_pid = 0;
    bool m_exited = false;
    int m_status = 0;
};

size_t occurrences(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(needle, at)) != std::string::npos; at += needle.size()) ++n;
    return n;
}

}  // namespace

// The whole program, started as a user starts it, with the test page beside it.
TEST(DesktopProgram, StartsOnThePageAndAnswersItsConfigurationRequest) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    test::IsolatedHome home;
    RunningProgram program(sourcePath("tests/gui/resources"));
    ASSERT_TRUE(program.started());
    std::string logPath = home.cacheDir() + "/velko-webview.log";
    // The pending snapshot and the answer to the page's request.
    EXPECT_TRUE(program.waitFor([&] { return occurrences(test::readFile(logPath), "event app/config\n") >= 2; }))
        << "exited: " << program.hasExited() << " status " << program.status() << "\n"
        << test::readFile(logPath);
    // The first appearance read the (absent) file and saved an empty workspace.
    EXPECT_NE(test::readFile(home.dataDir() + "/config.json").find("\"projects\":[]"), std::string::npos);
    test::ScreenGrab grab;
    EXPECT_TRUE(program.waitFor([&] {
        grab = test::grabScreenToPng(outputPath("velko-program.png"));
        return grab.ok && grab.contentPixels > 500;
    }));
    EXPECT_FALSE(program.hasExited());
}

TEST(DesktopProgram, ShowsTheFallbackPageWithoutABuiltPage) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    test::IsolatedHome home;
    RunningProgram program(std::nullopt);
    ASSERT_TRUE(program.started());
    test::ScreenGrab grab;
    EXPECT_TRUE(program.waitFor([&] {
        grab = test::grabScreenToPng(outputPath("velko-program-fallback.png"));
        return grab.ok && grab.contentPixels > 500;
    })) << "content pixels: " << grab.contentPixels;
    EXPECT_FALSE(program.hasExited());
}
