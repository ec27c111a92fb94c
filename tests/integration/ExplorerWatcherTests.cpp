// The explorer's monitoring on real folders, real inotify and a real git.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "core/SerialQueue.h"
#include "files/ExplorerService.h"
#include "files/InotifyExplorerWatcher.h"
#include "support/ChildProcesses.h"

using namespace velko;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr auto kDeadline = 10s;

// Collects what a watcher or the service hands over, from any thread.
template <typename T>
class Inbox {
public:
    void add(T value) {
        std::lock_guard lock(m_mutex);
        m_items.push_back(std::move(value));
        m_changed.notify_all();
    }
    // Waits until `done(items)` holds or the deadline passes; returns the items.
    std::vector<T> waitFor(const std::function<bool(const std::vector<T>&)>& done) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, kDeadline, [&] { return done(m_items); });
        return m_items;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<T> m_items;
};

bool hasEvent(const std::vector<ExplorerFileEvent>& events, const std::string& path, ExplorerFileChangeKind change) {
    for (const auto& e : events)
        if (e.path == path && e.changeKind == change) return true;
    return false;
}

void touch(const std::string& path, const std::string& text = "x") { std::ofstream(path) << text; }

int run(const std::string& command) { return std::system(command.c_str()); }

// A project folder inside a temporary one, so that it can be moved or deleted.
struct WatchedTree {
    test::TempDir dir;
    std::string root = fs::canonical(dir.path()).string() + "/project";
    Inbox<ExplorerFileEvent> inbox;
    std::unique_ptr<InotifyExplorerWatcher> watcher;

    WatchedTree() { fs::create_directories(root); }

    void start() {
        watcher = std::make_unique<InotifyExplorerWatcher>(root, ExplorerExclusionRules{});
        ASSERT_TRUE(watcher->start([this](std::vector<ExplorerFileEvent> events) {
            EXPECT_FALSE(events.empty());
            for (auto& e : events) inbox.add(std::move(e));
        }));
        watcher->waitUntilScanned();
    }
    std::string abs(const std::string& relative) const { return root + "/" + relative; }
};

}  // namespace

TEST(ExplorerWatcher, ReportsFileAndFolderChangesAnywhereInTheTree) {
    using Change = ExplorerFileChangeKind;
    struct Case {
        const char* name;
        std::function<void(WatchedTree&)> act;
        std::string path;
        Change change;
    };
    const Case cases[] = {
        {"create", [](WatchedTree& t) { touch(t.abs("deep/er/new.txt")); }, "deep/er/new.txt", Change::Created},
        {"modify", [](WatchedTree& t) { touch(t.abs("deep/er/old.txt"), "changed"); }, "deep/er/old.txt",
         Change::Modified},
        {"delete", [](WatchedTree& t) { fs::remove(t.abs("deep/er/old.txt")); }, "deep/er/old.txt", Change::Removed},
        {"move", [](WatchedTree& t) { fs::rename(t.abs("deep/er/old.txt"), t.abs("deep/moved.txt")); },
         "deep/moved.txt", Change::Renamed},
        {"folder created", [](WatchedTree& t) { fs::create_directory(t.abs("deep/fresh")); }, "deep/fresh",
         Change::Created},
        {"folder removed", [](WatchedTree& t) { fs::remove_all(t.abs("deep/er")); }, "deep/er", Change::Removed},
        {"files inside a tree made in one go",
         [](WatchedTree& t) { ASSERT_EQ(run("mkdir -p '" + t.abs("a/b/c") + "' && touch '" + t.abs("a/b/c/f") + "'"), 0); },
         "a/b/c/f", Change::Created},
        {"a file inside a folder moved into the tree",
         [](WatchedTree& t) {
             test::TempDir outside;
             outside.write("pkg/inner/file.txt", "x");
             fs::rename(outside.file("pkg"), t.abs("pkg"));
             touch(t.abs("pkg/inner/later.txt"));
         },
         "pkg/inner/later.txt", Change::Created},
        {"a renamed folder is watched under its new name",
         [](WatchedTree& t) {
             fs::rename(t.abs("deep/er"), t.abs("deep/renamed"));
             touch(t.abs("deep/renamed/after.txt"));
         },
         "deep/renamed/after.txt", Change::Created},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WatchedTree tree;
        tree.dir.write("project/deep/er/old.txt", "old");
        fs::create_symlink(tree.root, tree.abs("deep/loop"));  // a link loop must not trap the walk
        tree.start();
        c.act(tree);
        auto events = tree.inbox.waitFor([&](const auto& all) { return hasEvent(all, tree.abs(c.path), c.change); });
        EXPECT_TRUE(hasEvent(events, tree.abs(c.path), c.change)) << "events seen: " << events.size();
    }
}

// A file made in a folder after the start but before the first walk watched
// it has no event to tell it. The walk cannot be held at that moment, so the
// folder's change is dated after the start instead, as the walk would find it.
TEST(ExplorerWatcher, AFolderChangedBeforeTheFirstWalkWatchedItIsReportedStale) {
    WatchedTree tree;
    tree.dir.write("project/late/file.txt", "x");
    tree.dir.write("project/quiet/file.txt", "x");
    auto dateFolder = [&](const std::string& path, time_t when) {
        const timespec times[2] = {{0, UTIME_OMIT}, {when, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    };
    dateFolder(tree.root, time(nullptr) - 3600);
    dateFolder(tree.abs("quiet"), time(nullptr) - 3600);
    dateFolder(tree.abs("late"), time(nullptr) + 60);
    tree.start();
    auto events = tree.inbox.waitFor([&](const auto& all) { return !all.empty(); });
    EXPECT_TRUE(hasEvent(events, tree.abs("late"), ExplorerFileChangeKind::Modified));
    EXPECT_EQ(events.size(), 1u) << "folders unchanged since the start stay quiet";
}

TEST(ExplorerWatcher, LosingTheRootAsksForAResync) {
    struct Case {
        const char* name;
        bool heldAsWorkingDirectory;
        std::function<void(const std::string& root)> lose;
    };
    const Case cases[] = {
        {"moved away", false, [](const std::string& root) { fs::rename(root, root + "-moved"); }},
        // The kernel holds the folder's own deletion event back for as long as
        // a program (a project's shell) has it as its working directory.
        {"deleted while a program works in it", true, [](const std::string& root) { fs::remove_all(root); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WatchedTree tree;
        fs::create_directories(tree.abs("src"));
        struct Sleeper {
            pid_t pid = -1;
            ~Sleeper() {
                if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
            }
        } sleeper;
        if (c.heldAsWorkingDirectory) {
            sleeper.pid = test::spawnChild({"sh", "-c", "cd \"$0\" && exec sleep 60", tree.root});
            std::error_code ec;
            const std::string cwd = "/proc/" + std::to_string(sleeper.pid) + "/cwd";
            ASSERT_TRUE(test::waitUntil([&] { return fs::read_symlink(cwd, ec) == tree.root; }));
        }
        tree.start();
        c.lose(tree.root);
        auto events = tree.inbox.waitFor([](const auto& all) {
            return std::any_of(all.begin(), all.end(), [](const auto& e) { return e.requiresResync; });
        });
        EXPECT_TRUE(std::any_of(events.begin(), events.end(),
                                [&](const auto& e) { return e.requiresResync && e.path == tree.root; }));
        tree.watcher->stop();
        tree.watcher->stop();  // harmless
    }
}

TEST(ExplorerWatcher, ExcludedFoldersAreNotWatchedAndACheckoutIsOneQuietBatch) {
    test::TempDir dir;
    std::string root = fs::canonical(dir.path()).string();
    for (int d = 0; d < 10; ++d)
        for (int f = 0; f < 10; ++f) dir.write("src" + std::to_string(d) + "/f" + std::to_string(f) + ".txt", "main");
    dir.write("node_modules/pkg/index.js", "x");
    ASSERT_EQ(run("cd '" + root + "' && git init -q -b main . && git -c user.name=t -c user.email=t@t add -A && "
                  "git -c user.name=t -c user.email=t@t commit -qm one && git checkout -qb other && "
                  "for d in 0 1 2 3 4 5 6 7 8 9; do for f in 0 1 2 3 4 5 6 7 8 9; do echo other > src$d/f$f.txt; done; done && "
                  "git -c user.name=t -c user.email=t@t commit -qam two && git checkout -q main"),
              0);

    InotifyExplorerWatcher* started = nullptr;
    auto service = std::make_shared<ExplorerService>(ExplorerService::Options{
        .debounceQueue = std::make_shared<SerialQueue>("test.explorer.debounce"),
        .callbackQueue = std::make_shared<SerialQueue>("test.explorer.callbacks"),
        .watcherFactory = [&](const std::string& rootPath, const ExplorerExclusionRules& rules) {
            auto watcher = std::make_unique<InotifyExplorerWatcher>(rootPath, rules);
            started = watcher.get();
            return watcher;
        }});
    Inbox<ExplorerChangeBatch> batches;
    ASSERT_TRUE(service->activateMonitoring(Uuid::random(), dir.path(), {},
                                            [&](const ExplorerChangeBatch& batch) { batches.add(batch); }));
    ASSERT_NE(started, nullptr);
    started->waitUntilScanned();
    // Only the project's own folders are watched: not .git, not node_modules.
    EXPECT_EQ(started->watchCountForTesting(), 11u);

    ASSERT_EQ(run("cd '" + root + "' && git checkout -q other"), 0);
    auto all = batches.waitFor([](const auto& b) { return !b.empty() && b.back().directoryPaths.size() >= 10; });
    ASSERT_GE(all.size(), 1u);
    // A checkout is one burst: it must not turn into a storm of batches.
    EXPECT_LE(all.size(), 2u);
    std::vector<std::string> expected;
    for (int d = 0; d < 10; ++d) expected.push_back("src" + std::to_string(d));
    EXPECT_EQ(all.back().directoryPaths, expected);
    EXPECT_FALSE(all.back().requiresResync);
    service->stopMonitoring();
}

TEST(ExplorerWatcher, LostEventsAndRunningOutOfWatchesAskForAResync) {
    struct Case {
        const char* name;
        size_t maxWatches;
        // Runs with the watcher's thread held inside the handler, so the
        // kernel queue fills up behind it.
        std::function<void(WatchedTree&)> whileHeld;
        size_t expectedWatches;
    };
    auto queueLimit = [] {
        std::ifstream limits("/proc/sys/fs/inotify/max_queued_events");
        size_t value = 16384;
        limits >> value;
        return value;
    };
    const Case cases[] = {
        {"the kernel queue overflows", 0,
         [&](WatchedTree& t) {
             // Each new empty file queues a create and a close-after-write.
             size_t files = queueLimit() / 2 + 64;
             for (size_t i = 0; i < files; ++i) touch(t.abs("flood/f" + std::to_string(i)), "");
         },
         4},
        {"the watch budget runs out", 2, [](WatchedTree&) {}, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Declared so that the gate opens before the watcher stops.
        std::mutex gate;
        Inbox<int> entered;
        WatchedTree tree;
        std::unique_lock hold(gate);
        fs::create_directories(tree.abs("flood"));
        fs::create_directories(tree.abs("a/b"));
        tree.watcher = std::make_unique<InotifyExplorerWatcher>(tree.root, ExplorerExclusionRules{},
                                                                InotifyExplorerWatcher::kLatency, c.maxWatches);
        ASSERT_TRUE(tree.watcher->start([&](std::vector<ExplorerFileEvent> events) {
            entered.add(1);
            std::lock_guard wait(gate);
            for (auto& e : events) tree.inbox.add(std::move(e));
        }));
        tree.watcher->waitUntilScanned();
        touch(tree.abs("first.txt"));
        ASSERT_FALSE(entered.waitFor([](const auto& all) { return !all.empty(); }).empty());
        c.whileHeld(tree);
        hold.unlock();
        auto events = tree.inbox.waitFor([](const auto& all) {
            return std::any_of(all.begin(), all.end(), [](const auto& e) { return e.requiresResync; });
        });
        auto resync = std::find_if(events.begin(), events.end(), [](const auto& e) { return e.requiresResync; });
        ASSERT_NE(resync, events.end());
        EXPECT_EQ(resync->path, tree.root);
        EXPECT_EQ(tree.watcher->watchCountForTesting(), c.expectedWatches);
        // Still watching afterwards: a later change is reported as usual.
        touch(tree.abs("a/after.txt"));
        if (c.maxWatches == 0) {
            auto later = tree.inbox.waitFor(
                [&](const auto& all) { return hasEvent(all, tree.abs("a/after.txt"), ExplorerFileChangeKind::Created); });
            EXPECT_TRUE(hasEvent(later, tree.abs("a/after.txt"), ExplorerFileChangeKind::Created));
        }
        tree.watcher->stop();
    }
}
