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
#include "support/ScriptedServer.h"

using namespace velko;
using namespace velko::test;
using namespace std::chrono_literals;

namespace {

const std::string kToken = "gho_graphqlLoopbackToken_5d81e0";

struct FakeGraphQLServer : ScriptedServer {
    void script(const Json& answer) { ScriptedServer::script("/graphql", answer); }
};

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

struct ServiceHarness : ServiceRig {
    IsolatedHome home;
    TempDir base;
    FakeGraphQLServer server;
    std::string repo;
    Uuid id;

    ServiceHarness() {
        repo = initRepo(base, "repo");
        for (int i = 1; i <= 5; ++i) commitFile(repo, "f.txt", std::to_string(i) + "\n", "c" + std::to_string(i));
        git(repo, {"remote", "add", "origin", "https://github.com/acme/widgets.git"});
        git(repo, {"update-ref", "refs/remotes/origin/main", "HEAD~2"});
        git(repo, {"branch", "--set-upstream-to=origin/main", "main"});
        id = projects->add(repo);
        auth->token = GitAuthToken{kToken, "octo", std::nullopt};
        deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
        deps.environment = testGitEnvironment();
        deps.http = std::make_shared<CurlHttpClient>();
        deps.graphqlURL = server.url("/graphql");
        deps.graphqlLimits = shortLimits();
        start();
    }
};

}  // namespace

TEST(GitHubGraphQLIntegration, EveryAnswerEndsInDataOrItsErrorWithinTheLimits) {
    FakeGraphQLServer server;
    ASSERT_GT(server.process.port, 0);
    auto http = std::make_shared<CurlHttpClient>();
    HttpGitHubGraphQLClient client(http, server.url("/graphql"), shortLimits());
    using K = GitHubGraphQLClientError::Kind;
    struct Case {
        const char* name;
        Json answer;
        std::optional<K> kind;  // nothing: decoded
    };
    Json wrongType = history({node("a")}, true);
    wrongType["data"]["repository"]["defaultBranchRef"]["target"]["history"]["edges"][0]["node"]["oid"] = 7;
    const Case cases[] = {
        {"well-formed", {{"json", history({node("a"), node("b", {"a"})}, true, true, "E")}}, std::nullopt},
        {"errors beside data", {{"json", {{"data", history({}, true)["data"]},
                                          {"errors", {{{"message", "one"}}, {{"message", "two"}}}}}}},
         K::GraphQLErrors},
        {"null data", {{"json", {{"data", nullptr}}}}, K::EmptyData},
        {"401", {{"status", 401}, {"json", {{"message", "Bad credentials"}}}}, K::Unauthorized},
        {"403", {{"status", 403}, {"json", {{"message", "rate limited"}}}}, K::InvalidResponse},
        {"HTML", {{"kind", "raw"}, {"body", "<html><body>Unicorn!</body></html>"}}, K::Decoding},
        {"truncated", {{"kind", "raw"}, {"body", R"({"data":{"repository":{"defaultBranchRef")"}}, K::Decoding},
        {"100,000 nested brackets", {{"kind", "raw"}, {"body", std::string(100000, '[')}}, K::Decoding},
        {"wrong types", {{"json", wrongType}}, K::Decoding},
        {"100 MiB", {{"kind", "big"}}, K::InvalidResponse},
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
        if (c.kind == K::GraphQLErrors) {
            EXPECT_EQ(result.error().messages, (std::vector<std::string>{"one", "two"}));
        }
        EXPECT_EQ(result.error().detail.find(kToken), std::string::npos);
    }
    // What GitHub was sent: the headers and the variables.
    auto requests = server.requests();
    ASSERT_FALSE(requests.empty());
    const Json& first = requests.front();
    EXPECT_EQ(first["path"], "/graphql");
    EXPECT_EQ(first["headers"]["Content-Type"], "application/json");
    EXPECT_EQ(first["headers"]["Authorization"], "Bearer " + kToken);
    Json body = Json::parse(first["body"].get<std::string>());
    EXPECT_EQ(body["variables"], (Json{{"owner", "acme"}, {"name", "widgets"}, {"pageSize", 2}}));
    EXPECT_EQ(body["query"], std::string(kCommitGraphQuery));
}

TEST(GitHubGraphQLIntegration, HistoryAsksWithCursorsAndReportsARefusedTokenThenTheGraphIsCachedOrDrawn) {
    ServiceHarness h;
    ASSERT_GT(h.server.process.port, 0);
    CapturedStderr captured(h.home.home() + "/stderr.log");
    h.server.script({{"json", {{"errors", {{{"message", "Field 'files' doesn't exist on type 'Commit'"}}}}}}});
    h.server.script({{"json", history({node("r1"), node("r2"), node("r3")}, true, true, "CUR1")}});
    h.service->fetchCommitHistory(h.id, std::nullopt, 4, std::string("h1"));
    h.settle();
    auto pages = h.events->eventsOfType("git/history");
    ASSERT_EQ(pages.size(), 1u);
    // (How local and GitHub's commits share a page is the paginator's unit tests'.)
    const Json& first = pages[0].payload;
    ASSERT_EQ(first["edges"].size(), 4u);
    EXPECT_EQ(first["edges"][2]["author"], (Json{{"name", "octo"}, {"login", "octo"}}));

    // The next page starts with the buffered commit; then GitHub refuses the token.
    h.server.script({{"status", 401}, {"json", {{"message", "Bad credentials"}}}});
    h.service->fetchCommitHistory(h.id, first["cursorPayload"].get<std::string>(), 4, std::string("h2"));
    h.settle();
    // (The order of what follows a refusal is the paginator's unit tests'.)
    EXPECT_EQ(h.events->eventsOfType("git/history/error").size(), 1u);
    EXPECT_FALSE(h.auth->token);

    // The names come from the real remote and upstream; the fallback without files is unit-tested.
    std::vector<std::string> cursors;
    for (const auto& r : h.server.requests()) {
        Json body = Json::parse(r["body"].get<std::string>());
        cursors.push_back(body["variables"]["cursor"].dump());
        EXPECT_EQ(body["variables"]["qualifiedName"], "refs/heads/main");
        EXPECT_EQ(body["variables"]["owner"], "acme");
    }
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

    // The graph, as GitHub answers the query: no pageInfo, which the decoding requires.
    h.server.script({{"json", history({node("m", {"a", "f"}), node("f", {"a"}), node("a")}, false)}});
    h.auth->token = GitAuthToken{kToken, "octo", std::nullopt};
    h.events->clear();
    size_t asked = h.server.requests().size();
    h.service->fetchCommitGraph(h.id, 50);
    h.service->fetchCommitGraph(h.id, 50);
    h.settle();
    EXPECT_EQ(h.server.requests().size(), asked + 1) << "the second request asks nobody";
    auto graphs = h.events->eventsOfType("git/graph");
    ASSERT_EQ(graphs.size(), 2u);
    for (const auto& g : graphs) EXPECT_TRUE(g.payload["nodes"].empty() && g.payload["edges"].empty());
    EXPECT_TRUE(h.events->eventsOfType("git/result").empty());

    // Another project, an answer with pageInfo: a graph. Then silence: a message, no graph.
    std::string repo = initRepo(h.base, "other");
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
    EXPECT_EQ(lanes[0].payload["nodes"].size(), 3u);
    EXPECT_EQ(lanes[0].payload["nodes"][0]["authorName"], "octo");
    auto results = h.events->eventsOfType("git/result");
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].payload["message"], "コミットグラフの取得に失敗しました: GitHub から時間内に応答がありませんでした");
    EXPECT_EQ(Json::parse(h.server.requests().back()["body"].get<std::string>())["variables"],
              (Json{{"owner", "acme"}, {"name", "other"}, {"pageSize", 3}}));
}
