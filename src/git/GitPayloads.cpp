#include "git/GitPayloads.h"

namespace velko {

namespace {

OrderedJson statusFiles(const std::vector<GitStatusFile>& files) {
    OrderedJson list = OrderedJson::array();
    for (const auto& file : files) list.push_back(OrderedJson{{"path", file.path}, {"status", file.status}});
    return list;
}

OrderedJson treeNodes(const std::vector<GitChangeTreeNode>& nodes) {
    OrderedJson list = OrderedJson::array();
    for (const auto& node : nodes) {
        OrderedJson item;
        item["path"] = node.path;
        item["status"] = node.status;
        if (node.children) item["children"] = treeNodes(*node.children);
        list.push_back(std::move(item));
    }
    return list;
}

}  // namespace

OrderedJson gitStatusPayload(const std::string& projectId, const GitStatusSummary& summary) {
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["branch"] = summary.branch;
    payload["ahead"] = summary.ahead;
    payload["behind"] = summary.behind;
    payload["staged"] = statusFiles(summary.staged);
    payload["unstaged"] = statusFiles(summary.unstaged);
    payload["untracked"] = statusFiles(summary.untracked);
    payload["pending"] = summary.staged.size() + summary.unstaged.size() + summary.untracked.size();
    return payload;
}

OrderedJson gitStatusDetailPayload(const std::string& projectId, const GitStatusDetailComponents& components,
                                   const std::string& headSha) {
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["branch"] = components.branch.empty() ? "--" : components.branch;
    payload["headSha"] = headSha;
    payload["ahead"] = components.ahead;
    payload["behind"] = components.behind;
    if (components.remote) payload["remote"] = *components.remote;
    payload["staged"] = treeNodes(GitStatusDetailMapper::buildTree(components.staged));
    payload["unstaged"] = treeNodes(GitStatusDetailMapper::buildTree(components.unstaged));
    payload["untracked"] = treeNodes(GitStatusDetailMapper::buildTree(components.untracked));
    return payload;
}

OrderedJson gitDiffFilePayload(const std::string& path, GitDiffStage stage, const GitNumstat& counts,
                               std::string patch) {
    OrderedJson file;
    file["path"] = path.empty() ? "." : path;
    file["stage"] = toString(stage);
    file["additions"] = counts.additions;
    file["deletions"] = counts.deletions;
    file["isBinary"] = counts.isBinary;
    file["patch"] = std::move(patch);
    return file;
}

OrderedJson gitCommitDiffFilePayload(const std::string& commit, const std::string& path, const GitNumstat& counts,
                                     std::string patch, bool resolved) {
    OrderedJson file;
    file["commit"] = commit;
    file["path"] = path;
    file["additions"] = counts.additions;
    file["deletions"] = counts.deletions;
    file["isBinary"] = counts.isBinary;
    file["patch"] = std::move(patch);
    file["resolved"] = resolved;
    return file;
}

OrderedJson gitRemoteTrackingPayload(const std::string& projectId, const std::string& branch,
                                     const std::optional<std::string>& remote, int64_t ahead, int64_t behind) {
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["branch"] = branch;
    if (remote) payload["remote"] = *remote;
    payload["ahead"] = ahead;
    payload["behind"] = behind;
    return payload;
}

OrderedJson gitResultPayload(bool success, const std::string& message) {
    OrderedJson payload;
    payload["success"] = success;
    payload["message"] = message;
    return payload;
}

OrderedJson gitRefreshBarrierPayload(const std::string& projectId, const std::string& requestId) {
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["requestId"] = requestId;
    return payload;
}

OrderedJson gitTokenRefusedStatusPayload(const std::optional<GitAuthToken>& record) {
    OrderedJson status;
    status["status"] = "disconnected";
    if (record && record->accountLogin) {
        OrderedJson account;
        account["login"] = *record->accountLogin;
        if (record->accountAvatarURL) account["avatarUrl"] = *record->accountAvatarURL;
        status["account"] = std::move(account);
    }
    status["reason"] = "tokenInvalid";
    return status;
}

}  // namespace velko
