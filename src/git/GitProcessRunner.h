#pragma once
// The git process runner: every git command of the program is a child of the
// git command-line tool, launched here through "/usr/bin/env".
//
// `run` blocks its caller until the child has exited and both of its pipes are
// drained; it never throws and reports a launch failure as status -1. While the
// program runs there is no time-out: a slow push may take as long as it takes,
// which is why every child runs without a terminal and with prompts switched
// off (see gitEnvironment), so that it fails rather than waits for an answer.
// Only `stopAll`, at shutdown, ends children: each gets SIGTERM (with its
// helpers, through its process group), SIGKILL after a grace, and every run
// after that is refused.
//
// Thread-safe: any queue may call it, several at once.

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace velko {

using GitEnvironment = std::map<std::string, std::string>;

struct GitProcessExecutionResult {
    int status = -1;     // exit status; 128 + signal when killed; -1 when the child could not be launched
    std::string stdout;  // empty when the bytes are not valid UTF-8
    std::string stderr;  // the launch error's text when the child could not be launched
};

class GitProcessRunning {
public:
    virtual ~GitProcessRunning() = default;
    // `arguments` is the whole vector behind the launcher ("git", ...);
    // `environment` is the child's whole environment, nothing is merged in.
    virtual GitProcessExecutionResult run(const std::vector<std::string>& arguments,
                                          const std::string& directory,
                                          const GitEnvironment& environment) = 0;
};

// Runners whose children can be ended when the program quits.
class GitProcessStopping {
public:
    virtual ~GitProcessStopping() = default;
    // Returns at once; running children get SIGTERM now and SIGKILL once
    // `grace` has passed, and their `run` returns. Later runs are refused.
    virtual void stopAll(std::chrono::milliseconds grace) = 0;
};

// Tripped once, at shutdown; every drain of its runner watches it.
class GitStopSwitch {
public:
    GitStopSwitch();
    ~GitStopSwitch();
    GitStopSwitch(const GitStopSwitch&) = delete;
    GitStopSwitch& operator=(const GitStopSwitch&) = delete;

    void trip(std::chrono::milliseconds grace);
    bool tripped() const { return m_tripped.load(); }
    std::chrono::milliseconds grace() const { return std::chrono::milliseconds(m_graceMs.load()); }
    // Readable from the trip on; -1 when no eventfd could be made (drains
    // then look at `tripped` a few times a second instead).
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
    std::atomic<bool> m_tripped{false};
    std::atomic<int64_t> m_graceMs{0};
};

class ProcessGitProcessRunner final : public GitProcessRunning, public GitProcessStopping {
public:
    ProcessGitProcessRunner();
    GitProcessExecutionResult run(const std::vector<std::string>& arguments, const std::string& directory,
                                  const GitEnvironment& environment) override;
    void stopAll(std::chrono::milliseconds grace) override;

private:
    std::shared_ptr<GitStopSwitch> m_stop;
};

// Raw bytes of one run, before decoding (benchmarks compare against this).
struct GitProcessOutput {
    int status = -1;
    std::string stdoutBytes;
    std::string stderrBytes;
    int launchError = 0;  // errno of a failed launch; ECANCELED once stopped
};
GitProcessOutput spawnAndDrain(const std::vector<std::string>& arguments, const std::string& directory,
                               const GitEnvironment& environment, const GitStopSwitch* stop = nullptr);

// The text as it stands when it is valid UTF-8, else the empty string.
std::string decodeUtf8OrEmpty(std::string bytes);

// The process environment for git children: everything the application has,
// with the terminal prompt off, ssh unable to ask for anything, and git's
// messages in English (the engine reads them) while names keep the user's
// character set.
GitEnvironment gitEnvironment();
// The same, built from an explicit environment (for tests).
GitEnvironment gitEnvironment(GitEnvironment base);
GitEnvironment currentProcessEnvironment();

}  // namespace velko
