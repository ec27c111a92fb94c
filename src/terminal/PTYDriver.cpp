#include "terminal/PTYDriver.h"

#include "core/Environment.h"
#include "core/Utf8.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "terminal/TerminalProcess.h"
#include "terminal/TerminalReaper.h"


namespace velko {

namespace {

// Null-terminated array of C strings that lives as long as the vector it views.
std::vector<char*> cStringArray(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (const auto& s : strings) out.push_back(const_cast<char*>(s.c_str()));
    out.push_back(nullptr);
    return out;
}

void checkDimensions(int cols, int rows) {
    // Callers clamp sizes; anything else is a bug in velko, not bad input.
    if (cols < 0 || rows < 0 || cols > PTYDriver::kMaxDimension || rows > PTYDriver::kMaxDimension) std::abort();
}

// Releases the spawn records on every path out of spawn().
struct SpawnResources {
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
    bool hasActions = false;
    bool hasAttributes = false;
    ~SpawnResources() {
        if (hasAttributes) posix_spawnattr_destroy(&attributes);
        if (hasActions) posix_spawn_file_actions_destroy(&actions);
    }
};

}  // namespace

std::string PTYDriverError::description() const {
    switch (kind) {
        case Kind::OpenPTYFailed: return "openPTYFailed(errno: " + std::to_string(code) + ")";
        case Kind::NonBlockingSetupFailed: return "nonBlockingSetupFailed(errno: " + std::to_string(code) + ")";
        case Kind::SpawnFailed: return "spawnFailed(code: " + std::to_string(code) + ")";
        case Kind::ResizeFailed: return "resizeFailed(errno: " + std::to_string(code) + ")";
        case Kind::SignalFailed: return "signalFailed(errno: " + std::to_string(code) + ")";
        case Kind::MissingSlavePath: return "missingSlavePath";
    }
    return "unknown";
}

std::map<std::string, std::string> PTYDriver::childEnvironment(const std::map<std::string, std::string>& inherited,
                                                               const std::map<std::string, std::string>& overrides) {
    auto env = inherited;
    for (const auto& [key, value] : overrides) {
        // An empty override never blanks what the user's environment already says.
        if (value.empty() && env.count(key)) continue;
        env[key] = value;
    }
    env.emplace("TERM", "xterm-256color");
    env.emplace("COLORTERM", "truecolor");
    env["VELKO_TERMINAL"] = "1";
    return env;
}

Result<PTYProcess, PTYDriverError> PTYDriver::spawn(TerminalReaper& reaper, const std::string& shell,
                                                    const std::vector<std::string>& arguments,
                                                    const std::string& workingDirectory,
                                                    const std::map<std::string, std::string>& environment, int cols,
                                                    int rows) {
    using Kind = PTYDriverError::Kind;
    checkDimensions(cols, rows);

    // posix_openpt with O_CLOEXEC rather than openpty: the master is never
    // visible without close-on-exec, even to a process another thread spawns
    // at this very moment.
    FileHandle master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master.valid()) return fail(PTYDriverError{Kind::OpenPTYFailed, errno});
    if (grantpt(master.get()) != 0 || unlockpt(master.get()) != 0)
        return fail(PTYDriverError{Kind::OpenPTYFailed, errno});
    char slaveName[128];
    if (ptsname_r(master.get(), slaveName, sizeof slaveName) != 0 || !isValidUtf8(slaveName))
        return fail(PTYDriverError{Kind::MissingSlavePath, 0});
    std::string slavePath = slaveName;
    {
        FileHandle slave(::open(slavePath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!slave.valid()) return fail(PTYDriverError{Kind::OpenPTYFailed, errno});
        // The slave keeps the kernel's standard line settings, with UTF-8
        // input added. All-zero attributes would leave zsh without ISIG and
        // ONLCR for the programs it runs: Ctrl+C would not interrupt them and
        // their output would lose its carriage returns.
        termios attributes{};
        winsize size{};
        size.ws_row = static_cast<unsigned short>(rows);
        size.ws_col = static_cast<unsigned short>(cols);
        if (tcgetattr(slave.get(), &attributes) != 0) return fail(PTYDriverError{Kind::OpenPTYFailed, errno});
        attributes.c_iflag |= IUTF8;
        if (tcsetattr(slave.get(), TCSANOW, &attributes) != 0 || ioctl(slave.get(), TIOCSWINSZ, &size) != 0)
            return fail(PTYDriverError{Kind::OpenPTYFailed, errno});
        // The parent gives up the slave before the child exists; the child
        // reopens it by path, which makes it the new session's terminal.
    }
    if (fcntl(master.get(), F_SETFL, O_NONBLOCK) == -1)
        return fail(PTYDriverError{Kind::NonBlockingSetupFailed, errno});

    auto env = childEnvironment(processEnvironment(), environment);
    std::vector<std::string> argvStrings;
    argvStrings.push_back(shell);
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<std::string> envStrings;
    envStrings.reserve(env.size());
    for (const auto& [key, value] : env) envStrings.push_back(key + "=" + value);
    auto argv = cStringArray(argvStrings);
    auto envp = cStringArray(envStrings);

    SpawnResources spawn;
    if (int code = posix_spawn_file_actions_init(&spawn.actions)) return fail(PTYDriverError{Kind::SpawnFailed, code});
    spawn.hasActions = true;
    auto check = [](int code) -> std::optional<PTYDriverError> {
        if (code) return PTYDriverError{Kind::SpawnFailed, code};
        return std::nullopt;
    };
    // Opened without O_NOCTTY by the new session leader: the slave becomes the
    // controlling terminal, and descriptors 1 and 2 are copies of it.
    if (auto e = check(posix_spawn_file_actions_addopen(&spawn.actions, 0, slavePath.c_str(), O_RDWR, 0))) return fail(*e);
    if (auto e = check(posix_spawn_file_actions_adddup2(&spawn.actions, 0, 1))) return fail(*e);
    if (auto e = check(posix_spawn_file_actions_adddup2(&spawn.actions, 0, 2))) return fail(*e);
    if (auto e = check(posix_spawn_file_actions_addclosefrom_np(&spawn.actions, 3))) return fail(*e);
    if (auto e = check(posix_spawn_file_actions_addchdir_np(&spawn.actions, workingDirectory.c_str()))) return fail(*e);

    if (auto e = check(posix_spawnattr_init(&spawn.attributes))) return fail(*e);
    spawn.hasAttributes = true;
    // velko ignores SIGPIPE and may block signals on its threads; the shell
    // must start with every signal at its default and none blocked, or
    // `yes | head` would print errors and job control would misbehave.
    // Checked although these never fail in practice: a shell started without
    // its own session would have no controlling terminal.
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    if (auto e = check(posix_spawnattr_setsigdefault(&spawn.attributes, &all))) return fail(*e);
    if (auto e = check(posix_spawnattr_setsigmask(&spawn.attributes, &none))) return fail(*e);
    short flags = 0;
    if (auto e = check(posix_spawnattr_getflags(&spawn.attributes, &flags))) return fail(*e);
    flags |= POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if (auto e = check(posix_spawnattr_setflags(&spawn.attributes, flags))) return fail(*e);

    pid_t pid = 0;
    if (int code = posix_spawn(&pid, shell.c_str(), &spawn.actions, &spawn.attributes, argv.data(), envp.data()))
        return fail(PTYDriverError{Kind::SpawnFailed, code});

    auto process = reaper.watch(pid);
    if (!process) {
        // Nothing could notice this child's exit: end it now rather than leave
        // a shell nobody reaps. It leads its own group, which goes with it.
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return fail(PTYDriverError{Kind::SpawnFailed, process.error()});
    }
    return PTYProcess{std::move(*process), std::move(master), std::move(slavePath)};
}

Status<PTYDriverError> PTYDriver::sendSignal(pid_t processID, int signal) {
    if (processID <= 0) return Ok{};
    if (::kill(-processID, signal) == 0) return Ok{};
    if (errno != ESRCH) return fail(PTYDriverError{PTYDriverError::Kind::SignalFailed, errno});
    if (::kill(processID, signal) == 0 || errno == ESRCH) return Ok{};
    return fail(PTYDriverError{PTYDriverError::Kind::SignalFailed, errno});
}

Status<PTYDriverError> PTYDriver::resize(int masterFD, pid_t processID, int cols, int rows) {
    checkDimensions(cols, rows);
    winsize size{};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(cols);
    if (ioctl(masterFD, TIOCSWINSZ, &size) == -1) return fail(PTYDriverError{PTYDriverError::Kind::ResizeFailed, errno});
    if (processID > 0 && ::kill(processID, SIGWINCH) == -1)
        return fail(PTYDriverError{PTYDriverError::Kind::SignalFailed, errno});
    return Ok{};
}

}  // namespace velko
