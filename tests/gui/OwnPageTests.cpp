// Only our own page gets the bridge: links out go to the user's browser (the
// test's own, a desktop file that records what it is given) and never load in
// the view, and a frame of another origin inside the page cannot post to the
// bridge.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <cstdlib>
#include <memory>

#include "GuiSupport.h"
#include "core/Paths.h"
#include "support/TestSupport.h"

using namespace velko;
using test::evaluate;
using test::pumpUntil;

namespace {

class OwnPageTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no display";
        installTestBrowser();
        shown = std::make_unique<test::ShownWindow>(test::sourcePath("tests/gui/resources"));
        ASSERT_TRUE(pumpUntil([&] { return webViewLog().find("event app/config\n") != std::string::npos; }));
    }

    // The default handler of http and https in this home: a script that
    // appends each URL it is started with to a file.
    void installTestBrowser() {
        std::string applications = home.home() + "/data/applications";
        ASSERT_TRUE(createDirectories(applications));
        ASSERT_TRUE(createDirectories(config));
        std::string script = home.home() + "/test-browser.sh";
        ASSERT_TRUE(writeFileAtomically(script, "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + browserCalls + "'\n", 0755));
        ASSERT_TRUE(writeFileAtomically(applications + "/velko-test-browser.desktop",
                                        "[Desktop Entry]\nType=Application\nName=Test browser\nExec=" + script +
                                            " %u\nMimeType=x-scheme-handler/http;x-scheme-handler/https;\n"));
        ASSERT_TRUE(writeFileAtomically(config + "/mimeapps.list",
                                        "[Default Applications]\n"
                                        "x-scheme-handler/http=velko-test-browser.desktop\n"
                                        "x-scheme-handler/https=velko-test-browser.desktop\n"));
    }

    std::string webViewLog() const { return test::readFile(home.cacheDir() + "/velko-webview.log"); }
    bool clickOn(const std::string& selector) {
        std::optional<std::pair<int, int>> at;
        if (!pumpUntil([&] { return (at = test::screenCentre(shown->window->window(), shown->window->webView(), selector)).has_value(); }))
            return false;
        return test::clickRealPointer(at->first, at->second);
    }

    test::IsolatedHome home;
    std::string config = home.home() + "/config";
    test::ScopedEnv configHome{"XDG_CONFIG_HOME", config};
    std::string browserCalls = home.home() + "/browser-calls";
    std::unique_ptr<test::ShownWindow> shown;
};

}  // namespace

TEST_F(OwnPageTest, LinksTheUserFollowsOpenInTheBrowserAndNothingLeavesThePage) {
    GtkWidget* view = shown->window->webView();
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

TEST_F(OwnPageTest, AFrameOfAnotherOriginCannotReachTheBridge) {
    GtkWidget* view = shown->window->webView();
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
