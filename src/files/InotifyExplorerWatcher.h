#pragma once
// InotifyExplorerWatcher: a recursive watcher of one folder over inotify.
//
// inotify watches one directory at a time, so the watcher keeps a watch per
// directory below the root (excluded folders such as `.git` and
// `node_modules` are not watched at all). A directory that appears later is
// watched at once and scanned, and what the scan finds is reported as
// created, so files made in the same instant as their folder are not missed.
// A queue overflow, the loss of the root or running out of watches becomes
// one event with `requiresResync`, never a crash and never silent loss. The
// root's parent is watched for the root's name as well: while a process has
// the root as its working directory, the kernel holds the root's own deletion
// event back until that process lets go, but the parent learns at once.
//
// The first walk also removes what a killed save left in the folders it reads
// (see SaveLeftovers.h), since it reads every folder of the project anyway.
//
// Events are collected for a short latency (0.2 s from the first of a burst)
// and handed over as one delivery, with duplicates removed. Everything runs on
// the watcher's own thread ("app.velko.explorer.fsevents"); start and stop are
// called from one owner thread. Descriptors are close-on-exec.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>

#include "files/DirectoryReader.h"
#include "files/ExplorerEventWatching.h"
#include "files/ExplorerListing.h"

namespace velko {

// One inotify event as the explorer sees it. `isRoot` tells whether the
// watch the event came from is the root's. Nothing for events that carry no
// change of their own (IN_IGNORED, self events of inner directories).
std::optional<ExplorerFileEvent> explorerEventFromInotify(uint32_t mask, const std::string& path, bool isRoot);

class InotifyExplorerWatcher final : public ExplorerEventWatching {
public:
    static constexpr std::chrono::milliseconds kLatency{200};

    // `maxWatches` caps the watches this tree may take (0: only the system's
    // limit counts), so one huge checkout cannot use up the inotify watches
    // every other program of the user shares. Reaching either limit is the
    // same "rescan needed" signal.
    InotifyExplorerWatcher(std::string rootPath, ExplorerExclusionRules rules,
                           std::chrono::milliseconds latency = kLatency, size_t maxWatches = 0);
    ~InotifyExplorerWatcher() override;

    bool start(Handler handler) override;
    void stop() override;

    // Directories watched right now; for tests and benchmarks (owner thread,
    // only while stopped or after `waitUntilScanned`).
    size_t watchCountForTesting() const { return m_watchCount.load(); }
    // Blocks until the initial walk of the tree is done.
    void waitUntilScanned();

private:
    void run();
    void processEvents(const char* buffer, size_t length);
    void processParentEvent(uint32_t mask, std::string_view name);
    // Watches `directory` and everything below it; with `reportContents`, the
    // entries found are reported as created.
    void watchTree(const std::string& directory, bool reportContents);
    void unwatchTree(const std::string& directory);
    bool isExcludedDirectory(const std::string& path) const;
    void append(ExplorerFileEvent event);
    void deliver();
    void reportResync(ExplorerFileChangeKind kind);

    std::string m_root;
    ExplorerExclusionRules m_rules;
    std::chrono::milliseconds m_latency;
    size_t m_maxWatches;
    Handler m_handler;
    int m_inotifyFd = -1;
    int m_stopFd = -1;
    int m_rootWatch = -1;
    int m_parentWatch = -1;  // the root's parent, for the root's own name only
    std::string m_rootName;
    std::thread m_thread;
    // Set by stop() so that a long first walk of a big tree ends early
    // instead of holding the caller (the main thread) until it is done.
    std::atomic<bool> m_stopRequested{false};
    std::unordered_map<int, std::string> m_watches;  // watcher thread only, once started
    DirectoryReader m_reader;                         // watcher thread only
    std::atomic<size_t> m_watchCount{0};
    std::vector<ExplorerFileEvent> m_pending;
    std::unordered_map<std::string, size_t> m_pendingKeys;
    std::optional<std::chrono::steady_clock::time_point> m_deadline;
    bool m_reportedOutOfWatches = false;
    // While the first walk runs: a folder whose entries changed after this
    // moment changed before its watch could tell, so it is reported stale.
    std::optional<timespec> m_changedSince;
    std::mutex m_scanMutex;
    std::condition_variable m_scanDone;
    bool m_scanned = true;  // nothing to wait for until a start
};

}  // namespace velko
