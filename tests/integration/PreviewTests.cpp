// Preview tabs and metrics through a real `velko --headless`: tabs persisted in
// one run come back in the next, with a warning for the file deleted between
// them, and a damaged database reads as empty and is kept aside.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/HeadlessProcess.h"
#include "support/TestSupport.h"

using namespace velko;
using test::HeadlessProcess;

namespace {

bool isType(const Json& e, const char* type) { return e.value("type", "") == type; }

OrderedJson twoTabs() {
    return OrderedJson::parse(
        R"({"activeTabId":"t1","tabs":[)"
        R"({"id":"t1","path":"README.md","title":"README.md","isDirty":false,"viewMode":"markdown","lastOpenedAt":1},)"
        R"({"id":"t2","path":"src/main.c","title":"main.c","isDirty":false,"viewMode":"source","lastOpenedAt":2}],)"
        R"("version":1})");
}

}  // namespace

TEST(PreviewHeadless, TabsComeBackAfterARestartWithTheDeletedFileFlagged) {
    test::IsolatedHome home;
    test::TempDir project;
    project.write("README.md", "# hello");
    project.write("src/main.c", "int main(void) { return 0; }");
    std::string projectId;
    {
        HeadlessProcess velko({"--pick-folder", project.path()});
        // Metrics come at start, before anything is asked.
        EXPECT_TRUE(velko.waitForType("system/metrics"));
        velko.send(R"({"type":"project/open"})");
        auto activation = velko.waitForType("project/activate");
        ASSERT_TRUE(activation);
        projectId = (*activation)["payload"]["id"];
        auto hydrate = velko.waitForType("previewTab:hydrate");
        ASSERT_TRUE(hydrate);
        EXPECT_EQ((*hydrate)["payload"]["snapshot"], Json::parse(R"({"tabs":[],"version":1})"));
        velko.send("previewTabs/persist", OrderedJson{{"projectId", projectId}, {"snapshot", twoTabs()}});
        EXPECT_EQ(velko.finish(), 0);
    }
    std::filesystem::remove(project.file("src/main.c"));

    HeadlessProcess velko;
    auto hydrate = velko.waitForType("previewTab:hydrate");
    ASSERT_TRUE(hydrate);
    EXPECT_EQ((*hydrate)["payload"]["projectId"], projectId);
    EXPECT_EQ(dumpJson((*hydrate)["payload"]["snapshot"]), dumpJson(Json(twoTabs())));
    auto warning = velko.waitForType("previewTab:warning");
    ASSERT_TRUE(warning);
    EXPECT_EQ((*warning)["payload"], Json::parse(R"({"projectId":")" + projectId + R"(","tabs":[{"tabId":"t2",)"
                                                 R"("path":"src/main.c","code":"file_missing",)"
                                                 R"("message":"ファイルが見つかりません"}]})"));
    EXPECT_EQ(velko.finish(), 0);
    // The warning follows its hydrate event.
    size_t hydrateAt = 0, warningAt = 0;
    for (size_t i = 0; i < velko.events().size(); ++i) {
        if (isType(velko.events()[i], "previewTab:hydrate")) hydrateAt = i;
        if (isType(velko.events()[i], "previewTab:warning")) warningAt = i;
    }
    EXPECT_LT(hydrateAt, warningAt);
}

TEST(PreviewHeadless, ADamagedDatabaseHydratesEmptyAndIsKeptAsideAtTheNextPersist) {
    test::IsolatedHome home;
    test::TempDir project;
    const std::string damaged = "{\"version\":1,\"projects\":[{\"proj";
    const std::string database = home.dataDir() + "/projects.db";
    std::filesystem::create_directories(home.dataDir());
    std::ofstream(database) << damaged;

    HeadlessProcess velko({"--pick-folder", project.path()});
    velko.send(R"({"type":"project/open"})");
    auto hydrate = velko.waitForType("previewTab:hydrate");
    ASSERT_TRUE(hydrate);
    EXPECT_EQ((*hydrate)["payload"]["snapshot"]["tabs"], Json::array());
    velko.send("previewTabs/persist",
               OrderedJson{{"projectId", (*hydrate)["payload"]["projectId"]}, {"snapshot", twoTabs()}});
    EXPECT_EQ(velko.finish(), 0);
    EXPECT_EQ(test::readFile(database + ".bad"), damaged);
    auto rewritten = parseJson(test::readFile(database));
    ASSERT_TRUE(rewritten);
    EXPECT_EQ((*rewritten)["projects"].size(), 1u);
}
