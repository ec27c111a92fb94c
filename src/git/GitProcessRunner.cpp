#include "git/GitProcessRunner.h"

#include "core/Utf8.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace velko {

namespace {

constexpr const char* kLauncher = "/usr/bin/env";

struct Pipe {
    int read = -1;
    int write = -1;
    ~Pipe() {
        if (read >= 0) close(read);
        if (write >= 0) close(write);
    }
};

void closeFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

// Reads both pipes until each reports end of file, whichever writes first:
// a child that fills one pipe while we wait on the other would block forever.
void drain(int outFd, int errFd, std::string& out, std::string& err) {
    char buffer[65536];
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&out, &err};
    int open = 2;
    while (open > 0) {
        int ready = poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                fds[i].fd = -1;  // poll ignores negative descriptors
                --open;
            }
        }
    }
}

}  // namespace

GitProcessOutput spawnAndDrain(const std::vector<std::string>& arguments, const std::string& directory,
                               const GitEnvironment& environment) {
    GitProcessOutput output;
    Pipe out, err;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        output.launchError = errno;
        return output;
    }
    out.read = fds[0];
    out.write = fds[1];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        output.launchError = errno;
        return output;
    }
    err.read = fds[0];
    err.write = fds[1];

    std::vector<std::string> argvStorage;
    argvStorage.reserve(arguments.size() + 1);
    argvStorage.emplace_back(kLauncher);
    argvStorage.insert(argvStorage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& arg : argvStorage) argv.push_back(arg.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStorage;
    envStorage.reserve(environment.size());
    for (const auto& [key, value] : environment) envStorage.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : envStorage) envp.push_back(entry.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // Standard input is velko's message stream in the headless host: a hook or
    // a credential prompt must never read it.
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.write, STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (!directory.empty()) posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults, empty;
    sigemptyset(&empty);
    sigemptyset(&defaults);
    // SIGPIPE is ignored in velko, and an ignored signal stays ignored across exec.
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &empty);
    // A new session has no controlling terminal, so ssh and credential helpers
    // cannot open /dev/tty to prompt; they fail and git reports why.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);

    pid_t pid = -1;
    int rc = posix_spawn(&pid, kLauncher, &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) {
        output.launchError = rc;
        return output;
    }
    closeFd(out.write);
    closeFd(err.write);

    drain(out.read, err.read, output.stdoutBytes, output.stderrBytes);

    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(pid, &status, 0);
    } while (waited < 0 && errno == EINTR);
    if (waited < 0) output.status = -1;
    else if (WIFEXITED(status)) output.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status)) output.status = 128 + WTERMSIG(status);
    else output.status = -1;
    return output;
}

GitProcessExecutionResult ProcessGitProcessRunner::run(const std::vector<std::string>& arguments,
                                                       const std::string& directory,
                                                       const GitEnvironment& environment) {
    GitProcessOutput raw = spawnAndDrain(arguments, directory, environment);
    GitProcessExecutionResult result;
    if (raw.launchError != 0) {
        result.status = -1;
        result.stderr = std::strerror(raw.launchError);
        return result;
    }
    result.status = raw.status;
    result.stdout = decodeUtf8OrEmpty(std::move(raw.stdoutBytes));
    result.stderr = decodeUtf8OrEmpty(std::move(raw.stderrBytes));
    return result;
}

std::string decodeUtf8OrEmpty(std::string bytes) {
    if (!isValidUtf8(bytes)) return {};
    return bytes;
}

GitEnvironment currentProcessEnvironment() {
    GitEnvironment env;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string_view text(*entry);
        size_t eq = text.find('=');
        if (eq == std::string_view::npos || eq == 0) continue;
        env.emplace(std::string(text.substr(0, eq)), std::string(text.substr(eq + 1)));
    }
    return env;
}

GitEnvironment gitEnvironment(GitEnvironment env) {
    env["GIT_TERMINAL_PROMPT"] = "0";
    // Children run in a session of their own without a terminal (see
    // spawnAndDrain), so ssh cannot prompt there; it must not fall back to a
    // graphical askpass either. A user's own choice is kept. BatchMode for
    // ssh remotes is added per command by the service, which can see whether
    // the repository names its own ssh command (GIT_SSH_COMMAND here would
    // override core.sshCommand for every repository).
    env.try_emplace("SSH_ASKPASS_REQUIRE", "never");

    // The engine reads git's messages ("no upstream", "Authentication
    // failed"), so they must be English; everything else stays the user's.
    // LC_ALL would override LC_MESSAGES: its value goes to each other
    // category instead, so that names keep the user's character set.
    static constexpr const char* kOtherCategories[] = {
        "LC_CTYPE", "LC_NUMERIC", "LC_TIME",    "LC_COLLATE",     "LC_MONETARY",      "LC_PAPER",
        "LC_NAME",  "LC_ADDRESS", "LC_TELEPHONE", "LC_MEASUREMENT", "LC_IDENTIFICATION",
    };
    if (auto all = env.find("LC_ALL"); all != env.end()) {
        std::string value = std::move(all->second);
        env.erase(all);
        if (!value.empty()) {
            for (const char* category : kOtherCategories) env[category] = value;
        }
    }
    env["LC_MESSAGES"] = "C";
    // gettext prefers LANGUAGE to the locale's message category.
    env.erase("LANGUAGE");
    return env;
}

GitEnvironment gitEnvironment() { return gitEnvironment(currentProcessEnvironment()); }

}  // namespace velko
