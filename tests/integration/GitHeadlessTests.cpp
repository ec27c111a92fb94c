// The git panel's messages through the real program: `velko --headless` with a
// temporary HOME, a real repository picked as the project folder, and a bare
// repository as its origin.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "integration/GitTestRepos.h"
#include "support/HeadlessProcess.h"

using namespace velko;
using namespace velko::test;

namespace {

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
    // Only the program sees the probe and the test identity: the test's own
    // git runs stay direct.
    GitEnvironment programEnv = testGitEnvironment();
    programEnv["PATH"] = probeBin + ":" + programEnv["PATH"];
    programEnv["VELKO_PROBE_DIR"] = probeDir;
    programEnv["VELKO_REAL_GIT"] = realGitPath();
    std::optional<HeadlessProcess> program;
    {
        std::vector<std::unique_ptr<ScopedEnv>> scoped;
        for (const auto& [key, value] : programEnv)
            scoped.push_back(std::make_unique<ScopedEnv>(key.c_str(), value));
        program.emplace(std::vector<std::string>{"--pick-folder", repo, "--pick-folder", lonely});
    }
    HeadlessProcess& velko = *program;
    // The payload of the next event of `type` that `accept` takes.
    auto next = [&velko](const std::string& type,
                         const std::function<bool(const Json&)>& accept = {}) -> std::optional<Json> {
        auto event = velko.waitFor(
            [&](const Json& e) {
                return e.value("type", "") == type && e.contains("payload") && (!accept || accept(e["payload"]));
            },
            std::chrono::seconds(30));
        if (!event) return std::nullopt;
        return (*event)["payload"];
    };
    velko.send("project/open", OrderedJson::object());
    // Both folders are opened; the last one becomes active.
    std::string repoId, lonelyId;
    auto config = next("app/config", [](const Json& p) {
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
    velko.send("git/status", {{"projectId", repoId}});
    auto status = next("git/status", forRepo);
    ASSERT_TRUE(status);
    EXPECT_EQ((*status)["branch"], "main");
    ASSERT_EQ((*status)["unstaged"].size(), 1u);
    EXPECT_EQ((*status)["unstaged"][0]["path"], "a.txt");

    velko.send("git/working-tree", {{"projectId", repoId}});
    auto tree = next("git/working-tree", forRepo);
    ASSERT_TRUE(tree);
    EXPECT_EQ((*tree)["sections"][1]["entries"][0]["path"], "a.txt");

    velko.send("git/diff", {{"projectId", repoId}, {"targets", {{{"path", "a.txt"}, {"stage", "unstaged"}}}}});
    auto diff = next("git/diff", forRepo);
    ASSERT_TRUE(diff);
    ASSERT_EQ((*diff)["files"].size(), 1u);
    EXPECT_EQ((*diff)["files"][0]["additions"], 1);

    velko.send("git/commit", {{"projectId", repoId}, {"message", "add two"}});
    auto committed = next("git/result");
    ASSERT_TRUE(committed);
    EXPECT_EQ(*committed, (Json{{"success", true}, {"message", "コミットしました"}}));
    EXPECT_EQ(git(repo, {"log", "-1", "--format=%s"}), "add two\n");

    velko.send("git/push", {{"projectId", repoId}});
    auto pushed = next("git/result");
    ASSERT_TRUE(pushed);
    EXPECT_EQ(*pushed, (Json{{"success", true}, {"message", "Push が完了しました"}}));
    EXPECT_EQ(git(origin, {"rev-parse", "main"}), git(repo, {"rev-parse", "HEAD"}));

    velko.send("git/push", {{"projectId", lonelyId}});
    auto missing = next("git/result");
    ASSERT_TRUE(missing);
    EXPECT_EQ(*missing, (Json{{"success", false}, {"message", "リモートリポジトリがないプロジェクトです"}}));

    // Malformed messages are dropped; the barrier proves they were handled before it.
    velko.send("git/commit", {{"projectId", repoId}});
    velko.send("git/push", {{"projectId", "not-a-uuid"}});
    velko.send("git/diff", {{"projectId", 42}});
    velko.send("git/refresh/barrier", {{"projectId", repoId}, {"requestId", "r1"}});
    auto barrier = next("git/refresh/barrier");
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
    EXPECT_FALSE(next("git/result"));
}
