// The file and explorer messages end to end: the real program in headless
// mode, a project picked from a temporary folder, real files and inotify.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "core/Json.h"
#include "core/Uuid.h"
#include "support/HeadlessProcess.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr auto kDeadline = 15s;

// The payload of the first event of `type` not yet taken; events of other
// types stay for later.
std::optional<Json> next(test::HeadlessProcess& velko, const std::string& type) {
    auto event = velko.take([&](const Json& e) { return e.value("type", "") == type; }, kDeadline);
    if (!event) return std::nullopt;
    return (*event)["payload"];
}

// Opens the picked folder as a project and returns its id.
std::string openPickedProject(test::HeadlessProcess& velko) {
    velko.send("project/open", OrderedJson::object());
    auto activated = next(velko, "project/activate");
    if (!activated) return {};
    return (*activated)["id"].get<std::string>();
}

std::vector<std::string> nodeNames(const Json& snapshot) {
    std::vector<std::string> names;
    for (const auto& node : snapshot["nodes"]) names.push_back(node["name"].get<std::string>() + ":" +
                                                                node["type"].get<std::string>());
    return names;
}

}  // namespace

TEST(FilesHeadless, APickedProjectListsOpensSavesRenamesAndReportsChanges) {
    test::IsolatedHome home;
    test::TempDir project;
    project.write("a.txt", "hello\n");
    project.write("src/main.cpp", "int main() {}\n");
    project.write(".git/HEAD", "ref: refs/heads/main\n");
    project.write("logo.png", "\x89PNG");
    ASSERT_EQ(mkfifo(project.file("pipe").c_str(), 0600), 0);

    test::HeadlessProcess velko({"--pick-folder", project.path()});
    std::string id = openPickedProject(velko);
    ASSERT_FALSE(id.empty());

    velko.send("project/explorer/directories/request", {{"projectId", id}, {"paths", {"", "src"}}});
    auto listing = next(velko, "project/explorer/directories");
    ASSERT_TRUE(listing);
    ASSERT_EQ((*listing)["directories"].size(), 2u);
    EXPECT_EQ(nodeNames((*listing)["directories"][0]),
              (std::vector<std::string>{"src:folder", "a.txt:file", "logo.png:file"}));  // no .git, no FIFO
    EXPECT_EQ(nodeNames((*listing)["directories"][1]), (std::vector<std::string>{"main.cpp:file"}));

    // A named pipe is refused without blocking the file queue.
    velko.send("project/file/open", {{"projectId", id}, {"path", "pipe"}});
    auto pipeError = next(velko, "project/file/error");
    ASSERT_TRUE(pipeError);
    EXPECT_EQ((*pipeError)["path"], "pipe");
    EXPECT_EQ((*pipeError)["message"], "ファイルをテキストとして読み込めませんでした");

    velko.send("project/file/open", {{"projectId", id}, {"path", "a.txt"}});
    auto content = next(velko, "project/file/content");
    ASSERT_TRUE(content);
    EXPECT_EQ(content->dump(), Json({{"projectId", id}, {"path", "a.txt"}, {"content", "hello\n"}}).dump());

    velko.send("project/file/save", {{"projectId", id}, {"path", "a.txt"}, {"content", "saved 保存\n"}});
    ASSERT_TRUE(next(velko, "project/file/saved"));
    EXPECT_EQ(test::readFile(project.file("a.txt")), "saved 保存\n");

    velko.send("project/file/rename",
               {{"projectId", id}, {"path", "a.txt"}, {"nextPath", "A.txt"}, {"entityType", "folder"}});
    auto renamed = next(velko, "project/file/renamed");
    ASSERT_TRUE(renamed);
    EXPECT_EQ(renamed->dump(),
              Json({{"projectId", id}, {"path", "a.txt"}, {"nextPath", "A.txt"}, {"entityType", "file"}}).dump());
    EXPECT_TRUE(fs::exists(project.file("A.txt")));
    EXPECT_FALSE(fs::exists(project.file("a.txt")));
    auto immediate = next(velko, "project/explorer/changed");
    ASSERT_TRUE(immediate);
    EXPECT_EQ((*immediate)["directoryPaths"], Json::array({""}));

    // At most 512 distinct paths are answered, and a request id is made up when none came.
    Json many = Json::array();
    for (int i = 0; i < 600; ++i) many.push_back("missing" + std::to_string(i));
    velko.send("project/explorer/directories/request", {{"projectId", id}, {"paths", many}});
    auto capped = next(velko, "project/explorer/directories");
    ASSERT_TRUE(capped);
    EXPECT_EQ((*capped)["directories"].size(), 512u);
    EXPECT_EQ((*capped)["directories"][511]["path"], "missing511");
    EXPECT_TRUE(Uuid::parse((*capped)["requestId"].get<std::string>()));

    // Monitoring: a file touched in the project shows up as a stale folder.
    std::ofstream(project.file("src/new.txt")) << "new";
    std::optional<Json> changed;
    while ((changed = next(velko, "project/explorer/changed"))) {
        const auto& paths = (*changed)["directoryPaths"];
        if (std::find(paths.begin(), paths.end(), Json("src")) != paths.end()) break;
    }
    ASSERT_TRUE(changed);
    EXPECT_EQ((*changed)["projectId"], id);
    EXPECT_EQ((*changed)["requiresResync"], false);

    EXPECT_EQ(velko.finish(), 0);
}

TEST(FilesHeadless, AKilledSaveLeavesTheOldOrTheNewContentNeverAPartOfIt) {
    test::IsolatedHome home;
    test::TempDir project;
    const std::string oldContent = "the old content\n";
    project.write("big.txt", oldContent);
    test::HeadlessProcess velko({"--pick-folder", project.path()});
    std::string id = openPickedProject(velko);
    ASSERT_FALSE(id.empty());

    // Large enough that writing and syncing it takes a while.
    const std::string newContent(16 << 20, 'n');
    velko.send("project/file/save", {{"projectId", id}, {"path", "big.txt"}, {"content", newContent}});
    // Kill the program as soon as the save shows on disk: a temporary file
    // beside the target, or the target itself changing.
    auto deadline = std::chrono::steady_clock::now() + kDeadline;
    bool sawSave = false;
    while (!sawSave && std::chrono::steady_clock::now() < deadline) {
        for (const auto& entry : fs::directory_iterator(project.path())) {
            std::string name = entry.path().filename().string();
            std::error_code error;
            if (name != "big.txt" || fs::file_size(entry.path(), error) != oldContent.size()) sawSave = true;
        }
    }
    kill(velko.pid(), SIGKILL);
    velko.finish();  // reaps it: nothing writes after this
    EXPECT_TRUE(sawSave);
    std::string onDisk = test::readFile(project.file("big.txt"));
    EXPECT_TRUE(onDisk == oldContent || onDisk == newContent) << "size after the kill: " << onDisk.size();
}

TEST(FilesHeadless, AHugeFolderListsCompletelyWhileTheMainThreadKeepsAnswering) {
    test::IsolatedHome home;
    test::TempDir project;
    const int kEntries = 100000;
    fs::create_directories(project.file("huge/sub"));
    for (int i = 0; i < kEntries - 1; ++i) {
        int fd = open(project.file("huge/f" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    test::HeadlessProcess velko({"--pick-folder", project.path()});
    std::string id = openPickedProject(velko);
    ASSERT_FALSE(id.empty());

    velko.send("project/explorer/directories/request", {{"projectId", id}, {"paths", {"huge"}}});
    // Answered on the main thread alone: it must not wait behind the listing.
    velko.send("project/file/open", {{"projectId", "00000000-0000-4000-8000-000000000000"}, {"path", "a.txt"}});
    auto first = velko.take(
        [](const Json& e) { return e["type"] == "project/explorer/directories" || e["type"] == "project/file/error"; },
        kDeadline);
    ASSERT_TRUE(first);
    EXPECT_EQ((*first)["type"], "project/file/error");
    auto listing = next(velko, "project/explorer/directories");
    ASSERT_TRUE(listing);
    const auto& nodes = (*listing)["directories"][0]["nodes"];
    ASSERT_EQ(nodes.size(), static_cast<size_t>(kEntries));
    EXPECT_EQ(nodes[0]["path"], "huge/sub");
    EXPECT_EQ(nodes[0]["type"], "folder");
    EXPECT_EQ(velko.finish(), 0);
}
