// The real page's Japanese labels are drawn with real glyphs, not a row of
// empty boxes: the machine has a CJK font (scripts/deps.sh installs Debian's
// fonts-noto-cjk) and the page's fonts reach it.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "GuiSupport.h"
#include "ScreenGrab.h"
#include "core/Json.h"
#include "core/MainQueue.h"
#include "platform/gtk/DesktopWindow.h"
#include "shell/VelkoApp.h"
#include "support/TestSupport.h"

using namespace velko;
using test::evaluate;
using test::pumpUntil;

namespace {

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

}  // namespace

TEST(JapaneseText, TheRealPagesLabelsAreDrawnWithRealGlyphs) {
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
    std::string resources = test::sourcePath("resources");
    if (!std::filesystem::is_regular_file(resources + "/web/index.html"))
        GTEST_SKIP() << "the page is not built: scripts/build.sh builds it into resources/web";

    test::IsolatedHome home;
    gtk_init();
    setMainQueue(std::make_shared<GlibMainQueue>());
    auto app = std::make_unique<VelkoApp>();
    DesktopWindow::Options options;
    options.resourceDirectory = resources;
    auto window = DesktopWindow::create(*app, nullptr, options);
    window->present();
    GtkWidget* view = window->webView();

    std::optional<Json> measured;
    ASSERT_TRUE(pumpUntil([&] {
        measured = parseJson(evaluate(view, kMeasureFirstJapaneseLabel));
        return measured && measured->is_object();
    })) << "no Japanese label on the page: " << evaluate(view, "document.body.innerText");
    const Json& m = *measured;
    SCOPED_TRACE(m.dump());
    EXPECT_GE(m.value("distinctCharacters", 0), 2);
    EXPECT_EQ(m.value("distinctShapes", 0), m.value("distinctCharacters", -1)) << "characters drawn as empty boxes";
    EXPECT_EQ(m.value("drawnAsTheBox", -1), 0);
    EXPECT_TRUE(m.value("notoLoaded", false));

    // For the eye: the window as it is drawn.
    test::ScreenGrab grab;
    EXPECT_TRUE(pumpUntil([&] {
        grab = test::grabScreenToPng(test::outputPath("velko-japanese-labels.png"));
        return grab.ok && grab.contentPixels > 500;
    }, std::chrono::seconds(20)));

    window.reset();
    app.reset();
    for (int i = 0; i < 200 && g_main_context_pending(nullptr); ++i) g_main_context_iteration(nullptr, FALSE);
}
