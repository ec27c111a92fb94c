// The history list's pages against a fake local history and a fake GitHub:
// whole event sequences for the walks a user makes, signed in and out. (What
// GitHub is asked for, from a real remote, is the integration tests'.)
#include <gtest/gtest.h>

#include "git/GitTestSupport.h"

using namespace velko;
using namespace velko::test;

namespace {

// Local commits not on the upstream, and the whole history of HEAD.
class FakeLocalHistory final : public GitLocalHistoryProviding {
public:
    std::vector<std::string> notOnUpstream, wholeHead;
    std::optional<std::string> branch = "main";
    GitLocalHistoryPage loadHistory(const GitProject&, int64_t offset, int64_t limit, GitHistoryScope scope) override {
        const auto& list = scope == GitHistoryScope::WholeHead ? wholeHead : notOnUpstream;
        GitLocalHistoryPage page;
        page.branch = branch;
        page.totalCount = static_cast<int64_t>(list.size());
        for (int64_t i = std::max<int64_t>(0, offset); i < page.totalCount && i < offset + limit; ++i)
            page.edges.emplace_back().oid = list[static_cast<size_t>(i)];
        return page;
    }
};

GitHubGraphQLResult page(std::vector<std::string> oids, bool hasNext, std::optional<std::string> endCursor,
                         bool onRef = true) {
    GitHubHistory history;
    for (const auto& oid : oids) {
        GitHubCommitNode node;
        node.oid = oid;
        node.committedDate = "2024-05-01T12:00:00Z";
        node.hasAuthor = true;
        node.authorLogin = "octo";
        history.nodes.push_back(node);
    }
    history.pageInfo = {hasNext, endCursor};
    GitHubHistoryResponse response;
    (onRef ? response.refHistory : response.defaultBranchHistory) = history;
    return response;
}

GitHubGraphQLResult failure(GitHubGraphQLClientError::Kind kind, std::vector<std::string> messages = {}) {
    return fail(GitHubGraphQLClientError{kind, std::move(messages), {}, "test"});
}

// One line per event: "L a b | R c d next cursor=… rem=N", "result …", "error …", "oauth …".
std::string summary(const RecordedEvent& e) {
    const Json& p = e.payload;
    if (e.type == "git/history") {
        std::string out = "page";
        for (const auto& edge : p["edges"])
            out += " " + std::string(edge["origin"] == "local" ? "L:" : "R:") + edge["oid"].get<std::string>();
        out += p["pageInfo"]["hasNextPage"].get<bool>() ? " next" : " end";
        out += " cursor=" + p["cursorPayload"].get<std::string>() + " rem=" + p["remoteRemainingCount"].dump();
        EXPECT_EQ(p.value("remoteCursor", Json()), p["pageInfo"].value("endCursor", Json()));
        return out;
    }
    if (e.type == "git/result") return "result " + p["message"].get<std::string>();
    if (e.type == "git/history/error") return "error " + p["message"].get<std::string>();
    return e.type + " " + p.dump();
}

struct Request {
    std::optional<std::string> cursor;  // "@" takes the last page's cursorPayload
    int64_t pageSize;
};

}  // namespace

TEST(GitHistoryPaginator, WalksLocalThenGitHubThenFallbackEachCommitOnce) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        bool signedIn;
        std::string remoteURL;
        V notOnUpstream, wholeHead;
        std::vector<GitHubGraphQLResult> answers;
        std::vector<Request> requests;
        V events;
        V asked;
    };
    const std::string gh = "https://github.com/acme/widgets.git";
    const auto files = "Field 'files' doesn't exist on type 'Commit'";
    std::vector<Case> cases;
    cases.push_back({"signed out: local ones, then HEAD as remote, without repeats", false, gh, {"l1", "l2"},
                     {"l1", "l2", "h3", "h4", "h5"}, {}, {{std::nullopt, 3}, {"@", 3}},
                     {R"(page L:l1 L:l2 R:h3 next cursor={"localOffset":2} rem=0)",
                      R"(page R:h4 R:h5 end cursor={"localOffset":2} rem=0)"},
                     {}});
    cases.push_back({"another host's remote is not asked", true, "https://gitlab.com/acme/widgets.git", {"l1"},
                     {"l1", "h2"}, {}, {{std::nullopt, 5}}, {R"(page L:l1 R:h2 end cursor={"localOffset":1} rem=0)"},
                     {}});
    cases.push_back({"a page of local commits: GitHub's wait in the buffer, its copy of a local one dropped", true,
                     gh, {"l1", "l2"}, {}, {page({"l2", "r1"}, true, "E1"), page({"r2"}, false, "E2")},
                     {{std::nullopt, 2}, {"@", 2}},
                     {R"(page L:l1 L:l2 next cursor={"remoteCursor":"E1","localOffset":2} rem=1)",
                      R"(page R:r1 R:r2 end cursor={"remoteCursor":"E2","localOffset":2} rem=0)"},
                     {"CommitHistory cursor=null", "CommitHistory cursor=E1"}});
    cases.push_back({"no ref: the default branch", true, gh, {}, {}, {page({"d1"}, false, "D", false)},
                     {{std::nullopt, 5}}, {R"(page R:d1 end cursor={"remoteCursor":"D","localOffset":0} rem=0)"},
                     {"CommitHistory cursor=null"}});
    cases.push_back({"neither ref nor default branch: HEAD instead", true, gh, {}, {"h1"},
                     {GitHubGraphQLResult(GitHubHistoryResponse{})}, {{std::nullopt, 5}},
                     {R"(page R:h1 end cursor={"localOffset":0} rem=0)"}, {"CommitHistory cursor=null"}});
    cases.push_back({"GitHub runs out after a cursor: the list ends", true, gh, {}, {"h1"},
                     {page({"r1"}, true, "C1"), page({}, false, std::nullopt)}, {{std::nullopt, 2}, {"@", 2}},
                     {R"(page R:r1 next cursor={"remoteCursor":"C1","localOffset":0} rem=0)",
                      R"(page end cursor={"remoteCursor":"C1","localOffset":0} rem=0)"},
                     {"CommitHistory cursor=null", "CommitHistory cursor=C1"}});
    cases.push_back({"no files field: asked again without, then never with", true, gh, {}, {},
                     {failure(GitHubGraphQLClientError::Kind::GraphQLErrors, {files}), page({"r1"}, true, "C1"),
                      page({"r2"}, false, "C2")},
                     {{std::nullopt, 1}, {"@", 1}},
                     {R"(page R:r1 next cursor={"remoteCursor":"C1","localOffset":0} rem=0)",
                      R"(page R:r2 end cursor={"remoteCursor":"C2","localOffset":0} rem=0)"},
                     {"CommitHistory cursor=null", "CommitHistoryWithoutFiles cursor=null",
                      "CommitHistoryWithoutFiles cursor=C1"}});
    cases.push_back({"a refused token: disconnected, the page from HEAD, then the failure", true, gh, {"l1"},
                     {"l1", "h2"}, {failure(GitHubGraphQLClientError::Kind::Unauthorized)}, {{std::nullopt, 2}},
                     {R"(github/oauth/status {"reason":"tokenInvalid","status":"disconnected"})",
                      R"(page L:l1 R:h2 end cursor={"localOffset":1} rem=0)",
                      "result コミット履歴の取得に失敗しました: GraphQL リクエストが認証されませんでした",
                      "error GraphQL リクエストが認証されませんでした"},
                     {"CommitHistory cursor=null"}});
    cases.push_back({"cursor forms: plain text, JSON, JSON without localOffset", true, gh, {"l1", "l2"}, {},
                     {page({}, true, "A"), page({}, true, "B"), page({}, true, "C")},
                     {{"plain", 1}, {R"({"remoteCursor":"X","localOffset":1})", 1}, {R"({"remoteCursor":"X"})", 1}},
                     {R"(page L:l1 next cursor={"remoteCursor":"A","localOffset":1} rem=0)",
                      R"(page L:l2 next cursor={"remoteCursor":"B","localOffset":2} rem=0)",
                      R"(page L:l1 next cursor={"remoteCursor":"C","localOffset":1} rem=0)"},
                     {"CommitHistory cursor=plain", "CommitHistory cursor=X",
                      R"(CommitHistory cursor={"remoteCursor":"X"})"}});
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        ServiceRig rig;
        TempDir repo;
        repo.write(".git/config", "[remote \"origin\"]\n\turl = " + c.remoteURL + "\n");
        Uuid id = rig.projects->add(repo.path());
        if (c.signedIn) rig.auth->token = GitAuthToken{"tok", std::nullopt, std::nullopt};
        auto local = std::make_shared<FakeLocalHistory>();
        local->notOnUpstream = c.notOnUpstream;
        local->wholeHead = c.wholeHead;
        auto github = std::make_shared<ScriptedGraphQL>();
        for (auto& a : c.answers) github->answers.push_back(std::move(a));
        rig.deps.processRunner = std::make_shared<FakeGitRunner>();
        rig.deps.localHistoryProvider = local;
        rig.deps.graphQLClient = github;
        rig.start();
        auto& events = rig.events;

        std::string lastCursor;
        for (size_t i = 0; i < c.requests.size(); ++i) {
            auto cursor = c.requests[i].cursor;
            if (cursor == "@") cursor = lastCursor;
            rig.service->fetchCommitHistory(id, cursor, c.requests[i].pageSize, "r" + std::to_string(i));
            rig.settle();
            auto pages = events->eventsOfType("git/history");
            ASSERT_EQ(pages.size(), i + 1);
            EXPECT_EQ(pages.back().payload["requestId"], "r" + std::to_string(i));
            lastCursor = pages.back().payload["cursorPayload"];
        }
        V seen;
        for (const auto& e : events->events()) seen.push_back(summary(e));
        EXPECT_EQ(seen, c.events);
        EXPECT_EQ(github->asked, c.asked);
        const bool refused = !events->eventsOfType("github/oauth/status").empty();
        EXPECT_EQ(rig.auth->deletions, refused ? 1 : 0);
    }
}
