// The preview tabs database against real files in a temporary folder: what a
// damaged or foreign file reads as, what survives a restart, and which
// restored tabs are reported as gone.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "preview/PreviewTabsPersistenceService.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

const Uuid kProject = *Uuid::parse("AAAAAAAA-0000-4000-8000-000000000001");
const Uuid kOther = *Uuid::parse("BBBBBBBB-0000-4000-8000-000000000002");

PreviewTabsState state(std::vector<std::string> paths) {
    PreviewTabsState s;
    for (size_t i = 0; i < paths.size(); ++i)
        s.tabs.push_back({"tab" + std::to_string(i), paths[i], "t", i % 2 == 1, PreviewTabViewMode::Markdown,
                          static_cast<int64_t>(i)});
    return s;
}

// A database holding project entries with the given tabs (each a JSON object's inside).
std::string database(const std::vector<std::pair<Uuid, std::string>>& entries, int version = 1) {
    std::string projects;
    for (const auto& [id, tab] : entries)
        projects += std::string(projects.empty() ? "" : ",") + R"({"projectId":")" + id.toString() +
                    R"(","updatedAt":"2024-01-01T00:00:00Z","previewTabs":{"tabs":[{)" + tab + R"(}],"version":1}})";
    return R"({"version":)" + std::to_string(version) + R"(,"projects":[)" + projects + "]}";
}

std::string tab(const std::string& path = "x", const std::string& viewMode = "\"source\"",
                const std::string& lastOpenedAt = "1") {
    return R"("id":"a","path":")" + path + R"(","title":"t","isDirty":false,"viewMode":)" + viewMode +
           R"(,"lastOpenedAt":)" + lastOpenedAt;
}

}  // namespace

TEST(PreviewTabsPersistence, TheDatabaseReadsAsStoredOrAsEmptyAndABadFileIsKeptAside) {
    struct Case {
        const char* name;
        std::optional<std::string> file;  // nothing: no file at all
        std::string path;                 // of the project's tab; "": it hydrates empty
        bool keptAside;                   // projects.db.bad after the next persist
    };
    const Case cases[] = {
        {"no file", std::nullopt, "", false},
        {"valid", database({{kProject, tab()}}), "x", false},
        {"duplicate project: the later wins", database({{kProject, tab("first")}, {kProject, tab("later")}}), "later",
         false},
        {"garbage", "not json at all", "", true},
        {"truncated", database({{kProject, tab()}}).substr(0, 60), "", true},
        {"version 2", database({{kProject, tab()}}, 2), "", true},
        {"a tab's time as text", database({{kProject, tab("x", "\"source\"", "\"1\"")}}), "", true},
        {"a tab's time past 64 bits", database({{kProject, tab("x", "\"source\"", "18446744073709551615")}}), "", true},
        {"unknown view mode", database({{kProject, tab("x", "\"preview\"")}}), "", true},
        {"dirty as 1", database({{kProject, tab("x").replace(tab("x").find("false"), 5, "1")}}), "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::TempDir dir;
        if (c.file) dir.write("projects.db", *c.file);
        PreviewTabsPersistenceService service({.storageDirectory = dir.path()});
        auto firstPath = [&](PreviewTabsPersistenceService& s) {
            auto tabs = s.storedState(kProject).tabs;
            return tabs.empty() ? "" : tabs[0].path;
        };
        EXPECT_EQ(firstPath(service), c.path);
        ASSERT_TRUE(service.persist(state({"new"}), kOther).ok());
        EXPECT_EQ(test::readFile(dir.file("projects.db.bad")), c.keptAside ? *c.file : "");
        // What was read survives the rewrite; what was not, is gone from the new file.
        PreviewTabsPersistenceService reread({.storageDirectory = dir.path()});
        EXPECT_EQ(firstPath(reread), c.path);
        EXPECT_EQ(reread.storedState(kOther), state({"new"}));
    }
}

TEST(PreviewTabsPersistence, PersistedStatesSurviveARestartAndTheLatestReplacesTheFirst) {
    test::TempDir dir;
    SystemTime now = *parseIso8601("2024-05-01T10:00:00Z");
    {
        PreviewTabsPersistenceService service({.storageDirectory = dir.path(), .clock = [&] { return now; }});
        ASSERT_TRUE(service.persist(state({"a.md", "b.png"}), kProject).ok());
        now += std::chrono::seconds(5);
        ASSERT_TRUE(service.persist(state({"c.txt"}), kProject).ok());
    }
    auto file = Json::parse(test::readFile(dir.file("projects.db")));
    EXPECT_EQ(file["projects"][0]["updatedAt"], "2024-05-01T10:00:05.000Z");
    struct stat st{};
    ASSERT_EQ(stat(dir.file("projects.db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);  // tab paths are the user's business

    PreviewTabsPersistenceService restarted({.storageDirectory = dir.path()});
    EXPECT_EQ(restarted.storedState(kProject), state({"c.txt"}));
    // A state of another version stays stored but hydrates empty.
    auto future = state({"x"});
    future.version = 2;
    ASSERT_TRUE(restarted.persist(future, kProject).ok());
    EXPECT_EQ(restarted.storedState(kProject), PreviewTabsState{});

    // A file where the folder should be: no one, root included, can write below it.
    dir.write("blocked", "");
    PreviewTabsPersistenceService unwritable({.storageDirectory = dir.file("blocked/velko")});
    EXPECT_FALSE(unwritable.persist(state({"a"}), kProject).ok());
    EXPECT_EQ(unwritable.storedState(kProject), state({"a"}));  // memory keeps it
}

TEST(PreviewTabsPersistence, TabsWhoseFileIsGoneAreReportedInOrder) {
    test::TempDir project;
    project.write("docs/readme.md", "# hi");
    std::filesystem::create_directories(project.file("folder"));
    const std::pair<std::string, bool> cases[] = {
        {"docs/readme.md", false}, {"docs//readme.md", false}, {"/docs/readme.md", false}, {"docs/gone.md", true},
        {"folder", true},          {"", true},                 {"../outside.txt", true},
    };
    PreviewTabsState tabs;
    std::vector<std::string> expected, reported;
    for (const auto& [path, missing] : cases) {
        tabs.tabs.push_back({"id:" + path, path, "t", false, PreviewTabViewMode::Source, 0});
        if (missing) expected.push_back(path);
    }
    for (const auto& w : PreviewTabsPersistenceService::detectMissingTabs(tabs, project.path(), "/nonexistent")) {
        reported.push_back(w.path);
        EXPECT_EQ(w.tabId + w.code + w.message, "id:" + w.path + "file_missingファイルが見つかりません");
    }
    EXPECT_EQ(reported, expected);
    // With the project's folder gone nothing is flagged.
    EXPECT_TRUE(PreviewTabsPersistenceService::detectMissingTabs(tabs, std::nullopt, "/nonexistent").empty());
}
