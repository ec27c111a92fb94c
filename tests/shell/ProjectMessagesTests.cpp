#include <gtest/gtest.h>

#include <filesystem>

#include "core/MainQueue.h"
#include "shell/BridgeHarness.h"
#include "shell/ContentView.h"
#include "shell/ServiceAdapters.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"
#include "workspace/ConfigStore.h"

using namespace velko;

namespace {

class FakePicker final : public FolderPicking {
public:
    void pickFolders(std::function<void(std::vector<std::string>)> completion) override {
        ++shown;
        completion(answer);
    }
    std::vector<std::string> answer;
    int shown = 0;
};

// The composition of bridge, real store and window logic, without a window.
struct Workspace : ::testing::Test {
    void SetUp() override {
        setMainQueue(main);
        store = std::make_shared<ConfigStore>(home.dataDir());
        projects = makeProjectStoring(store);
        bridge = std::make_shared<WebBridge>();
        bridge->setProjectStore(projects);
        bridge->setFolderPicker(picker);
        bridge->setWebView(view);
        bridge->notifyWebViewDidFinishNavigation();
        content = std::make_shared<ContentView>(bridge, store);
        store->subscribe([this](const AppConfig& c) { content->applyConfiguration(c); });
        content->bootstrap();
        main->runUntilIdle();
    }
    std::string folder(const std::string& name) {
        std::string path = home.home() + "/" + name;
        std::filesystem::create_directories(path);
        return path;
    }
    void send(const std::string& message) {
        view->scripts.clear();
        bridge->handleMessageText(message);
        main->runUntilIdle();
    }
    std::vector<Json> events(const std::string& type) {
        std::vector<Json> out;
        for (const auto& e : view->envelopes())
            if (e["type"] == type) out.push_back(e["payload"]);
        return out;
    }
    std::vector<ProjectMetadata> openFolders(std::vector<std::string> names) {
        picker->answer.clear();
        for (const auto& n : names) picker->answer.push_back(folder(n));
        send(R"({"type":"project/open"})");
        return store->config().projects;
    }

    test::IsolatedHome home;
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<ConfigStore> store;
    std::shared_ptr<ProjectStoring> projects;
    std::shared_ptr<WebBridge> bridge;
    std::shared_ptr<FakePicker> picker = std::make_shared<FakePicker>();
    std::shared_ptr<test::ScriptRecorder> view = std::make_shared<test::ScriptRecorder>();
    std::shared_ptr<ContentView> content;
};

}  // namespace

TEST_F(Workspace, FirstStartShowsAnEmptyWorkspaceWithoutActivation) {
    view->scripts.clear();
    send(R"({"type":"app/config/request"})");
    auto configs = events("app/config");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]["projects"], Json::array());
    EXPECT_FALSE(configs[0].contains("activeProjectId"));
    EXPECT_FALSE(configs[0].contains("resumeProjects"));
    EXPECT_EQ(configs[0]["hasSavedWorkspace"], false);
    EXPECT_EQ(configs[0]["features"], Json::array({"terminal.v2"}));
    EXPECT_TRUE(events("project/activate").empty());
}

TEST_F(Workspace, OpeningFoldersPublishesThemAndActivatesTheFirst) {
    picker->answer.clear();
    send(R"({"type":"project/open"})");  // cancelled picker: nothing at all
    EXPECT_EQ(picker->shown, 1);
    EXPECT_TRUE(view->scripts.empty());

    auto projects = openFolders({"alpha", "beta"});
    ASSERT_EQ(projects.size(), 2u);
    auto configs = events("app/config");
    ASSERT_FALSE(configs.empty());
    const Json& last = configs.back();
    EXPECT_EQ(last["projects"].size(), 2u);
    EXPECT_EQ(last["projects"][0]["rootPath"], "~/alpha");
    EXPECT_FALSE(last["projects"][0].contains("description"));
    EXPECT_EQ(last["activeProjectId"], projects[0].id.toString());
    ASSERT_EQ(last["cliSessions"].size(), 2u);
    EXPECT_EQ(last["cliSessions"][0]["status"], "pending");
    EXPECT_FALSE(last["cliSessions"][0].contains("pid"));
    auto activations = events("project/activate");
    ASSERT_EQ(activations.size(), 1u) << "later publications with the same active id do not activate again";
    EXPECT_EQ(activations[0], (Json{{"id", projects[0].id.toString()}, {"name", "alpha"}, {"rootPath", "~/alpha"}}));
    // Every snapshot is followed by the account status.
    EXPECT_EQ(events("github/oauth/status").size(), configs.size());
}

TEST_F(Workspace, ClosingTheLastProjectLeavesAResumableWorkspace) {
    auto projects = openFolders({"alpha"});
    send(R"({"type":"project/close","payload":{"projectId":")" + projects[0].id.toString() + R"("}})");
    auto last = events("app/config").back();
    EXPECT_EQ(last["projects"], Json::array());
    EXPECT_FALSE(last.contains("activeProjectId"));
    EXPECT_EQ(last["hasSavedWorkspace"], true);
    ASSERT_EQ(last["resumeProjects"].size(), 1u);
    EXPECT_EQ(last["cliSessions"], Json::array());

    send(R"({"type":"project/resume"})");
    last = events("app/config").back();
    EXPECT_EQ(last["projects"], last["resumeProjects"]);
    EXPECT_EQ(last["activeProjectId"], projects[0].id.toString());
    EXPECT_EQ(events("project/activate").size(), 1u);
}

TEST_F(Workspace, MenuSwitchingWrapsAndReactivatesASingleProject) {
    view->scripts.clear();
    content->moveToNextProject();  // nothing open: nothing happens
    main->runUntilIdle();
    EXPECT_TRUE(view->scripts.empty());

    auto p = openFolders({"a", "b"});
    view->scripts.clear();
    content->moveToNextProject();
    content->moveToNextProject();
    content->moveToPreviousProject();
    main->runUntilIdle();
    auto activations = events("project/activate");
    ASSERT_EQ(activations.size(), 3u);
    EXPECT_EQ(activations[0]["name"], "b");
    EXPECT_EQ(activations[1]["name"], "a");
    EXPECT_EQ(activations[2]["name"], "b");
    EXPECT_EQ(store->config().activeProjectID, p[1].id);

    send(R"({"type":"project/close","payload":{"projectId":")" + p[0].id.toString() + R"("}})");
    view->scripts.clear();
    content->moveToNextProject();
    main->runUntilIdle();
    EXPECT_EQ(events("project/activate").size(), 1u) << "one project: activation runs again in full";
}

// The project messages against a fake store: what each one asks of the store
// and the services that follow a change of project, and in which order.
TEST(ProjectMessages, EachMessageCallsTheStoreAndTheServicesThatFollow) {
    using test::kA, test::kB, test::kC, test::kUnknown;
    const std::string noProjects =
        R"(project/resume/error {"reason":"no-projects","message":"復元できるプロジェクトが見つかりません"})";
    struct Case {
        std::string name;
        std::vector<std::string> before;  // messages sent first; their calls are not checked
        std::string message;
        test::Journal journal;
        std::vector<std::string> events = {};
        std::vector<std::string> picked = {};
        std::optional<std::string> resumed = {};
    };
    auto msg = test::message;
    const Case cases[] = {
        {"open: each opened project's status", {}, R"({"type":"project/open"})",
         {"pick", "store.open /r/c,/r/x", "git.status " + kC}, {}, {"/r/c", "/r/x"}},
        {"open: cancelled", {}, R"({"type":"project/open","payload":5})", {"pick"}},
        {"close: the watched folder is released first, the sessions ended last",
         {msg("project/activate", {{"id", kA}})}, msg("project/close", {{"projectId", kA}}),
         {"explorer.stop", "store.close " + kA, "terminal.terminate " + test::kSession}},
        {"close: another project", {msg("project/activate", {{"id", kA}})}, msg("project/close", {{"projectId", kB}}),
         {"store.close " + kB}},
        {"close: keyed by id", {}, msg("project/close", {{"id", kA}}), {}},
        {"activate", {}, msg("project/activate", {{"id", kA}}),
         {"store.activate " + kA, "explorer.watch " + kA + " /r/a dist", "git.status " + kA}},
        {"activate: already watched", {msg("project/activate", {{"id", kA}})}, msg("project/activate", {{"id", kA}}),
         {"store.activate " + kA, "git.status " + kA}},
        {"activate: unknown id stops the watch",
         {msg("project/activate", {{"id", kA}})}, msg("project/activate", {{"id", kUnknown}}),
         {"store.activate " + kUnknown, "explorer.stop", "git.status " + kUnknown}},
        {"activate: keyed by projectId", {}, msg("project/activate", {{"projectId", kA}}), {}},
        {"activate: id not text", {}, msg("project/activate", {{"id", 5}}), {}},
        {"activate: id no UUID", {}, msg("project/activate", {{"id", "not-a-uuid"}}), {}},
        {"resume", {}, R"({"type":"project/resume"})", {"store.resume", "git.status " + kB}, {}, {}, kB},
        {"resume: nothing saved", {}, R"({"type":"project/resume"})", {"store.resume"}, {noProjects}},
        {"reorder", {}, msg("project/reorder", {{"order", {kB, kA}}}), {"store.reorder " + kB + "," + kA}},
        {"reorder: text that is no id is skipped", {}, msg("project/reorder", {{"order", {kB, "junk", "", kA}}}),
         {"store.reorder " + kB + "," + kA}},
        {"reorder: a number stops it", {}, msg("project/reorder", {{"order", {kB, 7, kA}}}), {}},
        {"reorder: null stops it", {}, msg("project/reorder", {{"order", {kB, nullptr}}}), {}},
        {"reorder: an object stops it", {}, msg("project/reorder", {{"order", {Json::object(), kB}}}), {}},
        {"reorder: no id left", {}, msg("project/reorder", {{"order", {"junk"}}}), {}},
        {"reorder: empty", {}, msg("project/reorder", {{"order", Json::array()}}), {}},
        {"reorder: order is text", {}, msg("project/reorder", {{"order", kB}}), {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::BridgeHarness h;
        h.picker->answer = c.picked;
        if (c.resumed) h.store->resumeAnswer = test::id(*c.resumed);
        for (const auto& before : c.before) h.send(before);
        h.clear();
        h.send(c.message);
        EXPECT_EQ(h.journal, c.journal);
        EXPECT_EQ(h.events(), c.events);
    }
}

TEST(ProjectMessages, TheBridgeFollowsTheActivatedIdAndTheWatchedFolder) {
    test::BridgeHarness h;
    h.send(test::message("project/activate", {{"id", test::kUnknown}}));
    EXPECT_EQ(h.bridge->activeProjectID(), test::id(test::kUnknown)) << "kept even for an unknown project";

    h.send(test::message("project/activate", {{"id", test::kA}}));
    ASSERT_TRUE(h.explorer->onChange);
    h.clear();
    h.explorer->onChange({test::id(test::kA), {"", "src"}, true});
    h.run();
    EXPECT_EQ(h.events(), (std::vector<std::string>{"project/explorer/changed {\"projectId\":\"" + test::kA +
                                                    R"(","directoryPaths":["","src"],"requiresResync":true})"}));
}

TEST(ProjectMessages, WithoutAStoreResumeSaysSoAndTheRestIsDropped) {
    test::BridgeHarness h;
    h.store.reset();  // the bridge holds the store weakly
    for (const char* type : {"project/close", "project/activate", "project/reorder", "project/open"})
        h.send(test::message(type, {{"projectId", test::kA}, {"id", test::kA}, {"order", {test::kA}}}));
    h.send(R"({"type":"project/resume"})");
    EXPECT_EQ(h.events(), (std::vector<std::string>{
                              R"(project/resume/error {"reason":"config-unavailable","message":"設定を読み込めませんでした"})"}));
    EXPECT_EQ(h.journal, (test::Journal{"explorer.stop", "git.status " + test::kA, "pick"}));
}
