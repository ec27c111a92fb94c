#pragma once
// Real repositories for integration tests: a git of the test's own with a
// known identity and no system or user configuration of the machine; loopback
// servers; the program's log lines.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/Paths.h"
#include "git/GitProcessRunner.h"
#include "support/TestSupport.h"

extern char** environ;

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

// A Python script serving on 127.0.0.1 as a child of the test, ended with it;
// the script prints its port as its first line.
class LoopbackServer {
public:
    LoopbackServer(const std::string& scriptPath, std::vector<std::string> arguments,
                   const GitEnvironment& extraEnvironment = {}) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        std::vector<std::string> envStorage;
        for (char** e = environ; *e; ++e) envStorage.emplace_back(*e);
        for (const auto& [key, value] : extraEnvironment) envStorage.push_back(key + "=" + value);
        std::vector<char*> envp;
        for (auto& e : envStorage) envp.push_back(e.data());
        envp.push_back(nullptr);
        arguments.insert(arguments.begin(), {"python3", scriptPath});
        std::vector<char*> argv;
        for (auto& a : arguments) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawnp(&m_pid, "python3", &actions, nullptr, argv.data(), envp.data()) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        // The port is the first line; poll with a deadline for the interpreter to start.
        std::string line;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (m_pid > 0 && line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            pollfd p{fds[0], POLLIN, 0};
            if (poll(&p, 1, 200) <= 0) continue;
            char buf[64];
            ssize_t n = read(fds[0], buf, sizeof buf);
            if (n <= 0) break;
            line.append(buf, static_cast<size_t>(n));
        }
        close(fds[0]);
        port = std::atoi(line.c_str());
    }
    ~LoopbackServer() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        int status;
        waitpid(m_pid, &status, 0);
    }
    int port = 0;

private:
    pid_t m_pid = -1;
};

}  // namespace velko::test
