#pragma once
// The commit graph of the default branch: GitHub's commits, newest first,
// placed on lanes so that the page can draw each commit on its lane and each
// parent link on the lane it runs down. Pure functions.

#include <string>
#include <vector>

#include "git/GitHubGraphQLClient.h"

namespace velko {

struct GitCommitGraphNode {
    std::string oid;
    int64_t lane = 0;
    std::string branchColor;
    std::string messageHeadline;
    std::string authorName;
    std::string committedDate;
};

struct GitCommitGraphEdge {
    std::string from;  // child
    std::string to;    // parent
    int64_t lane = 0;
};

struct GitCommitGraph {
    std::vector<GitCommitGraphNode> nodes;
    std::vector<GitCommitGraphEdge> edges;
};

// Lane `lane`'s colour; the eight colours repeat.
std::string_view commitGraphLaneColor(int64_t lane);

// A commit takes the lane a child reserved for it, else the lowest free one.
// Its first parent goes on down its lane, further parents take the lowest
// free lanes. A parent two children wait for is drawn on the lane of the
// later child; the earlier child's lane stays taken for the rest of the walk.
// `commits` is consumed (texts are moved out).
GitCommitGraph buildCommitGraph(std::vector<GitHubCommitNode>& commits);

// "git/graph", as JSON text: written by hand, a thousand commits cost less
// than decoding GitHub's answer. Byte for byte what dumpJson would write.
std::string encodeCommitGraphPayload(const std::string& projectId, const GitCommitGraph& graph);

// Errors after which the graph is not asked for again for the project: the
// query cannot work there (an answer without data, or one of another shape).
bool shouldDisableCommitGraph(const GitHubGraphQLClientError& error);

}  // namespace velko
