#include "preview/PreviewTabsPersistenceService.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/PathText.h"
#include "core/Paths.h"
#include "files/PathRules.h"
#include "files/ProjectFileAccess.h"

namespace velko {

namespace {

constexpr const char* kFileMissingCode = "file_missing";
constexpr const char* kFileMissingMessage = "ファイルが見つかりません";

std::string replaceDoubledSlashes(std::string path) {
    for (size_t at; (at = path.find("//")) != std::string::npos;) path.replace(at, 2, "/");
    return path;
}

}  // namespace

PreviewTabsPersistenceService::PreviewTabsPersistenceService() : PreviewTabsPersistenceService(Options{}) {}

PreviewTabsPersistenceService::PreviewTabsPersistenceService(Options options)
    : m_storageDirectory(options.storageDirectory.value_or(dataDirectory())),
      m_databasePath(appendPath(m_storageDirectory, kDatabaseName)),
      m_clock(std::move(options.clock)) {
    if (!m_clock) m_clock = [] { return std::chrono::system_clock::now(); };
    ensureStorageDirectoryExists();
    loadFromDisk();
}

void PreviewTabsPersistenceService::ensureStorageDirectoryExists() {
    if (!createDirectories(m_storageDirectory))
        m_logger.error("previewTabs: failed to create storage directory: " + std::string(std::strerror(errno)));
}

void PreviewTabsPersistenceService::loadFromDisk() {
    struct stat st{};
    if (stat(m_databasePath.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR)) return;
    auto damaged = [this](const std::string& reason) {
        m_logger.error("previewTabs: failed to load database: " + reason);
        m_keepBadFileAside = true;
    };
    std::string text;
    if (!readWholeFile(m_databasePath, text)) return damaged(std::strerror(errno));
    auto root = parseJson(text);
    if (!root || !root->is_object()) return damaged("not a JSON object");
    // The version is checked before the rest: a newer file may have another shape.
    auto version = json::integer(&*root, "version");
    if (!version) return damaged("no version");
    if (*version != kDatabaseVersion) {
        m_logger.error("previewTabs: database version " + std::to_string(*version) +
                       " is not supported. Resetting cache.");
        m_keepBadFileAside = true;
        return;
    }
    const Json* projects = json::array(&*root, "projects");
    if (!projects) return damaged("no projects");
    std::map<Uuid, ProjectSnapshot> loaded;
    for (const auto& entry : *projects) {
        auto projectId = json::uuid(&entry, "projectId");
        auto updatedText = json::string(&entry, "updatedAt");
        auto updatedAt = updatedText ? parseIso8601(*updatedText) : std::nullopt;
        const Json* tabs = json::member(&entry, "previewTabs");
        auto state = tabs ? decodePreviewTabsState(*tabs) : std::nullopt;
        if (!projectId || !updatedAt || !state) return damaged("a project entry does not decode");
        // A later entry for the same project wins.
        loaded.insert_or_assign(*projectId, ProjectSnapshot{*updatedAt, std::move(*state)});
    }
    m_snapshots = std::move(loaded);
}

PreviewTabsState PreviewTabsPersistenceService::storedState(const Uuid& projectId) {
    std::optional<PreviewTabsState> state;
    {
        std::lock_guard lock(m_mutex);
        if (auto found = m_snapshots.find(projectId); found != m_snapshots.end()) state = found->second.previewTabs;
    }
    if (!state) return {};
    if (state->version != PreviewTabsState::kVersion) {
        m_logger.notice("previewTabs: snapshot version mismatch for project " + projectId.toString() +
                        ". Resetting to empty state.");
        return {};
    }
    return std::move(*state);
}

std::vector<PreviewTabWarning> PreviewTabsPersistenceService::detectMissingTabs(
    const PreviewTabsState& state, const std::optional<std::string>& projectRoot, std::string_view homePath) {
    std::vector<PreviewTabWarning> warnings;
    if (!projectRoot) return warnings;
    for (const auto& tab : state.tabs) {
        bool missing = true;
        auto relative = sanitizeRelativePath(tab.path, homePath);
        if (relative && !relative->empty()) {
            std::string target = appendPath(*projectRoot, replaceDoubledSlashes(*relative));
            struct stat st{};
            missing = stat(target.c_str(), &st) != 0 || S_ISDIR(st.st_mode);
        }
        if (missing) warnings.push_back({tab.id, tab.path, kFileMissingCode, kFileMissingMessage});
    }
    return warnings;
}

PreviewTabsHydrationResult PreviewTabsPersistenceService::hydrateSnapshot(const ProjectMetadata& project) {
    PreviewTabsHydrationResult result;
    result.snapshot = storedState(project.id);
    std::string home = homeDirectory();
    result.warnings = detectMissingTabs(result.snapshot, projectRootPath(project, home), home);
    return result;
}

Status<PreviewTabsWriteError> PreviewTabsPersistenceService::persist(const PreviewTabsState& snapshot,
                                                                     const Uuid& projectId) {
    std::lock_guard lock(m_mutex);
    m_snapshots.insert_or_assign(projectId, ProjectSnapshot{m_clock(), snapshot});
    return persistToDisk();
}

Status<PreviewTabsWriteError> PreviewTabsPersistenceService::persistToDisk() {
    ensureStorageDirectoryExists();
    if (m_keepBadFileAside) {
        // What could not be read is not silently lost: it moves aside once.
        std::string aside = m_databasePath + ".bad";
        if (std::rename(m_databasePath.c_str(), aside.c_str()) == 0 || errno == ENOENT) m_keepBadFileAside = false;
    }
    OrderedJson projects = OrderedJson::array();
    for (const auto& [projectId, entry] : m_snapshots) {
        projects.push_back(OrderedJson{{"projectId", projectId.toString()},
                                       {"updatedAt", formatIso8601(entry.updatedAt)},
                                       {"previewTabs", encodePreviewTabsState(entry.previewTabs)}});
    }
    OrderedJson envelope{{"version", kDatabaseVersion}, {"projects", std::move(projects)}};
    // Tab paths name the user's files: the database is private to them.
    if (!writeFileAtomically(m_databasePath, dumpJson(envelope), 0600)) {
        std::string reason = std::strerror(errno);
        m_logger.error("previewTabs: failed to write database: " + reason);
        return fail(PreviewTabsWriteError{reason});
    }
    return Ok{};
}

}  // namespace velko
