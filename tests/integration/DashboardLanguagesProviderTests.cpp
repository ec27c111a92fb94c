// The languages provider over the real HTTP client against a loopback server
// standing in for the GitHub API: the server checks the headers it is sent,
// and answers by the repository's owner. The token reaches the server and
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

const char* const kServer = R"PY(
import http.server, json, os, sys
log = open(sys.argv[1], "a")
TOKEN = "gho_velkoDashboardToken42"

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *args):
        pass
    def reply(self, status, body):
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    def do_GET(self):
        log.write(self.path + "\n"); log.flush()
        parts = self.path.split("/")
        if len(parts) != 5 or parts[1] != "repos" or parts[4] != "languages":
            return self.reply(400, b"bad path")
        if self.headers["Authorization"] != "Bearer " + TOKEN \
                or self.headers["Accept"] != "application/vnd.github+json":
            return self.reply(400, b"bad headers")
        owner = parts[2]
        if owner == "ok":
            self.reply(200, json.dumps({"Swift": 100, "Shell": 20.0}).encode())
        elif owner in ("unauthorized", "forbidden", "missing"):
            self.reply({"unauthorized": 401, "forbidden": 403, "missing": 404}[owner], b"{}")
        elif owner == "broken":
            self.reply(500, ("token " + TOKEN + " rejected\n" + "x" * 1000).encode())
        else:
            self.reply(200, b"[1, 2]")

server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print(os.getpid(), server.server_address[1], flush=True)
server.serve_forever()
)PY";

const std::string kToken = "gho_velkoDashboardToken42";

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
    size_t requests() const {
        std::string text = test::readFile(log);
        return size_t(std::count(text.begin(), text.end(), '\n'));
    }
    std::string log;
    FILE* pipe = nullptr;
    int pid = 0, port = 0;
};

class FixedToken final : public GitAuthProviding {
public:
    std::optional<GitAuthToken> loadToken() override {
        if (token.empty()) return std::nullopt;
        return GitAuthToken{token, std::nullopt, std::nullopt};
    }
    void deleteToken() override {}
    std::string token = kToken;
};

// "origin" of each project directory is "<directory name>": /x/ok → https://github.com/ok/repo.git.
class RemoteByDirectory final : public GitProcessRunning {
public:
    GitProcessExecutionResult run(const std::vector<std::string>& arguments, const std::string& directory,
                                  const GitEnvironment&) override {
        if (arguments.size() < 3 || arguments[1] != "remote") return {1, "", ""};
        std::string name = directory.substr(directory.rfind('/') + 1);
        if (name == "elsewhere") return {0, "git@gitlab.com:ok/repo.git\n", ""};
        return {0, "https://github.com/" + name + "/repo.git\n", ""};
    }
};

// Standard error as the test sees it while `body` runs: where GLib's log lines go.
template <typename F>
std::string capturingStandardError(const test::TempDir& dir, F&& body) {
    std::string path = dir.file("stderr.txt");
    std::fflush(stderr);
    int saved = dup(STDERR_FILENO);
    FILE* file = std::fopen(path.c_str(), "w");
    dup2(fileno(file), STDERR_FILENO);
    body();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::fclose(file);
    return test::readFile(path);
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
        .environment = GitEnvironment{},
        .homePath = dir.path(),
    });

    using Kind = DashboardLanguagesError::Kind;
    struct Case {
        const char* owner;
        bool withToken;
        std::optional<LanguageBytes> expectedBytes;  // when the answer is a value
        std::optional<Kind> expectedError;
        size_t requestsMade;
        const char* logged;  // a line the log must hold, or nullptr
    };
    const Case cases[] = {
        {"ok", true, LanguageBytes{{"Shell", 20}, {"Swift", 100}}, std::nullopt, 1, nullptr},
        {"unauthorized", true, std::nullopt, Kind::Unauthorized, 1, "unauthorized for unauthorized/repo, status=401"},
        {"forbidden", true, std::nullopt, Kind::Unauthorized, 1, "unauthorized for forbidden/repo, status=403"},
        {"missing", true, std::nullopt, std::nullopt, 1, nullptr},
        {"broken", true, std::nullopt, Kind::HttpError, 1, "HTTP 500 for broken/repo: token *** rejected"},
        {"list", true, std::nullopt, Kind::InvalidResponse, 1, nullptr},
        {"ok", false, std::nullopt, std::nullopt, 0, nullptr},
        {"elsewhere", true, std::nullopt, Kind::UnableToResolveRemote, 0, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.owner) + (c.withToken ? "" : " without a token"));
        auth->token = c.withToken ? kToken : "";
        ProjectMetadata project{Uuid::random(), c.owner, dir.file(c.owner), std::nullopt, {}};
        size_t before = server.requests();
        std::optional<LanguagesAnswer> answer;
        std::string log = capturingStandardError(dir, [&] { answer = provider.fetchLanguages(project); });
        EXPECT_EQ(server.requests() - before, c.requestsMade);
        EXPECT_EQ(log.find(kToken), std::string::npos) << log;
        if (c.logged) {
            EXPECT_NE(log.find(c.logged), std::string::npos) << log;
        }
        ASSERT_TRUE(answer);
        if (c.expectedError) {
            ASSERT_FALSE(answer->ok());
            EXPECT_EQ(answer->error().kind, *c.expectedError);
            if (*c.expectedError == Kind::HttpError) {
                EXPECT_EQ(answer->error().code, 500);
            }
        } else {
            ASSERT_TRUE(answer->ok());
            EXPECT_EQ(answer->value(), c.expectedBytes);
        }
    }
}
