#pragma once
// The explorer's listing: exclusion rules and one-level directory snapshots.
//
// Stateless and synchronous; safe on any thread, called on the bridge's file
// queue. Listing never fails as a whole: each requested directory gets its own
// snapshot, with an error token where it could not be listed. Symbolic links
// inside a directory are left out of its listing, so a link loop can never be
// walked; a request naming a link directly is served when its target lies
// inside the project.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Json.h"

namespace velko {

class ExplorerExclusionRules {
public:
    // ".git", ".DS_Store", "node_modules", "Pods", "tmp", ".build".
    static const std::vector<std::string>& projectDefaults();

    // The defaults plus the project's own entries: a bare name excludes that
    // name at every depth, a path with a "/" excludes only that subtree.
    // Absolute entries and entries that leave the project are ignored.
    explicit ExplorerExclusionRules(const std::vector<std::string>& projectPaths = {});

    // The root ("") is never excluded.
    bool contains(std::string_view relativePath) const;
    // True when a single entry name is one of the excluded names.
    bool containsName(std::string_view name) const;
    // `contains` for an entry `name` (at `relativePath`) of a folder that is
    // itself not excluded: only the entry's own name and the excluded paths
    // can match then. The listing and the watcher ask this once per entry.
    bool containsChild(std::string_view relativePath, std::string_view name) const;

    const std::vector<std::string>& names() const { return m_names; }
    const std::vector<std::string>& paths() const { return m_paths; }

private:
    std::vector<std::string> m_names;  // few entries: a linear scan beats hashing
    std::vector<std::string> m_paths;
};

enum class ExplorerNodeType { Folder, File };

struct ExplorerNode {
    std::string name;
    std::string path;
    ExplorerNodeType type = ExplorerNodeType::File;
};

struct ExplorerDirectorySnapshot {
    std::string path;
    std::vector<ExplorerNode> nodes;
    std::string error;  // empty on success, else a machine token
};

// Lists each of `relativePaths` below `rootPath`, in order.
std::vector<ExplorerDirectorySnapshot> listExplorerDirectories(std::string_view rootPath,
                                                               const std::vector<std::string>& relativePaths,
                                                               const std::vector<std::string>& excludedPaths,
                                                               std::string_view homePath);

// The resolved directory for a normalised relative path, if it exists, is a
// directory and (after following links) lies inside `resolvedRoot`.
std::optional<std::string> resolveExplorerDirectory(std::string_view relativePath, std::string_view resolvedRoot);

// The JSON of one snapshot, keys in the page's order; `error` only when set.
OrderedJson explorerSnapshotJson(const ExplorerDirectorySnapshot& snapshot);


}  // namespace velko
