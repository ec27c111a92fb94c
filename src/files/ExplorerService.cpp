#include "files/ExplorerService.h"

#include <sys/stat.h>

#include <algorithm>

#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "files/InotifyExplorerWatcher.h"
#include "files/PathRules.h"

namespace velko {

namespace {

// The directory whose listing an event makes stale.
std::string affectedDirectory(const ExplorerFileEvent& event, const std::string& relativePath,
                              const std::string& standardizedPath) {
    if (relativePath.empty()) return {};
    std::string parent(parentPath(relativePath));
    switch (event.itemKind) {
        case ExplorerFileItemKind::File:
            return parent;
        case ExplorerFileItemKind::Directory:
            // Its contents changed, or the entry itself appeared or went.
            if (event.changeKind == ExplorerFileChangeKind::Modified ||
                event.changeKind == ExplorerFileChangeKind::Unknown)
                return relativePath;
            return parent;
        case ExplorerFileItemKind::Unknown:
            break;
    }
    struct stat st {};
    if (stat(standardizedPath.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return relativePath;
    return parent;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

ExplorerService::ExplorerService() : ExplorerService(Options{}) {}

ExplorerService::ExplorerService(Options options)
    : m_debounceInterval(options.debounceInterval),
      m_debounceQueue(std::move(options.debounceQueue)),
      m_callbackQueue(std::move(options.callbackQueue)),
      m_watcherFactory(std::move(options.watcherFactory)) {
    if (!m_debounceQueue) m_debounceQueue = std::make_shared<SerialQueue>("app.velko.explorer.debounce");
    if (!m_watcherFactory) {
        m_watcherFactory = [](const std::string& root, const ExplorerExclusionRules& rules) {
            return std::make_unique<InotifyExplorerWatcher>(root, rules);
        };
    }
}

ExplorerService::~ExplorerService() { stopMonitoring(); }

TaskQueue& ExplorerService::callbackQueue() const { return m_callbackQueue ? *m_callbackQueue : mainQueue(); }

std::vector<ExplorerDirectorySnapshot> ExplorerService::listDirectories(
    std::string_view rootPath, const std::vector<std::string>& relativePaths,
    const std::vector<std::string>& excludedPaths) const {
    return listExplorerDirectories(rootPath, relativePaths, excludedPaths, homeDirectory());
}

bool ExplorerService::activateMonitoring(const Uuid& projectId, const std::string& rootPath,
                                         const std::vector<std::string>& excludedPaths, ChangeHandler onChange) {
    stopMonitoring();
    std::string root = resolveSymlinks(standardizePath(rootPath, homeDirectory()));
    ExplorerExclusionRules rules(excludedPaths);
    Uuid generation = Uuid::random();
    auto watcher = m_watcherFactory(root, rules);
    if (!watcher) return false;
    ExplorerEventWatching* started = watcher.get();
    {
        std::lock_guard lock(m_lock);
        m_context = Context{generation, projectId, root, std::move(rules), std::move(onChange)};
        m_watcher = std::move(watcher);
    }
    std::weak_ptr<ExplorerService> weak = weak_from_this();
    bool running = started->start([weak, generation](std::vector<ExplorerFileEvent> events) {
        if (auto self = weak.lock()) self->record(std::move(events), generation);
    });
    if (!running) {
        stopMonitoring();
        return false;
    }
    return true;
}

void ExplorerService::stopMonitoring() {
    std::unique_ptr<ExplorerEventWatching> watcher;
    std::shared_ptr<WorkItem> item;
    {
        std::lock_guard lock(m_lock);
        watcher = std::move(m_watcher);
        m_context.reset();
        m_pendingDirectoryPaths.clear();
        m_pendingRequiresResync = false;
        item = std::move(m_debounceWorkItem);
    }
    if (item) item->cancelled = true;
    if (watcher) watcher->stop();
}

bool ExplorerService::isMonitoring() const {
    std::lock_guard lock(m_lock);
    return m_context.has_value();
}

bool ExplorerService::isMonitoring(const Uuid& generation) const {
    std::lock_guard lock(m_lock);
    return m_context && m_context->generation == generation;
}

IndexedFileEvent ExplorerService::index(const ExplorerFileEvent& event, const std::string& rootPath,
                                        const ExplorerExclusionRules& rules) {
    IndexedFileEvent indexed{event, standardizePath(event.path, {}), std::nullopt, false};
    const std::string& path = indexed.standardizedPath;
    bool isRoot = path == rootPath;
    if (isRoot && event.itemKind == ExplorerFileItemKind::Directory && !event.requiresResync)
        indexed.event.changeKind = ExplorerFileChangeKind::Modified;
    std::string prefix = rootPath == "/" ? rootPath : rootPath + "/";
    if (!isRoot && !startsWith(path, prefix)) {
        if (event.requiresResync) indexed.directoryPath = std::string();
        return indexed;
    }
    std::string relative = isRoot ? std::string() : path.substr(prefix.size());
    if (rules.contains(relative)) {
        indexed.isExcluded = true;
        return indexed;
    }
    indexed.directoryPath = affectedDirectory(indexed.event, relative, path);
    return indexed;
}

void ExplorerService::record(std::vector<ExplorerFileEvent> events, const Uuid& generation) {
    std::string rootPath;
    std::optional<ExplorerExclusionRules> rules;
    {
        std::lock_guard lock(m_lock);
        if (!m_context || m_context->generation != generation) return;
        rootPath = m_context->rootPath;
        rules = m_context->exclusions;
    }

    std::vector<IndexedFileEvent> indexed;
    indexed.reserve(events.size());
    std::vector<std::string> pathIndex;
    pathIndex.reserve(events.size());
    for (const auto& event : events) {
        indexed.push_back(index(event, rootPath, *rules));
        pathIndex.push_back(indexed.back().standardizedPath);
    }
    std::sort(pathIndex.begin(), pathIndex.end());
    pathIndex.erase(std::unique(pathIndex.begin(), pathIndex.end()), pathIndex.end());

    std::vector<std::pair<std::string, bool>> kept;
    for (const auto& item : indexed) {
        if (item.isExcluded || !item.directoryPath) continue;
        const auto& event = item.event;
        if (!event.requiresResync && event.itemKind == ExplorerFileItemKind::Directory &&
            (event.changeKind == ExplorerFileChangeKind::Modified ||
             event.changeKind == ExplorerFileChangeKind::Unknown)) {
            // The child's own event already marks this directory stale.
            std::string prefix = item.standardizedPath;
            if (prefix.empty() || prefix.back() != '/') prefix.push_back('/');
            auto found = std::lower_bound(pathIndex.begin(), pathIndex.end(), prefix);
            if (found != pathIndex.end() && startsWith(*found, prefix)) continue;
        }
        kept.emplace_back(*item.directoryPath, event.requiresResync);
    }
    if (kept.empty()) return;

    auto item = std::make_shared<WorkItem>();
    std::shared_ptr<WorkItem> previous;
    {
        std::lock_guard lock(m_lock);
        if (!m_context || m_context->generation != generation) return;
        for (auto& [directory, resync] : kept) {
            m_pendingDirectoryPaths.insert(std::move(directory));
            m_pendingRequiresResync = m_pendingRequiresResync || resync;
        }
        previous = std::exchange(m_debounceWorkItem, item);
    }
    if (previous) previous->cancelled = true;
    std::weak_ptr<ExplorerService> weak = weak_from_this();
    m_debounceQueue->postDelayed(m_debounceInterval, [weak, generation, item] {
        if (item->cancelled) return;
        if (auto self = weak.lock()) self->flushChanges(generation, item);
    });
}

void ExplorerService::flushChanges(const Uuid& generation, const std::shared_ptr<WorkItem>& item) {
    ExplorerChangeBatch batch;
    ChangeHandler onChange;
    {
        std::lock_guard lock(m_lock);
        if (!m_context || m_context->generation != generation || m_debounceWorkItem != item) return;
        batch.projectId = m_context->projectId;
        batch.directoryPaths.assign(m_pendingDirectoryPaths.begin(), m_pendingDirectoryPaths.end());
        batch.requiresResync = m_pendingRequiresResync;
        m_pendingDirectoryPaths.clear();
        m_pendingRequiresResync = false;
        m_debounceWorkItem.reset();
        onChange = m_context->onChange;
    }
    std::weak_ptr<ExplorerService> weak = weak_from_this();
    callbackQueue().post([weak, generation, batch = std::move(batch), onChange = std::move(onChange)] {
        auto self = weak.lock();
        // A stop that came after the flush took its batch still wins.
        if (!self || !self->isMonitoring(generation) || !onChange) return;
        onChange(batch);
    });
}

}  // namespace velko
