#pragma once
// DashboardLanguagesProvider: GitHub's language statistics for the repository
// behind a project's "origin" remote, the preferred source of a card's
// language bar. Without a token, without a GitHub remote, or when GitHub does
// not know the repository, it answers with nothing and the caller walks the
// working tree instead.
//
// Blocking: it runs git and one HTTP request on the caller's thread (a task of
// the dashboard's pool); any number of threads may call it at once. The
// remote of each project is remembered under a mutex held only around the map.
// The token travels only in the request's header: it is never logged, and a
// response that echoes it is masked before a line of it is logged.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/HttpRequesting.h"
#include "core/Log.h"
#include "core/Result.h"
#include "dashboard/LocalLanguageBreakdown.h"
#include "git/GitAuthProviding.h"
#include "git/GitProcessRunner.h"
#include "github/GitHubEndpoints.h"
#include "workspace/Models.h"

namespace velko {

struct DashboardRemote {
    std::string owner;
    std::string repository;
    friend bool operator==(const DashboardRemote&, const DashboardRemote&) = default;
};

// owner and repository from an "origin" URL on the GitHub web host: the URL
// form ("https://github.com/o/r.git", "ssh://git@github.com/o/r"), the scp
// form ("git@github.com:o/r.git") and the bare form ("github.com/o/r").
// Names keep their case; only the first two path parts count.
std::optional<DashboardRemote> parseRemoteURL(std::string_view text, std::string_view webHost);

struct DashboardLanguagesError {
    enum class Kind { HttpError, UnableToResolveRemote, InvalidResponse, Unauthorized, RequestFailed };
    Kind kind = Kind::InvalidResponse;
    int code = 0;        // the HTTP status of HttpError
    std::string detail = {};  // the transport failure's kind of RequestFailed ("timedOut")
    // "httpError(code: 500)", "unauthorized", …: what analytics carries.
    std::string description() const;
};

// Language name to bytes; nothing when the source has nothing to say.
using LanguagesAnswer = Result<std::optional<LanguageBytes>, DashboardLanguagesError>;

class DashboardLanguagesProviding {
public:
    virtual ~DashboardLanguagesProviding() = default;
    // Blocking; called from the dashboard's pool.
    virtual LanguagesAnswer fetchLanguages(const ProjectMetadata& project) = 0;
};

class DashboardLanguagesProvider final : public DashboardLanguagesProviding {
public:
    struct Dependencies {
        std::shared_ptr<GitAuthProviding> authProvider;
        std::shared_ptr<GitProcessRunning> processRunner;
        std::shared_ptr<HttpRequesting> session;  // none: every fetch answers nothing
        GitHubEndpoints endpoints;
        // The children's base environment; empty means the process environment.
        std::optional<GitEnvironment> environment = std::nullopt;
        std::string homePath = {};  // what a leading "~" in a project's path means
    };

    explicit DashboardLanguagesProvider(Dependencies dependencies);
    LanguagesAnswer fetchLanguages(const ProjectMetadata& project) override;

    static constexpr size_t kLoggedBodyLimit = 256;

private:
    std::optional<DashboardRemote> resolveRemote(const ProjectMetadata& project);
    std::optional<std::string> readRemoteURL(const std::string& directory);

    Dependencies m_deps;
    GitEnvironment m_environment;
    Logger m_logger{"app.velko.dashboard", "languages"};
    std::mutex m_remoteCacheLock;
    std::unordered_map<Uuid, DashboardRemote> m_remoteCache;
};

// What of a response body goes into a log line: every occurrence of `secret`
// masked, then at most `limit` bytes cut at a character boundary, control
// characters as spaces.
std::string loggableResponseText(std::string_view body, std::string_view secret, size_t limit);
// A remote URL as it may be logged: credentials before the host masked.
std::string loggableRemoteURL(std::string_view url);

}  // namespace velko
