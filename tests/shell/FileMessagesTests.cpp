// The file and explorer requests against fake file jobs: what is dropped,
// what is answered at once, and how each result of a job reaches the page.
// The jobs run only when the test runs the file queue.
#include <gtest/gtest.h>

#include "shell/BridgeHarness.h"

using namespace velko;
using test::kA;

namespace {
const std::string kMissingRoot = "プロジェクトのルートが見つかりませんでした";
std::string fileError(const std::string& project, const std::string& path, const std::string& message,
                      const std::string& code = "") {
    OrderedJson payload{{"projectId", project}, {"path", path}, {"message", message}};
    if (!code.empty()) payload["code"] = code;
    return "project/file/error " + payload.dump();
}
}  // namespace

TEST(FileMessages, MalformedRequestsAreDroppedAndUnknownProjectsAnsweredAtOnce) {
    struct Case {
        std::string message;
        std::vector<std::string> events;
    };
    auto msg = test::message;
    const Case cases[] = {
        {msg("project/file/open", {{"projectId", kA}, {"path", 42}}), {}},
        {msg("project/file/open", {{"projectId", "not-a-uuid"}, {"path", "a.txt"}}), {}},
        {msg("project/file/save", {{"projectId", kA}, {"path", "a.txt"}}), {}},
        {msg("project/file/rename", {{"projectId", kA}, {"path", "a.txt"}, {"nextPath", nullptr}}), {}},
        {msg("project/explorer/directories/request", {{"projectId", kA}, {"paths", Json::array()}}), {}},
        {msg("project/explorer/directories/request", {{"projectId", kA}, {"paths", "src"}}), {}},
        {msg("project/file/open", {{"projectId", test::kUnknown}, {"path", "a.txt"}}),
         {fileError(test::kUnknown, "a.txt", kMissingRoot)}},
        {msg("project/file/open", {{"projectId", test::kGone}, {"path", "a.txt"}}),
         {fileError(test::kGone, "a.txt", kMissingRoot)}},
        {msg("project/file/save", {{"projectId", test::kGone}, {"path", "a.txt"}, {"content", "x"}}),
         {fileError(test::kGone, "a.txt", kMissingRoot)}},
        {msg("project/file/rename", {{"projectId", test::kGone}, {"path", "a.txt"}, {"nextPath", "b.txt"}}),
         {fileError(test::kGone, "a.txt", kMissingRoot, "rename_invalid_project")}},
        {msg("project/explorer/directories/request",
             {{"projectId", test::kGone}, {"paths", {"", "src"}}, {"requestId", "r1"}}),
         {"project/explorer/directories {\"projectId\":\"" + test::kGone +
          R"(","requestId":"r1","directories":[{"path":"","nodes":[],"error":"invalidProject"},)"
          R"({"path":"src","nodes":[],"error":"invalidProject"}]})"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        test::BridgeHarness h;
        h.bridge->handleMessageText(c.message);
        h.main->runUntilIdle();
        EXPECT_EQ(h.events(), c.events);
        EXPECT_EQ(h.fileQueue->runUntilIdle(), 0u) << "no job for a request answered without the disk";
        EXPECT_TRUE(h.journal.empty());
    }
}

TEST(FileMessages, EachResultOfAJobBecomesItsEvent) {
    const std::string a = "{\"projectId\":\"" + kA + "\",";
    struct Case {
        std::string name;
        std::string message;
        std::function<void(test::FakeFiles&)> arrange;
        test::Journal journal;
        std::vector<std::string> events;
    };
    auto msg = test::message;
    auto open = msg("project/file/open", {{"projectId", kA}, {"path", "a.txt"}});
    auto rename = msg("project/file/rename", {{"projectId", kA}, {"path", "d/a"}, {"nextPath", "d/b"}});
    const Case cases[] = {
        {"image", open, [](auto& f) { f.read = FileReadResult{FileBinaryContent{"\x89PNG", "image/png"}}; },
         {"files.read /r/a a.txt"},
         {"project/file/content " + a +
          R"("path":"a.txt","content":"iVBORw==","encoding":"base64","mimeType":"image/png"})"}},
        {"binary without a type", open, [](auto& f) { f.read = FileReadResult{FileBinaryContent{"ab", std::nullopt}}; },
         {"files.read /r/a a.txt"},
         {"project/file/content " + a + R"("path":"a.txt","content":"YWI=","encoding":"base64"})"}},
        {"large file asks first", open, [](auto& f) { f.read = FileReadResult{FileRequiresConfirmation{31457281}}; },
         {"files.read /r/a a.txt"},
         {"project/file/confirm " + a +
          R"("path":"a.txt","sizeBytes":31457281,"softLimitBytes":31457280,"hardLimitBytes":314572800})"}},
        {"allowed large file",
         msg("project/file/open", {{"projectId", kA}, {"path", "a.txt"}, {"allowLargeFile", true}}),
         [](auto&) {}, {"files.read /r/a a.txt large"},
         {fileError(kA, "a.txt", "ファイルが見つかりませんでした")}},
        {"save failed", msg("project/file/save", {{"projectId", kA}, {"path", "a.txt"}, {"content", "new"}}),
         [](auto& f) { f.save = fail(FileSaveError{"保存に失敗しました: Permission denied"}); },
         {"files.save /r/a a.txt new"}, {fileError(kA, "a.txt", "保存に失敗しました: Permission denied")}},
        {"renamed: the explorer and the status follow", rename,
         [](auto& f) { f.rename = RenameOutcome{"d/a", "d/b", true, "d"}; },
         {"files.rename /r/a d/a d/b", "git.status " + kA},
         {"project/file/renamed " + a + R"("path":"d/a","nextPath":"d/b","entityType":"folder"})",
          "project/explorer/changed " + a + R"("directoryPaths":["d"],"requiresResync":false})"}},
        {"rename refused", rename, [](auto&) {}, {"files.rename /r/a d/a d/b"},
         {fileError(kA, "d/a", "対象が見つかりません", "rename_not_found")}},
        {"listing: duplicates and non-text paths left out",
         msg("project/explorer/directories/request",
             {{"projectId", kA}, {"paths", {"", "src", "", 7}}, {"requestId", "r1"}}),
         [](auto&) {}, {"files.list /r/a [,src]"},
         {"project/explorer/directories " + a +
          R"("requestId":"r1","directories":[{"path":"","nodes":[{"name":"f","path":"f","type":"file"}]},)"
          R"({"path":"src","nodes":[{"name":"f","path":"src/f","type":"file"}]}]})"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::BridgeHarness h;
        c.arrange(*h.files);
        h.bridge->handleMessageText(c.message);
        h.main->runUntilIdle();
        EXPECT_TRUE(h.journal.empty() && h.events().empty()) << "the disk is touched on the file queue only";
        h.run();
        EXPECT_EQ(h.journal, c.journal);
        EXPECT_EQ(h.events(), c.events);
    }
}
