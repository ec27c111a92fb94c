#pragma once
// Real repositories for integration tests: a git of the test's own with a
// known identity and no system or user configuration of the machine; the
// program's log lines.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "core/Paths.h"
#include "git/GitProcessRunner.h"
#include "support/TestSupport.h"

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

// Sends this process's standard error (where the log lines go without a
// journal) to a file while it lives.
class CapturedStderr {
public:
    explicit CapturedStderr(const std::string& path) {
        fflush(stderr);
        m_saved = dup(STDERR_FILENO);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd >= 0) {
            dup2(fd, STDERR_FILENO);
            close(fd);
        }
    }
    ~CapturedStderr() {
        fflush(stderr);
        if (m_saved >= 0) {
            dup2(m_saved, STDERR_FILENO);
            close(m_saved);
        }
    }

private:
    int m_saved = -1;
};

}  // namespace velko::test
