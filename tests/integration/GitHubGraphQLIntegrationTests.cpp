// GitHub's GraphQL API played by a loopback server (Python's standard
// library) that serves scripted answers, well-formed and hostile, and records
// every request: the client ends each in its answer or its error within its
// time limits, and history and graph behave as the user should see them. The
// token is looked for everywhere afterwards.
#include <gtest/gtest.h>

#include <filesystem>
#include <future>

#include "git/GitTestSupport.h"
#include "integration/GitTestRepos.h"
#include "platform/http/CurlHttpClient.h"

using namespace velko;
using namespace velko::test;
using namespace std::chrono_literals;

namespace {

// Answers come from queue/NNN.json, smallest first, each used once; without
// one the answer is a 500. Every request is appended to requests.jsonl.
const char* const kServer = R"PY(
import http.server, json, os, sys, time
folder = sys.argv[1]
queue = os.path.join(folder, "queue")

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *args):
        pass
    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0)).decode()
        with open(os.path.join(folder, "requests.jsonl"), "a") as log:
            log.write(json.dumps({"path": self.path, "headers": dict(self.headers), "body": body}) + "\n")
        names = sorted(os.listdir(queue))
        if not names:
            return self.reply(500, b"nothing scripted")
        with open(os.path.join(queue, names[0])) as f:
            answer = json.load(f)
        os.remove(os.path.join(queue, names[0]))
        kind = answer.get("kind", "json")
        if kind == "silent":
            time.sleep(60)
        elif kind == "big":
            self.send_response(200)
            self.send_header("Content-Length", str(100 * 1024 * 1024))
            self.end_headers()
            for _ in range(1600):
                self.wfile.write(b"[" * 65536)
        elif kind == "nested":
            self.reply(200, b"[" * 100000)
        elif kind == "redirect":
            self.reply(302, b"", ("Location", "http://127.0.0.1:1/elsewhere"))
        elif kind == "raw":
            self.reply(answer.get("status", 200), answer["body"].encode())
        else:
            self.reply(answer.get("status", 200), json.dumps(answer["json"]).encode())
    def reply(self, status, body, *headers):
        self.send_response(status)
        for name, value in headers + (("Content-Length", str(len(body))),):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    def handle_error(self, *args):
        pass

server = Server(("127.0.0.1", 0), Handler)
print(server.server_address[1], flush=True)
server.serve_forever()
)PY";

const std::string kToken = "gho_graphqlLoopbackToken_5d81e0";

struct FakeGraphQLServer {
    TempDir dir;
    std::unique_ptr<LoopbackServer> process;
    int answers = 0;

    FakeGraphQLServer() {
        std::filesystem::create_directories(dir.file("queue"));
        process = std::make_unique<LoopbackServer>(dir.write("server.py", kServer), std::vector<std::string>{dir.path()});
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(process->port) + "/graphql"; }
    void script(const Json& answer) {
        char name[16];
        std::snprintf(name, sizeof name, "%06d", ++answers);
        writeFileAtomically(dir.file("queue/") + name + ".json", answer.dump());
    }
    std::vector<Json> requests() const {
        std::vector<Json> out;
        std::string text = readFile(dir.file("requests.jsonl"));
        for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
            out.push_back(Json::parse(text.substr(start, end - start)));
        return out;
    }
};

// The query texts as GitHub must receive them: one line per entry at two
// blanks per level of depth.
std::string lines(const std::vector<std::pair<int, std::string>>& entries) {
    std::string out;
    for (const auto& [depth, text] : entries) {
        if (!out.empty()) out += "\n";
        out += std::string(static_cast<size_t>(depth) * 2, ' ') + text;
    }
    return out;
}

std::vector<std::pair<int, std::string>> historyBlock(const std::string& opener, bool files, bool avatar) {
    std::vector<std::pair<int, std::string>> b{
        {2, opener}, {3, "target {"}, {4, "... on Commit {"}, {5, "history(first: $pageSize, after: $cursor) {"},
        {6, "pageInfo {"}, {7, "hasNextPage"}, {7, "endCursor"}, {6, "}"}, {6, "edges {"}, {7, "cursor"},
        {7, "node {"}, {8, "oid"}, {8, "messageHeadline"}, {8, "committedDate"}, {8, "author {"}, {9, "name"},
        {9, "user {"}, {10, "login"}};
    if (avatar) b.push_back({10, "avatarUrl"});
    b.insert(b.end(), {{9, "}"}, {8, "}"}});
    if (files) {
        b.insert(b.end(), {{8, "files(first: 100) {"}, {9, "nodes {"}, {10, "path"}, {10, "additions"},
                           {10, "deletions"}, {9, "}"}, {8, "}"}});
    }
    b.insert(b.end(), {{8, "parents(first: 5) {"}, {9, "nodes {"}, {10, "oid"}, {9, "}"}, {8, "}"}, {7, "}"},
                       {6, "}"}, {5, "}"}, {4, "}"}, {3, "}"}, {2, "}"}});
    return b;
}

std::string historyQuery(const std::string& name, bool files) {
    std::vector<std::pair<int, std::string>> q{
        {0, "query " + name +
                "($owner: String!, $name: String!, $qualifiedName: String!, $pageSize: Int!, $cursor: String) {"},
        {1, "repository(owner: $owner, name: $name) {"}};
    for (auto& e : historyBlock("ref(qualifiedName: $qualifiedName) {", files, false)) q.push_back(e);
    for (auto& e : historyBlock("defaultBranchRef {", files, !files)) q.push_back(e);
    q.insert(q.end(), {{1, "}"}, {0, "}"}});
    return lines(q);
}

Json node(const std::string& oid, std::vector<std::string> parents = {}) {
    Json ps = Json::array();
    for (const auto& p : parents) ps.push_back({{"oid", p}});
    return {{"oid", oid}, {"messageHeadline", "msg " + oid}, {"committedDate", "2024-05-01T12:00:00Z"},
            {"author", {{"name", ""}, {"user", {{"login", "octo"}}}}},
            {"files", {{"nodes", Json::array({{{"path", "a.txt"}, {"additions", 2}, {"deletions", 1}}})}}},
            {"parents", {{"nodes", ps}}}};
}

Json history(std::vector<Json> nodes, bool withPageInfo, bool hasNext = false, Json endCursor = nullptr) {
    Json edges = Json::array();
    for (auto& n : nodes) edges.push_back({{"cursor", "x"}, {"node", n}});
    Json h = {{"edges", edges}};
    if (withPageInfo) h["pageInfo"] = {{"hasNextPage", hasNext}, {"endCursor", endCursor}};
    return {{"data", {{"repository", {{"ref", nullptr}, {"defaultBranchRef", {{"target", {{"history", h}}}}}}}}}};
}

HttpGitHubGraphQLClient::Limits shortLimits() { return {2000ms, 1000ms, 4000ms, 16 * 1024 * 1024}; }

struct ServiceHarness {
    IsolatedHome home;
    ManualMain main;
    TempDir base;
    FakeGraphQLServer server;
    std::shared_ptr<FakeProjects> projects = std::make_shared<FakeProjects>();
    std::shared_ptr<FakeAuth> auth = std::make_shared<FakeAuth>();
    std::shared_ptr<EventRecorder> events = std::make_shared<EventRecorder>();
    std::shared_ptr<CurlHttpClient> http = std::make_shared<CurlHttpClient>();
    std::shared_ptr<GitService> service;
    std::string repo;
    Uuid id;

    ServiceHarness() {
        repo = initRepo(base, "repo");
        for (int i = 1; i <= 5; ++i) {
            writeFileAtomically(repo + "/f.txt", std::to_string(i) + "\n");
            git(repo, {"add", "f.txt"});
            git(repo, {"commit", "-q", "-m", "c" + std::to_string(i)});
        }
        git(repo, {"remote", "add", "origin", "https://github.com/acme/widgets.git"});
        git(repo, {"update-ref", "refs/remotes/origin/main", "HEAD~2"});
        git(repo, {"branch", "--set-upstream-to=origin/main", "main"});
        id = projects->add(repo);
        auth->token = GitAuthToken{kToken, "octo", std::nullopt};
        GitService::Dependencies deps;
        deps.configProvider = projects;
        deps.authProvider = auth;
        deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
        deps.environment = testGitEnvironment();
        deps.http = http;
        deps.graphqlURL = server.url();
        deps.graphqlLimits = shortLimits();
        service = std::make_shared<GitService>(std::move(deps));
        service->setEventSink(events);
    }
    void settle() { ASSERT_TRUE(drain(*service, main.queue())); }
    std::vector<std::string> types() const {
        std::vector<std::string> out;
        for (const auto& e : events->events()) out.push_back(e.type);
        return out;
    }
};

}  // namespace

TEST(GitHubGraphQLIntegration, EveryAnswerEndsInDataOrItsErrorWithinTheLimits) {
    FakeGraphQLServer server;
    ASSERT_GT(server.process->port, 0);
    auto http = std::make_shared<CurlHttpClient>();
    HttpGitHubGraphQLClient client(http, server.url(), shortLimits());
    using K = GitHubGraphQLClientError::Kind;
    struct Case {
        const char* name;
        Json answer;
        std::optional<K> kind;  // nothing: decoded
        std::string description;
    };
    Json wrongType = history({node("a")}, true);
    wrongType["data"]["repository"]["defaultBranchRef"]["target"]["history"]["edges"][0]["node"]["oid"] = 7;
    const Case cases[] = {
        {"well-formed", {{"json", history({node("a"), node("b", {"a"})}, true, true, "E")}}, std::nullopt, ""},
        {"errors beside data", {{"json", {{"data", history({}, true)["data"]},
                                          {"errors", {{{"message", "one"}}, {{"message", "two"}}}}}}},
         K::GraphQLErrors, "one\ntwo"},
        {"null data", {{"json", {{"data", nullptr}}}}, K::EmptyData, "GraphQL 応答にデータが含まれていません"},
        {"401", {{"status", 401}, {"json", {{"message", "Bad credentials"}}}}, K::Unauthorized,
         "GraphQL リクエストが認証されませんでした"},
        {"403", {{"status", 403}, {"json", {{"message", "rate limited"}}}}, K::InvalidResponse,
         "GraphQL 応答が不正です"},
        {"500", {{"status", 500}, {"kind", "raw"}, {"body", "oops"}}, K::InvalidResponse, "GraphQL 応答が不正です"},
        {"a redirect is not followed", {{"kind", "redirect"}}, K::InvalidResponse, "GraphQL 応答が不正です"},
        {"HTML", {{"kind", "raw"}, {"body", "<html><body>Unicorn!</body></html>"}}, K::Decoding,
         "GraphQL 応答を読み取れませんでした"},
        {"truncated", {{"kind", "raw"}, {"body", R"({"data":{"repository":{"defaultBranchRef")"}}, K::Decoding,
         "GraphQL 応答を読み取れませんでした"},
        {"100,000 nested brackets", {{"kind", "nested"}}, K::Decoding, "GraphQL 応答を読み取れませんでした"},
        {"wrong types", {{"json", wrongType}}, K::Decoding, "GraphQL 応答を読み取れませんでした"},
        {"silence", {{"kind", "silent"}}, K::Transport, "GitHub から時間内に応答がありませんでした"},
        {"100 MiB", {{"kind", "big"}}, K::InvalidResponse, "GraphQL 応答が不正です"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        server.script(c.answer);
        OrderedJson variables{{"owner", "acme"}, {"name", "widgets"}, {"pageSize", 2}};
        auto call = std::async(std::launch::async, [&] { return client.execute(kCommitGraphQuery, variables, kToken); });
        ASSERT_EQ(call.wait_for(20s), std::future_status::ready) << "the client hangs";
        auto result = call.get();
        if (!c.kind) {
            ASSERT_TRUE(result) << result.error().detail;
            ASSERT_TRUE(result->defaultBranchHistory);
            EXPECT_EQ(result->defaultBranchHistory->nodes.size(), 2u);
            EXPECT_EQ(result->defaultBranchHistory->pageInfo.endCursor, "E");
            continue;
        }
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().kind, *c.kind) << result.error().detail;
        EXPECT_EQ(result.error().errorDescription(), c.description);
        EXPECT_EQ(result.error().detail.find(kToken), std::string::npos);
    }
    // What GitHub was sent: the headers, the query word for word, the variables.
    auto requests = server.requests();
    ASSERT_FALSE(requests.empty());
    const Json& first = requests.front();
    EXPECT_EQ(first["path"], "/graphql");
    EXPECT_EQ(first["headers"]["Content-Type"], "application/json");
    EXPECT_EQ(first["headers"]["Accept"], "application/vnd.github.antiope-preview+json, application/json");
    EXPECT_EQ(first["headers"]["X-GitHub-Api-Version"], "2022-11-28");
    EXPECT_EQ(first["headers"]["Authorization"], "Bearer " + kToken);
    Json body = Json::parse(first["body"].get<std::string>());
    EXPECT_EQ(body["variables"], (Json{{"owner", "acme"}, {"name", "widgets"}, {"pageSize", 2}}));
    EXPECT_EQ(body["query"], lines({{0, "query CommitGraph($owner: String!, $name: String!, $pageSize: Int!) {"},
                                    {1, "repository(owner: $owner, name: $name) {"}, {2, "defaultBranchRef {"},
                                    {3, "target {"}, {4, "... on Commit {"}, {5, "history(first: $pageSize) {"},
                                    {6, "edges {"}, {7, "node {"}, {8, "oid"}, {8, "messageHeadline"},
                                    {8, "committedDate"}, {8, "author {"}, {9, "name"}, {9, "user {"}, {10, "login"},
                                    {9, "}"}, {8, "}"}, {8, "parents(first: 5) {"}, {9, "nodes {"}, {10, "oid"},
                                    {9, "}"}, {8, "}"}, {7, "}"}, {6, "}"}, {5, "}"}, {4, "}"}, {3, "}"}, {2, "}"},
                                    {1, "}"}, {0, "}"}}));
}

TEST(GitHubGraphQLIntegration, HistoryAsksWithCursorsDropsFilesOnceAndReportsARefusedToken) {
    ServiceHarness h;
    ASSERT_GT(h.server.process->port, 0);
    CapturedStderr captured(h.home.home() + "/stderr.log");
    h.server.script({{"json", {{"errors", {{{"message", "Field 'files' doesn't exist on type 'Commit'"}}}}}}});
    h.server.script({{"json", history({node("r1"), node("r2"), node("r3")}, true, true, "CUR1")}});
    h.service->fetchCommitHistory(h.id, std::nullopt, 4, std::string("h1"));
    h.settle();
    auto pages = h.events->eventsOfType("git/history");
    ASSERT_EQ(pages.size(), 1u);
    const Json& first = pages[0].payload;
    ASSERT_EQ(first["edges"].size(), 4u);
    std::vector<std::string> origins;
    for (const auto& e : first["edges"]) origins.push_back(e["origin"]);
    EXPECT_EQ(origins, (std::vector<std::string>{"local", "local", "remote", "remote"}));
    EXPECT_EQ(first["edges"][2]["author"], (Json{{"name", "octo"}, {"login", "octo"}}));
    EXPECT_EQ(first["pageInfo"]["endCursor"], "CUR1");
    EXPECT_EQ(first["remoteCursor"], "CUR1");
    EXPECT_EQ(first["remoteRemainingCount"], 1);

    // The next page starts with the buffered commit; then GitHub refuses the token.
    h.server.script({{"status", 401}, {"json", {{"message", "Bad credentials"}}}});
    h.service->fetchCommitHistory(h.id, first["cursorPayload"].get<std::string>(), 4, std::string("h2"));
    h.settle();
    std::vector<std::string> types = h.types();
    EXPECT_EQ(std::vector<std::string>(types.begin() + 1, types.end()),
              (std::vector<std::string>{"github/oauth/status", "git/history", "git/result", "git/history/error"}));
    const Json second = h.events->eventsOfType("git/history").back().payload;
    ASSERT_FALSE(second["edges"].empty());
    EXPECT_NE(second["edges"][0]["oid"], "r3") << "a failed page drops the buffer";
    EXPECT_EQ(h.events->eventsOfType("github/oauth/status")[0].payload["reason"], "tokenInvalid");
    EXPECT_EQ(h.events->eventsOfType("git/history/error")[0].payload["requestId"], "h2");
    EXPECT_FALSE(h.auth->token);

    std::vector<std::string> queries, cursors;
    for (const auto& r : h.server.requests()) {
        Json body = Json::parse(r["body"].get<std::string>());
        queries.push_back(body["query"]);
        cursors.push_back(body["variables"]["cursor"].dump());
        EXPECT_EQ(body["variables"]["qualifiedName"], "refs/heads/main");
        EXPECT_EQ(body["variables"]["owner"], "acme");
    }
    EXPECT_EQ(queries, (std::vector<std::string>{historyQuery("CommitHistory", true),
                                                 historyQuery("CommitHistoryWithoutFiles", false),
                                                 historyQuery("CommitHistoryWithoutFiles", false)}));
    EXPECT_EQ(cursors, (std::vector<std::string>{"null", "null", "\"CUR1\""}));

    // The token was in the Authorization header and nowhere else of ours.
    for (const auto& e : h.events->events()) EXPECT_EQ(e.payload.dump().find(kToken), std::string::npos) << e.type;
    fflush(stderr);
    EXPECT_EQ(readFile(h.home.home() + "/stderr.log").find(kToken), std::string::npos);
    // (The server's own request log, which holds the header, is not ours.)
    for (auto& entry : std::filesystem::recursive_directory_iterator(h.home.home())) {
        if (entry.path().string().rfind(h.server.dir.path(), 0) == 0 || !entry.is_regular_file()) continue;
        EXPECT_EQ(readFile(entry.path()).find(kToken), std::string::npos) << entry.path();
    }
}

TEST(GitHubGraphQLIntegration, GraphStaysEmptyForGoodOnAnAnswerWithoutPageInfoAndShowsLanesWithIt) {
    ServiceHarness h;
    ASSERT_GT(h.server.process->port, 0);
    // As GitHub answers the query: no pageInfo, which the decoding requires.
    h.server.script({{"json", history({node("m", {"a", "f"}), node("f", {"a"}), node("a")}, false)}});
    h.service->fetchCommitGraph(h.id, 50);
    h.service->fetchCommitGraph(h.id, 50);
    h.settle();
    EXPECT_EQ(h.server.requests().size(), 1u) << "the second request asks nobody";
    auto graphs = h.events->eventsOfType("git/graph");
    ASSERT_EQ(graphs.size(), 2u);
    for (const auto& g : graphs) EXPECT_TRUE(g.payload["nodes"].empty() && g.payload["edges"].empty());
    EXPECT_TRUE(h.events->eventsOfType("git/result").empty());

    // Another project, an answer with pageInfo: lanes. Then silence: a message, no graph.
    TempDir other;
    std::string repo = initRepo(other, "other");
    git(repo, {"remote", "add", "origin", "git@github.com:acme/other.git"});
    Uuid otherId = h.projects->add(repo);
    h.server.script({{"json", history({node("m", {"a", "f"}), node("f", {"a"}), node("a")}, true)}});
    h.server.script({{"kind", "silent"}});
    h.events->clear();
    h.service->fetchCommitGraph(otherId, 3);
    h.service->fetchCommitGraph(otherId, 3);
    h.settle();
    auto lanes = h.events->eventsOfType("git/graph");
    ASSERT_EQ(lanes.size(), 1u);
    std::vector<int64_t> nodeLanes;
    for (const auto& n : lanes[0].payload["nodes"]) nodeLanes.push_back(n["lane"]);
    EXPECT_EQ(nodeLanes, (std::vector<int64_t>{0, 1, 1}));
    EXPECT_EQ(lanes[0].payload["nodes"][0]["authorName"], "octo");
    auto results = h.events->eventsOfType("git/result");
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].payload["message"], "コミットグラフの取得に失敗しました: GitHub から時間内に応答がありませんでした");
    EXPECT_EQ(Json::parse(h.server.requests().back()["body"].get<std::string>())["variables"],
              (Json{{"owner", "acme"}, {"name", "other"}, {"pageSize", 3}}));
}
