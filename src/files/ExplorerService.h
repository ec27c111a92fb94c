#pragma once
// ExplorerService: the explorer's listings and the monitoring of the active
// project's folder.
//
// Listing is stateless and runs on the caller's queue (the bridge's file
// queue). Monitoring turns the raw events of one watcher into batches of
// directories the page should list again: events are indexed against the
// project, excluded and outside paths dropped, a directory's own "contents
// changed" event suppressed when the same delivery names something below it,
// and the rest collected until no event has come for `debounceInterval`
// (a trailing debounce), then handed to `onChange` on the callback queue.
//
// Thread safety: one mutex guards the monitoring state; it is never held while
// the watcher stops, while events are indexed or while `onChange` runs. Each
// run has a generation, so a late delivery or flush of an earlier run (or of a
// stopped one) has no effect. Owned by the composition root and the bridge;
// destruction stops monitoring.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/TaskQueue.h"
#include "core/Uuid.h"
#include "files/ExplorerEventWatching.h"
#include "files/ExplorerListing.h"

namespace velko {

struct ExplorerChangeBatch {
    Uuid projectId;
    std::vector<std::string> directoryPaths;  // sorted, unique; "" is the root
    bool requiresResync = false;
};

struct IndexedFileEvent {
    ExplorerFileEvent event;
    std::string standardizedPath;
    std::optional<std::string> directoryPath;
    bool isExcluded = false;
};

class ExplorerService : public std::enable_shared_from_this<ExplorerService> {
public:
    using WatcherFactory =
        std::function<std::unique_ptr<ExplorerEventWatching>(const std::string& rootPath, const ExplorerExclusionRules&)>;
    using ChangeHandler = std::function<void(const ExplorerChangeBatch&)>;

    struct Options {
        Duration debounceInterval = std::chrono::milliseconds(400);
        std::shared_ptr<TaskQueue> debounceQueue;  // default: serial "app.velko.explorer.debounce"
        std::shared_ptr<TaskQueue> callbackQueue;  // default: the main queue
        WatcherFactory watcherFactory;             // default: the inotify watcher
    };

    ExplorerService();
    explicit ExplorerService(Options options);
    ~ExplorerService();

    std::vector<ExplorerDirectorySnapshot> listDirectories(std::string_view rootPath,
                                                           const std::vector<std::string>& relativePaths,
                                                           const std::vector<std::string>& excludedPaths) const;

    // Stops any earlier run, then watches `rootPath`. True when the watcher started.
    bool activateMonitoring(const Uuid& projectId, const std::string& rootPath,
                            const std::vector<std::string>& excludedPaths, ChangeHandler onChange);
    void stopMonitoring();
    bool isMonitoring() const;

    // From a raw event to its place in the project; exposed for tests.
    static IndexedFileEvent index(const ExplorerFileEvent& event, const std::string& rootPath,
                                  const ExplorerExclusionRules& rules);

private:
    struct Context {
        Uuid generation;
        Uuid projectId;
        std::string rootPath;
        ExplorerExclusionRules exclusions;
        ChangeHandler onChange;
    };
    struct WorkItem {
        std::atomic<bool> cancelled{false};
    };

    void record(std::vector<ExplorerFileEvent> events, const Uuid& generation);
    void flushChanges(const Uuid& generation, const std::shared_ptr<WorkItem>& item);
    bool isMonitoring(const Uuid& generation) const;
    TaskQueue& callbackQueue() const;

    Duration m_debounceInterval;
    std::shared_ptr<TaskQueue> m_debounceQueue;
    std::shared_ptr<TaskQueue> m_callbackQueue;
    WatcherFactory m_watcherFactory;

    mutable std::mutex m_lock;
    std::unique_ptr<ExplorerEventWatching> m_watcher;
    std::optional<Context> m_context;
    std::shared_ptr<WorkItem> m_debounceWorkItem;
    std::set<std::string> m_pendingDirectoryPaths;
    bool m_pendingRequiresResync = false;
};

}  // namespace velko
