#pragma once
// GitLocalHistoryProvider: one page of commits read from the repository with
// `git log`. By default only the commits that are not on the upstream yet
// (the rest comes from GitHub); with GitHistoryScope::WholeHead the whole
// history of HEAD, which is how the history list goes on when GitHub cannot
// be asked. Counting is a separate `git rev-list --count`, so a page never
// walks beyond itself in `git log`.
//
// Called on the history pool, several pages at once; holds no mutable state.
// Never fails: on any failure the page is short or empty, with what was
// learnt so far filled in, and the reason goes to the log.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "git/GitCommandContext.h"

namespace velko {

enum class GitCommitOrigin { Local, Remote };

struct GitCommitFileSummary {
    std::string path;  // a rename stays in git's notation ("src/{a => b}.txt")
    int64_t additions = 0;
    int64_t deletions = 0;
    friend bool operator==(const GitCommitFileSummary&, const GitCommitFileSummary&) = default;
};

// One commit of the history list, from git or from GitHub.
struct GitCommitEdge {
    std::string oid;
    std::string messageHeadline;
    std::string authorName;
    std::optional<std::string> authorLogin;
    std::string committedDate;
    std::vector<GitCommitFileSummary> files;
    GitCommitOrigin origin = GitCommitOrigin::Local;
};

struct GitLocalHistoryPage {
    std::optional<std::string> branch;    // absent on a detached head
    std::optional<std::string> upstream;  // "origin/main"
    std::vector<GitCommitEdge> edges;
    int64_t totalCount = 0;
};

enum class GitHistoryScope {
    NotOnUpstream,  // HEAD --not its upstream; all of HEAD when there is no upstream
    WholeHead,
};

class GitLocalHistoryProviding {
public:
    virtual ~GitLocalHistoryProviding() = default;
    virtual GitLocalHistoryPage loadHistory(const GitProject& project, int64_t offset, int64_t limit,
                                            GitHistoryScope scope) = 0;
};

class GitLocalHistoryProvider final : public GitLocalHistoryProviding {
public:
    // `commands` must outlive the provider (both belong to the git service).
    explicit GitLocalHistoryProvider(GitCommandContext& commands) : m_commands(commands) {}
    GitLocalHistoryPage loadHistory(const GitProject& project, int64_t offset, int64_t limit,
                                    GitHistoryScope scope) override;

private:
    std::optional<std::string> resolveRevision(const std::string& revision, const GitProject& project);

    GitCommandContext& m_commands;
    Logger m_logger{"app.velko.git", "git-local-history"};
};

// The `git log` format the provider asks for: a record separator, then hash,
// author, committer date and subject split by a unit separator.
inline constexpr std::string_view kLocalHistoryLogFormat = "--pretty=format:%x1e%H%x1f%an%x1f%cI%x1f%s";

// The records of that format with --numstat behind each header; a record of
// another shape is skipped. Every edge is "local".
std::vector<GitCommitEdge> parseLogRecords(std::string_view text);

}  // namespace velko
