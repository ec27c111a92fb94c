#include <gtest/gtest.h>

#include "workspace/Models.h"

using namespace velko;

namespace {
const std::string kHome = "/home/tester";
const std::string kP1 = "11111111-1111-4111-8111-111111111111";
const std::string kP2 = "22222222-2222-4222-8222-222222222222";
const std::string kS1 = "33333333-3333-4333-8333-333333333333";

std::string project(const std::string& id, const std::string& name) {
    return R"({"id":")" + id + R"(","name":")" + name + R"(","rootPath":"~/)" + name + R"("})";
}
}  // namespace

TEST(AppConfigDecoding, ToleratesMissingKeysAndRefusesBadValues) {
    struct Case {
        std::string name;
        std::string json;
        bool decodes;
        std::function<void(const AppConfig&)> check;
    };
    const std::vector<Case> cases = {
        {"empty object", "{}", true,
         [](const AppConfig& c) {
             EXPECT_TRUE(c.projects.empty());
             EXPECT_FALSE(c.activeProjectID);
             EXPECT_EQ(c.columnLayout, ColumnLayout::defaultLayout());
             ASSERT_EQ(c.cliSessions.size(), 1u);
             EXPECT_EQ(c.cliSessions[0].title, "CLI #1");
             EXPECT_EQ(c.cliSessions[0].workingDirectory, kHome);
             EXPECT_FALSE(c.cliSessions[0].projectId);
         }},
        {"empty session list stays empty", R"({"cliSessions":[]})", true,
         [](const AppConfig& c) { EXPECT_TRUE(c.cliSessions.empty()); }},
        {"nulls count as absent", R"({"projects":null,"activeProjectID":null,"columnLayout":null,"resumeProjects":null})",
         true, [](const AppConfig& c) { EXPECT_EQ(c.columnLayout, ColumnLayout::defaultLayout()); }},
        {"default session belongs to the first project", "{\"projects\":[" + project(kP1, "a") + "]}", true,
         [](const AppConfig& c) {
             ASSERT_EQ(c.cliSessions.size(), 1u);
             EXPECT_EQ(c.cliSessions[0].projectId, Uuid::parse(kP1));
         }},
        {"legacy ids give the active project", "{\"projects\":[" + project(kP1, "a") + "," + project(kP2, "b") +
             "],\"lastOpenedProjectIDs\":[\"" + kP2 + "\"]}", true,
         [](const AppConfig& c) {
             EXPECT_EQ(c.activeProjectID, Uuid::parse(kP2));
             // The default session does not see the legacy fallback.
             EXPECT_EQ(c.cliSessions.at(0).projectId, Uuid::parse(kP1));
             ASSERT_TRUE(c.legacyLastOpenedProjectIDs);
         }},
        {"unknown feature forgives the whole list", R"({"features":["terminal.debugDump","telepathy"]})", true,
         [](const AppConfig& c) { EXPECT_TRUE(c.enabledFeatures.empty()); }},
        {"features of the wrong type are forgiven", R"({"features":"terminal.v2"})", true,
         [](const AppConfig& c) { EXPECT_TRUE(c.enabledFeatures.empty()); }},
        {"known features", R"({"features":["terminal.debugDump"]})", true,
         [](const AppConfig& c) { EXPECT_TRUE(c.hasFeature(Feature::TerminalDebugDump)); }},
        {"five columns in file order", R"({"columnLayout":{"order":["git","terminal","editor","preview","explorer"]}})",
         true, [](const AppConfig& c) { EXPECT_EQ(c.columnLayout.order.front(), ColumnKind::Git); }},
        {"lower-case ids", R"({"activeProjectID":"aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeee0"})", true,
         [](const AppConfig& c) { EXPECT_EQ(c.activeProjectID->toString(), "AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE0"); }},
        {"unknown column kind", R"({"columnLayout":{"order":["explorer","sidebar"]}})", false, nullptr},
        {"layout without order", R"({"columnLayout":{}})", false, nullptr},
        {"active id that is no uuid", R"({"activeProjectID":"nope"})", false, nullptr},
        {"active id as number", R"({"activeProjectID":5})", false, nullptr},
        {"project without name", "{\"projects\":[{\"id\":\"" + kP1 + "\",\"rootPath\":\"/x\"}]}", false, nullptr},
        {"project name as number", "{\"projects\":[{\"id\":\"" + kP1 + "\",\"name\":1,\"rootPath\":\"/x\"}]}", false,
         nullptr},
        {"session without shell", "{\"cliSessions\":[{\"id\":\"" + kS1 + "\",\"title\":\"t\",\"workingDirectory\":\"\"}]}",
         false, nullptr},
        {"projects not a list", R"({"projects":{}})", false, nullptr},
        {"root not an object", "[]", false, nullptr},
        {"not json", "{", false, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto decoded = decodeAppConfigText(c.json, kHome);
        ASSERT_EQ(decoded.ok(), c.decodes);
        if (c.decodes && c.check) c.check(decoded.value());
    }
}

TEST(AppConfigDecoding, EncodingRoundTripsAndLeavesOutEmptyOptionalKeys) {
    AppConfig config;
    config.projects.push_back({*Uuid::parse(kP1), "a", "~/a", "desc", {"build", "dist"}});
    config.activeProjectID = config.projects[0].id;
    config.cliSessions.push_back({*Uuid::parse(kS1), "CLI #1", "/home/tester/a", "/bin/zsh", config.projects[0].id});
    config.enabledFeatures = {Feature::TerminalV2};
    auto encoded = encodeAppConfig(config);
    EXPECT_FALSE(encoded.contains("resumeProjects"));
    EXPECT_FALSE(encoded.contains("lastOpenedProjectIDs"));
    auto decoded = decodeAppConfigText(dumpJson(encoded), kHome);
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(decoded.value(), config);

    auto emptyJson = encodeAppConfig(AppConfig{});
    EXPECT_TRUE(emptyJson["activeProjectID"].is_null());
    EXPECT_FALSE(emptyJson.contains("features"));
}

TEST(AppConfigNormalisation, SettlesActiveProjectResumeListSessionsAndFeatures) {
    auto p1 = ProjectMetadata{*Uuid::parse(kP1), "a", "~/a", std::nullopt, {}};
    auto p2 = ProjectMetadata{*Uuid::parse(kP2), "b", "/srv/b", std::nullopt, {}};
    auto unknown = *Uuid::parse(kS1);

    // Unknown active id, no resume list: the first pass keeps the id and fills the list...
    AppConfig c;
    c.projects = {p1, p2};
    c.activeProjectID = unknown;
    c.columnLayout.order.clear();
    auto once = c.ensuringDefaults(kHome);
    EXPECT_EQ(once.activeProjectID, unknown);
    EXPECT_EQ(once.resumeProjects, c.projects);
    EXPECT_EQ(once.columnLayout, ColumnLayout::defaultLayout());
    EXPECT_EQ(once.enabledFeatures, std::set<Feature>{Feature::TerminalV2});
    // ...and the second replaces it with the first project.
    EXPECT_EQ(once.ensuringDefaults(kHome).activeProjectID, p1.id);

    // No projects: no active id, resume list kept.
    AppConfig emptied;
    emptied.activeProjectID = p1.id;
    emptied.resumeProjects = {p1};
    auto e = emptied.ensuringDefaults(kHome);
    EXPECT_FALSE(e.activeProjectID);
    EXPECT_EQ(e.resumeProjects.size(), 1u);

    // Samples vanish with their sessions; orphaned sessions go; empty directories are filled.
    AppConfig s;
    s.projects = ProjectMetadata::samples();
    s.projects.push_back(p2);
    s.enabledFeatures = {Feature::TerminalDebugDump};
    s.cliSessions = {
        {Uuid::random(), "sample", "/x", "/bin/zsh", ProjectMetadata::samples()[0].id},
        {Uuid::random(), "orphan", "/x", "/bin/zsh", unknown},
        {Uuid::random(), "free", "", "/bin/zsh", std::nullopt},
        {Uuid::random(), "b", "", "/bin/zsh", p2.id},
    };
    auto n = s.ensuringDefaults(kHome);
    ASSERT_EQ(n.projects.size(), 1u);
    ASSERT_EQ(n.cliSessions.size(), 2u);
    EXPECT_EQ(n.cliSessions[0].workingDirectory, kHome);
    EXPECT_EQ(n.cliSessions[1].workingDirectory, "/srv/b");
    EXPECT_EQ(n.enabledFeatures, (std::set<Feature>{Feature::TerminalV2, Feature::TerminalDebugDump}));
}

TEST(AppConfigNormalisation, WorkingDirectoryExpandsTheTilde) {
    std::vector<ProjectMetadata> projects = {{*Uuid::parse(kP1), "a", "~/code/a", std::nullopt, {}},
                                             {*Uuid::parse(kP2), "home", "~", std::nullopt, {}}};
    EXPECT_EQ(cliWorkingDirectory(projects[0].id, projects, kHome), "/home/tester/code/a");
    EXPECT_EQ(cliWorkingDirectory(projects[1].id, projects, kHome), kHome);
    EXPECT_EQ(cliWorkingDirectory(Uuid::random(), projects, kHome), kHome);
    EXPECT_EQ(cliWorkingDirectory(std::nullopt, projects, kHome), kHome);
    EXPECT_EQ(expandTilde("~user/x", kHome), "~user/x");
}
