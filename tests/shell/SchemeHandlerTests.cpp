#include <gtest/gtest.h>
#include <sys/stat.h>

#include "shell/AppBundleSchemeHandler.h"
#include "shell/WebViewLogger.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

// A resource folder with a page, built assets, a secret beside the page's
// folder and a sibling folder whose name starts like the page's.
struct BundleFixture {
    test::TempDir dir;
    std::string web;
    BundleFixture() {
        web = dir.path() + "/res/web";
        dir.write("res/web/index.html", "<html>page</html>");
        dir.write("res/web/a.js", "export const a = 1;");
        dir.write("res/web/assets/b.css", "body{}");
        dir.write("res/web/logo.PNG", "\x89PNG");
        dir.write("res/web/font.woff2", "wOF2");
        dir.write("res/web/LICENSE", "MIT");
        dir.write("res/web/my file.js", "1");
        dir.write("res/web/secret", "inside");
        dir.write("res/secret", "outside");
        dir.write("res/web-private/key.txt", "private");
        ::mkdir((web + "/folder.js").c_str(), 0755);
    }
};

}  // namespace

TEST(SchemeHandler, AnswersFilesWithTheirTypeAndEverythingElseWith404) {
    BundleFixture f;
    AppBundleSchemeHandler handler(f.web);
    using Kind = SchemeResponse::Kind;
    struct Case {
        const char* uri;
        Kind kind;
        const char* body;
        const char* contentType;
    };
    const char* const html = "text/html; charset=utf-8";
    const char* const octets = "application/octet-stream";
    const char* const missing = "text/plain; charset=utf-8";
    const Case cases[] = {
        {"app://bundle/", Kind::File, "<html>page</html>", html},
        {"app://bundle", Kind::File, "<html>page</html>", html},
        {"app://bundle/index.html?v=3#top", Kind::File, "<html>page</html>", html},
        // a rewritten page keeps "assets/" while the file sits at the top
        {"app://bundle/assets/a.js", Kind::File, "export const a = 1;", "application/javascript"},
        {"app://bundle/deep/er//a.js//", Kind::File, "export const a = 1;", "application/javascript"},
        {"app://bundle/./assets/../assets/b.css", Kind::File, "body{}", "text/css; charset=utf-8"},
        {"app://bundle/logo.PNG", Kind::File, "\x89PNG", "image/png"},
        {"app://bundle/font.woff2", Kind::File, "wOF2", "font/woff2"},
        {"app://bundle/LICENSE", Kind::File, "MIT", octets},
        // ".." never leaves the folder: only the last component is tried inside
        {"app://bundle/../secret", Kind::File, "inside", octets},
        {"app://bundle/../web-private/key.txt", Kind::NotFound, "Not found", missing},
        {"app://bundle/../../../../etc/passwd", Kind::NotFound, "Not found", missing},
        {"app://bundle/..", Kind::NotFound, "Not found", missing},
        {"app://bundle/missing.js", Kind::NotFound, "Not found", missing},
        {"app://bundle/my%20file.js", Kind::NotFound, "Not found", missing},  // names stay percent-encoded
        {"app://bundle/folder.js", Kind::NotFound, "Not found", missing},
        {"not a url", Kind::NotFound, "Not found", missing},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.uri);
        SchemeResponse response = handler.respond(c.uri);
        EXPECT_EQ(response.kind, c.kind);
        EXPECT_EQ(response.status, c.kind == Kind::File ? 200 : 404);
        EXPECT_EQ(response.body, c.body);
        EXPECT_EQ(response.contentType(), c.contentType);
    }
    EXPECT_EQ(handler.respond("").kind, Kind::BadRequest);
}

TEST(SchemeHandler, AnUnreadableFileFailsInsteadOfAnsweringPartly) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads files whatever their mode";
    BundleFixture f;
    std::string locked = f.dir.write("res/web/locked.js", "x");
    ASSERT_EQ(::chmod(locked.c_str(), 0), 0);
    SchemeResponse response = AppBundleSchemeHandler(f.web).respond("app://bundle/locked.js");
    EXPECT_EQ(response.kind, SchemeResponse::Kind::ReadFailed);
    EXPECT_TRUE(response.body.empty());
    EXPECT_FALSE(response.error.empty());
}

TEST(SchemeHandler, RewritesRelativeReferencesToTheAppScheme) {
    struct Case {
        const char* html;
        const char* expected;
    };
    const Case cases[] = {
        {R"(<script type="module" src="./assets/index-1.js"></script>)",
         R"(<script type="module" src="app://bundle/index-1.js"></script>)"},
        {R"(<link href="./assets/a.css"><link href="./favicon.svg">)",
         R"(<link href="app://bundle/a.css"><link href="app://bundle/favicon.svg">)"},
        {R"(<img src="./a.png"><img src="./b.png">)", R"(<img src="app://bundle/a.png"><img src="app://bundle/b.png">)"},
        {R"(<a href="https://example.invalid/">x</a><img src="/abs.png">)",
         R"(<a href="https://example.invalid/">x</a><img src="/abs.png">)"},
        {"", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.html);
        EXPECT_EQ(rewritePageHtml(c.html), c.expected);
    }
}

TEST(SchemeHandler, FindsResourcesBesideTheProgramOrInstalled) {
    test::TempDir dir;
    dir.write("build/resources/web/index.html", "<html></html>");
    dir.write("prefix/share/velko/index.html", "<html></html>");
    ::mkdir((dir.path() + "/prefix/bin").c_str(), 0755);
    ::mkdir((dir.path() + "/bare").c_str(), 0755);
    struct Case {
        std::string executable;
        std::optional<std::string> resources;
        std::optional<std::string> page;
    };
    const Case cases[] = {
        {dir.path() + "/build/velko", dir.path() + "/build/resources", dir.path() + "/build/resources/web/index.html"},
        {dir.path() + "/prefix/bin/velko", dir.path() + "/prefix/share/velko",
         dir.path() + "/prefix/share/velko/index.html"},
        {dir.path() + "/bare/velko", std::nullopt, std::nullopt},
        {"velko", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.executable);
        auto resources = locateResourceDirectory(c.executable);
        EXPECT_EQ(resources, c.resources);
        if (resources) {
            EXPECT_EQ(locatePageFile(*resources), c.page);
        }
    }
}

TEST(WebViewLog, TakesOnlyLogMessagesAndFillsTheirDefaults) {
    struct Case {
        const char* body;
        std::optional<std::string> text;
    };
    const Case cases[] = {
        {R"({"type":"webview/log","message":"hello"})", "[web] [info] hello"},
        {R"({"type":"webview/log","level":"warn","source":"editor","message":"m"})", "[editor] [warn] m"},
        {R"({"type":"webview/log","level":3,"source":null,"message":"m"})", "[web] [info] m"},
        {R"({"type":"webview/log","message":"only this","payload":{"a":1}})", "[web] [info] only this"},
        {R"({"type":"webview/log","message":"","payload":{"a":1}})", "[web] [info] {\n  \"a\": 1\n}"},
        {R"({"type":"webview/log","payload":[1,"x"]})", "[web] [info] [\n  1,\n  \"x\"\n]"},
        {R"({"type":"webview/log","payload":"plain"})", "[web] [info] plain"},
        {R"({"type":"webview/log"})", "[web] [info]"},
        {R"({"type":"webview/logs"})", std::nullopt},
        {R"({"type":["webview/log"]})", std::nullopt},
        {R"(["webview/log"])", std::nullopt},
        {R"({})", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        auto body = parseJson(c.body);
        ASSERT_TRUE(body.has_value());
        EXPECT_EQ(webViewLogText(*body), c.text);
    }
}
