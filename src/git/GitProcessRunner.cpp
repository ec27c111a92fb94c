#include "git/GitProcessRunner.h"

#include "core/Utf8.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace velko {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kLauncher = "/usr/bin/env";
// After SIGKILL, how long helpers that left the process group may keep the
// pipes open before the runner stops reading them.
constexpr auto kAfterKill = std::chrono::milliseconds(500);
// Without an eventfd, how often a drain looks at its stop switch.
constexpr int kStopPollMs = 200;

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

int millisecondsUntil(Clock::time_point deadline) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

// The child ended by a stop: TERM to its process group (git and the helpers it
// started), then KILL when the grace has passed.
struct Ending {
    pid_t group = -1;
    bool terminated = false;
    bool killed = false;
    Clock::time_point deadline{};

    void begin(std::chrono::milliseconds grace) {
        kill(-group, SIGTERM);
        terminated = true;
        deadline = Clock::now() + grace;
    }
    // True once the last deadline has passed.
    bool escalate() {
        if (Clock::now() < deadline) return false;
        if (killed) return true;
        kill(-group, SIGKILL);
        killed = true;
        deadline = Clock::now() + kAfterKill;
        return false;
    }
};

// Reads both pipes until each reports end of file, whichever writes first:
// a child that fills one pipe while we wait on the other would block forever.
void drain(int outFd, int errFd, std::string& out, std::string& err, const GitStopSwitch* stop, Ending& ending) {
    char buffer[65536];
    int stopFd = stop ? stop->fd() : -1;
    pollfd fds[3] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
    std::string* sinks[2] = {&out, &err};
    int open = 2;
    while (open > 0) {
        if (!ending.terminated && stop && stop->tripped()) {
            ending.begin(stop->grace());
            fds[2].fd = -1;  // poll ignores negative descriptors
        }
        int timeout = -1;
        if (ending.terminated) {
            if (ending.escalate()) return;  // helpers outside the group hold the pipes
            timeout = millisecondsUntil(ending.deadline) + 1;
        } else if (stop && stopFd < 0) {
            timeout = kStopPollMs;
        }
        int ready = poll(fds, 3, timeout);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

int waitForExit(pid_t pid, Ending& ending) {
    int status = 0;
    for (;;) {
        // A stopped run may have closed its pipes and still be finishing: it
        // gets what is left of its grace, no more.
        pid_t waited = waitpid(pid, &status, ending.terminated && !ending.killed ? WNOHANG : 0);
        if (waited == pid) break;
        if (waited < 0 && errno == EINTR) continue;
        if (waited < 0) return -1;
        ending.escalate();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// The descriptors and signal state of the child, each call checked: a child
// whose standard input were velko's message stream, or whose output went to
// an inherited descriptor, must never start.
int prepareSpawn(posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes, int outWrite, int errWrite,
                 const std::string& directory) {
    int rc;
    // Standard input is velko's message stream in the headless host: a hook or
    // a credential prompt must never read it.
    if ((rc = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0)) != 0) return rc;
    if ((rc = posix_spawn_file_actions_adddup2(&actions, outWrite, STDOUT_FILENO)) != 0) return rc;
    if ((rc = posix_spawn_file_actions_adddup2(&actions, errWrite, STDERR_FILENO)) != 0) return rc;
    if ((rc = posix_spawn_file_actions_addclosefrom_np(&actions, 3)) != 0) return rc;
    if (!directory.empty() && (rc = posix_spawn_file_actions_addchdir_np(&actions, directory.c_str())) != 0) return rc;

    sigset_t defaults, empty;
    sigemptyset(&empty);
    sigemptyset(&defaults);
    // SIGPIPE is ignored in velko, and an ignored signal stays ignored across exec.
    sigaddset(&defaults, SIGPIPE);
    if ((rc = posix_spawnattr_setsigdefault(&attributes, &defaults)) != 0) return rc;
    if ((rc = posix_spawnattr_setsigmask(&attributes, &empty)) != 0) return rc;
    // A new session has no controlling terminal, so ssh and credential helpers
    // cannot open /dev/tty to prompt; they fail and git reports why. It is also
    // the process group a stop ends as a whole.
    return posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
}

}  // namespace

GitStopSwitch::GitStopSwitch() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

GitStopSwitch::~GitStopSwitch() {
    if (m_fd >= 0) close(m_fd);
}

void GitStopSwitch::trip(std::chrono::milliseconds grace) {
    m_graceMs = grace.count();
    m_tripped = true;
    // Never read: the descriptor stays readable, so every drain, now and
    // later, sees the stop.
    if (m_fd >= 0) {
        uint64_t one = 1;
        ssize_t written;
        do {
            written = write(m_fd, &one, sizeof one);
        } while (written < 0 && errno == EINTR);
    }
}

GitProcessOutput spawnAndDrain(const std::vector<std::string>& arguments, const std::string& directory,
                               const GitEnvironment& environment, const GitStopSwitch* stop) {
    GitProcessOutput output;
    if (stop && stop->tripped()) {
        output.launchError = ECANCELED;
        return output;
    }
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
    if (int rc = posix_spawn_file_actions_init(&actions); rc != 0) {
        output.launchError = rc;
        return output;
    }
    posix_spawnattr_t attributes;
    if (int rc = posix_spawnattr_init(&attributes); rc != 0) {
        posix_spawn_file_actions_destroy(&actions);
        output.launchError = rc;
        return output;
    }
    pid_t pid = -1;
    int rc = prepareSpawn(actions, attributes, out.write, err.write, directory);
    if (rc == 0) rc = posix_spawn(&pid, kLauncher, &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) {
        output.launchError = rc;
        return output;
    }
    closeFd(out.write);
    closeFd(err.write);

    Ending ending{pid};
    drain(out.read, err.read, output.stdoutBytes, output.stderrBytes, stop, ending);
    output.status = waitForExit(pid, ending);
    return output;
}

ProcessGitProcessRunner::ProcessGitProcessRunner() : m_stop(std::make_shared<GitStopSwitch>()) {}

void ProcessGitProcessRunner::stopAll(std::chrono::milliseconds grace) { m_stop->trip(grace); }

GitProcessExecutionResult ProcessGitProcessRunner::run(const std::vector<std::string>& arguments,
                                                       const std::string& directory,
                                                       const GitEnvironment& environment) {
    GitProcessOutput raw = spawnAndDrain(arguments, directory, environment, m_stop.get());
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
