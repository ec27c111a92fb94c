#pragma once
// Real repositories for integration tests: a git of the test's own with a
// known identity and no system or user configuration of the machine.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/Paths.h"
#include "git/GitProcessRunner.h"
#include "support/ChildProcesses.h"

namespace velko::test {

// The environment of git children in these tests: the isolated HOME of the
// test, a fixed identity, no /etc/gitconfig.
inline GitEnvironment testGitEnvironment() {
    GitEnvironment env = currentProcessEnvironment();
    env["GIT_CONFIG_NOSYSTEM"] = "1";
    env["GIT_AUTHOR_NAME"] = "Velko Test";
    env["GIT_AUTHOR_EMAIL"] = "test@velko.invalid";
    env["GIT_COMMITTER_NAME"] = "Velko Test";
    env["GIT_COMMITTER_EMAIL"] = "test@velko.invalid";
    env["GIT_CONFIG_GLOBAL"] = env["HOME"] + "/.gitconfig";
    // Everything of a test lives under its HOME; git must not find a repository above it.
    env["GIT_CEILING_DIRECTORIES"] = env["HOME"];
    return gitEnvironment(env);
}

// Runs git in `dir` and fails the test when it fails.
inline std::string git(const std::string& dir, std::vector<std::string> args, int expectedStatus = 0) {
    args.insert(args.begin(), "git");
    ProcessGitProcessRunner runner;
    auto result = runner.run(args, dir, testGitEnvironment());
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    EXPECT_EQ(result.status, expectedStatus) << joined << "\n" << result.stderr;
    return result.stdout;
}

inline std::string initRepo(const TempDir& base, const std::string& name) {
    std::string dir = base.file(name);
    std::filesystem::create_directories(dir);
    git(dir, {"init", "-q", "-b", "main"});
    return dir;
}

// Writes `name` under `dir`, making its folders.
inline void writeInto(const std::string& dir, const std::string& name, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(dir + "/" + name).parent_path());
    writeFileAtomically(dir + "/" + name, text);
}

// Writes `name`, adds it and commits it as `message`.
inline void commitFile(const std::string& dir, const std::string& name, const std::string& text,
                       const std::string& message) {
    writeInto(dir, name, text);
    git(dir, {"add", "-A", "--", name});
    git(dir, {"commit", "-q", "-m", message});
}

// "repo" with a.txt committed on main, pushed to and tracking the bare "origin.git" beside it.
inline std::string initRepoWithOrigin(const TempDir& base) {
    git(base.path(), {"init", "-q", "--bare", "-b", "main", base.file("origin.git")});
    std::string dir = initRepo(base, "repo");
    commitFile(dir, "a.txt", "1\n", "init");
    git(dir, {"remote", "add", "origin", base.file("origin.git")});
    git(dir, {"push", "-q", "-u", "origin", "main"});
    return dir;
}

}  // namespace velko::test
