#include "git/GitBranchMapProvider.h"

#include <atomic>
#include <filesystem>
#include <thread>
#include <unordered_set>

#include "git/GitText.h"

namespace velko {

namespace {

constexpr char kSeparator = '\x1f';
constexpr int64_t kFirstParentLimit = 2000;

struct BranchRef {
    std::string name;
    std::optional<std::string> localSha;
    std::optional<std::string> remoteSha;
    std::optional<std::string> upstream;
    std::optional<std::string> subject;
    std::optional<std::string> date;
    bool isHead = false;
};

struct Remotes {
    std::vector<std::string> names;

    bool isName(std::string_view name) const {
        return std::find(names.begin(), names.end(), name) != names.end();
    }
    // The remote whose "<remote>/" begins `name`, first match wins.
    const std::string* prefixOf(std::string_view name) const {
        for (const auto& remote : names) {
            if (name.size() > remote.size() && name.compare(0, remote.size(), remote) == 0 && name[remote.size()] == '/')
                return &remote;
        }
        return nullptr;
    }
    std::string strip(std::string_view name) const {
        const std::string* remote = prefixOf(name);
        return std::string(remote ? name.substr(remote->size() + 1) : name);
    }
};

// Runs body(0) … body(count - 1), up to `width` at a time; the caller's
// thread takes part. Each index is written by one call only.
template <typename Body>
void forEachIndex(size_t count, unsigned width, Body&& body) {
    if (width <= 1 || count <= 1) {
        for (size_t i = 0; i < count; ++i) body(i);
        return;
    }
    std::atomic<size_t> next{0};
    auto worker = [&] {
        for (size_t i; (i = next.fetch_add(1)) < count;) body(i);
    };
    std::vector<std::thread> helpers;
    for (size_t t = 1; t < std::min<size_t>(width, count); ++t) helpers.emplace_back(worker);
    worker();
    for (auto& helper : helpers) helper.join();
}

std::vector<std::string_view> splitAt(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    for (;;) {
        size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

std::optional<int64_t> strictInteger(std::string_view text) {
    if (text.empty()) return std::nullopt;
    int64_t value = decimalOrZero(text);
    if (value == 0 && text != "0") return std::nullopt;
    return value;
}

std::string standardizedPath(const std::string& path) {
    // git names worktrees by their real paths; a project opened through a
    // symbolic link is the same worktree, so both sides are resolved.
    std::error_code error;
    auto resolved = std::filesystem::weakly_canonical(path, error);
    std::string text = (error ? std::filesystem::path(path).lexically_normal() : resolved).string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

class BranchMapRun {
public:
    BranchMapRun(GitCommandContext& commands, const GitProject& project, unsigned parallelism, Logger& logger)
        : m_commands(commands), m_project(project), m_parallelism(parallelism), m_logger(logger) {}

    std::optional<std::string> output(const std::vector<std::string>& arguments) {
        auto result = m_commands.run(arguments, m_project);
        if (!result) return std::nullopt;
        return std::move(*result);
    }
    std::optional<std::string> trimmed(const std::vector<std::string>& arguments) {
        auto text = output(arguments);
        if (!text) return std::nullopt;
        return std::string(trimWhitespace(*text));
    }

    std::vector<BranchRef> loadRefs(const Remotes& remotes) {
        std::string format;
        for (const char* atom : {"%(refname:short)", "%(upstream:short)", "%(objectname)", "%(committerdate:iso8601)",
                                 "%(contents:subject)", "%(HEAD)"}) {
            if (!format.empty()) format.push_back(kSeparator);
            format += atom;
        }
        auto result = m_commands.run({"for-each-ref", "--format=" + format, "refs/heads", "refs/remotes"}, m_project);
        if (!result) {
            m_logger.error("Failed to enumerate refs: " + result.error().text);
            return {};
        }
        std::vector<BranchRef> refs;
        std::map<std::string, size_t> byName;
        for (std::string_view line : splitLines(*result, false)) {
            auto pieces = splitAt(line, kSeparator);
            if (pieces.size() < 6) continue;
            std::string full(pieces[0]);
            if (remotes.isName(full)) continue;  // "origin" is the short form of origin/HEAD
            const bool isRemote = remotes.prefixOf(full) != nullptr;
            std::string name = isRemote ? remotes.strip(full) : full;
            if (name.empty() || name == "HEAD") continue;
            auto [it, added] = byName.emplace(name, refs.size());
            if (added) refs.push_back(BranchRef{name, {}, {}, {}, {}, {}, false});
            BranchRef& ref = refs[it->second];
            std::optional<std::string> date;
            if (!pieces[3].empty()) date = std::string(pieces[3]);
            if (isRemote) {
                ref.remoteSha = std::string(pieces[2]);
                if (!ref.localSha) {
                    ref.subject = std::string(pieces[4]);
                    ref.date = date;
                }
            } else {
                ref.localSha = std::string(pieces[2]);
                if (!pieces[1].empty()) ref.upstream = std::string(pieces[1]);
                ref.subject = std::string(pieces[4]);
                ref.date = date;
            }
            ref.isHead = ref.isHead || pieces[5] == "*";
        }
        return refs;
    }

    std::set<std::string> loadDescendants(const std::string& hash, const Remotes& remotes) {
        std::set<std::string> names;
        auto text = output({"for-each-ref", "--contains", hash, "--format=%(refname:short)", "refs/heads", "refs/remotes"});
        if (!text) return names;
        for (std::string_view raw : splitLines(*text, false)) {
            std::string_view line = trimWhitespace(raw);
            if (line.empty() || remotes.isName(line)) continue;
            std::string name = remotes.strip(line);
            if (name.empty() || name == "HEAD") continue;
            names.insert(std::move(name));
        }
        return names;
    }

    struct AheadBehind {
        int64_t behind = 0;
        int64_t ahead = 0;
    };
    std::optional<AheadBehind> loadAheadBehind(const std::string& base, const std::string& branch) {
        auto text = output({"rev-list", "--left-right", "--count", base + "..." + branch});
        if (!text) return std::nullopt;
        auto pieces = splitOnBlanks(*text);
        if (pieces.size() < 2) return std::nullopt;
        auto behind = strictInteger(pieces[0]);
        auto ahead = strictInteger(pieces[1]);
        if (!behind || !ahead) return std::nullopt;
        return AheadBehind{*behind, *ahead};
    }

    std::optional<std::vector<std::string>> loadChangedFiles(const std::string& base, const std::string& branch) {
        auto text = output({"diff", "--name-only", base + "..." + branch});
        if (!text) return std::nullopt;
        std::vector<std::string> files;
        for (std::string_view line : splitLines(*text, false)) {
            std::string_view path = trimWhitespace(line);
            if (!path.empty()) files.emplace_back(path);
        }
        return files;
    }

    void runEach(size_t count, const std::function<void(size_t)>& body) { forEachIndex(count, m_parallelism, body); }

private:
    GitCommandContext& m_commands;
    const GitProject& m_project;
    unsigned m_parallelism;
    Logger& m_logger;
};

std::optional<std::string> revisionOf(const BranchRef& ref, const Remotes& remotes) {
    if (ref.localSha) return ref.name;
    if (!ref.remoteSha) return std::nullopt;
    if (ref.upstream) return ref.upstream;
    if (remotes.names.empty()) return std::nullopt;
    return remotes.names.front() + "/" + ref.name;
}

bool holds(const GitBranchDescendants& descendants, const std::string& of, const std::string& name) {
    auto it = descendants.find(of);
    return it != descendants.end() && it->second.count(name) > 0;
}

struct ParentChoice {
    std::optional<std::string> parent;
    std::string confidence = "confirmed";
};

ParentChoice resolveParent(const BranchRef& ref, const std::optional<std::string>& baseBranch,
                           const std::vector<BranchRef>& refs, const GitBranchDescendants& descendants) {
    if (!baseBranch || ref.name == *baseBranch) return {};
    std::vector<const BranchRef*> candidates;
    for (const auto& other : refs) {
        if (other.name == ref.name || other.name == *baseBranch) continue;
        if (holds(descendants, other.name, ref.name)) candidates.push_back(&other);
    }
    if (candidates.empty()) return {baseBranch, "confirmed"};
    const BranchRef* best = nullptr;
    size_t bestDepth = 0;
    for (const BranchRef* candidate : candidates) {
        size_t depth = 0;
        for (const BranchRef* other : candidates) {
            if (other != candidate && holds(descendants, other->name, candidate->name)) ++depth;
        }
        if (!best || depth > bestDepth ||
            (depth == bestDepth && candidate->date.value_or("") > best->date.value_or(""))) {
            best = candidate;
            bestDepth = depth;
        }
    }
    return {best->name, "estimated"};
}

}  // namespace

GitBranchMapProvider::GitBranchMapProvider(GitCommandContext& commands, Options options)
    : m_commands(commands), m_options(std::move(options)) {
    if (!m_options.now) m_options.now = [] { return std::chrono::system_clock::now(); };
}

GitBranchMap GitBranchMapProvider::loadBranchMap(const GitProject& project, int64_t limit) {
    const SystemTime now = m_options.now();
    BranchMapRun run(m_commands, project, m_options.parallelism, m_logger);
    GitBranchMap map;
    map.generatedAt = formatIso8601(now);

    if (!run.output({"rev-parse", "--is-inside-work-tree"})) return map;
    auto head = run.trimmed({"rev-parse", "HEAD"});
    if (!head) {
        map.repositoryState = "noCommits";
        return map;
    }
    map.headSha = *head;
    std::string abbreviated = run.trimmed({"rev-parse", "--abbrev-ref", "HEAD"}).value_or("HEAD");
    if (abbreviated != "HEAD") map.currentBranch = abbreviated;
    map.repositoryState = map.currentBranch ? "ready" : "detached";
    map.isShallow = run.trimmed({"rev-parse", "--is-shallow-repository"}).value_or("") == "true";
    Remotes remotes;
    if (auto text = run.output({"remote"})) {
        for (std::string_view line : splitLines(*text, false)) {
            std::string_view name = trimWhitespace(line);
            if (!name.empty()) remotes.names.emplace_back(name);
        }
    }
    map.hasRemote = !remotes.names.empty();

    std::vector<BranchRef> refs = run.loadRefs(remotes);
    if (refs.empty()) return map;
    auto known = [&](const std::string& name) {
        return std::any_of(refs.begin(), refs.end(), [&](const BranchRef& r) { return r.name == name; });
    };
    if (auto symbolic = run.trimmed({"symbolic-ref", "--short", "refs/remotes/origin/HEAD"})) {
        std::string name = remotes.strip(*symbolic);
        if (!name.empty() && known(name)) map.baseBranch = name;
    }
    if (!map.baseBranch) {
        if (known("main")) map.baseBranch = "main";
        else if (known("master")) map.baseBranch = "master";
    }
    const BranchRef* baseRef = nullptr;
    for (const auto& ref : refs)
        if (map.baseBranch && ref.name == *map.baseBranch) baseRef = &ref;
    const std::optional<std::string> baseRev = baseRef ? revisionOf(*baseRef, remotes) : std::nullopt;

    // Which branches contain each tip: one read-only command per branch.
    std::vector<std::set<std::string>> contained(refs.size());
    run.runEach(refs.size(), [&](size_t i) {
        const auto& hash = refs[i].localSha ? refs[i].localSha : refs[i].remoteSha;
        if (hash) contained[i] = run.loadDescendants(*hash, remotes);
    });
    GitBranchDescendants descendants;
    for (size_t i = 0; i < refs.size(); ++i) {
        if (refs[i].localSha || refs[i].remoteSha) descendants[refs[i].name] = std::move(contained[i]);
    }

    std::unordered_set<std::string> firstParent;
    bool firstParentTruncated = false;
    if (baseRev) {
        if (auto text = run.output({"rev-list", "--first-parent", "--max-count=" + std::to_string(kFirstParentLimit), *baseRev})) {
            for (std::string_view line : splitLines(*text, false)) {
                std::string_view hash = trimWhitespace(line);
                if (!hash.empty()) firstParent.emplace(hash);
            }
            firstParentTruncated = static_cast<int64_t>(firstParent.size()) >= kFirstParentLimit;
        }
    }

    std::map<std::string, std::string> worktrees;
    if (auto text = run.output({"worktree", "list", "--porcelain"})) {
        std::optional<std::string> current;
        for (std::string_view line : splitLines(*text, true)) {
            if (line.empty()) {
                current.reset();
            } else if (line.rfind("worktree ", 0) == 0) {
                current = std::string(line.substr(9));
            } else if (line.rfind("branch ", 0) == 0) {
                std::string_view name = line.substr(7);
                if (name.rfind("refs/heads/", 0) == 0) name.remove_prefix(11);
                if (current && !name.empty()) worktrees[std::string(name)] = *current;
            }
        }
    }
    const std::string repositoryPath = standardizedPath(project.directory);

    // Alone: git status may write the index while it refreshes it.
    bool hasConflicts = false, hasUncommitted = false;
    if (auto text = run.output({"status", "--porcelain=v2", "--untracked-files=all"})) {
        for (std::string_view line : splitLines(*text, false)) {
            if (line.rfind("u ", 0) == 0) hasConflicts = true;
            if (line.rfind("1 ", 0) == 0 || line.rfind("2 ", 0) == 0 || line.rfind("? ", 0) == 0) hasUncommitted = true;
        }
    }

    // Classification and push state, a few read-only commands per branch.
    struct PushState {
        std::string state;
        std::optional<int64_t> count;
    };
    std::vector<GitBranchComputed> computed(refs.size());
    std::vector<PushState> pushStates(refs.size());
    run.runEach(refs.size(), [&](size_t i) {
        const BranchRef& ref = refs[i];
        GitBranchComputed& c = computed[i];
        auto undetermined = [&](const char* reason) {
            c.mergeState = "undetermined";
            c.undeterminedReason = reason;
        };
        if (!map.baseBranch) {
            undetermined(map.isShallow ? "shallow" : "baseUnknown");
        } else if (ref.name == *map.baseBranch) {
            c.mergeState = "base";
        } else if (map.isShallow) {
            undetermined("shallow");
        } else if (!baseRev) {
            undetermined("baseUnknown");
        } else if (auto branchRev = revisionOf(ref, remotes); !branchRev) {
            undetermined("baseUnknown");
        } else if (auto counts = run.loadAheadBehind(*baseRev, *branchRev); !counts) {
            undetermined("commandFailed");
        } else {
            c.ahead = counts->ahead;
            c.behind = counts->behind;
            if (holds(descendants, ref.name, *map.baseBranch)) {
                c.mergeState = "merged";
                const auto& hash = ref.localSha ? ref.localSha : ref.remoteSha;
                if (hash) {
                    if (firstParent.count(*hash)) c.integration = "fastForward";
                    else if (!firstParent.empty() && !firstParentTruncated) c.integration = "mergeCommit";
                    else c.integration = "unknown";
                }
            } else if (counts->ahead <= 0) {
                c.mergeState = "unmerged";
            } else {
                auto mergeBase = run.trimmed({"merge-base", *baseRev, *branchRev});
                if (!mergeBase || mergeBase->empty()) undetermined("commandFailed");
                else if (firstParent.count(*mergeBase)) c.mergeState = "unmerged";
                // The branch went in through a merge and has new commits behind it.
                else if (!firstParent.empty() && !firstParentTruncated) c.mergeState = "mergedWithFollowUp";
                else undetermined("historyTooLong");
            }
            if (c.mergeState == "unmerged" || c.mergeState == "mergedWithFollowUp")
                c.changedFiles = run.loadChangedFiles(*baseRev, *branchRev);
        }

        PushState& push = pushStates[i];
        if (!ref.localSha) {
            push = {"pushed", 0};
        } else if ((!ref.upstream && !ref.remoteSha) || (!ref.upstream && remotes.names.empty())) {
            push = {"noUpstream", std::nullopt};
        } else if (ref.remoteSha && *ref.remoteSha == *ref.localSha) {
            push = {"pushed", 0};
        } else {
            std::string target = ref.upstream ? *ref.upstream : remotes.names.front() + "/" + ref.name;
            auto text = run.trimmed({"rev-list", "--count", target + ".." + *ref.localSha});
            auto count = text ? strictInteger(*text) : std::nullopt;
            if (!count) push = {"noUpstream", std::nullopt};
            else if (*count > 0) push = {"unpushed", *count};
            else push = {"pushed", 0};
        }
    });

    std::map<std::string, GitBranchComputed> computedByName;
    for (size_t i = 0; i < refs.size(); ++i) computedByName[refs[i].name] = computed[i];
    auto overlaps = computeOverlaps(computedByName);

    std::vector<GitBranchMapNode> nodes;
    nodes.reserve(refs.size());
    for (size_t i = 0; i < refs.size(); ++i) {
        const BranchRef& ref = refs[i];
        GitBranchComputed& c = computed[i];
        GitBranchMapNode node;
        node.name = ref.name;
        if (ref.subject && !ref.subject->empty()) node.recentSubject = ref.subject;
        node.isCurrent = map.currentBranch && ref.name == *map.currentBranch;
        node.isBase = map.baseBranch && ref.name == *map.baseBranch;
        ParentChoice parent = resolveParent(ref, map.baseBranch, refs, descendants);
        node.parent = std::move(parent.parent);
        node.parentConfidence = std::move(parent.confidence);
        node.mergeState = std::move(c.mergeState);
        node.undeterminedReason = std::move(c.undeterminedReason);
        node.integration = std::move(c.integration);
        node.aheadOfBase = c.ahead;
        node.behindBase = c.behind;
        if (c.changedFiles) node.changedFileCount = static_cast<int64_t>(c.changedFiles->size());
        node.location = !ref.localSha ? "remoteOnly" : !ref.remoteSha ? "local" : "localAndRemote";
        node.pushState = std::move(pushStates[i].state);
        node.unpushedCount = pushStates[i].count;
        if (auto it = worktrees.find(ref.name); it != worktrees.end()) {
            node.worktreePath = it->second;
            node.inUseByOtherWorktree = standardizedPath(it->second) != repositoryPath;
        }
        if (node.isCurrent) {
            node.hasUncommittedChanges = hasUncommitted;
            node.hasConflicts = hasConflicts;
        }
        node.lastCommitDate = ref.date;
        node.isCleanupCandidate = node.mergeState == "merged" && ref.localSha && !node.isBase;
        if (auto it = overlaps.find(ref.name); it != overlaps.end()) node.overlaps = std::move(it->second);
        nodes.push_back(std::move(node));
    }

    applyPriority(nodes, map.baseBranch, descendants, now);
    sortBranchNodes(nodes);
    map.totalCount = static_cast<int64_t>(nodes.size());
    map.nodes = boundedNodes(std::move(nodes), limit);
    map.truncatedCount = std::max<int64_t>(0, map.totalCount - static_cast<int64_t>(map.nodes.size()));
    return map;
}

}  // namespace velko
