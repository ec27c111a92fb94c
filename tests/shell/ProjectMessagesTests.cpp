#include <gtest/gtest.h>

#include <filesystem>

#include "core/MainQueue.h"
#include "shell/ContentView.h"
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

// The composition of bridge, store and window logic, without a window.
struct Workspace : ::testing::Test {
    void SetUp() override {
        setMainQueue(main);
        store = std::make_shared<ConfigStore>(home.dataDir());
        bridge = std::make_shared<WebBridge>();
        bridge->setConfigStore(store);
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

TEST_F(Workspace, ActivationMessagesUseIdAndOnlyIdAndMalformedOnesAreDropped) {
    auto projects = openFolders({"alpha", "beta"});
    std::string beta = projects[1].id.toString();
    const std::string dropped[] = {
        R"({"type":"project/activate","payload":{"projectId":")" + beta + R"("}})",
        R"({"type":"project/activate","payload":{"id":5}})",
        R"({"type":"project/activate","payload":{"id":"not-a-uuid"}})",
        R"({"type":"project/activate"})",
        R"({"type":"project/close","payload":{"id":")" + beta + R"("}})",
        R"({"type":"project/reorder","payload":{"order":")" + beta + R"("}})",
    };
    for (const auto& message : dropped) {
        SCOPED_TRACE(message);
        send(message);
        EXPECT_TRUE(view->scripts.empty());
    }
    EXPECT_EQ(store->config().projects.size(), 2u);

    send(R"({"type":"project/activate","payload":{"id":")" + beta + R"("}})");
    auto activations = events("project/activate");
    ASSERT_EQ(activations.size(), 1u);
    EXPECT_EQ(activations[0]["name"], "beta");
    EXPECT_EQ(bridge->activeProjectID(), projects[1].id);

    // An unknown id changes nothing in the store but is remembered by the bridge.
    auto unknown = Uuid::random();
    send(R"({"type":"project/activate","payload":{"id":")" + unknown.toString() + R"("}})");
    EXPECT_TRUE(events("app/config").empty());
    EXPECT_EQ(bridge->activeProjectID(), unknown);
    EXPECT_EQ(store->config().activeProjectID, projects[1].id);
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

TEST_F(Workspace, ResumeWithNothingSavedAnswersWithItsError) {
    send(R"({"type":"project/resume"})");
    auto errors = events("project/resume/error");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], (Json{{"reason", "no-projects"}, {"message", "復元できるプロジェクトが見つかりません"}}));

    store.reset();  // the bridge holds the store weakly
    send(R"({"type":"project/resume"})");
    errors = events("project/resume/error");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0]["reason"], "config-unavailable");
    EXPECT_EQ(errors[0]["message"], "設定を読み込めませんでした");
}

TEST_F(Workspace, ReorderSkipsEntriesThatAreNoIds) {
    auto p = openFolders({"a", "b", "c"});
    send(R"({"type":"project/reorder","payload":{"order":[")" + p[2].id.toString() + R"(", 7, "junk", ")" +
         p[1].id.toString() + R"("]}})");
    auto order = events("app/config").back()["projects"];
    ASSERT_EQ(order.size(), 3u);
    EXPECT_EQ(order[0]["name"], "c");
    EXPECT_EQ(order[1]["name"], "b");
    EXPECT_EQ(order[2]["name"], "a");
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
