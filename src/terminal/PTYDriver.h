#pragma once
// PTYDriver: opens a pseudo-terminal and starts a program on its slave side as
// the leader of a new session, with the slave as its controlling terminal and
// as descriptors 0, 1 and 2. No other descriptor of velko reaches the child.
//
// Stateless; callable from any thread (the coordinator calls it on the main
// thread). Every failure is a PTYDriverError value; nothing is logged here.

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "core/Result.h"
#include "core/FileHandle.h"

namespace velko {

class TerminalProcess;
class TerminalReaper;

struct PTYDriverError {
    enum class Kind { OpenPTYFailed, NonBlockingSetupFailed, SpawnFailed, ResizeFailed, SignalFailed, MissingSlavePath };
    Kind kind;
    int code = 0;  // errno, or the value the posix_spawn family returned

    // "openPTYFailed(errno: 24)", "spawnFailed(code: 2)", "missingSlavePath":
    // the case name and its payload, as session failure messages show them.
    std::string description() const;
    friend bool operator==(const PTYDriverError&, const PTYDriverError&) = default;
};

struct PTYProcess {
    std::shared_ptr<TerminalProcess> process;  // already watching for the exit
    FileHandle masterHandle;                   // non-blocking, close-on-exec
    std::string slavePath;
};

class PTYDriver {
public:
    // The largest window dimension a winsize record can hold.
    static constexpr int kMaxDimension = 65535;

    // `shell` is an absolute path, never looked up on PATH. `environment` is
    // applied over velko's own environment (an empty override never blanks an
    // inherited value). cols/rows outside 0...65535 abort: callers clamp.
    // `reaper` watches the child; when it cannot, the child is killed and
    // reaped at once and the spawn fails as spawnFailed with that errno.
    static Result<PTYProcess, PTYDriverError> spawn(TerminalReaper& reaper, const std::string& shell,
                                                    const std::vector<std::string>& arguments,
                                                    const std::string& workingDirectory,
                                                    const std::map<std::string, std::string>& environment, int cols,
                                                    int rows);

    // Signals the whole process group of the session leader, falling back to
    // the pid alone; a pid that is gone counts as success, pid <= 0 does nothing.
    static Status<PTYDriverError> sendSignal(pid_t processID, int signal);

    // Sets the window size on the master and tells the leader with SIGWINCH.
    static Status<PTYDriverError> resize(int masterFD, pid_t processID, int cols, int rows);

    // The environment a child gets: the inherited one with the overrides and
    // the terminal variables applied. Exposed for tests.
    static std::map<std::string, std::string> childEnvironment(const std::map<std::string, std::string>& inherited,
                                                               const std::map<std::string, std::string>& overrides);
};

}  // namespace velko
