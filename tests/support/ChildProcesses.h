#pragma once
// Child processes of integration tests: starting and reaping them, loopback
// servers written in Python, this process's standard error in a file, and a
// sweep of a folder for a secret.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"

extern char** environ;

namespace velko::test {

// Starts `argv` with the test's environment plus `extra`; its standard output
// to `out` (a pipe end) or to the test's own, its input from `in` or nothing.
// -1 when it could not start.
inline pid_t spawnChild(std::vector<std::string> argv, int out = -1,
                        const std::map<std::string, std::string>& extra = {}, int in = -1) {
    std::vector<std::string> envStorage;
    for (char** e = environ; *e; ++e) envStorage.emplace_back(*e);
    for (const auto& [key, value] : extra) envStorage.push_back(key + "=" + value);
    std::vector<char*> args, envp;
    for (auto& a : argv) args.push_back(a.data());
    for (auto& e : envStorage) envp.push_back(e.data());
    args.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (in >= 0) posix_spawn_file_actions_adddup2(&actions, in, 0);
    else posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (out >= 0) posix_spawn_file_actions_adddup2(&actions, out, 1);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

inline int waitChild(pid_t pid) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Polls `ready` until it holds; false when `limit` passes first.
template <typename Predicate>
bool waitUntil(Predicate ready, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!ready()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Whether `pid` is still in the process table (a zombie not yet reaped counts).
inline bool processExists(pid_t pid) {
    struct stat info {};
    return ::stat(("/proc/" + std::to_string(pid)).c_str(), &info) == 0;
}

// What `argv` writes on its standard output.
inline std::string outputOf(std::vector<std::string> argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return {};
    pid_t pid = spawnChild(std::move(argv), fds[1]);
    close(fds[1]);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    waitChild(pid);
    return out;
}

// The end of a loopback server's script: serves its `Handler` on a free port
// of 127.0.0.1, quiet about clients that hang up early, and prints the port.
inline const char* const kServeHandler = R"PY(
class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    def handle_error(self, *args):
        pass

server = Server(("127.0.0.1", 0), Handler)
print(server.server_address[1], flush=True)
server.serve_forever()
)PY";

// A Python script serving on 127.0.0.1 as a child of the test, ended with it;
// the script prints its port as its first line.
class LoopbackServer {
public:
    LoopbackServer(const std::string& scriptPath, std::vector<std::string> arguments,
                   const std::map<std::string, std::string>& extraEnvironment = {}) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        arguments.insert(arguments.begin(), {"python3", scriptPath});
        m_pid = spawnChild(std::move(arguments), fds[1], extraEnvironment);
        close(fds[1]);
        // Poll with a deadline for the interpreter to start.
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
        waitChild(m_pid);
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;
    std::string url(const std::string& path = "") const { return "http://127.0.0.1:" + std::to_string(port) + path; }
    int port = 0;

private:
    pid_t m_pid = -1;
};

// Sends this process's standard error (where the log lines go without a
// journal, and where its children write theirs) to the end of a file while it lives.
class CapturedStderr {
public:
    explicit CapturedStderr(const std::string& path) {
        fflush(stderr);
        m_saved = dup(STDERR_FILENO);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
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

// Whether any file under `root` holds `needle`, in its name or its bytes.
inline bool treeHolds(const std::string& root, const std::string& needle) {
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (ec) break;
        if (it->path().string().find(needle) != std::string::npos) return true;
        if (it->is_regular_file(ec) && readFile(it->path().string()).find(needle) != std::string::npos) return true;
    }
    return false;
}

}  // namespace velko::test
