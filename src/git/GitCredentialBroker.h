#pragma once
// GitCredentialBroker: hands a GitHub token to one git child without writing
// it anywhere. It writes a small askpass script (mode 0700) that answers git's
// username prompt with "x-access-token" and every other prompt with the
// variable VELKO_GITHUB_TOKEN from the child's own environment; the token is
// in that environment only, never in the script, on a command line or in a
// config file. At most one script exists at a time; cleanup() removes it after
// each authenticated command. The folder must be a real directory of the
// current user: one that another user owns is refused, one that others may
// write to is closed to them first, since whoever can replace the script runs
// with the token in its environment.
//
// Thread-safe: both operations run as one block under the broker's own lock,
// so the script's life is atomic against every queue that runs git.

#include <mutex>
#include <optional>
#include <string>

#include "core/Result.h"
#include "git/GitProcessRunner.h"

namespace velko {

class GitCredentialBroking {
public:
    virtual ~GitCredentialBroking() = default;
    // The three variables the child needs, or the file system's error text.
    virtual Result<GitEnvironment, std::string> prepareEnvironment(const std::string& token) = 0;
    virtual void cleanup() = 0;
};

extern const char* const kAskpassScript;

class GitCredentialBroker final : public GitCredentialBroking {
public:
    // `tempDirectory` empty: "velko-git-credentials" under the temporary directory.
    explicit GitCredentialBroker(std::string tempDirectory = {});

    Result<GitEnvironment, std::string> prepareEnvironment(const std::string& token) override;
    void cleanup() override;

    const std::string& tempDirectory() const { return m_tempDirectory; }
    std::optional<std::string> scriptPath() const;

private:
    void removeExistingScript();

    std::string m_tempDirectory;
    std::optional<std::string> m_scriptPath;
    mutable std::mutex m_lock;  // the "app.velko.git-credential-broker" section
};

}  // namespace velko
