// Authenticated git over HTTP end to end: real git, a loopback server that
// speaks git's smart HTTP through `git http-backend` and wants Basic auth with
// the token, and a sweep for the token afterwards.
#include <gtest/gtest.h>
#include <glib.h>

#include <filesystem>

#include "git/GitTestSupport.h"
#include "integration/GitTestRepos.h"

using namespace velko;
using namespace velko::test;

namespace {

const char* const kServer = R"PY(
import base64, http.server, os, subprocess, sys
root, token = sys.argv[1], os.environ.pop("VELKO_TEST_SERVER_TOKEN")
expected = "Basic " + base64.b64encode(("x-access-token:" + token).encode()).decode()
log = open(sys.argv[2], "a")

class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *args):
        pass
    def do_GET(self):
        self.serve()
    def do_POST(self):
        self.serve()
    def serve(self):
        if self.headers.get("Authorization", "") != expected:
            log.write("401 " + self.path + "\n"); log.flush()
            self.send_response(401)
            self.send_header("WWW-Authenticate", 'Basic realm="velko-test"')
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        log.write("200 " + self.path + "\n"); log.flush()
        path, _, query = self.path.partition("?")
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length else b""
        env = {"PATH": os.environ["PATH"], "GIT_PROJECT_ROOT": root, "GIT_HTTP_EXPORT_ALL": "1",
               "PATH_INFO": path, "QUERY_STRING": query, "REQUEST_METHOD": self.command,
               "CONTENT_TYPE": self.headers.get("Content-Type", ""), "CONTENT_LENGTH": str(len(body)),
               "REMOTE_USER": "x-access-token", "REMOTE_ADDR": "127.0.0.1", "GIT_CONFIG_NOSYSTEM": "1",
               "HOME": root}
        if self.headers.get("Content-Encoding"):
            env["HTTP_CONTENT_ENCODING"] = self.headers["Content-Encoding"]
        out = subprocess.run(["git", "http-backend"], input=body, env=env, capture_output=True).stdout
        head, _, payload = out.partition(b"\r\n\r\n")
        status = 200
        headers = []
        for line in head.split(b"\r\n"):
            name, _, value = line.decode().partition(":")
            if name.lower() == "status":
                status = int(value.strip().split()[0])
            elif name:
                headers.append((name, value.strip()))
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        self.wfile.write(payload)

server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
print(server.server_address[1], flush=True)
server.serve_forever()
)PY";

bool treeContains(const std::string& root, const std::string& needle) {
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (ec) break;
        if (it->path().filename().string().find(needle) != std::string::npos) return true;
        if (!it->is_regular_file(ec)) continue;
        if (readFile(it->path().string()).find(needle) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

TEST(GitAuthIntegration, PushOverHttpCarriesTheTokenAndNothingKeepsIt) {
    const std::string token = "gho_velkoLoopbackToken_7f3a9c";
    IsolatedHome home;
    ManualMain main;
    TempDir base;

    std::string serverRoot = base.file("srv");
    std::filesystem::create_directories(serverRoot);
    git(serverRoot, {"init", "-q", "--bare", "-b", "main", "repo.git"});
    std::string script = base.write("server.py", kServer);
    std::string requestLog = base.file("requests.log");
    LoopbackServer server(script, {serverRoot, requestLog}, {{"VELKO_TEST_SERVER_TOKEN", token}});
    ASSERT_GT(server.port, 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port) + "/repo.git";
    // A user whose git stores every credential it is handed in ~/.git-credentials,
    // once for every host and once more for this one.
    writeFileAtomically(home.home() + "/.gitconfig",
                        "[credential]\n\thelper = store\n"
                        "[credential \"http://127.0.0.1:" + std::to_string(server.port) +
                            "\"]\n\thelper = store --file " + home.home() + "/.host-credentials\n");

    std::string dir = initRepo(base, "repo");
    writeFileAtomically(dir + "/a.txt", "1\n");
    git(dir, {"add", "a.txt"});
    git(dir, {"commit", "-q", "-m", "init"});
    git(dir, {"remote", "add", "origin", url});
    git(dir, {"config", "branch.main.remote", "origin"});
    git(dir, {"config", "branch.main.merge", "refs/heads/main"});

    auto projects = std::make_shared<FakeProjects>();
    Uuid id = projects->add(dir);
    auto auth = std::make_shared<FakeAuth>();
    auto broker = std::make_shared<GitCredentialBroker>();
    auto events = std::make_shared<EventRecorder>();
    GitService::Dependencies deps;
    deps.configProvider = projects;
    deps.authProvider = auth;
    deps.credentialBroker = broker;
    deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
    deps.environment = testGitEnvironment();
    deps.gitHubWebHost = "127.0.0.1";  // the loopback server stands in for GitHub
    auto service = std::make_shared<GitService>(std::move(deps));
    service->setEventSink(events);

    auto lastResult = [&] {
        auto results = events->eventsOfType("git/result");
        return results.empty() ? std::string() : results.back().payload["message"].get<std::string>();
    };
    auto askpassDirectoryIsEmpty = [&] {
        std::error_code ec;
        return !std::filesystem::exists(broker->tempDirectory()) || std::filesystem::is_empty(broker->tempDirectory(), ec);
    };

    struct Case {
        const char* name;
        std::optional<std::string> storedToken;
        std::string messagePrefix;
        bool pushed;
        bool tokenKept;
        bool serverAsked;
    };
    const Case cases[] = {
        {"no token: sign-in message and no git", std::nullopt, "Push を実行するには GitHub にサインインしてください",
         false, false, false},
        {"wrong token: authentication failed and the token forgotten", std::string("gho_wrong"),
         "Git 認証に失敗しました。再度 GitHub にサインインしてください。\n", false, false, true},
        {"right token: pushed", token, "Push が完了しました", true, true, true},
    };
    // Every log line of the runs, debug and info included, all on stderr.
    ScopedEnv verboseLog("G_MESSAGES_DEBUG", "all");
    g_log_writer_default_set_use_stderr(TRUE);
    std::string logPath = base.file("velko.log");
    std::optional<CapturedStderr> capture(std::in_place, logPath);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        events->clear();
        size_t requestsBefore = readFile(requestLog).size();
        auth->token = c.storedToken ? std::optional<GitAuthToken>(GitAuthToken{*c.storedToken, "octo", std::nullopt})
                                    : std::nullopt;
        service->push(id);
        ASSERT_TRUE(drain(*service, main.queue()));
        EXPECT_EQ(lastResult().rfind(c.messagePrefix, 0), 0u) << lastResult();
        EXPECT_EQ(auth->token.has_value(), c.tokenKept);
        EXPECT_EQ(readFile(requestLog).size() > requestsBefore, c.serverAsked);
        EXPECT_EQ(git(serverRoot + "/repo.git", {"rev-parse", "--verify", "-q", "main"}, c.pushed ? 0 : 1).empty(),
                  !c.pushed);
        EXPECT_TRUE(askpassDirectoryIsEmpty());
        if (c.storedToken && !c.tokenKept) {
            auto status = events->eventsOfType("github/oauth/status");
            ASSERT_EQ(status.size(), 1u);
            EXPECT_EQ(status[0].payload["status"], "disconnected");
            EXPECT_EQ(status[0].payload["reason"], "tokenInvalid");
            EXPECT_EQ(status[0].payload["account"]["login"], "octo");
        }
        for (const auto& e : events->events()) {
            EXPECT_EQ(dumpJson(e.payload).find(token), std::string::npos) << e.type;
            EXPECT_EQ(dumpJson(e.payload).find("gho_wrong"), std::string::npos) << e.type;
        }
    }

    capture.reset();
    std::string log = readFile(logPath);
    EXPECT_NE(log.find("git push exited with status"), std::string::npos) << log;  // the sweep saw the runs
    EXPECT_EQ(log.find(token), std::string::npos);
    EXPECT_EQ(log.find("gho_wrong"), std::string::npos);

    // Nothing on disk holds the token: not the user's credential store, not the
    // askpass folder, not the repositories, caches or data of this HOME.
    EXPECT_FALSE(treeContains(home.home(), token));
    EXPECT_FALSE(treeContains(home.home(), "gho_wrong"));
    EXPECT_FALSE(treeContains(base.path(), token));
    EXPECT_FALSE(std::filesystem::exists(home.home() + "/.git-credentials"));
    EXPECT_FALSE(std::filesystem::exists(home.home() + "/.host-credentials"));
}
