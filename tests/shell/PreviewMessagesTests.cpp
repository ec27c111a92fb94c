// Preview tab messages through the bridge, with the real database in a
// temporary folder and the fakes of the other services.
#include <gtest/gtest.h>

#include "preview/PreviewTabsPersistenceService.h"
#include "shell/BridgeHarness.h"

using namespace velko;
using test::kA;

namespace {

std::string persist(const std::string& projectId, const std::string& snapshot) {
    return R"({"type":"previewTabs/persist","payload":{"projectId":")" + projectId + R"(","snapshot":)" + snapshot + "}}";
}

const std::string kTwoTabs =
    R"({"activeTabId":"1","tabs":[{"id":"1","path":"kept.md","title":"kept.md","isDirty":false,"viewMode":"markdown",)"
    R"("lastOpenedAt":5},{"id":"2","path":"gone.png","title":"gone.png","isDirty":true,"viewMode":"rendered",)"
    R"("lastOpenedAt":6}],"version":1})";

}  // namespace

TEST(PreviewMessages, PersistedTabsHydrateFirstAndTheirMissingFilesAreReportedAfter) {
    test::TempDir data, folder;
    folder.write("kept.md", "# kept");
    test::BridgeHarness h;
    h.store->value.projects[0].rootPath = folder.path();  // project A
    auto service = std::make_shared<PreviewTabsPersistenceService>(
        PreviewTabsPersistenceService::Options{.storageDirectory = data.path()});
    h.bridge->setPreviewTabsService(service);

    struct Case {
        const char* name;
        std::string message;
    };
    // None of these may change what A has stored.
    const Case dropped[] = {
        {"unknown project", persist(test::kUnknown, kTwoTabs)},
        {"not a UUID", persist("A", kTwoTabs)},
        {"unknown view mode", persist(kA, R"({"tabs":[{"id":"1","path":"a","title":"a","isDirty":false,)"
                                          R"("viewMode":"preview","lastOpenedAt":5}],"version":1})")},
        {"snapshot not an object", persist(kA, "[]")},
        {"no snapshot", R"({"type":"previewTabs/persist","payload":{"projectId":")" + kA + R"("}})"},
    };
    h.send(persist(kA, kTwoTabs));
    for (const auto& c : dropped) {
        SCOPED_TRACE(c.name);
        h.send(c.message);
        EXPECT_EQ(dumpJson(encodePreviewTabsState(service->storedState(test::id(kA)))), dumpJson(OrderedJson::parse(kTwoTabs)));
        EXPECT_TRUE(service->storedState(test::id(test::kUnknown)).tabs.empty());
        EXPECT_TRUE(h.events().empty());
    }

    // The stored state goes out before any disk is asked; the warning follows from the file queue.
    h.bridge->dispatchPreviewTabs(test::id(kA));
    EXPECT_EQ(h.events(), std::vector<std::string>{"previewTab:hydrate {\"projectId\":\"" + kA +
                                                   "\",\"snapshot\":" + dumpJson(OrderedJson::parse(kTwoTabs)) + "}"});
    h.run();
    ASSERT_EQ(h.events().size(), 2u);
    EXPECT_EQ(h.events()[1], "previewTab:warning {\"projectId\":\"" + kA +
                                 R"(","tabs":[{"tabId":"2","path":"gone.png","code":"file_missing",)"
                                 R"("message":"ファイルが見つかりません"}]})");

    // A project without tabs, or whose folder is gone, hydrates without a warning; an unknown one not at all.
    h.clear();
    h.send(persist(test::kGone, kTwoTabs));
    for (const auto& project : {test::kB, test::kGone, test::kUnknown}) h.bridge->dispatchPreviewTabs(test::id(project));
    h.run();
    EXPECT_EQ(h.events(),
              (std::vector<std::string>{
                  "previewTab:hydrate {\"projectId\":\"" + test::kB + R"(","snapshot":{"tabs":[],"version":1}})",
                  "previewTab:hydrate {\"projectId\":\"" + test::kGone + "\",\"snapshot\":" +
                      dumpJson(OrderedJson::parse(kTwoTabs)) + "}"}));
}
