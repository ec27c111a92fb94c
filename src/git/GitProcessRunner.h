#pragma once
// The git process runner: every git command of the program is a child of the
// git command-line tool, launched here through "/usr/bin/env".
//
// `run` blocks its caller until the child has exited and both of its pipes are
// drained; it never throws and reports a launch failure as status -1. There is
// no time-out and no cancellation: a hung git holds its caller's queue, which
// is why every child runs without a terminal and with prompts switched off
// (see gitEnvironment), so that it fails rather than waits for an answer.
//
// Thread-safe: holds no state; any queue may call it.

#include <map>
#include <string>
#include <vector>

namespace velko {

using GitEnvironment = std::map<std::string, std::string>;

struct GitProcessExecutionResult {
    int status = -1;     // exit status; -1 when the child could not be launched
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

class ProcessGitProcessRunner final : public GitProcessRunning {
public:
    GitProcessExecutionResult run(const std::vector<std::string>& arguments, const std::string& directory,
                                  const GitEnvironment& environment) override;
};

// Raw bytes of one run, before decoding (benchmarks compare against this).
struct GitProcessOutput {
    int status = -1;
    std::string stdoutBytes;
    std::string stderrBytes;
    int launchError = 0;  // errno of a failed launch
};
GitProcessOutput spawnAndDrain(const std::vector<std::string>& arguments, const std::string& directory,
                               const GitEnvironment& environment);

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
