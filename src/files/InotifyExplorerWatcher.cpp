#include "files/InotifyExplorerWatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "core/Log.h"
#include "files/PathRules.h"
#include "files/SaveLeftovers.h"

namespace velko {

namespace {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVED_FROM |
                                IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW |
                                IN_EXCL_UNLINK;

// The parent is watched only for the root itself going away.
constexpr uint32_t kParentMask = IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;

std::string joinPath(const std::string& directory, std::string_view name) {
    std::string path = directory;
    if (path.empty() || path.back() != '/') path.push_back('/');
    path.append(name);
    return path;
}

// Whether the directory open at `fd` had an entry added, removed or renamed
// at or after `since`.
bool changedSince(int fd, const timespec& since) {
    struct stat info {};
    if (fstat(fd, &info) != 0) return false;
    const timespec& changed = info.st_mtim;
    return changed.tv_sec > since.tv_sec || (changed.tv_sec == since.tv_sec && changed.tv_nsec >= since.tv_nsec);
}

}  // namespace

std::optional<ExplorerFileEvent> explorerEventFromInotify(uint32_t mask, const std::string& path, bool isRoot) {
    using Item = ExplorerFileItemKind;
    using Change = ExplorerFileChangeKind;
    if (mask & IN_Q_OVERFLOW) return ExplorerFileEvent{path, Item::Directory, Change::Unknown, true};
    if (mask & IN_IGNORED) return std::nullopt;
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        // An inner directory's own end is told by its parent; the root's is not.
        if (!isRoot) return std::nullopt;
        return ExplorerFileEvent{path, Item::Directory, (mask & IN_MOVE_SELF) ? Change::Renamed : Change::Removed, true};
    }
    Item item = (mask & IN_ISDIR) ? Item::Directory : Item::File;
    if (mask & IN_CREATE) return ExplorerFileEvent{path, item, Change::Created, false};
    if (mask & IN_DELETE) return ExplorerFileEvent{path, item, Change::Removed, false};
    if (mask & (IN_MOVED_FROM | IN_MOVED_TO)) return ExplorerFileEvent{path, item, Change::Renamed, false};
    if (mask & (IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB)) return ExplorerFileEvent{path, item, Change::Modified, false};
    return std::nullopt;
}

InotifyExplorerWatcher::InotifyExplorerWatcher(std::string rootPath, ExplorerExclusionRules rules,
                                               std::chrono::milliseconds latency, size_t maxWatches)
    : m_root(std::move(rootPath)), m_rules(std::move(rules)), m_latency(latency), m_maxWatches(maxWatches) {}

InotifyExplorerWatcher::~InotifyExplorerWatcher() { stop(); }

bool InotifyExplorerWatcher::start(Handler handler) {
    stop();
    // File systems stamp changes with the coarse clock, and a file server with
    // its own: a margin of a second keeps a change made just now from reading
    // as older. A folder changed within it is listed once more, no more.
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    now.tv_sec -= 1;
    m_changedSince = now;
    m_inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotifyFd < 0) return false;
    m_stopFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_rootWatch = m_stopFd < 0 ? -1 : inotify_add_watch(m_inotifyFd, m_root.c_str(), kWatchMask);
    if (m_rootWatch < 0) {
        stop();
        return false;
    }
    // Best effort: without the parent (the root is "/", no permission) the
    // root's own events still come, only later while it is someone's cwd.
    m_parentWatch = -1;
    if (auto slash = m_root.find_last_of('/'); slash != std::string::npos && m_root.size() > 1) {
        std::string parent = slash == 0 ? std::string("/") : m_root.substr(0, slash);
        m_rootName = m_root.substr(slash + 1);
        m_parentWatch = inotify_add_watch(m_inotifyFd, parent.c_str(), kParentMask);
        if (m_parentWatch == m_rootWatch) m_parentWatch = -1;
    }
    m_handler = std::move(handler);
    m_watches = {{m_rootWatch, m_root}};
    m_watchCount = 1;
    m_pending.clear();
    m_pendingKeys.clear();
    m_deadline.reset();
    m_reportedOutOfWatches = false;
    {
        std::lock_guard lock(m_scanMutex);
        m_scanned = false;
    }
    m_stopRequested = false;
    m_thread = std::thread([this] { run(); });
    return true;
}

void InotifyExplorerWatcher::stop() {
    if (m_thread.joinable()) {
        m_stopRequested = true;
        uint64_t one = 1;
        (void)!write(m_stopFd, &one, sizeof one);
        m_thread.join();
    }
    if (m_inotifyFd >= 0) close(m_inotifyFd);
    if (m_stopFd >= 0) close(m_stopFd);
    m_inotifyFd = m_stopFd = m_rootWatch = m_parentWatch = -1;
    m_watches.clear();
    m_handler = nullptr;
    // Wake anyone still waiting for a scan that will not come.
    std::lock_guard lock(m_scanMutex);
    m_scanned = true;
    m_scanDone.notify_all();
}

void InotifyExplorerWatcher::waitUntilScanned() {
    std::unique_lock lock(m_scanMutex);
    m_scanDone.wait(lock, [this] { return m_scanned; });
}

bool InotifyExplorerWatcher::isExcludedDirectory(const std::string& path) const {
    auto relative = relativePathFromRoot(path, m_root);
    return !relative || m_rules.contains(*relative);
}

void InotifyExplorerWatcher::reportResync(ExplorerFileChangeKind kind) {
    append(ExplorerFileEvent{m_root, ExplorerFileItemKind::Directory, kind, true});
}

void InotifyExplorerWatcher::watchTree(const std::string& top, bool reportContents) {
    if (isExcludedDirectory(top)) return;
    const size_t relativeStart = m_root == "/" ? 1 : m_root.size() + 1;
    const auto leftoverCutoff = processStartTime();
    std::vector<std::string> stack{top};
    while (!stack.empty() && !m_stopRequested.load(std::memory_order_relaxed)) {
        std::string next = std::move(stack.back());
        stack.pop_back();
        bool overBudget = m_maxWatches > 0 && m_watches.size() >= m_maxWatches;
        // Watched before it is read, so an entry made in between is told as an event.
        int wd = overBudget ? -1 : inotify_add_watch(m_inotifyFd, next.c_str(), kWatchMask);
        if (overBudget) errno = ENOSPC;
        if (wd < 0) {
            if (errno == ENOSPC && !m_reportedOutOfWatches) {
                // Out of watches: parts of the tree go unseen, so the page must
                // list again when it looks, and we say so once.
                m_reportedOutOfWatches = true;
                Logger("app.velko.explorer", "watcher").error("inotify watch limit reached below " + m_root);
                reportResync(ExplorerFileChangeKind::Unknown);
            }
            continue;
        }
        // Node-based map: the reference stays valid while the entries are read.
        const std::string& directory = m_watches[wd] = std::move(next);
        m_watchCount = m_watches.size();
        if (!m_reader.open(AT_FDCWD, directory.c_str())) continue;
        if (m_changedSince && changedSince(m_reader.fd(), *m_changedSince))
            append(ExplorerFileEvent{directory, ExplorerFileItemKind::Directory, ExplorerFileChangeKind::Modified, false});
        m_reader.forEach([&](std::string_view name, unsigned char type) {
            // A save killed before its rename left this; the walk that opens
            // the project is the one moment every folder is read anyway.
            if (type == DT_REG && leftoverCutoff && name.front() == '.' &&
                removeSaveLeftoverAt(m_reader.fd(), name, *leftoverCutoff))
                return;
            // Gone before it could be asked about, or not wanted by the first walk.
            if (type == DT_UNKNOWN || (!reportContents && type != DT_DIR)) return;
            std::string path = joinPath(directory, name);
            if (reportContents) {
                append(ExplorerFileEvent{path,
                                         type == DT_DIR ? ExplorerFileItemKind::Directory : ExplorerFileItemKind::File,
                                         ExplorerFileChangeKind::Created, false});
            }
            // Links are never followed, so a link loop cannot trap the walk.
            if (type == DT_DIR && !m_rules.containsChild(std::string_view(path).substr(relativeStart), name))
                stack.push_back(std::move(path));
        });
        m_reader.close();
    }
}

void InotifyExplorerWatcher::unwatchTree(const std::string& directory) {
    std::string prefix = directory + "/";
    for (auto it = m_watches.begin(); it != m_watches.end();) {
        if (it->second == directory || it->second.compare(0, prefix.size(), prefix) == 0) {
            if (it->first != m_rootWatch) {
                inotify_rm_watch(m_inotifyFd, it->first);
                it = m_watches.erase(it);
                continue;
            }
        }
        ++it;
    }
    m_watchCount = m_watches.size();
}

void InotifyExplorerWatcher::append(ExplorerFileEvent event) {
    std::string key = event.path;
    key.push_back('\0');
    key.push_back(static_cast<char>('0' + static_cast<int>(event.itemKind)));
    key.push_back(static_cast<char>('0' + static_cast<int>(event.changeKind)));
    key.push_back(event.requiresResync ? '1' : '0');
    if (!m_pendingKeys.emplace(std::move(key), m_pending.size()).second) return;
    m_pending.push_back(std::move(event));
    if (!m_deadline) m_deadline = std::chrono::steady_clock::now() + m_latency;
}

void InotifyExplorerWatcher::deliver() {
    m_deadline.reset();
    m_pendingKeys.clear();
    if (m_pending.empty()) return;
    std::vector<ExplorerFileEvent> events;
    events.swap(m_pending);
    if (m_handler) m_handler(std::move(events));
}

void InotifyExplorerWatcher::processEvents(const char* buffer, size_t length) {
    size_t offset = 0;
    while (offset + sizeof(inotify_event) <= length) {
        inotify_event header;
        std::memcpy(&header, buffer + offset, sizeof header);
        const char* nameStart = buffer + offset + sizeof(inotify_event);
        offset += sizeof(inotify_event) + header.len;
        if (offset > length) break;

        if (header.mask & IN_Q_OVERFLOW) {
            // Events were lost, and with them maybe new folders: watch what is
            // there now and have the page list everything again.
            reportResync(ExplorerFileChangeKind::Unknown);
            watchTree(m_root, false);
            continue;
        }
        if (m_parentWatch >= 0 && header.wd == m_parentWatch) {
            processParentEvent(header.mask, header.len > 0 ? std::string_view(nameStart, strnlen(nameStart, header.len))
                                                           : std::string_view());
            continue;
        }
        auto found = m_watches.find(header.wd);
        if (found == m_watches.end()) continue;
        std::string directory = found->second;
        bool isRootWatch = header.wd == m_rootWatch;
        if (header.mask & IN_IGNORED) {
            if (!isRootWatch) {
                m_watches.erase(found);
                m_watchCount = m_watches.size();
            }
            continue;
        }
        std::string name = header.len > 0 ? std::string(nameStart, strnlen(nameStart, header.len)) : std::string();
        bool selfEvent = name.empty();
        std::string path = selfEvent ? directory : joinPath(directory, name);
        if (auto event = explorerEventFromInotify(header.mask, path, isRootWatch && selfEvent)) append(*event);

        if (!selfEvent && (header.mask & IN_ISDIR)) {
            if (header.mask & (IN_CREATE | IN_MOVED_TO)) watchTree(path, true);
            if (header.mask & IN_MOVED_FROM) unwatchTree(path);
        }
    }
}

void InotifyExplorerWatcher::processParentEvent(uint32_t mask, std::string_view name) {
    if (mask & IN_IGNORED) {
        m_parentWatch = -1;
        return;
    }
    // The parent itself moved or went: the root's path names nothing now.
    if (name.empty()) {
        if (mask & (IN_MOVE_SELF | IN_DELETE_SELF)) reportResync(ExplorerFileChangeKind::Renamed);
        return;
    }
    if (name != m_rootName) return;
    if (mask & IN_DELETE) reportResync(ExplorerFileChangeKind::Removed);
    if (mask & IN_MOVED_FROM) reportResync(ExplorerFileChangeKind::Renamed);
}

void InotifyExplorerWatcher::run() {
    prctl(PR_SET_NAME, "explorer.fsevts", 0, 0, 0);
    watchTree(m_root, false);
    m_changedSince.reset();
    {
        std::lock_guard lock(m_scanMutex);
        m_scanned = true;
    }
    m_scanDone.notify_all();

    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        int timeout = -1;
        if (m_deadline) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*m_deadline -
                                                                              std::chrono::steady_clock::now());
            timeout = left.count() <= 0 ? 0 : static_cast<int>(left.count()) + 1;
        }
        pollfd fds[2] = {{m_inotifyFd, POLLIN, 0}, {m_stopFd, POLLIN, 0}};
        int ready = poll(fds, 2, timeout);
        if (ready < 0 && errno != EINTR) break;
        if (ready > 0 && (fds[1].revents & POLLIN)) break;
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            for (;;) {
                ssize_t n = read(m_inotifyFd, buffer, sizeof buffer);
                if (n <= 0) break;
                processEvents(buffer, static_cast<size_t>(n));
            }
        }
        if (m_deadline && std::chrono::steady_clock::now() >= *m_deadline) deliver();
    }
}

}  // namespace velko
