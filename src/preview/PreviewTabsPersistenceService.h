#pragma once
// PreviewTabsPersistenceService: keeps the open preview tabs of every project
// in one JSON database, "projects.db" in velko's data folder, so that a
// project's tabs come back when it is opened again, and finds the restored
// tabs whose files have gone.
//
// The whole file is read once, at construction; afterwards memory is the
// truth and every persist rewrites the file whole (atomically). A damaged file,
// or one of another version, reads as empty and is kept as "projects.db.bad"
// before the first write replaces it.
//
// Threads: storedState() and persist() may be called from any thread; one
// lock covers the projects and the file (the bridge calls them on the main
// thread, and a persist blocks it for the write). detectMissingTabs() touches
// the project's folder, which may be a slow or hung disk, so it belongs on a
// worker queue, never the main thread. Owned by the composition root; the
// bridge holds it.

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Log.h"
#include "core/Result.h"
#include "core/Time.h"
#include "core/Uuid.h"
#include "preview/PreviewTabsState.h"
#include "workspace/Models.h"

namespace velko {

struct PreviewTabsHydrationResult {
    PreviewTabsState snapshot;
    std::vector<PreviewTabWarning> warnings;
};

struct PreviewTabsWriteError {
    std::string description;  // the system's reason
};

class PreviewTabsPersistenceService {
public:
    static constexpr int64_t kDatabaseVersion = 1;
    static constexpr std::string_view kDatabaseName = "projects.db";

    struct Options {
        std::optional<std::string> storageDirectory = {};  // default: $XDG_DATA_HOME/velko
        std::function<SystemTime()> clock = {};        // default: the system clock
    };

    PreviewTabsPersistenceService();
    explicit PreviewTabsPersistenceService(Options options);

    const std::string& databasePath() const { return m_databasePath; }

    // The project's stored state, or the empty state (also for a stored state
    // of another version, which stays stored until the next persist).
    PreviewTabsState storedState(const Uuid& projectId);

    // The tabs of `state` whose file is not below `projectRoot` (or names a
    // folder, or a path that leaves the project). No root: no warnings, so a
    // project on an unmounted disk does not flag its tabs. Touches the disk.
    static std::vector<PreviewTabWarning> detectMissingTabs(const PreviewTabsState& state,
                                                            const std::optional<std::string>& projectRoot,
                                                            std::string_view homePath);

    // storedState() and the warnings for the project's folder, in one call.
    PreviewTabsHydrationResult hydrateSnapshot(const ProjectMetadata& project);

    // Stores the state with the current time and rewrites the file. On a
    // failed write memory keeps the new state and the error is returned.
    Status<PreviewTabsWriteError> persist(const PreviewTabsState& snapshot, const Uuid& projectId);

private:
    struct ProjectSnapshot {
        SystemTime updatedAt;
        PreviewTabsState previewTabs;
    };

    void ensureStorageDirectoryExists();
    void loadFromDisk();
    Status<PreviewTabsWriteError> persistToDisk();

    Logger m_logger{"app.velko.preview-tabs", "persistence"};
    std::string m_storageDirectory;
    std::string m_databasePath;
    std::function<SystemTime()> m_clock;
    std::mutex m_mutex;  // over m_snapshots, m_keepBadFileAside and the file
    std::map<Uuid, ProjectSnapshot> m_snapshots;
    bool m_keepBadFileAside = false;
};

}  // namespace velko
