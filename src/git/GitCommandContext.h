#pragma once
// GitCommandContext: runs one git command for a project the way every part of
// the engine must: the program's environment with prompts off and English
// messages, the project's folder, the GitHub token only where asked for (an
// askpass script of the broker, the user's credential helpers switched off for
// that one child), ssh in batch mode unless the user chose their own, and the
// outcome as a typed GitError. A token the server refuses is forgotten and the
// account reported disconnected through `onTokenRefused`; a run refused with a
// token that was replaced meanwhile (a refresh, a new sign-in) is tried once
// more with the new one.
//
// Called on the git queues; holds no state of its own between commands, so
// several queues may share it. Owned by GitService.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/Log.h"
#include "core/Result.h"
#include "git/GitAuthProviding.h"
#include "git/GitCredentialBroker.h"
#include "git/GitErrors.h"
#include "git/GitProcessRunner.h"
#include "git/GitProjectResolver.h"

namespace velko {

enum class GitAuth { None, GitHubToken };

class GitCommandContext {
public:
    struct Options {
        std::shared_ptr<GitAuthProviding> authProvider;
        std::shared_ptr<GitCredentialBroking> credentialBroker;
        std::shared_ptr<GitProcessRunning> processRunner;
        // The children's base environment; empty means the process environment.
        std::optional<GitEnvironment> environment;
        // The web host whose HTTPS remotes carry the token.
        std::string gitHubWebHost;
        // The stored token was deleted after the server refused it; `record` is
        // what was stored (for the account shown as disconnected).
        std::function<void(const std::optional<GitAuthToken>& record)> onTokenRefused;
    };
    explicit GitCommandContext(Options options);

    // "git" + `arguments` in the project's folder; stdout as it stands on exit 0.
    Result<std::string, GitError> run(const std::vector<std::string>& arguments, const GitProject& project,
                                      GitAuth auth = GitAuth::None, const GitEnvironment& extraEnvironment = {});
    // Never authenticated; any status in `allowedExitCodes` returns the whole result.
    Result<GitProcessExecutionResult, GitError> runAllowingExitCodes(const std::vector<std::string>& arguments,
                                                                     const GitProject& project,
                                                                     const std::set<int>& allowedExitCodes);
    // What a command that talks to `remoteURL` adds to its environment.
    GitEnvironment sshEnvironment(const std::string& remoteURL, const GitProject& project);
    // True when `remoteURL` is a GitHub HTTPS remote, whose runs carry the token.
    bool requiresToken(const std::string& remoteURL) const;
    bool hasToken() const;
    std::optional<GitAuthToken> token() const;
    // The server refused `refusedToken`: when it is still the stored one it is
    // deleted and the account reported disconnected through `onTokenRefused`.
    // False when another token has been stored since; that one stays.
    bool forgetRefusedToken(const std::string& refusedToken);
    // Only the real runner can ask git itself for a remote's URL.
    bool runsRealGit() const { return m_runsRealGit; }
    const std::shared_ptr<GitProcessRunning>& processRunner() const { return m_runner; }
    // Ends the running children (TERM, KILL after `grace`); later runs fail.
    void stop(std::chrono::milliseconds grace);

private:
    std::shared_ptr<GitAuthProviding> m_auth;
    std::shared_ptr<GitCredentialBroking> m_broker;
    std::shared_ptr<GitProcessRunning> m_runner;
    GitEnvironment m_environment;
    std::string m_gitHubWebHost;
    std::function<void(const std::optional<GitAuthToken>&)> m_onTokenRefused;
    bool m_runsRealGit = false;
    // Subcommands and exit statuses only: arguments may hold a commit
    // message or file names, and stderr may echo a URL with credentials.
    Logger m_logger{"app.velko.git", "git-service"};
};

}  // namespace velko
