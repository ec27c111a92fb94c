#include <gtest/gtest.h>

#include <filesystem>

#include "shell/BridgeHarness.h"
#include "shell/ContentView.h"
#include "shell/ServiceAdapters.h"
#include "workspace/ConfigStore.h"

using namespace velko;

namespace {

// The window logic and the real store behind the bridge, without a window.
struct Workspace : ::testing::Test {
    void SetUp() override {
        h.bridge->setProjectStore(projects);
        store->subscribe([this](const AppConfig& c) { content->applyConfiguration(c); });
        content->bootstrap();
        h.run();
    }
    std::vector<Json> payloads(const std::string& type) const {
        std::vector<Json> out;
        for (const auto& e : h.view->envelopes())
            if (e["type"] == type) out.push_back(e["payload"]);
        return out;
    }
    void send(const std::string& message) {
        h.clear();
        h.send(message);
    }
    std::vector<ProjectMetadata> openFolders(const std::vector<std::string>& names) {
        h.picker->answer.clear();
        for (const auto& name : names) {
            std::filesystem::create_directories(home.home() + "/" + name);
            h.picker->answer.push_back(home.home() + "/" + name);
        }
        send(R"({"type":"project/open"})");
        return store->config().projects;
    }

    test::IsolatedHome home;
    test::BridgeHarness h;
    std::shared_ptr<ConfigStore> store = std::make_shared<ConfigStore>(home.dataDir());
    std::shared_ptr<ProjectStoring> projects = makeProjectStoring(store);
    std::shared_ptr<ContentView> content = std::make_shared<ContentView>(h.bridge, store);
};

}  // namespace

TEST_F(Workspace, OpeningFoldersPublishesThemAndActivatesTheFirst) {
    send(R"({"type":"app/config/request"})");
    auto empty = payloads("app/config");
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0]["projects"], Json::array());
    EXPECT_EQ(empty[0]["hasSavedWorkspace"], false);
    EXPECT_FALSE(empty[0].contains("activeProjectId") || empty[0].contains("resumeProjects"));

    auto projects = openFolders({"alpha", "beta"});
    ASSERT_EQ(projects.size(), 2u);
    auto configs = payloads("app/config");
    ASSERT_FALSE(configs.empty());
    const Json& last = configs.back();
    EXPECT_EQ(last["projects"].size(), 2u);
    EXPECT_EQ(last["projects"][0]["rootPath"], "~/alpha");
    EXPECT_FALSE(last["projects"][0].contains("description"));
    EXPECT_EQ(last["activeProjectId"], projects[0].id.toString());
    ASSERT_EQ(last["cliSessions"].size(), 2u);
    EXPECT_EQ(last["cliSessions"][0]["status"], "pending");
    EXPECT_FALSE(last["cliSessions"][0].contains("pid"));
    auto activations = payloads("project/activate");
    ASSERT_EQ(activations.size(), 1u) << "later publications with the same active id do not activate again";
    EXPECT_EQ(activations[0], (Json{{"id", projects[0].id.toString()}, {"name", "alpha"}, {"rootPath", "~/alpha"}}));
    // Every snapshot is followed by the account status.
    EXPECT_EQ(payloads("github/oauth/status").size(), configs.size());
}

TEST_F(Workspace, MenuSwitchingGoesBothWaysAndReactivatesASingleProject) {
    h.clear();
    content->moveToNextProject();  // nothing open: nothing happens
    h.run();
    EXPECT_TRUE(h.events().empty());

    auto p = openFolders({"a", "b", "c"});
    content->moveToPreviousProject();  // from the first back to the last
    EXPECT_EQ(store->config().activeProjectID, p[2].id);
    content->moveToNextProject();
    EXPECT_EQ(store->config().activeProjectID, p[0].id);

    store->closeProject(p[1].id);
    store->closeProject(p[2].id);
    h.clear();
    content->moveToNextProject();
    h.run();
    EXPECT_EQ(payloads("project/activate").size(), 1u) << "one project: activation runs again in full";
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
        {"activate: id no UUID", {}, msg("project/activate", {{"id", "not-a-uuid"}}), {}},
        {"resume", {}, R"({"type":"project/resume"})", {"store.resume", "git.status " + kB}, {}, {}, kB},
        {"resume: nothing saved", {}, R"({"type":"project/resume"})", {"store.resume"}, {noProjects}},
        {"reorder", {}, msg("project/reorder", {{"order", {kB, kA}}}), {"store.reorder " + kB + "," + kA}},
        {"reorder: text that is no id is skipped", {}, msg("project/reorder", {{"order", {kB, "junk", "", kA}}}),
         {"store.reorder " + kB + "," + kA}},
        {"reorder: a number stops it", {}, msg("project/reorder", {{"order", {kB, 7, kA}}}), {}},
        {"reorder: no id left", {}, msg("project/reorder", {{"order", {"junk"}}}), {}},
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

TEST(ProjectMessages, WithoutAStoreResumeSaysSoAndTheRestIsDropped) {
    test::BridgeHarness h;
    h.store.reset();  // the bridge holds the store weakly
    for (const char* type : {"project/close", "project/activate", "project/reorder", "project/open"})
        h.send(test::message(type, {{"projectId", test::kA}, {"id", test::kA}, {"order", {test::kA}}}));
    h.send(R"({"type":"project/resume"})");
    EXPECT_EQ(h.bridge->activeProjectID(), test::id(test::kA)) << "the bridge follows the page even so";
    EXPECT_EQ(h.events(), (std::vector<std::string>{
                              R"(project/resume/error {"reason":"config-unavailable","message":"設定を読み込めませんでした"})"}));
    EXPECT_EQ(h.journal, (test::Journal{"explorer.stop", "git.status " + test::kA, "pick"}));
}
