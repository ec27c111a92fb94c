// The git panel through the real program: `velko --headless` with a temporary
// HOME, a real repository picked as the project folder, and a bare repository
// as its origin.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "integration/GitTestRepos.h"
#include "support/HeadlessProcess.h"

using namespace velko;
using namespace velko::test;

namespace {

// A `git` first on PATH that records what its standard input is and whether
// it could open a terminal, then runs the real git. A record appears whole
// (renamed into place): a status refresh may still run while the test looks.
const char* const kProbeGit = R"SH(#!/bin/sh
n=$$
readlink /proc/self/fd/0 > "$VELKO_PROBE_DIR.fd0.$n" && mv "$VELKO_PROBE_DIR.fd0.$n" "$VELKO_PROBE_DIR/fd0.$n"
if (: < /dev/tty) 2>/dev/null; then echo yes > "$VELKO_PROBE_DIR/tty.$n"; fi
exec "$VELKO_REAL_GIT" "$@"
)SH";

}  // namespace

TEST(GitHeadless, CommitAndPushThroughTheProgramWithNoChildReadingItsInput) {
    IsolatedHome home;
    TempDir base;
    std::string repo = initRepoWithOrigin(base);
    writeFileAtomically(repo + "/a.txt", "1\n2\n");

    // Every git child of the program goes through the probe. Only the program
    // sees it and the test identity: the test's own git runs stay direct.
    std::string probeDir = base.file("probe");
    std::filesystem::create_directories(probeDir);
    chmod(base.write("probe-bin/git", kProbeGit).c_str(), 0755);
    GitEnvironment programEnv = testGitEnvironment();
    programEnv["PATH"] = base.file("probe-bin") + ":" + programEnv["PATH"];
    programEnv["VELKO_PROBE_DIR"] = probeDir;
    programEnv["VELKO_REAL_GIT"] = outputOf({"sh", "-c", "command -v git | tr -d '\\n'"});
    std::optional<HeadlessProcess> program;
    {
        std::vector<std::unique_ptr<ScopedEnv>> scoped;
        for (const auto& [key, value] : programEnv)
            scoped.push_back(std::make_unique<ScopedEnv>(key.c_str(), value));
        program.emplace(std::vector<std::string>{"--pick-folder", repo});
    }
    HeadlessProcess& velko = *program;
    velko.send("project/open", OrderedJson::object());
    auto config = velko.waitFor([](const Json& e) {
        return e.value("type", "") == "app/config" && !e["payload"].value("projects", Json::array()).empty();
    });
    ASSERT_TRUE(config);
    const std::string projectId = (*config)["payload"]["projects"][0]["id"];

    std::vector<Json> results;
    for (const char* type : {"git/commit", "git/push"}) {
        velko.send(type, {{"projectId", projectId}, {"message", "add two"}});
        auto result = velko.waitForType("git/result", std::chrono::seconds(30));
        ASSERT_TRUE(result) << type;
        results.push_back((*result)["payload"]);
    }
    EXPECT_EQ(results, (std::vector<Json>{{{"success", true}, {"message", "コミットしました"}},
                                          {{"success", true}, {"message", "Push が完了しました"}}}));
    EXPECT_EQ(git(repo, {"log", "-1", "--format=%s"}), "add two\n");
    EXPECT_EQ(git(base.file("origin.git"), {"rev-parse", "main"}), git(repo, {"rev-parse", "HEAD"}));

    // Standard input of the program is the message stream: no child saw it,
    // and none could open a terminal to prompt on.
    int children = 0;
    for (const auto& entry : std::filesystem::directory_iterator(probeDir)) {
        std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        if (name.rfind("fd0.", 0) == 0) {
            ++children;
            EXPECT_EQ(readFile(entry.path().string()), "/dev/null\n");
        } else {
            ADD_FAILURE() << "a git child could open a terminal";
        }
    }
    EXPECT_GE(children, 3);  // add, commit, push at least
}
