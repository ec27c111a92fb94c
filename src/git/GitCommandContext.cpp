#include "git/GitCommandContext.h"

#include <algorithm>

#include "git/GitMessages.h"
#include "git/GitRemoteParsing.h"
#include "git/GitText.h"

namespace velko {

namespace {

std::string subcommand(const std::vector<std::string>& arguments) {
    return arguments.empty() ? std::string() : arguments.front();
}

std::vector<std::string> gitVector(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv;
    argv.reserve(arguments.size() + 1);
    argv.emplace_back("git");
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

}  // namespace

GitCommandContext::GitCommandContext(Options options)
    : m_auth(options.authProvider ? std::move(options.authProvider) : std::make_shared<NoGitAuthProvider>()),
      m_broker(options.credentialBroker ? std::move(options.credentialBroker)
                                        : std::make_shared<GitCredentialBroker>()),
      m_runner(options.processRunner ? std::move(options.processRunner)
                                     : std::make_shared<ProcessGitProcessRunner>()),
      m_environment(options.environment ? gitEnvironment(std::move(*options.environment)) : gitEnvironment()),
      m_gitHubWebHost(std::move(options.gitHubWebHost)),
      m_onTokenRefused(std::move(options.onTokenRefused)) {
    m_runsRealGit = dynamic_cast<ProcessGitProcessRunner*>(m_runner.get()) != nullptr;
}

bool GitCommandContext::requiresToken(const std::string& remoteURL) const {
    return requiresGitHubOAuth(remoteURL, m_gitHubWebHost);
}

bool GitCommandContext::hasToken() const { return m_auth->loadToken().has_value(); }

std::optional<GitAuthToken> GitCommandContext::token() const { return m_auth->loadToken(); }

bool GitCommandContext::forgetRefusedToken(const std::string& refusedToken) {
    auto record = m_auth->loadToken();
    if (!m_auth->deleteToken(refusedToken)) return false;
    if (m_onTokenRefused) m_onTokenRefused(record);
    return true;
}

void GitCommandContext::stop(std::chrono::milliseconds grace) {
    if (auto* stopping = dynamic_cast<GitProcessStopping*>(m_runner.get())) stopping->stopAll(grace);
}

Result<std::string, GitError> GitCommandContext::run(const std::vector<std::string>& arguments,
                                                     const GitProject& project, GitAuth auth,
                                                     const GitEnvironment& extraEnvironment) {
    const bool authenticated = auth == GitAuth::GitHubToken;
    // A second attempt only when the server refused a token that had been
    // replaced (refreshed, signed in again) while the run went on.
    for (int attempt = 0;; ++attempt) {
        GitEnvironment environment = m_environment;
        for (const auto& [key, value] : extraEnvironment) environment[key] = value;
        std::optional<GitAuthToken> token;
        if (authenticated) {
            token = m_auth->loadToken();
            if (!token) return fail(GitError::authenticationRequired());
            auto prepared = m_broker->prepareEnvironment(token->accessToken);
            if (!prepared) {
                const GitCredentialError& problem = prepared.error();
                m_logger.error("git " + subcommand(arguments) + ": askpass script not written into " + problem.folder +
                               ": " + problem.text);
                return fail(GitError::launchFailed(problem.kind == GitCredentialError::Kind::UnsafeFolder
                                                       ? gitmsg::unsafeCredentialFolder(problem.folder)
                                                       : problem.text));
            }
            for (auto& [key, value] : *prepared) environment[key] = value;
            environment["GITHUB_TOKEN"] = token->accessToken;
            environment["GH_TOKEN"] = token->accessToken;
            // A credential helper of the user's (store, cache, a keyring) would be
            // handed the token after a successful run and keep it on disk. Reset the
            // helper list for this child only, through the environment rather than
            // "-c" so that nothing of it shows on a command line.
            int count = 0;
            if (auto it = environment.find("GIT_CONFIG_COUNT"); it != environment.end()) {
                count = static_cast<int>(std::max<int64_t>(0, decimalOrZero(it->second)));
            }
            environment["GIT_CONFIG_KEY_" + std::to_string(count)] = "credential.helper";
            environment["GIT_CONFIG_VALUE_" + std::to_string(count)] = "";
            environment["GIT_CONFIG_COUNT"] = std::to_string(count + 1);
        }

        GitProcessExecutionResult result = m_runner->run(gitVector(arguments), project.directory, environment);
        if (result.status == 0) {
            // A token script lives exactly as long as one command.
            if (authenticated) m_broker->cleanup();
            return std::move(result.stdout);
        }
        m_logger.info("git " + subcommand(arguments) + " exited with status " + std::to_string(result.status));
        if (authenticated && isAuthenticationFailure(result.stderr)) {
            m_broker->cleanup();
            auto record = m_auth->loadToken();
            if (!m_auth->deleteToken(token->accessToken)) {
                if (attempt == 0) {
                    m_logger.notice("git " + subcommand(arguments) + ": the refused token was replaced; trying again");
                    continue;
                }
                return fail(GitError::authenticationFailed(std::move(result.stderr)));
            }
            m_logger.notice("git " + subcommand(arguments) + ": the server refused the token; it is forgotten");
            if (m_onTokenRefused) m_onTokenRefused(record);
            return fail(GitError::authenticationFailed(std::move(result.stderr)));
        }
        if (authenticated) m_broker->cleanup();
        return fail(GitError::commandFailed(std::string(trimWhitespace(result.stderr))));
    }
}

Result<GitProcessExecutionResult, GitError> GitCommandContext::runAllowingExitCodes(
    const std::vector<std::string>& arguments, const GitProject& project, const std::set<int>& allowedExitCodes) {
    GitProcessExecutionResult result = m_runner->run(gitVector(arguments), project.directory, m_environment);
    if (allowedExitCodes.count(result.status)) return result;
    m_logger.info("git " + subcommand(arguments) + " exited with status " + std::to_string(result.status));
    return fail(GitError::commandFailed(std::string(trimWhitespace(result.stderr))));
}

GitEnvironment GitCommandContext::sshEnvironment(const std::string& remoteURL, const GitProject& project) {
    if (!reachedThroughSsh(remoteURL)) return {};
    // The child has no terminal, so ssh could not ask for a passphrase or a new
    // host key anyway; BatchMode makes it fail at once with its reason instead
    // of trying. A user who chose their own ssh command keeps it untouched.
    if (m_environment.count("GIT_SSH_COMMAND") || m_environment.count("GIT_SSH")) return {};
    if (auto own = run({"config", "--get", "core.sshCommand"}, project); own && !trimWhitespace(*own).empty()) {
        return {};
    }
    return {{"GIT_SSH_COMMAND", "ssh -o BatchMode=yes"}};
}

}  // namespace velko
