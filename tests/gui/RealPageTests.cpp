// The real page (built from web/ into resources/web) in the real window, with
// real input through the X server: its Japanese labels drawn with real glyphs
// (the machine has a CJK font, scripts/deps.sh installs fonts-noto-cjk, and the
// page's fonts reach it), a click on the page's "open project" button, the
// folder picked, a login shell on a PTY in the new project, and "echo hi"
// typed key by key until the shell's answer is on screen.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <cstdlib>
#include <filesystem>

#include "GuiSupport.h"
#include "ScreenGrab.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "platform/IBusInputSources.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"

using namespace velko;
using test::evaluate;
using test::pumpUntil;
using test::screenCentre;

namespace {

struct ChosenFolders final : FolderPicking {
    void pickFolders(std::function<void(std::vector<std::string>)> completion) override {
        ++shown;
        completion(folders);
    }
    std::vector<std::string> folders;
    int shown = 0;
};

// A small repository with one commit and one change, so that the explorer
// and the git panel have something to show.
void makeProject(const std::string& folder) {
    createDirectories(folder + "/src");
    ASSERT_TRUE(writeFileAtomically(folder + "/README.md", "# demo\n"));
    ASSERT_TRUE(writeFileAtomically(folder + "/src/main.cpp", "int main() { return 0; }\n"));
    std::string git = "git -C '" + folder + "' -c user.name=velko -c user.email=velko@example.invalid ";
    std::string start = git + "init -q -b main && " + git + "add -A && " + git + "commit -q -m 'Start the demo'";
    ASSERT_EQ(std::system(start.c_str()), 0);
    ASSERT_TRUE(writeFileAtomically(folder + "/README.md", "# demo\n\nChanged.\n"));
}

// Draws the Japanese characters of the first visible Japanese label of the
// page in the label's own font, and a missing glyph (U+10FFFD, the empty box)
// beside them: how many different shapes the characters make (empty boxes all
// look alike), and how many of them look like the box. Widths tell nothing
// here: the box is one em wide, like a kana.
constexpr const char* kMeasureFirstJapaneseLabel = R"JS((() => {
  const japanese = /[\u3040-\u30ff\u4e00-\u9fff]/u;
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  let node;
  while ((node = walker.nextNode()) && !(japanese.test(node.data) && node.parentElement.getClientRects().length)) {}
  if (!node) return null;
  const style = getComputedStyle(node.parentElement);
  const font = `${style.fontStyle} ${style.fontWeight} 32px ${style.fontFamily}`;
  const chars = [...node.data].filter((c) => japanese.test(c));
  const shape = (c) => {
    const canvas = document.createElement('canvas');
    canvas.width = canvas.height = 48;
    const g = canvas.getContext('2d');
    g.font = font;
    g.fillText(c, 4, 36);
    const alpha = g.getImageData(0, 0, 48, 48).data.filter((_, i) => i % 4 === 3);
    const rows = [];
    for (let y = 0; y < 48; y++) rows.push(alpha.slice(y * 48, y * 48 + 48).reduce((a, b) => a + (b > 127), 0));
    return rows.join(' ');
  };
  return {
    label: node.data,
    fontFamily: style.fontFamily,
    distinctCharacters: new Set(chars).size,
    distinctShapes: new Set(chars.map(shape)).size,
    drawnAsTheBox: chars.filter((c) => shape(c) === shape(String.fromCodePoint(0x10fffd))).length,
    notoLoaded: document.fonts.check('16px "Noto Sans CJK JP"', 'プロジェクト'),
  };
})())JS";

// How the typed keys should travel: all through the page, or the printable
// ones straight to the shell (IBus on an ASCII layout) and Return through the page.
enum class KeyPath { Page, Native };

void openProjectAndType(KeyPath path, const std::string& screenshot) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    std::string resources = test::sourcePath("resources");
    if (!std::filesystem::is_regular_file(resources + "/web/index.html"))
        GTEST_SKIP() << "the page is not built: scripts/build.sh builds it into resources/web";
    if (path == KeyPath::Native && !test::haveIBus())
        GTEST_SKIP() << "ibus-daemon is not installed (scripts/deps.sh installs it)";

    test::IsolatedHome home;
    test::ScopedEnv config("XDG_CONFIG_HOME", home.home() + "/.config");
    test::ScopedEnv settings("GSETTINGS_BACKEND", "memory");
    ::unsetenv("IBUS_ADDRESS");
    std::string project = home.home() + "/demo-project";
    makeProject(project);
    if (::testing::Test::HasFatalFailure()) return;

    std::optional<test::IBusDaemon> ibus;
    std::shared_ptr<InputSourceServicing> sources;
    if (path == KeyPath::Native) {
        ibus.emplace();
        ASSERT_TRUE(ibus->started());
        ASSERT_TRUE(pumpUntil([&] { return (sources = connectIBusInputSources()) != nullptr; },
                              std::chrono::seconds(20)));
        ASSERT_TRUE(sources->select(InputSourceInfo{"xkb:us::eng", true, true, true, std::nullopt, std::nullopt}));
    }

    // Nothing loads before the loop runs: the picker and the input sources are in place in time.
    test::ShownWindow shown(resources);
    shown.app->setInputSources(sources);
    auto picker = std::make_shared<ChosenFolders>();
    picker->folders = {project};
    shown.app->bridge().setFolderPicker(picker);
    GtkWidget* view = shown.window->webView();
    GtkWidget* window = shown.window->window();

    // Every way out ends the shells before the window and the home go.
    struct AtExit {
        VelkoApp& app;
        ~AtExit() {
            bool done = false;
            app.shutdown([&] { done = true; });
            pumpUntil([&] { return done; }, std::chrono::seconds(15));
        }
    } teardown{*shown.app};

    // The page is up and answered; the workspace starts empty.
    ASSERT_TRUE(pumpUntil([&] { return evaluate(view, "!!window.__velko__ && !!document.querySelector('.add-project')") == "true"; }));
    if (path == KeyPath::Page) {
        std::optional<Json> m;
        ASSERT_TRUE(pumpUntil([&] { return (m = parseJson(evaluate(view, kMeasureFirstJapaneseLabel))) && m->is_object(); }))
            << "no Japanese label on the page: " << evaluate(view, "document.body.innerText");
        SCOPED_TRACE(m->dump());
        EXPECT_GE(m->value("distinctCharacters", 0), 2);
        EXPECT_EQ(m->value("distinctShapes", 0), m->value("distinctCharacters", -1)) << "characters drawn as empty boxes";
        EXPECT_EQ(m->value("drawnAsTheBox", -1), 0);
        EXPECT_TRUE(m->value("notoLoaded", false));
        EXPECT_TRUE(pumpUntil([&] {
            return test::grabScreenToPng(test::outputPath("velko-japanese-labels.png")).contentPixels > 500;
        }, std::chrono::seconds(20)));
    }

    // A real click on the page's button opens the picker; the project opens.
    std::optional<std::pair<int, int>> button;
    ASSERT_TRUE(pumpUntil([&] { return (button = screenCentre(window, view, ".add-project")).has_value(); }));
    ASSERT_TRUE(test::clickRealPointer(button->first, button->second)) << "the X server has no XTest";
    ASSERT_TRUE(pumpUntil([&] { return picker->shown == 1; }, std::chrono::seconds(20)));
    ASSERT_TRUE(pumpUntil([&] {
        return evaluate(view, "[...document.querySelectorAll('.project-tab .project-name')].map(e => e.textContent)") ==
               "[\"demo-project\"]";
    }));

    // Its terminal runs a login shell on a PTY; the prompt is drawn. The shipped page has no handle
    // on its terminals: what it shows is read from the rows xterm.js puts into the document.
    std::string session;
    // The terminal's rows, trimmed at the end, with `tail` applied to the list.
    auto rows = [&](const std::string& tail) {
        return evaluate(view, "[...document.querySelectorAll('.term-host[data-session=\"" + session +
                                  "\"] .xterm-rows > div')].map(r => r.textContent.replace(/\\u00a0/g, ' ').trimEnd())" + tail);
    };
    ASSERT_TRUE(pumpUntil([&] {
        auto id = parseJson(evaluate(view, "document.querySelector('.term-host:not([hidden])')?.dataset.session ?? ''"));
        if (!id || !id->is_string() || id->get<std::string>().empty()) return false;
        session = id->get<std::string>();
        return rows(".some(r => r.trim() !== '')") == "true";
    })) << "no prompt";

    // Keys typed on the keyboard reach the shell; its answer comes back:
    // a row that is exactly "hi", the output, not the echoed command.
    auto answered = [&] { return rows(".includes('hi')") == "true"; };
    EXPECT_FALSE(answered());
    gtk_widget_grab_focus(view);
    evaluate(view, "document.querySelector('.term-host[data-session=\"" + session + "\"] .xterm-helper-textarea').focus()");
    std::optional<std::pair<int, int>> pane;
    ASSERT_TRUE(pumpUntil([&] { return (pane = screenCentre(window, view, ".term-host:not([hidden])")).has_value(); }));
    // Without a window manager the keyboard follows the pointer.
    ASSERT_TRUE(test::moveRealPointer(pane->first, pane->second));
    ASSERT_TRUE(pumpUntil([&] { return gtk_window_is_active(GTK_WINDOW(window)); }, std::chrono::seconds(10)));
    // What the page's terminal sends on (the web path), recorded where the page's channel hands each
    // message, as JSON text, to the bridge's own script world.
    evaluate(view, "(() => { window.__sent = []; window.addEventListener('velko:channel', (e) => {"
                   " const m = JSON.parse(e.detail); if (m && m.type === 'terminal/input') window.__sent.push(m.payload.data); }); })()");
    ASSERT_TRUE(test::typeRealKeys("echo hi\n"));
    EXPECT_TRUE(pumpUntil(answered, std::chrono::seconds(30))) << rows(".join('\\n')");
    std::string sent = evaluate(view, "window.__sent.join('')");
    if (path == KeyPath::Native)
        EXPECT_EQ(sent, "\"\\r\"") << "only Return takes the page's path";
    else
        EXPECT_EQ(sent, "\"echo hi\\r\"");

    // The explorer lists the project's files, the git panel its change.
    EXPECT_TRUE(pumpUntil([&] { return evaluate(view, "document.body.innerText.includes('README.md')") == "true"; }));

    // What is on screen is what the page has painted: wait for frames after the changes.
    evaluate(view, "(window.__frames = 0, (function tick() { window.__frames++; requestAnimationFrame(tick); })(), 0)");
    EXPECT_TRUE(pumpUntil([&] { return std::atoi(evaluate(view, "window.__frames").c_str()) >= 5; }))
        << "the page paints no frames";
    test::ScreenGrab grab;
    EXPECT_TRUE(pumpUntil([&] {
        grab = test::grabScreenToPng(test::outputPath(screenshot));
        return grab.ok && grab.contentPixels > 5000;
    }, std::chrono::seconds(20))) << "content pixels: " << grab.contentPixels << "\npage text: "
                                   << evaluate(view, "document.body.innerText");
}

}  // namespace

TEST(RealPage, OpensAProjectThroughThePickerAndRunsWhatIsTypedInItsShell) {
    openProjectAndType(KeyPath::Page, "velko-real-page.png");
}

TEST(RealPage, PlainKeysGoStraightToTheShellWhenIBusNeedsNoComposition) {
    openProjectAndType(KeyPath::Native, "velko-real-page-native-keys.png");
}
