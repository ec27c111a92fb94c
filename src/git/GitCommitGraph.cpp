#include "git/GitCommitGraph.h"

#include <optional>
#include <unordered_map>

namespace velko {

namespace {

constexpr std::string_view kPalette[] = {"#E57373", "#64B5F6", "#81C784", "#FFB74D",
                                         "#BA68C8", "#4DB6AC", "#AED581", "#FFD54F"};

}  // namespace

std::string_view commitGraphLaneColor(int64_t lane) { return kPalette[static_cast<size_t>(lane) % 8]; }

GitCommitGraph buildCommitGraph(std::vector<GitHubCommitNode>& commits) {
    GitCommitGraph graph;
    graph.nodes.reserve(commits.size());
    // The hash each lane waits for; an empty slot is a free lane.
    std::vector<std::optional<std::string>> activeLanes;
    std::unordered_map<std::string, size_t> laneByCommit;
    auto lowestFreeLane = [&]() -> std::optional<size_t> {
        for (size_t i = 0; i < activeLanes.size(); ++i)
            if (!activeLanes[i]) return i;
        return std::nullopt;
    };

    for (auto& commit : commits) {
        size_t lane;
        if (auto it = laneByCommit.find(commit.oid); it != laneByCommit.end()) {
            lane = it->second;
            laneByCommit.erase(it);
            if (lane < activeLanes.size()) activeLanes[lane].reset();
        } else if (auto free = lowestFreeLane()) {
            lane = *free;
        } else {
            lane = activeLanes.size();
            activeLanes.emplace_back();
        }
        if (lane >= activeLanes.size()) activeLanes.emplace_back();

        GitCommitGraphNode node;
        node.lane = static_cast<int64_t>(lane);
        node.branchColor = std::string(commitGraphLaneColor(node.lane));
        node.messageHeadline = commit.messageHeadline.value_or("");
        node.authorName = commit.hasAuthor ? commit.authorDisplayName().value_or("Unknown") : "Unknown";
        node.committedDate = std::move(commit.committedDate);

        if (commit.parents) {
            for (size_t position = 0; position < commit.parents->size(); ++position) {
                std::string& parent = (*commit.parents)[position];
                std::optional<size_t> target;
                if (position == 0) {
                    if (lane < activeLanes.size()) {
                        activeLanes[lane] = parent;
                        target = lane;
                    }
                } else if (auto free = lowestFreeLane()) {
                    activeLanes[*free] = parent;
                    target = free;
                }
                if (!target) {
                    activeLanes.emplace_back(parent);
                    target = activeLanes.size() - 1;
                }
                laneByCommit[parent] = *target;
                graph.edges.push_back({commit.oid, std::move(parent), static_cast<int64_t>(*target)});
            }
        }
        node.oid = std::move(commit.oid);
        graph.nodes.push_back(std::move(node));
    }
    return graph;
}

OrderedJson gitCommitGraphPayload(const std::string& projectId, const GitCommitGraph& graph) {
    OrderedJson nodes = OrderedJson::array();
    for (const auto& node : graph.nodes) {
        OrderedJson item;
        item["oid"] = node.oid;
        item["lane"] = node.lane;
        item["branchColor"] = node.branchColor;
        item["messageHeadline"] = node.messageHeadline;
        item["authorName"] = node.authorName;
        item["committedDate"] = node.committedDate;
        nodes.push_back(std::move(item));
    }
    OrderedJson edges = OrderedJson::array();
    for (const auto& edge : graph.edges) {
        OrderedJson item;
        item["from"] = edge.from;
        item["to"] = edge.to;
        item["lane"] = edge.lane;
        edges.push_back(std::move(item));
    }
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["nodes"] = std::move(nodes);
    payload["edges"] = std::move(edges);
    return payload;
}

bool shouldDisableCommitGraph(const GitHubGraphQLClientError& error) {
    return error.kind == GitHubGraphQLClientError::Kind::EmptyData ||
           error.kind == GitHubGraphQLClientError::Kind::Decoding;
}

}  // namespace velko
