// Preview tabs through a real `velko --headless`: tabs persisted in one run
// come back in the next, with a warning for the file deleted between them;
// messages that do not hold a valid snapshot of a known project change nothing.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/HeadlessProcess.h"
#include "support/TestSupport.h"

using namespace velko;
using test::HeadlessProcess;

namespace {

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
        OrderedJson unknownMode = twoTabs();
        unknownMode["tabs"][0]["viewMode"] = "preview";
        for (const auto& dropped : {OrderedJson{{"projectId", projectId}, {"snapshot", unknownMode}},
                                    OrderedJson{{"projectId", projectId}, {"snapshot", OrderedJson::array()}},
                                    OrderedJson{{"projectId", projectId}},
                                    OrderedJson{{"projectId", "EEEEEEEE-0000-4000-8000-000000000005"},
                                                {"snapshot", OrderedJson::parse(R"({"tabs":[],"version":1})")}}})
            velko.send("previewTabs/persist", dropped);
        EXPECT_EQ(velko.finish(), 0);
    }
    std::filesystem::remove(project.file("src/main.c"));

    HeadlessProcess velko;
    auto hydrate = velko.waitForType("previewTab:hydrate");
    ASSERT_TRUE(hydrate);
    EXPECT_EQ((*hydrate)["payload"]["projectId"], projectId);
    EXPECT_EQ(dumpJson((*hydrate)["payload"]["snapshot"]), dumpJson(Json(twoTabs())));
    // Read on from the hydrate event: the warning comes after it.
    auto warning = velko.waitForType("previewTab:warning");
    ASSERT_TRUE(warning);
    EXPECT_EQ((*warning)["payload"], Json::parse(R"({"projectId":")" + projectId + R"(","tabs":[{"tabId":"t2",)"
                                                 R"("path":"src/main.c","code":"file_missing",)"
                                                 R"("message":"ファイルが見つかりません"}]})"));
    EXPECT_EQ(velko.finish(), 0);
}
