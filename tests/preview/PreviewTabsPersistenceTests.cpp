// The preview tabs database against real files in a temporary folder: what a
// damaged or foreign file reads as, what survives a restart, and which
// restored tabs are reported as gone.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "core/Paths.h"
#include "preview/PreviewTabsPersistenceService.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

const Uuid kProject = *Uuid::parse("AAAAAAAA-0000-4000-8000-000000000001");
const Uuid kOther = *Uuid::parse("BBBBBBBB-0000-4000-8000-000000000002");

std::string tabJson(const std::string& id, const std::string& path, const std::string& extra = "") {
    return R"({"id":")" + id + R"(","path":")" + path + R"(","title":"t","isDirty":false,"viewMode":"source",)" +
           R"("lastOpenedAt":1700000000000)" + extra + "}";
}

PreviewTabsState state(std::vector<std::string> paths, std::optional<std::string> active = {}) {
    PreviewTabsState s;
    s.activeTabId = std::move(active);
    for (size_t i = 0; i < paths.size(); ++i)
        s.tabs.push_back({"tab" + std::to_string(i), paths[i], "t", i % 2 == 1, PreviewTabViewMode::Markdown,
                          static_cast<int64_t>(i)});
    return s;
}

std::string entry(const Uuid& id, const std::string& tabs) {
    return R"({"projectId":")" + id.toString() + R"(","updatedAt":"2024-01-01T00:00:00Z","previewTabs":{"tabs":[)" +
           tabs + R"(],"version":1}})";
}

}  // namespace

TEST(PreviewTabsPersistence, TheDatabaseReadsAsStoredOrAsEmptyAndABadFileIsKeptAside) {
    struct Case {
        const char* name;
        std::optional<std::string> file;  // nothing: no file at all
        size_t tabsOfProject;             // what the project hydrates with
        bool keptAside;                   // projects.db.bad after the next persist
    };
    const std::string good = entry(kProject, tabJson("a", "x") + "," + tabJson("b", "y"));
    const Case cases[] = {
        {"no file", std::nullopt, 0, false},
        {"valid", R"({"version":1,"projects":[)" + good + "]}", 2, false},
        {"garbage", "not json at all", 0, true},
        {"truncated", (R"({"version":1,"projects":[)" + good).substr(0, 60), 0, true},
        {"version 2", R"({"version":2,"projects":[)" + good + "]}", 0, true},
        {"no version", R"({"projects":[)" + good + "]}", 0, true},
        {"duplicate project: the later wins",
         R"({"version":1,"projects":[)" + good + "," + entry(kProject, tabJson("c", "z")) + "]}", 1, false},
        {"a tab's time as text",
         R"({"version":1,"projects":[)" + entry(kProject, R"({"id":"a","path":"x","title":"t","isDirty":false,)"
                                                          R"("viewMode":"source","lastOpenedAt":"1"})") + "]}", 0, true},
        {"unknown view mode", R"({"version":1,"projects":[)" + entry(kProject, tabJson("a", "x").replace(
                                  tabJson("a", "x").find("source"), 6, "preview")) + "]}", 0, true},
        {"project id not a UUID", R"({"version":1,"projects":[{"projectId":"x","updatedAt":"2024-01-01T00:00:00Z",)"
                                  R"("previewTabs":{"tabs":[],"version":1}}]})", 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::TempDir dir;
        if (c.file) dir.write("projects.db", *c.file);
        PreviewTabsPersistenceService service({.storageDirectory = dir.path()});
        EXPECT_EQ(service.storedState(kProject).tabs.size(), c.tabsOfProject);
        ASSERT_TRUE(service.persist(state({"new"}), kOther).ok());
        EXPECT_EQ(std::filesystem::exists(dir.file("projects.db.bad")), c.keptAside);
        if (c.keptAside) {
            EXPECT_EQ(test::readFile(dir.file("projects.db.bad")), *c.file);
        }
        // What was read survives the rewrite; what was not, is gone from the new file.
        PreviewTabsPersistenceService reread({.storageDirectory = dir.path()});
        EXPECT_EQ(reread.storedState(kProject).tabs.size(), c.tabsOfProject);
        EXPECT_EQ(reread.storedState(kOther), state({"new"}));
    }
}

TEST(PreviewTabsPersistence, PersistedStatesSurviveARestartAndTheLatestReplacesTheFirst) {
    test::TempDir dir;
    SystemTime now = *parseIso8601("2024-05-01T10:00:00Z");
    auto clock = [&] { return now; };
    {
        PreviewTabsPersistenceService service({.storageDirectory = dir.path(), .clock = clock});
        ASSERT_TRUE(service.persist(state({"a.md", "b.png"}, "tab1"), kProject).ok());
        now += std::chrono::seconds(5);
        ASSERT_TRUE(service.persist(state({"c.txt"}), kProject).ok());
        ASSERT_TRUE(service.persist(state({}), kOther).ok());
    }
    auto file = Json::parse(test::readFile(dir.file("projects.db")));
    EXPECT_EQ(file["version"], 1);
    ASSERT_EQ(file["projects"].size(), 2u);
    EXPECT_EQ(file["projects"][0]["updatedAt"], "2024-05-01T10:00:05.000Z");
    struct stat st{};
    ASSERT_EQ(stat(dir.file("projects.db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);  // tab paths are the user's business

    PreviewTabsPersistenceService restarted({.storageDirectory = dir.path()});
    EXPECT_EQ(restarted.storedState(kProject), state({"c.txt"}));
    EXPECT_EQ(restarted.storedState(kOther), state({}));
    // A state of another version stays stored but hydrates empty.
    auto future = state({"x"});
    future.version = 2;
    ASSERT_TRUE(restarted.persist(future, kProject).ok());
    EXPECT_EQ(restarted.storedState(kProject), PreviewTabsState{});
}

TEST(PreviewTabsPersistence, AFailedWriteIsReportedAndMemoryKeepsTheNewState) {
    test::TempDir dir;
    // A file where the folder should be: no user, root included, can write below it.
    dir.write("blocked", "");
    PreviewTabsPersistenceService service({.storageDirectory = dir.file("blocked/velko")});
    auto saved = service.persist(state({"a"}), kProject);
    ASSERT_FALSE(saved.ok());
    EXPECT_FALSE(saved.error().description.empty());
    EXPECT_EQ(service.storedState(kProject), state({"a"}));
}

TEST(PreviewTabsPersistence, TabsWhoseFileIsGoneAreReportedInOrder) {
    test::TempDir project;
    project.write("docs/readme.md", "# hi");
    project.write("a b.txt", "x");
    std::filesystem::create_directories(project.file("folder"));
    struct Case {
        std::string path;
        bool missing;
    };
    const Case cases[] = {
        {"docs/readme.md", false}, {"docs//readme.md", false}, {"/docs/readme.md", false}, {"a b.txt", false},
        {"docs/gone.md", true},    {"folder", true},           {"", true},                {"../outside.txt", true},
        {"~", true},
    };
    PreviewTabsState tabs;
    for (const auto& c : cases) tabs.tabs.push_back({"id:" + c.path, c.path, "t", false, PreviewTabViewMode::Source, 0});
    auto warnings = PreviewTabsPersistenceService::detectMissingTabs(tabs, project.path(), project.path());
    std::vector<std::string> expected, reported;
    for (const auto& c : cases)
        if (c.missing) expected.push_back(c.path);
    for (const auto& w : warnings) {
        reported.push_back(w.path);
        EXPECT_EQ(w.tabId, "id:" + w.path);
        EXPECT_EQ(w.code, "file_missing");
        EXPECT_EQ(w.message, "ファイルが見つかりません");
    }
    EXPECT_EQ(reported, expected);
    // With the project's folder gone nothing is flagged.
    EXPECT_TRUE(PreviewTabsPersistenceService::detectMissingTabs(tabs, std::nullopt, project.path()).empty());
}

TEST(PreviewTabsPersistence, SnapshotsDecodeStrictly) {
    struct Case {
        const char* name;
        std::string json;
        bool decodes;
    };
    const Case cases[] = {
        {"complete", R"({"activeTabId":"a","tabs":[)" + tabJson("a", "x") + R"(],"version":1})", true},
        {"null active tab, unknown key", R"({"activeTabId":null,"tabs":[],"version":1,"extra":[1]})", true},
        {"active tab a number", R"({"activeTabId":1,"tabs":[],"version":1})", false},
        {"no version", R"({"tabs":[]})", false},
        {"tabs not a list", R"({"tabs":{},"version":1})", false},
        {"dirty as 1", R"({"tabs":[)" + tabJson("a", "x").replace(tabJson("a", "x").find("false"), 5, "1") +
                           R"(],"version":1})", false},
        {"time past 64 bits", R"({"tabs":[)" + tabJson("a", "x").replace(tabJson("a", "x").find("1700000000000"),
                                  13, "18446744073709551615") + R"(],"version":1})", false},
        {"fractional time", R"({"tabs":[)" + tabJson("a", "x").replace(tabJson("a", "x").find("1700000000000"),
                                  13, "1.5") + R"(],"version":1})", false},
        {"not an object", R"([1,2])", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto decoded = decodePreviewTabsState(Json::parse(c.json));
        EXPECT_EQ(decoded.has_value(), c.decodes);
        if (decoded) {
            EXPECT_EQ(decodePreviewTabsState(Json::parse(dumpJson(encodePreviewTabsState(*decoded)))), decoded);
        }
    }
}
