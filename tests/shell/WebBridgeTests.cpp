#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "shell/BridgeHarness.h"

using namespace velko;

namespace {

struct BridgeFixture : ::testing::Test {
    void SetUp() override { setMainQueue(main); }
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<WebBridge> bridge = std::make_shared<WebBridge>();
    std::shared_ptr<test::ScriptRecorder> view = std::make_shared<test::ScriptRecorder>();
};

}  // namespace

TEST(WebBridgeRouting, MalformedBodiesAndNearMissesAreIgnoredAndAliasesKeepTheirSpelling) {
    struct Case {
        std::string body;
        test::Journal journal;
    };
    const Case cases[] = {
        {"\"app/config/request\"", {}},
        {"{}", {}},
        {"{\"type\":[\"app/config/request\"]}", {}},
        {"{\"Type\":\"app/config/request\"}", {}},
        {"not json", {}},
        {R"({"type":"cli/input","payload":{}})", {"terminal cli/input"}},
        {R"({"type":"terminal/focus"})", {"terminal terminal/focus"}},
        {R"({"type":"cli/focus","payload":{}})", {}},
        {R"({"type":"Git/status"})", {}},
        {R"({"type":"git/status "})", {}},
        {R"({"type":"previewtabs/persist"})", {}},
        {"{\"type\":\"git/status\\u0000x\"}", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        test::BridgeHarness h;
        h.send(c.body);
        EXPECT_EQ(h.journal, c.journal);
        EXPECT_TRUE(h.view->scripts.empty());
    }
}

TEST_F(BridgeFixture, EventsWaitForTheFirstNavigationKeepTheirOrderAndTheObserverSeesEach) {
    std::vector<std::string> observed;
    bridge->setEventObserver([&](const std::string& type, const std::string& payload) {
        observed.push_back(type + " " + payload);
    });
    int delivered = 0;
    bridge->dispatchEncodedEvent("first", R"({"type":"first","payload":{"n":1}})", [&] { ++delivered; });
    std::thread worker([&] {
        for (int i = 0; i < 50; ++i) bridge->dispatchEvent("worker", OrderedJson{{"n", i}});
    });
    worker.join();
    main->runUntilIdle();  // the worker's hops land in the pending queue
    EXPECT_EQ(bridge->pendingScriptCount(), 51u);

    bridge->setWebView(view);
    main->runUntilIdle();
    EXPECT_TRUE(view->scripts.empty()) << "a view that has not finished loading is not ready";
    EXPECT_EQ(delivered, 0);
    bridge->notifyWebViewDidFinishNavigation();
    main->runUntilIdle();
    EXPECT_EQ(delivered, 1);
    bridge->dispatchEvent("after", OrderedJson::object());

    auto envelopes = view->envelopes();
    ASSERT_EQ(envelopes.size(), 52u);
    EXPECT_EQ(envelopes.front()["type"], "first");
    for (int i = 0; i < 50; ++i) EXPECT_EQ(envelopes[1 + i]["payload"]["n"], i);
    EXPECT_EQ(envelopes.back()["type"], "after");
    EXPECT_EQ(bridge->pendingScriptCount(), 0u);
    ASSERT_EQ(observed.size(), 52u);
    EXPECT_EQ(observed.front(), R"(first {"n":1})");
    EXPECT_EQ(observed.back(), "after {}");
}

TEST_F(BridgeFixture, ReloadWithEmptyQueueResendsTheConfigurationButFirstLoadDoesNot) {
    AppConfig config;
    bridge->updateConfigSnapshot(config);  // queued: no view yet
    bridge->setWebView(view);
    bridge->notifyWebViewDidFinishNavigation();
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

TEST(WebBridgeRouting, RandomMessagesNeverBreakTheBridge) {
    test::BridgeHarness h;
    h.picker->answer = {"/r/c"};
    std::mt19937 random(7);
    for (int i = 0; i < 3000; ++i) {
        Json message = randomValue(random, 0);
        if (random() % 2 && message.is_object()) message["type"] = randomValue(random, 3);
        h.bridge->handle(message);
        h.run();
    }
    h.clear();
    h.send(R"({"type":"app/config/request"})");
    EXPECT_EQ(h.view->types(), (std::vector<std::string>{"app/config", "github/oauth/status"}));
}
