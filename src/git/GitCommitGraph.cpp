#include "git/GitCommitGraph.h"

#include <optional>
#include <unordered_map>

#include "git/GitJsonWriter.h"

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

std::string encodeCommitGraphPayload(const std::string& projectId, const GitCommitGraph& graph) {
    // Texts come from a JSON answer or from us, so they are valid UTF-8.
    std::string out;
    out.reserve(64 + graph.nodes.size() * 220 + graph.edges.size() * 110);
    out += "{\"projectId\":";
    appendJsonString(out, projectId);
    out += ",\"nodes\":[";
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        const auto& node = graph.nodes[i];
        out += i ? ",{\"oid\":" : "{\"oid\":";
        appendJsonString(out, node.oid);
        out += ",\"lane\":";
        appendJsonInteger(out, node.lane);
        out += ",\"branchColor\":";
        appendJsonString(out, node.branchColor);
        out += ",\"messageHeadline\":";
        appendJsonString(out, node.messageHeadline);
        out += ",\"authorName\":";
        appendJsonString(out, node.authorName);
        out += ",\"committedDate\":";
        appendJsonString(out, node.committedDate);
        out += "}";
    }
    out += "],\"edges\":[";
    for (size_t i = 0; i < graph.edges.size(); ++i) {
        const auto& edge = graph.edges[i];
        out += i ? ",{\"from\":" : "{\"from\":";
        appendJsonString(out, edge.from);
        out += ",\"to\":";
        appendJsonString(out, edge.to);
        out += ",\"lane\":";
        appendJsonInteger(out, edge.lane);
        out += "}";
    }
    out += "]}";
    return out;
}

bool shouldDisableCommitGraph(const GitHubGraphQLClientError& error) {
    return error.kind == GitHubGraphQLClientError::Kind::EmptyData ||
           error.kind == GitHubGraphQLClientError::Kind::Decoding;
}

}  // namespace velko
