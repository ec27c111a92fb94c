#include "files/ExplorerListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

#include "core/NameCollation.h"
#include "core/Paths.h"
#include "files/PathRules.h"

namespace velko {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

struct ListedEntry {
    ExplorerNode node;
    std::string key;
};

bool listDirectChildren(const std::string& directory, const std::string& directoryRelative,
                        const ExplorerExclusionRules& rules, std::vector<ExplorerNode>& out) {
    int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    std::unique_ptr<DIR, DirCloser> dir(fdopendir(fd));
    if (!dir) {
        close(fd);
        return false;
    }
    std::vector<ListedEntry> entries;
    while (dirent* entry = readdir(dir.get())) {
        std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        std::string relative = directoryRelative.empty() ? std::string(name) : directoryRelative + "/" + std::string(name);
        if (rules.contains(relative)) continue;
        unsigned char type = entry->d_type;
        if (type == DT_UNKNOWN) {
            // Some file systems do not fill d_type; ask without following links.
            struct stat st {};
            if (fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_LNK;
        }
        if (type != DT_DIR && type != DT_REG) continue;
        ListedEntry listed;
        listed.node.name = name;
        listed.node.path = std::move(relative);
        listed.node.type = type == DT_DIR ? ExplorerNodeType::Folder : ExplorerNodeType::File;
        listed.key = caseInsensitiveSortKey(listed.node.name);
        entries.push_back(std::move(listed));
    }
    std::stable_sort(entries.begin(), entries.end(), [](const ListedEntry& a, const ListedEntry& b) {
        if (a.node.type != b.node.type) return a.node.type == ExplorerNodeType::Folder;
        return a.key < b.key;
    });
    out.reserve(entries.size());
    for (auto& entry : entries) out.push_back(std::move(entry.node));
    return true;
}

}  // namespace

const std::vector<std::string>& ExplorerExclusionRules::projectDefaults() {
    static const std::vector<std::string> kDefaults{".git", ".DS_Store", "node_modules", "Pods", "tmp", ".build"};
    return kDefaults;
}

ExplorerExclusionRules::ExplorerExclusionRules(const std::vector<std::string>& projectPaths) {
    for (const auto& entry : projectDefaults()) {
        if (entry.find('/') == std::string::npos)
            m_names.push_back(entry);
        else
            m_paths.push_back(entry);
    }
    for (const auto& entry : projectPaths) {
        if (entry.empty() || entry == "." || entry.front() == '/') continue;
        // A tilde entry expands to an absolute path, which never matches a relative one.
        std::string standardized = standardizePath(entry, entry.front() == '~' ? homeDirectory() : std::string());
        if (standardized == ".." || standardized.rfind("../", 0) == 0 || standardized == "." ||
            (!standardized.empty() && standardized.front() == '/'))
            continue;
        if (standardized.find('/') != std::string::npos) {
            m_paths.push_back(std::move(standardized));
        } else if (!containsName(standardized)) {
            m_names.push_back(std::move(standardized));
        }
    }
}

bool ExplorerExclusionRules::containsName(std::string_view name) const {
    return std::find(m_names.begin(), m_names.end(), name) != m_names.end();
}

bool ExplorerExclusionRules::contains(std::string_view path) const {
    if (path.empty()) return false;
    size_t i = 0;
    while (i < path.size()) {
        size_t next = path.find('/', i);
        if (next == std::string_view::npos) next = path.size();
        if (next > i && containsName(path.substr(i, next - i))) return true;
        i = next + 1;
    }
    for (const auto& excluded : m_paths) {
        if (path == excluded) return true;
        if (path.size() > excluded.size() && path.compare(0, excluded.size(), excluded) == 0 &&
            path[excluded.size()] == '/')
            return true;
    }
    return false;
}

std::optional<std::string> resolveExplorerDirectory(std::string_view relativePath, std::string_view resolvedRoot) {
    std::string candidate = appendPath(resolvedRoot, relativePath);
    std::unique_ptr<char, decltype(&std::free)> resolved(realpath(candidate.c_str(), nullptr), std::free);
    if (!resolved) return std::nullopt;
    std::string path = resolved.get();
    if (!isContained(path, resolvedRoot)) return std::nullopt;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::nullopt;
    return path;
}

std::vector<ExplorerDirectorySnapshot> listExplorerDirectories(std::string_view rootPath,
                                                               const std::vector<std::string>& relativePaths,
                                                               const std::vector<std::string>& excludedPaths,
                                                               std::string_view homePath) {
    std::string root = resolveSymlinks(standardizePath(rootPath, homePath));
    ExplorerExclusionRules rules(excludedPaths);
    std::vector<ExplorerDirectorySnapshot> snapshots;
    snapshots.reserve(relativePaths.size());
    for (const auto& requested : relativePaths) {
        ExplorerDirectorySnapshot snapshot;
        snapshot.path = requested;
        auto normalized = normalizeRelativePath(requested, homePath);
        if (!normalized) {
            snapshot.error = "invalidPath";
        } else if (rules.contains(*normalized)) {
            snapshot.error = "excluded";
        } else if (auto directory = resolveExplorerDirectory(*normalized, root); !directory) {
            snapshot.error = "notFound";
        } else {
            snapshot.path = *normalized;
            // Entries are named from where the directory really is, so a
            // request through a link lists the paths of its target.
            std::string directoryRelative = relativePathFromRoot(*directory, root).value_or(*normalized);
            if (!listDirectChildren(*directory, directoryRelative, rules, snapshot.nodes)) {
                snapshot.nodes.clear();
                snapshot.error = "unreadable";
            }
        }
        snapshots.push_back(std::move(snapshot));
    }
    return snapshots;
}

OrderedJson explorerSnapshotJson(const ExplorerDirectorySnapshot& snapshot) {
    OrderedJson nodes = OrderedJson::array();
    for (const auto& node : snapshot.nodes) {
        nodes.push_back(OrderedJson{{"name", node.name},
                                    {"path", node.path},
                                    {"type", node.type == ExplorerNodeType::Folder ? "folder" : "file"}});
    }
    OrderedJson json{{"path", snapshot.path}, {"nodes", std::move(nodes)}};
    if (!snapshot.error.empty()) json["error"] = snapshot.error;
    return json;
}

}  // namespace velko
