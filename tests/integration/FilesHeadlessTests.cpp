// The file and explorer messages end to end: the real program in headless
// mode, a project picked from a temporary folder, real files and inotify.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/Json.h"
#include "core/Uuid.h"
#include "support/TestSupport.h"

extern char** environ;

using namespace velko;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr auto kDeadline = 15s;

// velko --headless with its standard input and output on pipes.
class HeadlessVelko {
public:
    explicit HeadlessVelko(const std::string& pickFolder) {
        const char* binaryDir = std::getenv("VELKO_BINARY_DIR");
        std::string program = std::string(binaryDir ? binaryDir : ".") + "/velko";
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        std::vector<std::string> args{program, "--headless", "--pick-folder", pickFolder};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        m_stdin = in[1];
        m_stdout = out[0];
    }
    ~HeadlessVelko() {
        closeInput();
        if (m_pid > 0 && !m_exited) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_stdout >= 0) close(m_stdout);
    }
    bool running() const { return m_pid > 0; }

    void send(const Json& message) {
        std::string line = message.dump() + "\n";
        ASSERT_EQ(write(m_stdin, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    void closeInput() {
        if (m_stdin >= 0) close(m_stdin);
        m_stdin = -1;
    }

    // The next event of `type` (earlier events of other types are kept for later).
    std::optional<Json> next(const std::string& type) {
        auto deadline = std::chrono::steady_clock::now() + kDeadline;
        for (;;) {
            for (auto it = m_events.begin(); it != m_events.end(); ++it) {
                if ((*it)["type"] == type) {
                    Json event = *it;
                    m_events.erase(it);
                    return event["payload"];
                }
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !readMore(static_cast<int>(left.count()))) return std::nullopt;
        }
    }

    // The next event of any of `types`, in the order the program wrote them.
    std::optional<Json> nextOf(const std::vector<std::string>& types) {
        auto deadline = std::chrono::steady_clock::now() + kDeadline;
        for (;;) {
            for (auto it = m_events.begin(); it != m_events.end(); ++it) {
                if (std::find(types.begin(), types.end(), (*it)["type"]) != types.end()) {
                    Json event = *it;
                    m_events.erase(it);
                    return event;
                }
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !readMore(static_cast<int>(left.count()))) return std::nullopt;
        }
    }

    void killHard() {
        if (m_pid <= 0 || m_exited) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_exited = true;
    }

    // Polls for the exit with a deadline; the exit status, or -1.
    int waitForExit() {
        auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_exited = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            readMore(50);  // keep draining so the program never blocks on its output
        }
        return -1;
    }

private:
    bool readMore(int timeoutMs) {
        pollfd fd{m_stdout, POLLIN, 0};
        if (poll(&fd, 1, timeoutMs) <= 0) return false;
        char buffer[65536];
        ssize_t n = read(m_stdout, buffer, sizeof buffer);
        if (n <= 0) return false;
        m_buffer.append(buffer, static_cast<size_t>(n));
        size_t newline;
        while ((newline = m_buffer.find('\n')) != std::string::npos) {
            if (auto event = parseJson(std::string_view(m_buffer).substr(0, newline))) m_events.push_back(*event);
            m_buffer.erase(0, newline + 1);
        }
        return true;
    }

    pid_t m_pid = -1;
    int m_stdin = -1;
    int m_stdout = -1;
    bool m_exited = false;
    std::string m_buffer;
    std::vector<Json> m_events;
};

// Opens the picked folder as a project and returns its id.
std::string openPickedProject(HeadlessVelko& velko) {
    velko.send({{"type", "project/open"}});
    auto activated = velko.next("project/activate");
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

    HeadlessVelko velko(project.path());
    ASSERT_TRUE(velko.running());
    velko.send({{"type", "project/open"}});
    auto activated = velko.next("project/activate");
    ASSERT_TRUE(activated);
    std::string id = (*activated)["id"];

    velko.send({{"type", "project/explorer/directories/request"},
                {"payload", {{"projectId", id}, {"paths", {"", "src", "", 7, "../x", ".git"}}, {"requestId", "r1"}}}});
    auto listing = velko.next("project/explorer/directories");
    ASSERT_TRUE(listing);
    EXPECT_EQ((*listing)["requestId"], "r1");
    ASSERT_EQ((*listing)["directories"].size(), 4u);  // duplicates and non-text dropped
    EXPECT_EQ(nodeNames((*listing)["directories"][0]),
              (std::vector<std::string>{"src:folder", "a.txt:file", "logo.png:file"}));  // no .git, no FIFO
    EXPECT_EQ(nodeNames((*listing)["directories"][1]), (std::vector<std::string>{"main.cpp:file"}));
    EXPECT_EQ((*listing)["directories"][2]["error"], "invalidPath");
    EXPECT_EQ((*listing)["directories"][3]["error"], "excluded");

    // Malformed requests get no answer: the next answer is the valid request's.
    velko.send({{"type", "project/file/open"}, {"payload", {{"projectId", id}, {"path", 42}}}});
    velko.send({{"type", "project/file/open"}, {"payload", {{"projectId", "not-a-uuid"}, {"path", "a.txt"}}}});
    velko.send({{"type", "project/file/open"}, {"payload", {{"projectId", id}, {"path", "pipe"}}}});
    auto pipeError = velko.next("project/file/error");
    ASSERT_TRUE(pipeError);
    EXPECT_EQ((*pipeError)["path"], "pipe");
    EXPECT_EQ((*pipeError)["message"], "ファイルをテキストとして読み込めませんでした");
    EXPECT_FALSE(pipeError->contains("code"));

    velko.send({{"type", "project/file/open"}, {"payload", {{"projectId", id}, {"path", "a.txt"}}}});
    auto content = velko.next("project/file/content");
    ASSERT_TRUE(content);
    EXPECT_EQ(content->dump(), Json({{"projectId", id}, {"path", "a.txt"}, {"content", "hello\n"}}).dump());

    velko.send({{"type", "project/file/open"}, {"payload", {{"projectId", id}, {"path", "logo.png"}}}});
    auto image = velko.next("project/file/content");
    ASSERT_TRUE(image);
    EXPECT_EQ((*image)["content"], "iVBORw==");
    EXPECT_EQ((*image)["encoding"], "base64");
    EXPECT_EQ((*image)["mimeType"], "image/png");

    velko.send({{"type", "project/file/save"},
                {"payload", {{"projectId", id}, {"path", "a.txt"}, {"content", "saved 保存\n"}}}});
    ASSERT_TRUE(velko.next("project/file/saved"));
    EXPECT_EQ(test::readFile(project.file("a.txt")), "saved 保存\n");

    velko.send({{"type", "project/file/rename"},
                {"payload", {{"projectId", id}, {"path", "a.txt"}, {"nextPath", "A.txt"}, {"entityType", "folder"}}}});
    auto renamed = velko.next("project/file/renamed");
    ASSERT_TRUE(renamed);
    EXPECT_EQ(renamed->dump(),
              Json({{"projectId", id}, {"path", "a.txt"}, {"nextPath", "A.txt"}, {"entityType", "file"}}).dump());
    EXPECT_TRUE(fs::exists(project.file("A.txt")));
    EXPECT_FALSE(fs::exists(project.file("a.txt")));
    auto immediate = velko.next("project/explorer/changed");
    ASSERT_TRUE(immediate);
    EXPECT_EQ((*immediate)["directoryPaths"], Json::array({""}));

    velko.send({{"type", "project/file/rename"},
                {"payload", {{"projectId", id}, {"path", "A.txt"}, {"nextPath", "src/A.txt"}}}});
    auto refused = velko.next("project/file/error");
    ASSERT_TRUE(refused);
    EXPECT_EQ((*refused)["code"], "rename_invalid_destination");

    // Large files: sparse, so nothing of them is read or sent.
    fs::create_directories(project.file("big"));
    std::ofstream(project.file("big/soft.bin")).close();
    fs::resize_file(project.file("big/soft.bin"), 31457281);
    velko.send({{"type", "project/file/open"}, {"payload", {{"projectId", id}, {"path", "big/soft.bin"}}}});
    auto confirm = velko.next("project/file/confirm");
    ASSERT_TRUE(confirm);
    EXPECT_EQ(confirm->dump(), Json({{"projectId", id},
                                     {"path", "big/soft.bin"},
                                     {"sizeBytes", 31457281},
                                     {"softLimitBytes", 31457280},
                                     {"hardLimitBytes", 314572800}})
                                   .dump());
    fs::resize_file(project.file("big/soft.bin"), 314572801);
    velko.send({{"type", "project/file/open"},
                {"payload", {{"projectId", id}, {"path", "big/soft.bin"}, {"allowLargeFile", true}}}});
    auto tooLarge = velko.next("project/file/error");
    ASSERT_TRUE(tooLarge);
    EXPECT_EQ((*tooLarge)["message"], "このファイルは約 300MB あり、上限の 300MB を超えているため開けません。"
                                      "サイズを削減するか、外部エディタをご利用ください。");

    // At most 512 distinct paths are answered, and a request id is made up when none came.
    Json many = Json::array();
    for (int i = 0; i < 600; ++i) many.push_back("missing" + std::to_string(i));
    velko.send({{"type", "project/explorer/directories/request"}, {"payload", {{"projectId", id}, {"paths", many}}}});
    auto capped = velko.next("project/explorer/directories");
    ASSERT_TRUE(capped);
    EXPECT_EQ((*capped)["directories"].size(), 512u);
    EXPECT_EQ((*capped)["directories"][511]["path"], "missing511");
    EXPECT_TRUE(Uuid::parse((*capped)["requestId"].get<std::string>()));

    // Monitoring: a file touched in the project shows up as a stale folder.
    std::ofstream(project.file("src/new.txt")) << "new";
    std::optional<Json> changed;
    while ((changed = velko.next("project/explorer/changed"))) {
        const auto& paths = (*changed)["directoryPaths"];
        if (std::find(paths.begin(), paths.end(), Json("src")) != paths.end()) break;
    }
    ASSERT_TRUE(changed);
    EXPECT_EQ((*changed)["projectId"], id);
    EXPECT_EQ((*changed)["requiresResync"], false);

    velko.send({{"type", "project/file/open"},
                {"payload", {{"projectId", "00000000-0000-4000-8000-000000000000"}, {"path", "a.txt"}}}});
    auto unknown = velko.next("project/file/error");
    ASSERT_TRUE(unknown);
    EXPECT_EQ((*unknown)["message"], "プロジェクトのルートが見つかりませんでした");

    velko.closeInput();
    EXPECT_EQ(velko.waitForExit(), 0);
}

TEST(FilesHeadless, AKilledSaveLeavesTheOldOrTheNewContentNeverAPartOfIt) {
    test::IsolatedHome home;
    test::TempDir project;
    const std::string oldContent = "the old content\n";
    project.write("big.txt", oldContent);
    HeadlessVelko velko(project.path());
    ASSERT_TRUE(velko.running());
    std::string id = openPickedProject(velko);
    ASSERT_FALSE(id.empty());

    // Large enough that writing and syncing it takes a while.
    const std::string newContent(16 << 20, 'n');
    velko.send({{"type", "project/file/save"}, {"payload", {{"projectId", id}, {"path", "big.txt"}, {"content", newContent}}}});
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
    velko.killHard();
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
    HeadlessVelko velko(project.path());
    ASSERT_TRUE(velko.running());
    std::string id = openPickedProject(velko);
    ASSERT_FALSE(id.empty());

    velko.send({{"type", "project/explorer/directories/request"}, {"payload", {{"projectId", id}, {"paths", {"huge"}}}}});
    // Answered on the main thread alone: it must not wait behind the listing.
    velko.send({{"type", "project/file/open"},
                {"payload", {{"projectId", "00000000-0000-4000-8000-000000000000"}, {"path", "a.txt"}}}});
    auto first = velko.nextOf({"project/explorer/directories", "project/file/error"});
    ASSERT_TRUE(first);
    EXPECT_EQ((*first)["type"], "project/file/error");
    auto listing = velko.next("project/explorer/directories");
    ASSERT_TRUE(listing);
    const auto& nodes = (*listing)["directories"][0]["nodes"];
    ASSERT_EQ(nodes.size(), static_cast<size_t>(kEntries));
    EXPECT_EQ(nodes[0]["path"], "huge/sub");
    EXPECT_EQ(nodes[0]["type"], "folder");
    velko.closeInput();
    EXPECT_EQ(velko.waitForExit(), 0);
}
