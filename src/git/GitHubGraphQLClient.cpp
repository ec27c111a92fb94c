#include "git/GitHubGraphQLClient.h"

#include "git/GitMessages.h"

namespace velko {

namespace {

using Kind = GitHubGraphQLClientError::Kind;

GitHubGraphQLClientError clientError(Kind kind, std::string detail) {
    GitHubGraphQLClientError error;
    error.kind = kind;
    error.detail = std::move(detail);
    return error;
}

// Reads the answer the way a strict, typed decoder does: optional keys may be
// missing or null, required ones must be there with their type. The first
// problem is kept (for the log) and everything after it is ignored.
class Decoder {
public:
    bool failed() const { return !m_problem.empty(); }
    const std::string& problem() const { return m_problem; }

    void fail(const std::string& where, const char* key, const char* what) {
        if (m_problem.empty()) m_problem = std::string(what) + " at " + where + "." + key;
    }

    // Null counts as missing.
    static Json* find(Json& object, const char* key) {
        auto it = object.find(key);
        if (it == object.end() || it->is_null()) return nullptr;
        return &*it;
    }

    Json* object(Json& parent, const char* key, const std::string& where, bool required) {
        Json* value = find(parent, key);
        if (!value) {
            if (required) fail(where, key, "missing object");
            return nullptr;
        }
        if (!value->is_object()) {
            fail(where, key, "not an object");
            return nullptr;
        }
        return value;
    }

    Json* array(Json& parent, const char* key, const std::string& where, bool required) {
        Json* value = find(parent, key);
        if (!value) {
            if (required) fail(where, key, "missing list");
            return nullptr;
        }
        if (!value->is_array()) {
            fail(where, key, "not a list");
            return nullptr;
        }
        return value;
    }

    std::optional<std::string> string(Json& parent, const char* key, const std::string& where, bool required) {
        Json* value = find(parent, key);
        if (!value) {
            if (required) fail(where, key, "missing text");
            return std::nullopt;
        }
        if (!value->is_string()) {
            fail(where, key, "not a text");
            return std::nullopt;
        }
        return std::move(value->get_ref<std::string&>());
    }

    int64_t integer(Json& parent, const char* key, const std::string& where) {
        Json* value = find(parent, key);
        if (value && value->is_number_integer()) {
            if (value->is_number_unsigned() && value->get<uint64_t>() > uint64_t(INT64_MAX)) {
                fail(where, key, "number out of range");
                return 0;
            }
            return value->get<int64_t>();
        }
        if (value && value->is_number_float()) {
            double d = value->get<double>();
            if (d == static_cast<double>(static_cast<int64_t>(d)) && d > -9.2e18 && d < 9.2e18)
                return static_cast<int64_t>(d);
        }
        fail(where, key, value ? "not an integer" : "missing integer");
        return 0;
    }

    bool boolean(Json& parent, const char* key, const std::string& where) {
        Json* value = find(parent, key);
        if (value && value->is_boolean()) return value->get<bool>();
        fail(where, key, value ? "not a boolean" : "missing boolean");
        return false;
    }

    // Each element of a list must be an object; `where` names the list.
    template <typename Each>
    void eachObject(Json& list, const std::string& where, Each&& each) {
        for (Json& item : list) {
            if (failed()) return;
            if (!item.is_object()) {
                fail(where, "[]", "not an object");
                return;
            }
            each(item);
        }
    }

private:
    std::string m_problem;
};

GitHubCommitNode decodeNode(Decoder& d, Json& node) {
    static const std::string kWhere = "node";
    GitHubCommitNode commit;
    commit.oid = d.string(node, "oid", kWhere, true).value_or("");
    commit.messageHeadline = d.string(node, "messageHeadline", kWhere, false);
    commit.committedDate = d.string(node, "committedDate", kWhere, true).value_or("");
    if (Json* author = d.object(node, "author", kWhere, false)) {
        commit.hasAuthor = true;
        commit.authorName = d.string(*author, "name", "node.author", false);
        if (Json* user = d.object(*author, "user", "node.author", false))
            commit.authorLogin = d.string(*user, "login", "node.author.user", true);
    }
    if (Json* files = d.object(node, "files", kWhere, false)) {
        if (Json* nodes = d.array(*files, "nodes", "node.files", false)) {
            std::vector<GitHubCommitFile> list;
            list.reserve(nodes->size());
            d.eachObject(*nodes, "node.files.nodes", [&](Json& file) {
                static const std::string kFile = "node.files.nodes[]";
                GitHubCommitFile entry;
                entry.path = d.string(file, "path", kFile, true).value_or("");
                entry.additions = d.integer(file, "additions", kFile);
                entry.deletions = d.integer(file, "deletions", kFile);
                list.push_back(std::move(entry));
            });
            commit.files = std::move(list);
        }
    }
    if (Json* parents = d.object(node, "parents", kWhere, false)) {
        if (Json* nodes = d.array(*parents, "nodes", "node.parents", false)) {
            std::vector<std::string> list;
            list.reserve(nodes->size());
            d.eachObject(*nodes, "node.parents.nodes", [&](Json& parent) {
                list.push_back(d.string(parent, "oid", "node.parents.nodes[]", true).value_or(""));
            });
            commit.parents = std::move(list);
        }
    }
    return commit;
}

// `holder` is `ref` or `defaultBranchRef`; its target's history, when every step is there.
std::optional<GitHubHistory> decodeHistory(Decoder& d, Json& repository, const char* holder) {
    std::string where = std::string("data.repository.") + holder;
    Json* ref = d.object(repository, holder, "data.repository", false);
    if (!ref) return std::nullopt;
    Json* target = d.object(*ref, "target", where, false);
    if (!target) return std::nullopt;
    where += ".target";
    Json* history = d.object(*target, "history", where, false);
    if (!history) return std::nullopt;
    where += ".history";
    // Both keys of a history are required, whatever the query asked for.
    Json* edges = d.array(*history, "edges", where, true);
    Json* pageInfo = d.object(*history, "pageInfo", where, true);
    if (!edges || !pageInfo) return std::nullopt;
    GitHubHistory result;
    result.nodes.reserve(edges->size());
    d.eachObject(*edges, where + ".edges", [&](Json& edge) {
        if (Json* node = d.object(edge, "node", where + ".edges[]", true)) result.nodes.push_back(decodeNode(d, *node));
    });
    result.pageInfo.hasNextPage = d.boolean(*pageInfo, "hasNextPage", where + ".pageInfo");
    result.pageInfo.endCursor = d.string(*pageInfo, "endCursor", where + ".pageInfo", false);
    return result;
}

}  // namespace

std::string GitHubGraphQLClientError::errorDescription() const {
    switch (kind) {
    case Kind::GraphQLErrors: {
        std::string text;
        for (size_t i = 0; i < messages.size(); ++i) text += (i ? "\n" : "") + messages[i];
        return text;
    }
    case Kind::InvalidURL: return std::string(gitmsg::kGraphQLInvalidURL);
    case Kind::InvalidResponse: return std::string(gitmsg::kGraphQLInvalidResponse);
    case Kind::Unauthorized: return std::string(gitmsg::kGraphQLUnauthorized);
    case Kind::EmptyData: return std::string(gitmsg::kGraphQLEmptyData);
    case Kind::Decoding: return std::string(gitmsg::kGraphQLUndecodable);
    case Kind::Transport:
        switch (transport) {
        case HttpError::Kind::TimedOut: return std::string(gitmsg::kGitHubTimedOut);
        case HttpError::Kind::CannotConnect: return std::string(gitmsg::kGitHubCannotConnect);
        case HttpError::Kind::Tls: return std::string(gitmsg::kGitHubTls);
        case HttpError::Kind::Cancelled: return std::string(gitmsg::kGitHubCancelled);
        default: return std::string(gitmsg::kGitHubTransport);
        }
    }
    return std::string(gitmsg::kGitHubTransport);
}

std::optional<std::string> GitHubCommitNode::authorDisplayName() const {
    if (authorName && !authorName->empty()) return authorName;
    if (authorLogin && !authorLogin->empty()) return authorLogin;
    return std::nullopt;
}

GitHubGraphQLResult decodeGraphQLResponse(std::string_view body) {
    auto parsed = parseJson(body);
    if (!parsed) return fail(clientError(Kind::Decoding, "answer is not JSON (or nested too deeply)"));
    Json& envelope = *parsed;
    if (!envelope.is_object()) return fail(clientError(Kind::Decoding, "answer is not a JSON object"));

    Decoder d;
    GitHubHistoryResponse response;
    bool hasData = false;
    if (Json* data = d.object(envelope, "data", "envelope", false)) {
        hasData = true;
        if (Json* repository = d.object(*data, "repository", "data", false)) {
            response.refHistory = decodeHistory(d, *repository, "ref");
            response.defaultBranchHistory = decodeHistory(d, *repository, "defaultBranchRef");
        }
    }
    std::vector<std::string> messages;
    if (Json* errors = d.array(envelope, "errors", "envelope", false)) {
        d.eachObject(*errors, "errors", [&](Json& error) {
            messages.push_back(d.string(error, "message", "errors[]", true).value_or(""));
        });
    }
    if (d.failed()) return fail(clientError(Kind::Decoding, d.problem()));
    if (!messages.empty()) {
        GitHubGraphQLClientError error = clientError(Kind::GraphQLErrors, "errors in the answer");
        error.messages = std::move(messages);
        return fail(std::move(error));
    }
    if (!hasData) return fail(clientError(Kind::EmptyData, "answer without data"));
    return response;
}

HttpGitHubGraphQLClient::HttpGitHubGraphQLClient(std::shared_ptr<HttpRequesting> http, std::string endpoint,
                                                 Limits limits)
    : m_http(std::move(http)), m_endpoint(std::move(endpoint)), m_limits(limits) {}

GitHubGraphQLResult HttpGitHubGraphQLClient::execute(std::string_view query, const OrderedJson& variables,
                                                     const std::string& token) {
    if (token.empty()) return fail(clientError(Kind::Unauthorized, "no token"));
    if (m_endpoint.rfind("http", 0) != 0 || !m_http)
        return fail(clientError(Kind::InvalidURL, "endpoint is not an http(s) URL"));

    OrderedJson body;
    body["query"] = query;
    body["variables"] = variables;
    HttpRequest request{
        .method = HttpMethod::Post,
        .url = m_endpoint,
        .headers = {{"Content-Type", "application/json"},
                    {"Accept", "application/vnd.github.antiope-preview+json, application/json"},
                    {"X-GitHub-Api-Version", "2022-11-28"},
                    {"Authorization", "Bearer " + token}},
        .body = dumpJson(body),
        .connectTimeout = m_limits.connect,
        .idleTimeout = m_limits.betweenBytes,
        .totalTimeout = m_limits.transfer,
        .maxResponseBytes = m_limits.maxResponseBytes,
    };
    HttpResult result = m_http->perform(request);
    if (!result) {
        const HttpError& problem = result.error();
        std::string detail = std::string(httpErrorKindName(problem.kind)) + ": " + problem.detail;
        switch (problem.kind) {
        case HttpError::Kind::UrlRefused: return fail(clientError(Kind::InvalidURL, std::move(detail)));
        case HttpError::Kind::TooLarge: return fail(clientError(Kind::InvalidResponse, std::move(detail)));
        default: {
            GitHubGraphQLClientError error = clientError(Kind::Transport, std::move(detail));
            error.transport = problem.kind;
            return fail(std::move(error));
        }
        }
    }
    const HttpResponse& response = result.value();
    if (response.status == 401) return fail(clientError(Kind::Unauthorized, "HTTP 401"));
    if (response.status < 200 || response.status > 299)
        return fail(clientError(Kind::InvalidResponse, "HTTP " + std::to_string(response.status)));
    return decodeGraphQLResponse(response.body);
}

// --- query texts ------------------------------------------------------------------

const std::string_view kCommitHistoryQuery = R"(query CommitHistory($owner: String!, $name: String!, $qualifiedName: String!, $pageSize: Int!, $cursor: String) {
  repository(owner: $owner, name: $name) {
    ref(qualifiedName: $qualifiedName) {
      target {
        ... on Commit {
          history(first: $pageSize, after: $cursor) {
            pageInfo {
              hasNextPage
              endCursor
            }
            edges {
              cursor
              node {
                oid
                messageHeadline
                committedDate
                author {
                  name
                  user {
                    login
                  }
                }
                files(first: 100) {
                  nodes {
                    path
                    additions
                    deletions
                  }
                }
                parents(first: 5) {
                  nodes {
                    oid
                  }
                }
              }
            }
          }
        }
      }
    }
    defaultBranchRef {
      target {
        ... on Commit {
          history(first: $pageSize, after: $cursor) {
            pageInfo {
              hasNextPage
              endCursor
            }
            edges {
              cursor
              node {
                oid
                messageHeadline
                committedDate
                author {
                  name
                  user {
                    login
                  }
                }
                files(first: 100) {
                  nodes {
                    path
                    additions
                    deletions
                  }
                }
                parents(first: 5) {
                  nodes {
                    oid
                  }
                }
              }
            }
          }
        }
      }
    }
  }
})";

// Only the default branch's block asks for the avatar: that is how GitHub has
// been asked all along, and answers of both forms decode alike.
const std::string_view kCommitHistoryWithoutFilesQuery = R"(query CommitHistoryWithoutFiles($owner: String!, $name: String!, $qualifiedName: String!, $pageSize: Int!, $cursor: String) {
  repository(owner: $owner, name: $name) {
    ref(qualifiedName: $qualifiedName) {
      target {
        ... on Commit {
          history(first: $pageSize, after: $cursor) {
            pageInfo {
              hasNextPage
              endCursor
            }
            edges {
              cursor
              node {
                oid
                messageHeadline
                committedDate
                author {
                  name
                  user {
                    login
                  }
                }
                parents(first: 5) {
                  nodes {
                    oid
                  }
                }
              }
            }
          }
        }
      }
    }
    defaultBranchRef {
      target {
        ... on Commit {
          history(first: $pageSize, after: $cursor) {
            pageInfo {
              hasNextPage
              endCursor
            }
            edges {
              cursor
              node {
                oid
                messageHeadline
                committedDate
                author {
                  name
                  user {
                    login
                    avatarUrl
                  }
                }
                parents(first: 5) {
                  nodes {
                    oid
                  }
                }
              }
            }
          }
        }
      }
    }
  }
})";

// Asks for no pageInfo, which the decoder requires: see the header.
const std::string_view kCommitGraphQuery = R"(query CommitGraph($owner: String!, $name: String!, $pageSize: Int!) {
  repository(owner: $owner, name: $name) {
    defaultBranchRef {
      target {
        ... on Commit {
          history(first: $pageSize) {
            edges {
              node {
                oid
                messageHeadline
                committedDate
                author {
                  name
                  user {
                    login
                  }
                }
                parents(first: 5) {
                  nodes {
                    oid
                  }
                }
              }
            }
          }
        }
      }
    }
  }
})";

}  // namespace velko
