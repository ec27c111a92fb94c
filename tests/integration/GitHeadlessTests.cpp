// The git panel's messages through the real program: `velko --headless` with a
// temporary HOME, a real repository picked as the project folder, and a bare
// repository as its origin.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "integration/GitTestRepos.h"

extern char** environ;

using namespace velko;
using namespace velko::test;

namespace {

// velko --headless as a child: lines in, event lines out.
class HeadlessVelko {
public:
    explicit HeadlessVelko(const std::vector<std::string>& pickFolders, const GitEnvironment& extraEnv = {}) {
        const char* binaryDir = std::getenv("VELKO_BINARY_DIR");
        std::string binary = std::string(binaryDir ? binaryDir : ".") + "/velko";
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        std::vector<std::string> args{binary, "--headless"};
        for (const auto& f : pickFolders) {
            args.push_back("--pick-folder");
            args.push_back(f);
        }
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        GitEnvironment env = testGitEnvironment();
        for (const auto& [k, v] : extraEnv) env[k] = v;
        std::vector<std::string> envStorage;
        for (const auto& [k, v] : env) envStorage.push_back(k + "=" + v);
        std::vector<char*> envp;
        for (auto& e : envStorage) envp.push_back(e.data());
        envp.push_back(nullptr);
        if (posix_spawn(&m_pid, binary.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        m_in = in[1];
        m_out = out[0];
    }
    ~HeadlessVelko() {
        closeInput();
        if (m_pid > 0) {
            // End of input lets the program finish and exit; poll for it with a deadline.
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            int status;
            while (waitpid(m_pid, &status, WNOHANG) == 0) {
                if (std::chrono::steady_clock::now() > deadline) {
                    kill(m_pid, SIGKILL);
                    waitpid(m_pid, &status, 0);
                    break;
                }
                pollfd p{m_out, POLLIN, 0};
                if (poll(&p, 1, 50) > 0) {
                    char buf[4096];
                    if (read(m_out, buf, sizeof buf) <= 0) poll(nullptr, 0, 20);
                }
            }
        }
        if (m_out >= 0) close(m_out);
    }
    bool running() const { return m_pid > 0; }
    void send(const Json& message) {
        std::string line = message.dump() + "\n";
        ASSERT_EQ(write(m_in, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    void closeInput() {
        if (m_in >= 0) close(m_in);
        m_in = -1;
    }
    // The next event of `type` (and matching `accept`), reading lines with a deadline.
    std::optional<Json> waitFor(const std::string& type, std::function<bool(const Json&)> accept = {}) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (;;) {
            size_t nl;
            while ((nl = m_buffer.find('\n')) != std::string::npos) {
                std::string line = m_buffer.substr(0, nl);
                m_buffer.erase(0, nl + 1);
                auto event = parseJson(line);
                if (!event || !event->is_object()) continue;
                if ((*event)["type"] == type && (!accept || accept((*event)["payload"]))) return (*event)["payload"];
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd p{m_out, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
            char buf[65536];
            ssize_t n = read(m_out, buf, sizeof buf);
            if (n <= 0) return std::nullopt;
            m_buffer.append(buf, static_cast<size_t>(n));
        }
    }

private:
    pid_t m_pid = -1;
    int m_in = -1, m_out = -1;
    std::string m_buffer;
};

// A `git` first on PATH that records what its standard input is, swallows
// whatever it can read from it (as a hook or an ssh prompt would) and whether
// it could open a terminal, then runs the real git.
const char* const kProbeGit = R"SH(#!/bin/sh
n=$$
readlink /proc/self/fd/0 > "$VELKO_PROBE_DIR/fd0.$n"
cat > "$VELKO_PROBE_DIR/stdin.$n"
if (: < /dev/tty) 2>/dev/null; then echo yes > "$VELKO_PROBE_DIR/tty.$n"; fi
exec "$VELKO_REAL_GIT" "$@"
)SH";

std::string realGitPath() {
    std::string path = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(':', start);
        if (end == std::string::npos) end = path.size();
        std::string candidate = path.substr(start, end - start) + "/git";
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return "/usr/bin/git";
}

}  // namespace

TEST(GitHeadless, GitPanelMessagesThroughTheProgram) {
    IsolatedHome home;
    TempDir base;
    std::string origin = base.file("origin.git");
    git(base.path(), {"init", "-q", "--bare", "-b", "main", origin});
    std::string repo = initRepo(base, "repo");
    writeFileAtomically(repo + "/a.txt", "one\n");
    git(repo, {"add", "a.txt"});
    git(repo, {"commit", "-q", "-m", "init"});
    git(repo, {"remote", "add", "origin", origin});
    git(repo, {"push", "-q", "-u", "origin", "main"});
    std::string lonely = initRepo(base, "lonely");
    writeFileAtomically(lonely + "/l.txt", "l\n");
    git(lonely, {"add", "l.txt"});
    git(lonely, {"commit", "-q", "-m", "init"});
    writeFileAtomically(repo + "/a.txt", "one\ntwo\n");

    // Every git child of the program goes through the probe.
    std::string probeBin = base.file("probe-bin");
    std::string probeDir = base.file("probe");
    std::filesystem::create_directories(probeDir);
    std::string probe = base.write("probe-bin/git", kProbeGit);
    chmod(probe.c_str(), 0755);
    GitEnvironment probeEnv{{"PATH", probeBin + ":" + std::string(std::getenv("PATH") ? std::getenv("PATH") : "")},
                            {"VELKO_PROBE_DIR", probeDir},
                            {"VELKO_REAL_GIT", realGitPath()}};

    HeadlessVelko velko({repo, lonely}, probeEnv);
    ASSERT_TRUE(velko.running());
    velko.send({{"type", "project/open"}, {"payload", Json::object()}});
    // Both folders are opened; the last one becomes active.
    std::string repoId, lonelyId;
    auto config = velko.waitFor("app/config", [](const Json& p) {
        int found = 0;
        for (const auto& project : p.value("projects", Json::array()))
            found += project.value("name", "") == "repo" || project.value("name", "") == "lonely";
        return found == 2;
    });
    ASSERT_TRUE(config);
    for (const auto& p : (*config)["projects"]) {
        if (p["name"] == "repo") repoId = p["id"];
        if (p["name"] == "lonely") lonelyId = p["id"];
    }
    ASSERT_FALSE(repoId.empty());
    ASSERT_FALSE(lonelyId.empty());

    auto forRepo = [&](const Json& p) { return p.value("projectId", "") == repoId; };
    velko.send({{"type", "git/status"}, {"payload", {{"projectId", repoId}}}});
    auto status = velko.waitFor("git/status", forRepo);
    ASSERT_TRUE(status);
    EXPECT_EQ((*status)["branch"], "main");
    ASSERT_EQ((*status)["unstaged"].size(), 1u);
    EXPECT_EQ((*status)["unstaged"][0]["path"], "a.txt");

    velko.send({{"type", "git/working-tree"}, {"payload", {{"projectId", repoId}}}});
    auto tree = velko.waitFor("git/working-tree", forRepo);
    ASSERT_TRUE(tree);
    EXPECT_EQ((*tree)["sections"][1]["entries"][0]["path"], "a.txt");

    velko.send({{"type", "git/diff"},
                {"payload", {{"projectId", repoId}, {"targets", {{{"path", "a.txt"}, {"stage", "unstaged"}}}}}}});
    auto diff = velko.waitFor("git/diff", forRepo);
    ASSERT_TRUE(diff);
    ASSERT_EQ((*diff)["files"].size(), 1u);
    EXPECT_EQ((*diff)["files"][0]["additions"], 1);

    velko.send({{"type", "git/commit"}, {"payload", {{"projectId", repoId}, {"message", "add two"}}}});
    auto committed = velko.waitFor("git/result");
    ASSERT_TRUE(committed);
    EXPECT_EQ(*committed, (Json{{"success", true}, {"message", "コミットしました"}}));
    EXPECT_EQ(git(repo, {"log", "-1", "--format=%s"}), "add two\n");

    velko.send({{"type", "git/push"}, {"payload", {{"projectId", repoId}}}});
    auto pushed = velko.waitFor("git/result");
    ASSERT_TRUE(pushed);
    EXPECT_EQ(*pushed, (Json{{"success", true}, {"message", "Push が完了しました"}}));
    EXPECT_EQ(git(origin, {"rev-parse", "main"}), git(repo, {"rev-parse", "HEAD"}));

    velko.send({{"type", "git/push"}, {"payload", {{"projectId", lonelyId}}}});
    auto missing = velko.waitFor("git/result");
    ASSERT_TRUE(missing);
    EXPECT_EQ(*missing, (Json{{"success", false}, {"message", "リモートリポジトリがないプロジェクトです"}}));

    // Malformed messages are dropped; the barrier proves they were handled before it.
    velko.send({{"type", "git/commit"}, {"payload", {{"projectId", repoId}}}});
    velko.send({{"type", "git/push"}, {"payload", {{"projectId", "not-a-uuid"}}}});
    velko.send({{"type", "git/diff"}, {"payload", {{"projectId", 42}}}});
    velko.send({{"type", "git/refresh/barrier"}, {"payload", {{"projectId", repoId}, {"requestId", "r1"}}}});
    auto barrier = velko.waitFor("git/refresh/barrier");
    ASSERT_TRUE(barrier);
    EXPECT_EQ((*barrier)["requestId"], "r1");

    // Standard input of the program is the message stream: no child saw it,
    // none could open a terminal to prompt on, and none read a message.
    int children = 0;
    for (const auto& entry : std::filesystem::directory_iterator(probeDir)) {
        std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        if (name.rfind("fd0.", 0) == 0) {
            ++children;
            EXPECT_EQ(readFile(entry.path().string()), "/dev/null\n");
        } else if (name.rfind("stdin.", 0) == 0) {
            EXPECT_EQ(std::filesystem::file_size(entry.path()), 0u);
        } else {
            ADD_FAILURE() << "a git child could open a terminal";
        }
    }
    EXPECT_GE(children, 6);  // status, working tree, diff, add, commit, push at least
    velko.closeInput();
    EXPECT_FALSE(velko.waitFor("git/result"));
}
