#pragma once
// GitHubGraphQLClient: posts one GraphQL query to GitHub and decodes the
// commit history that all of the engine's queries ask for. Synchronous: it is
// called from the git queues, which are there to wait.
//
// The decoding is strict, key by key: a required key that is missing, null or
// of the wrong type fails the whole answer with a decoding error, which the
// callers read as "this query cannot work here". A query that asks for no
// `pageInfo` therefore never decodes (the commit graph relies on exactly that
// to stop asking).
//
// HttpGitHubGraphQLClient holds no mutable state; any number of threads may
// call it at once. It never follows a redirect, caps the answer's size, and
// puts the token in the Authorization header and nowhere else (not in a log
// line, an error text or the URL).

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/HttpRequesting.h"
#include "core/Json.h"
#include "core/Result.h"

namespace velko {

struct GitHubGraphQLClientError {
    enum class Kind {
        GraphQLErrors,    // the server's `errors`, one message each
        InvalidURL,       // the endpoint cannot be asked
        InvalidResponse,  // a status other than 2xx and 401, or an answer over the size cap
        Unauthorized,     // 401, or no token at all
        EmptyData,        // no `errors` and no `data`
        Decoding,         // not JSON, or not of the expected shape
        Transport,        // no answer: time-out, no connection, TLS, cancelled
    };
    Kind kind = Kind::Transport;
    std::vector<std::string> messages;                    // GraphQLErrors only
    HttpError::Kind transport = HttpError::Kind::Transport;  // Transport only
    // English, for the log: what went wrong, never a header or a body.
    std::string detail;

    // The user's text: the server's messages one a line, or a short Japanese sentence.
    std::string errorDescription() const;
};

// What the engine reads of an answer: the history of `repository.ref.target`
// and of `repository.defaultBranchRef.target`, each absent when any step on
// the way is null or missing.
struct GitHubCommitFile {
    std::string path;
    int64_t additions = 0;
    int64_t deletions = 0;
};

struct GitHubCommitNode {
    std::string oid;
    std::optional<std::string> messageHeadline;
    std::string committedDate;
    bool hasAuthor = false;
    std::optional<std::string> authorName;
    std::optional<std::string> authorLogin;
    std::optional<std::vector<GitHubCommitFile>> files;
    std::optional<std::vector<std::string>> parents;

    // The author's name when not empty, else the login when not empty.
    std::optional<std::string> authorDisplayName() const;
};

struct GitHubPageInfo {
    bool hasNextPage = false;
    std::optional<std::string> endCursor;
};

struct GitHubHistory {
    std::vector<GitHubCommitNode> nodes;  // the edges' nodes, in order
    GitHubPageInfo pageInfo;
};

struct GitHubHistoryResponse {
    std::optional<GitHubHistory> refHistory;
    std::optional<GitHubHistory> defaultBranchHistory;
};

using GitHubGraphQLResult = Result<GitHubHistoryResponse, GitHubGraphQLClientError>;

// The answer's body as the client reads it: the envelope decoded whole
// (`data` and `errors`), then `errors`, then `data`. Nesting deeper than the
// JSON reader's limit is a decoding error.
GitHubGraphQLResult decodeGraphQLResponse(std::string_view body);

// The query texts, word for word as GitHub is sent them.
extern const std::string_view kCommitHistoryQuery;
extern const std::string_view kCommitHistoryWithoutFilesQuery;
extern const std::string_view kCommitGraphQuery;

class GitHubGraphQLClient {
public:
    virtual ~GitHubGraphQLClient() = default;
    virtual GitHubGraphQLResult execute(std::string_view query, const OrderedJson& variables,
                                        const std::string& token) = 0;
};

class HttpGitHubGraphQLClient final : public GitHubGraphQLClient {
public:
    struct Limits {
        std::chrono::milliseconds connect{10'000};
        std::chrono::milliseconds betweenBytes{10'000};
        std::chrono::milliseconds transfer{30'000};
        size_t maxResponseBytes = 16 * 1024 * 1024;
    };

    // `endpoint` is the whole URL of the GraphQL endpoint ("https://api.github.com/graphql").
    HttpGitHubGraphQLClient(std::shared_ptr<HttpRequesting> http, std::string endpoint, Limits limits);
    HttpGitHubGraphQLClient(std::shared_ptr<HttpRequesting> http, std::string endpoint)
        : HttpGitHubGraphQLClient(std::move(http), std::move(endpoint), Limits{}) {}

    GitHubGraphQLResult execute(std::string_view query, const OrderedJson& variables,
                                const std::string& token) override;

private:
    std::shared_ptr<HttpRequesting> m_http;
    std::string m_endpoint;
    Limits m_limits;
};

}  // namespace velko
