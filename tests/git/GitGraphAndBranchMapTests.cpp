// Lanes of the commit graph, and the branch map's overlaps, priorities and
// limit: the pure steps, on hand-made inputs.
#include <gtest/gtest.h>

#include <sstream>

#include "git/GitCommitGraph.h"
#include "git/GitBranchMap.h"
#include "core/Json.h"

using namespace velko;

namespace {

// "c:p1,p2" is commit c with its parents; a commit without ":" has none listed.
std::vector<GitHubCommitNode> commits(const std::vector<std::string>& specs) {
    std::vector<GitHubCommitNode> out;
    for (const auto& spec : specs) {
        GitHubCommitNode node;
        size_t colon = spec.find(':');
        node.oid = spec.substr(0, colon);
        if (colon != std::string::npos) {
            node.parents.emplace();
            std::istringstream list(spec.substr(colon + 1));
            for (std::string parent; std::getline(list, parent, ',');) node.parents->push_back(parent);
        }
        out.push_back(node);
    }
    return out;
}

}  // namespace

TEST(GitCommitGraph, PlacesCommitsAndParentLinksOnLanes) {
    using V = std::vector<std::string>;
    struct Case {
        const char* name;
        V commits;
        V nodes;  // "oid@lane"
        V edges;  // "from>to@lane"
    };
    const Case cases[] = {
        {"linear history stays on lane 0", {"c:b", "b:a", "a"}, {"c@0", "b@0", "a@0"}, {"c>b@0", "b>a@0"}},
        {"a merge: the second parent takes the lowest free lane",
         {"m:a,f", "f:a", "a"}, {"m@0", "f@1", "a@1"}, {"m>a@0", "m>f@1", "f>a@1"}},
        {"two children of one parent: the later child's lane, the earlier stays taken",
         {"x:p", "y:p", "p:q", "q", "z"}, {"x@0", "y@1", "p@1", "q@1", "z@1"}, {"x>p@0", "y>p@1", "p>q@1"}},
        {"an orphan mid-list takes the lowest free lane", {"b:a", "o", "a"}, {"b@0", "o@1", "a@0"}, {"b>a@0"}},
        {"unlisted parents keep their lanes",
         {"m:p1,p2,p3,p4,p5", "p1"}, {"m@0", "p1@0"}, {"m>p1@0", "m>p2@1", "m>p3@2", "m>p4@3", "m>p5@4"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto input = commits(c.commits);
        GitCommitGraph graph = buildCommitGraph(input);
        V nodes, edges;
        for (const auto& n : graph.nodes) {
            nodes.push_back(n.oid + "@" + std::to_string(n.lane));
            EXPECT_EQ(n.authorName, "Unknown");
        }
        for (const auto& e : graph.edges) edges.push_back(e.from + ">" + e.to + "@" + std::to_string(e.lane));
        EXPECT_EQ(nodes, c.nodes);
        EXPECT_EQ(edges, c.edges);
    }
    // Nine parents open lanes 0 to 8: the ninth lane has the first lane's colour again.
    auto wide = commits({"m:a,b,c,d,e,f,g,h,i", "i"});
    GitCommitGraph graph = buildCommitGraph(wide);
    ASSERT_EQ(graph.nodes.size(), 2u);
    EXPECT_EQ(graph.nodes[1].lane, 8);
    EXPECT_EQ(graph.nodes[1].branchColor, "#E57373");
    EXPECT_EQ(graph.nodes[0].branchColor, "#E57373");

    // The hand-written payload is what the library would write for it.
    auto texts = commits({"m:a,b", "a"});
    texts[0].messageHeadline = "quote \" slash \\ tab \t bell \x07 ü 日本";
    std::string encoded = encodeCommitGraphPayload("P", buildCommitGraph(texts));
    EXPECT_EQ(dumpJson(OrderedJson::parse(encoded)), encoded);
}

TEST(GitBranchMapAnalysis, OverlapsPrioritiesAndTheLimit) {
    auto computed = [](const char* state, std::vector<std::string> files) {
        GitBranchComputed c;
        c.mergeState = state;
        c.changedFiles = std::move(files);
        return c;
    };
    std::map<std::string, GitBranchComputed> byName{
        {"a", computed("unmerged", {"f1", "f2", "f3", "f4", "f5", "f6", "f7", "only-a"})},
        {"b", computed("mergedWithFollowUp", {"f7", "f6", "f5", "f4", "f3", "f2", "f1", "f1"})},
        {"c", computed("unmerged", {"f1"})},
        {"merged", computed("merged", {"f1"})},
    };
    auto overlaps = computeOverlaps(byName);
    ASSERT_EQ(overlaps.count("merged"), 0u);
    EXPECT_EQ(overlaps["a"], (std::vector<GitBranchMapOverlap>{{"b", 7, {"f1", "f2", "f3", "f4", "f5"}},
                                                               {"c", 1, {"f1"}}}));
    EXPECT_EQ(overlaps["c"][0].branch, "a");

    // Priorities at a fixed now: 2024-06-01T00:00:00Z.
    const SystemTime now = *parseIso8601("2024-06-01T00:00:00Z");
    auto node = [](std::string name, auto&& shape) {
        GitBranchMapNode n;
        n.name = std::move(name);
        n.mergeState = "unmerged";
        n.pushState = "pushed";
        shape(n);
        return n;
    };
    std::vector<GitBranchMapNode> nodes{
        node("old", [](auto& n) { n.lastCommitDate = "2024-04-01 10:00:00 +0000"; }),
        node("recent", [](auto& n) { n.lastCommitDate = "2024-05-20 10:00:00 +0200"; }),
        node("recent-iso", [](auto& n) { n.lastCommitDate = "2024-05-20T10:00:00Z"; }),
        node("bad-date", [](auto& n) { n.lastCommitDate = "yesterday"; }),
        node("cleanup", [](auto& n) { n.isCleanupCandidate = true; n.mergeState = "merged"; }),
        node("unpushed", [](auto& n) { n.pushState = "unpushed"; n.mergeState = "undetermined"; }),
        node("mine", [](auto& n) { n.isCurrent = true; n.lastCommitDate = "2020-01-01 00:00:00 +0000"; }),
        node("inside-mine", [](auto&) {}),
    };
    GitBranchDescendants descendants{{"inside-mine", {"mine", "main"}}, {"old", {"main"}}};
    applyPriority(nodes, std::string("main"), descendants, now);
    std::map<std::string, int> priorities;
    for (const auto& n : nodes) priorities[n.name] = n.priority;
    // (The base, other worktrees and follow-ups are ranked in the real-repository tests.)
    EXPECT_EQ(priorities, (std::map<std::string, int>{{"old", 6}, {"recent", 5}, {"recent-iso", 5}, {"bad-date", 6},
                                                      {"cleanup", 4}, {"unpushed", 2}, {"mine", 0},
                                                      {"inside-mine", 0}}));

    // The limit: current and base beyond the prefix take the places of its last nodes.
    std::vector<GitBranchMapNode> ranked{
        node("x", [](auto& n) { n.priority = 0; }), node("y", [](auto& n) { n.priority = 1; }),
        node("mine", [](auto& n) { n.isCurrent = true; n.priority = 2; }),
        node("main", [](auto& n) { n.isBase = true; n.priority = 3; }), node("z", [](auto& n) { n.priority = 4; })};
    struct Case {
        int64_t limit;
        std::vector<std::string> names;
    };
    const Case cases[] = {
        {1, {"mine", "main"}},
        {3, {"x", "y", "main"}},
        {4, {"x", "y", "mine", "main"}},
        {0, {"x", "y", "mine", "main", "z"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.limit);
        std::vector<std::string> names;
        for (const auto& n : boundedNodes(ranked, c.limit)) names.push_back(n.name);
        EXPECT_EQ(names, c.names);
    }
}
