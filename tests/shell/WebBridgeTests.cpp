#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "core/MainQueue.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"
#include "workspace/ConfigStore.h"

using namespace velko;

namespace {

struct BridgeFixture : ::testing::Test {
    void SetUp() override {
        main = std::make_shared<ManualQueue>();
        setMainQueue(main);
        bridge = std::make_shared<WebBridge>();
        view = std::make_shared<test::ScriptRecorder>();
    }
    void attachReadyView() {
        bridge->setWebView(view);
        bridge->notifyWebViewDidFinishNavigation();
    }
    std::shared_ptr<ManualQueue> main;
    std::shared_ptr<WebBridge> bridge;
    std::shared_ptr<test::ScriptRecorder> view;
};

}  // namespace

TEST(WebBridgeRouting, EveryCatalogueTypeHasItsRouteAndNearMissesHaveNone) {
    using R = MessageRoute;
    using namespace std::string_view_literals;
    struct Case {
        std::string_view type;
        std::optional<R> route;
    };
    const Case cases[] = {
        {"terminal/input", R::Terminal}, {"cli/input", R::Terminal}, {"terminal/create", R::Terminal},
        {"cli/create", R::Terminal}, {"terminal/close", R::Terminal}, {"cli/close", R::Terminal},
        {"terminal/resize", R::Terminal}, {"cli/resize", R::Terminal}, {"terminal/signal", R::Terminal},
        {"cli/signal", R::Terminal}, {"terminal/focus", R::Terminal},
        {"project/open", R::Project}, {"project/close", R::Project},
        {"project/explorer/directories/request", R::Project}, {"project/file/open", R::Project},
        {"project/file/save", R::Project}, {"project/file/rename", R::Project}, {"project/activate", R::Project},
        {"project/resume", R::Project}, {"project/reorder", R::Project},
        {"github/oauth/start", R::GitHubOAuth}, {"github/oauth/logout", R::GitHubOAuth},
        {"github/oauth/requestStatus", R::GitHubOAuth},
        {"git/status", R::Git}, {"git/status/detail", R::Git}, {"git/commit", R::Git}, {"git/push", R::Git},
        {"git/pull", R::Git}, {"git/fetch", R::Git}, {"git/diff", R::Git}, {"git/history", R::Git},
        {"git/graph", R::Git}, {"git/remote/tracking", R::Git}, {"git/working-tree", R::Git},
        {"git/refresh/barrier", R::Git}, {"git/commit/diff", R::Git}, {"git/branch-map", R::Git},
        {"previewTabs/persist", R::PreviewTabs}, {"previewTabs/cache/write", R::PreviewTabs},
        {"previewTabs/limitReached", R::PreviewTabs},
        {"dashboard.present", R::DashboardPresent}, {"dashboard.dismiss", R::DashboardDismiss},
        {"app/config/request", R::AppConfigRequest}, {"analytics/event", R::Analytics},
        // Near misses: aliases that do not exist, case, prefixes, outbound-only types, other spellings.
        {"cli/focus", std::nullopt}, {"Project/open", std::nullopt}, {"project/open ", std::nullopt},
        {"project/", std::nullopt}, {"git/result", std::nullopt}, {"app/config", std::nullopt},
        {"dashboard/present", std::nullopt}, {"previewTab:hydrate", std::nullopt},
        {"previewtabs/persist", std::nullopt}, {"webview/log", std::nullopt}, {"", std::nullopt},
        {"terminal/input\0x"sv, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type));
        EXPECT_EQ(routeForMessageType(c.type), c.route);
    }
}

TEST_F(BridgeFixture, MalformedBodiesAreIgnoredWithoutAnEvent) {
    attachReadyView();
    auto store = std::make_shared<ConfigStore>(test::TempDir().path() + "-unused");
    bridge->setConfigStore(store);
    const char* bodies[] = {
        "5", "\"app/config/request\"", "[]", "{}", "{\"type\":5}", "{\"type\":null}",
        "{\"type\":[\"app/config/request\"]}", "{\"Type\":\"app/config/request\"}",
        "{\"type\":\"cli/focus\",\"payload\":{\"sessionId\":\"x\"}}", "not json", "{\"type\":\"app/config/request\"",
    };
    for (const char* body : bodies) {
        SCOPED_TRACE(body);
        bridge->handleMessageText(body);
        main->runUntilIdle();
        EXPECT_TRUE(view->scripts.empty());
    }
    // The same store answers a well-formed request, so the silence above is the router's.
    bridge->handleMessageText(R"({"type":"app/config/request","payload":7})");
    main->runUntilIdle();
    EXPECT_EQ(view->types(), (std::vector<std::string>{"app/config", "github/oauth/status"}));
}

TEST_F(BridgeFixture, EventsWaitForTheFirstNavigationAndKeepTheirOrder) {
    bridge->dispatchEvent("first", OrderedJson{{"n", 1}});
    std::thread worker([&] {
        for (int i = 0; i < 50; ++i) bridge->dispatchEvent("worker", OrderedJson{{"n", i}});
    });
    worker.join();
    main->runUntilIdle();  // the worker's hops land in the pending queue
    EXPECT_EQ(bridge->pendingScriptCount(), 51u);

    bridge->setWebView(view);
    main->runUntilIdle();
    EXPECT_TRUE(view->scripts.empty()) << "a view that has not finished loading is not ready";
    bridge->notifyWebViewDidFinishNavigation();
    main->runUntilIdle();
    bridge->dispatchEvent("after", OrderedJson::object());

    auto envelopes = view->envelopes();
    ASSERT_EQ(envelopes.size(), 52u);
    EXPECT_EQ(envelopes.front()["type"], "first");
    for (int i = 0; i < 50; ++i) EXPECT_EQ(envelopes[1 + i]["payload"]["n"], i);
    EXPECT_EQ(envelopes.back()["type"], "after");
    EXPECT_EQ(bridge->pendingScriptCount(), 0u);
}

TEST_F(BridgeFixture, ReloadWithEmptyQueueResendsTheConfigurationButFirstLoadDoesNot) {
    AppConfig config;
    bridge->updateConfigSnapshot(config);  // queued: no view yet
    attachReadyView();
    main->runUntilIdle();
    EXPECT_EQ(view->types(), (std::vector<std::string>{"app/config", "github/oauth/status"}));

    view->scripts.clear();
    bridge->notifyWebViewDidStartNavigation();
    bridge->dispatchEvent("during-reload", OrderedJson::object());
    EXPECT_TRUE(view->scripts.empty());
    bridge->notifyWebViewDidFinishNavigation();
    main->runUntilIdle();
    // Something was queued, so no extra snapshot.
    EXPECT_EQ(view->types(), (std::vector<std::string>{"during-reload"}));

    view->scripts.clear();
    bridge->notifyWebViewDidStartNavigation();
    bridge->notifyWebViewDidFinishNavigation();
    main->runUntilIdle();
    EXPECT_EQ(view->types(), (std::vector<std::string>{"app/config", "github/oauth/status"}));
}

TEST_F(BridgeFixture, ObserverSeesEveryPayloadAndDeliveryCallbacksRunOnceDelivered) {
    std::vector<std::pair<std::string, std::string>> observed;
    bridge->setEventObserver([&](const std::string& type, const std::string& payload) {
        observed.emplace_back(type, payload);
    });
    int delivered = 0;
    bridge->dispatchEncodedEvent("terminal/output", R"({"type":"terminal/output","payload":{"chunk":"aGk="}})",
                                 [&] { ++delivered; });
    EXPECT_EQ(delivered, 0) << "nothing is delivered before the page is ready";
    attachReadyView();
    main->runUntilIdle();
    EXPECT_EQ(delivered, 1);
    bridge->dispatchEvent("x", OrderedJson{{"a", "b"}});
    ASSERT_EQ(observed.size(), 2u);
    EXPECT_EQ(observed[0], (std::pair<std::string, std::string>{"terminal/output", R"({"chunk":"aGk="})"}));
    EXPECT_EQ(observed[1], (std::pair<std::string, std::string>{"x", R"({"a":"b"})"}));
}

TEST(EventScript, EscapingRoundTripsThroughTheHeadlessDecoder) {
    const std::string texts[] = {
        R"({"a":"it's"})", R"({"a":"back\\slash"})", "{\"a\":\"line\\nbreak\"}", R"({"a":"\\'mixed\\\\'"})",
        "{\"a\":\"\xE2\x80\xA8\xE2\x80\xA9\"}", "",
    };
    for (const auto& text : texts) {
        SCOPED_TRACE(text);
        std::string script = buildEventScript(text);
        EXPECT_EQ(envelopeFromEventScript(script), text);
    }
    EXPECT_EQ(escapeForScriptLiteral(R"(a\'b)"), R"(a\\\'b)");
    EXPECT_FALSE(envelopeFromEventScript("alert(1)"));
}

namespace {
// Random JSON of every shape, biased towards real message types so that the
// handlers, not only the router, see hostile payloads.
Json randomValue(std::mt19937& random, int depth) {
    static const char* const kTypes[] = {
        "terminal/input", "cli/create", "terminal/resize", "terminal/focus", "project/open", "project/close",
        "project/activate", "project/reorder", "project/resume", "project/file/open", "project/file/save",
        "project/file/rename", "project/explorer/directories/request", "git/status", "git/diff", "git/commit",
        "github/oauth/logout", "previewTabs/persist", "dashboard.present", "analytics/event", "app/config/request",
    };
    switch (random() % (depth > 4 ? 5 : 8)) {
        case 0: return nullptr;
        case 1: return static_cast<int>(random() % 2000) - 1000;
        case 2: return random() % 2 == 0;
        case 3: return kTypes[random() % std::size(kTypes)];
        case 4: return Uuid::random().toString();
        case 5: {
            Json array = Json::array();
            for (int i = random() % 4; i > 0; --i) array.push_back(randomValue(random, depth + 1));
            return array;
        }
        default: {
            static const char* const kKeys[] = {"type", "payload", "id", "projectId", "sessionId", "order", "path",
                                                "paths", "data", "cols", "rows", "targets", "content"};
            Json object = Json::object();
            for (int i = random() % 5; i > 0; --i)
                object[kKeys[random() % std::size(kKeys)]] = randomValue(random, depth + 1);
            return object;
        }
    }
}
}  // namespace

TEST_F(BridgeFixture, RandomMessagesNeverBreakTheBridge) {
    test::IsolatedHome home;
    auto store = std::make_shared<ConfigStore>(home.dataDir());
    bridge->setConfigStore(store);
    attachReadyView();
    std::mt19937 random(7);
    for (int i = 0; i < 3000; ++i) {
        Json message = randomValue(random, 0);
        if (random() % 2 && message.is_object()) message["type"] = randomValue(random, 3);
        bridge->handle(message);
        main->runUntilIdle();
    }
    view->scripts.clear();
    bridge->handleMessageText(R"({"type":"app/config/request"})");
    main->runUntilIdle();
    EXPECT_EQ(view->types(), (std::vector<std::string>{"app/config", "github/oauth/status"}));
}
