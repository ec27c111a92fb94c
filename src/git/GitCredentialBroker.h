#pragma once
// GitCredentialBroker: hands a GitHub token to one git child without writing
// it anywhere. It writes a small askpass script (mode 0700) that answers git's
// username prompt with "x-access-token" and every other prompt with the
// variable VELKO_GITHUB_TOKEN from the child's own environment; the token is
// in that environment only, never in the script, on a command line or in a
// config file. At most one script exists at a time; cleanup() removes it after
// each authenticated command.
//
// The folder lies in the temporary directory that every user of the machine
// shares, and whoever can replace the script runs with the token in its
// environment. So the script goes only into a real directory (no link) of the
// current user with mode 0700; any other folder found there is refused and
// left as it is, and the command fails with UnsafeFolder.
//
// Thread-safe: both operations run as one block under the broker's own lock,
// so the script's life is atomic against every queue that runs git.

#include <mutex>
#include <optional>
#include <string>

#include "core/Result.h"
#include "git/GitProcessRunner.h"

namespace velko {

struct GitCredentialError {
    enum class Kind { FileSystem, UnsafeFolder };
    Kind kind = Kind::FileSystem;
    std::string text;    // English, for the log: the file system's error, or why the folder was refused
    std::string folder;  // the askpass folder
};

class GitCredentialBroking {
public:
    virtual ~GitCredentialBroking() = default;
    // The three variables the child needs.
    virtual Result<GitEnvironment, GitCredentialError> prepareEnvironment(const std::string& token) = 0;
    virtual void cleanup() = 0;
};

extern const char* const kAskpassScript;

class GitCredentialBroker final : public GitCredentialBroking {
public:
    // `tempDirectory` empty: "velko-git-credentials" under the temporary directory.
    explicit GitCredentialBroker(std::string tempDirectory = {});

    Result<GitEnvironment, GitCredentialError> prepareEnvironment(const std::string& token) override;
    void cleanup() override;

    const std::string& tempDirectory() const { return m_tempDirectory; }
    std::optional<std::string> scriptPath() const;

private:
    std::optional<GitCredentialError> ensurePrivateFolder();
    void removeExistingScript();

    std::string m_tempDirectory;
    std::optional<std::string> m_scriptPath;
    mutable std::mutex m_lock;  // the "app.velko.git-credential-broker" section
};

}  // namespace velko
