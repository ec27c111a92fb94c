// The languages provider over the real HTTP client against a loopback server
// standing in for the GitHub API: the server answers by the repository's
// owner, and only to the right headers. The token reaches the server and
// nothing else: not a log line, even when the server echoes it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "dashboard/DashboardLanguagesProvider.h"
#include "platform/http/CurlHttpClient.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

const std::string kToken = "gho_velkoDashboardToken42";
const char* const kServer = R"PY(
import http.server, os, sys
log, token = open(sys.argv[1], "a"), "gho_velkoDashboardToken42"
answers = {"ok": (200, b'{"Swift": 100, "Shell": 20.0}'), "unauthorized": (401, b"{}"), "forbidden": (403, b"{}"),
           "missing": (404, b"{}"), "broken": (500, ("token %s rejected\n%s" % (token, "x" * 1000)).encode()),
           "list": (200, b"[1, 2]")}
class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *args):
        pass
    def do_GET(self):
        log.write(self.path + "\n"); log.flush()
        parts = self.path.split("/")
        good = len(parts) == 5 and parts[1] == "repos" and parts[4] == "languages" \
            and self.headers["Authorization"] == "Bearer " + token \
            and self.headers["Accept"] == "application/vnd.github+json"
        status, body = answers.get(parts[2], (400, b"")) if good else (400, b"")
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print(os.getpid(), server.server_address[1], flush=True)
server.serve_forever()
)PY";

struct LanguagesServer {
    explicit LanguagesServer(const test::TempDir& dir) : log(dir.file("requests.log")) {
        std::string command = "exec python3 '" + dir.write("server.py", kServer) + "' '" + log + "' </dev/null";
        pipe = popen(command.c_str(), "r");
        if (pipe && std::fscanf(pipe, "%d %d", &pid, &port) != 2) port = 0;
    }
    ~LanguagesServer() {
        if (pid > 0) kill(pid, SIGTERM);
        if (pipe) pclose(pipe);
    }
    long requests() const {
        std::string text = test::readFile(log);
        return std::count(text.begin(), text.end(), '\n');
    }
    std::string log;
    FILE* pipe = nullptr;
    int pid = 0, port = 0;
};

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

// Standard error, where GLib's log lines go, while `body` runs.
template <typename F>
std::string capturingStandardError(const test::TempDir& dir, F&& body) {
    std::fflush(stderr);
    int saved = dup(STDERR_FILENO);
    FILE* file = std::fopen(dir.file("stderr.txt").c_str(), "w");
    dup2(fileno(file), STDERR_FILENO);
    body();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::fclose(file);
    return test::readFile(dir.file("stderr.txt"));
}

}  // namespace

TEST(DashboardLanguagesProvider, AnswersByTheServersStatusAndSendsTheTokenNowhereElse) {
    test::TempDir dir;
    LanguagesServer server(dir);
    ASSERT_GT(server.port, 0);
    auto auth = std::make_shared<FixedToken>();
    DashboardLanguagesProvider provider({
        .authProvider = auth,
        .processRunner = std::make_shared<RemoteByDirectory>(),
        .session = std::make_shared<CurlHttpClient>(),
        .endpoints = GitHubEndpoints("https://github.com", "http://127.0.0.1:" + std::to_string(server.port)),
    });
    using Kind = DashboardLanguagesError::Kind;
    struct Case {
        const char* owner;
        bool withToken;
        std::optional<LanguageBytes> bytes;  // the answer when it is no error
        std::optional<Kind> error;
        long requests;
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
        long before = server.requests();
        std::optional<LanguagesAnswer> answer;
        std::string log = capturingStandardError(dir, [&] { answer = provider.fetchLanguages(project); });
        EXPECT_EQ(server.requests() - before, c.requests);
        EXPECT_EQ(log.find(kToken), std::string::npos) << log;
        EXPECT_NE(log.find(c.logged), std::string::npos) << log;
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->ok() ? std::nullopt : std::optional(answer->error().kind), c.error);
        EXPECT_TRUE(answer->ok() ? answer->value() == c.bytes : c.error != Kind::HttpError || answer->error().code == 500);
    }
}
