// The languages provider over the real HTTP client against a loopback server
// standing in for the GitHub API: the server answers by the repository's
// owner, and is sent the right headers. The token reaches the server and
// nothing else: not a log line, even when the server echoes it.
#include <gtest/gtest.h>
#include <tuple>

#include "dashboard/DashboardLanguagesProvider.h"
#include "integration/GitTestRepos.h"
#include "platform/http/CurlHttpClient.h"
#include "support/ScriptedServer.h"

using namespace velko;

namespace {

const std::string kToken = "gho_velkoDashboardToken42";
struct FixedToken final : GitAuthProviding {
    std::optional<GitAuthToken> loadToken() override {
        return token.empty() ? std::nullopt : std::optional(GitAuthToken{token, std::nullopt, std::nullopt});
    }
    bool deleteToken(const std::string&) override { return true; }
    std::string token;
};

// The origin of /…/NAME is https://github.com/NAME/repo.git; "elsewhere" is on another host.
struct RemoteByDirectory final : GitProcessRunning {
    GitProcessExecutionResult run(const std::vector<std::string>&, const std::string& directory,
                                  const GitEnvironment&) override {
        std::string name = directory.substr(directory.rfind('/') + 1);
        if (name == "elsewhere") return {0, "git@gitlab.com:ok/repo.git\n", ""};
        return {0, "https://github.com/" + name + "/repo.git\n", ""};
    }
};

}  // namespace

TEST(DashboardLanguagesProvider, AnswersByTheServersStatusAndSendsTheTokenNowhereElse) {
    test::TempDir dir;
    test::ScriptedServer server;
    ASSERT_GT(server.process.port, 0);
    const std::vector<std::tuple<const char*, int, std::string>> answers{
        {"ok", 200, R"({"Swift": 100, "Shell": 20.0})"}, {"unauthorized", 401, "{}"}, {"forbidden", 403, "{}"},
        {"missing", 404, "{}"}, {"broken", 500, "token " + kToken + " rejected\n" + std::string(1000, 'x')},
        {"list", 200, "[1, 2]"}};
    for (const auto& [owner, status, body] : answers)
        server.script("/repos/" + std::string(owner) + "/repo/languages",
                      {{"kind", "raw"}, {"status", status}, {"body", body}}, true);
    auto auth = std::make_shared<FixedToken>();
    DashboardLanguagesProvider provider({
        .authProvider = auth,
        .processRunner = std::make_shared<RemoteByDirectory>(),
        .session = std::make_shared<CurlHttpClient>(),
        .endpoints = GitHubEndpoints("https://github.com", server.url()),
    });
    using Kind = DashboardLanguagesError::Kind;
    struct Case {
        const char* owner;
        bool withToken;
        std::optional<LanguageBytes> bytes;  // the answer when it is no error
        std::optional<Kind> error;
        size_t requests;
        const char* logged;  // a warning the log must hold
    };
    const Case cases[] = {
        {"ok", true, LanguageBytes{{"Shell", 20}, {"Swift", 100}}, std::nullopt, 1, ""},
        {"unauthorized", true, std::nullopt, Kind::Unauthorized, 1, "unauthorized for unauthorized/repo, status=401"},
        {"forbidden", true, std::nullopt, Kind::Unauthorized, 1, "unauthorized for forbidden/repo, status=403"},
        {"missing", true, std::nullopt, std::nullopt, 1, ""},
        {"broken", true, std::nullopt, Kind::HttpError, 1, "HTTP 500 for broken/repo: token *** rejected x"},
        {"list", true, std::nullopt, Kind::InvalidResponse, 1, ""},
        {"ok", false, std::nullopt, std::nullopt, 0, ""},
        {"elsewhere", true, std::nullopt, Kind::UnableToResolveRemote, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.owner) + (c.withToken ? "" : " without a token"));
        auth->token = c.withToken ? kToken : "";
        ProjectMetadata project{Uuid::random(), c.owner, dir.file(c.owner), std::nullopt, {}};
        size_t before = server.requests().size();
        std::optional<LanguagesAnswer> answer;
        {
            test::CapturedStderr captured(dir.file("stderr.txt"));  // where GLib's log lines go
            answer = provider.fetchLanguages(project);
        }
        std::string log = test::readFile(dir.file("stderr.txt"));
        auto requests = server.requests();
        EXPECT_EQ(requests.size() - before, c.requests);
        for (size_t i = before; i < requests.size(); ++i) {
            EXPECT_EQ(requests[i]["headers"]["Authorization"], "Bearer " + kToken);
            EXPECT_EQ(requests[i]["headers"]["Accept"], "application/vnd.github+json");
        }
        EXPECT_EQ(log.find(kToken), std::string::npos) << log;
        EXPECT_NE(log.find(c.logged), std::string::npos) << log;
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->ok() ? std::nullopt : std::optional(answer->error().kind), c.error);
        EXPECT_TRUE(answer->ok() ? answer->value() == c.bytes : c.error != Kind::HttpError || answer->error().code == 500);
    }
}
