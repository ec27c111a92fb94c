#include <gtest/gtest.h>

#include <filesystem>

#include "core/MainQueue.h"
#include "files/ExplorerService.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace std::chrono_literals;
using Item = ExplorerFileItemKind;
using Change = ExplorerFileChangeKind;

namespace {

// Stands in for inotify: the test delivers events by hand.
class FakeWatcher final : public ExplorerEventWatching {
public:
    struct Shared {
        std::vector<Handler> handlers;  // one per start, oldest first
        int starts = 0;
        int stops = 0;
        bool failStart = false;
        std::string lastRoot;
    };
    explicit FakeWatcher(std::shared_ptr<Shared> shared) : m_shared(std::move(shared)) {}
    bool start(Handler handler) override {
        ++m_shared->starts;
        if (m_shared->failStart) return false;
        m_shared->handlers.push_back(std::move(handler));
        return true;
    }
    void stop() override { ++m_shared->stops; }

private:
    std::shared_ptr<Shared> m_shared;
};

struct Harness {
    test::TempDir root;
    std::shared_ptr<ManualQueue> debounce = std::make_shared<ManualQueue>();
    std::shared_ptr<ManualQueue> callbacks = std::make_shared<ManualQueue>();
    std::shared_ptr<FakeWatcher::Shared> watcher = std::make_shared<FakeWatcher::Shared>();
    std::shared_ptr<ExplorerService> service;
    std::vector<ExplorerChangeBatch> batches;
    Uuid project = Uuid::random();

    Harness() {
        ExplorerService::Options options;
        options.debounceQueue = debounce;
        options.callbackQueue = callbacks;
        auto shared = watcher;
        options.watcherFactory = [shared](const std::string& rootPath, const ExplorerExclusionRules&) {
            shared->lastRoot = rootPath;
            return std::make_unique<FakeWatcher>(shared);
        };
        service = std::make_shared<ExplorerService>(std::move(options));
    }
    bool activate(const Uuid& id, std::vector<std::string> excluded = {}) {
        return service->activateMonitoring(id, root.path(), excluded,
                                           [this](const ExplorerChangeBatch& batch) { batches.push_back(batch); });
    }
    std::string abs(const std::string& relative) const {
        return relative.empty() ? realRoot() : realRoot() + "/" + relative;
    }
    std::string realRoot() const { return std::filesystem::canonical(root.path()).string(); }
    void deliver(std::vector<ExplorerFileEvent> events) { watcher->handlers.back()(std::move(events)); }
    void settle() {
        debounce->advance(400ms);
        callbacks->runUntilIdle();
    }
};

}  // namespace

TEST(ExplorerService, OneDeliveryBecomesTheBatchOfDirectoriesToListAgain) {
    struct Case {
        const char* name;
        std::vector<std::tuple<std::string, Item, Change, bool>> events;  // path relative to the root, "@" = outside
        std::vector<std::string> expectedDirectories;                      // empty: no batch at all
        bool expectedResync;
    };
    const Case cases[] = {
        {"file created", {{"src/a.txt", Item::File, Change::Created, false}}, {"src"}, false},
        {"directory removed", {{"src/b", Item::Directory, Change::Removed, false}}, {"src"}, false},
        {"directory contents changed", {{"src", Item::Directory, Change::Modified, false}}, {"src"}, false},
        {"directory event suppressed by its child",
         {{"src", Item::Directory, Change::Modified, false}, {"src/sub/x.txt", Item::File, Change::Modified, false}},
         {"src/sub"}, false},
        {"sibling prefix does not suppress",
         {{"src", Item::Directory, Change::Modified, false}, {"src2/x", Item::File, Change::Created, false}},
         {"src", "src2"}, false},
        {"git internals", {{".git/index", Item::File, Change::Modified, false}}, {}, false},
        {"node_modules at any depth",
         {{"node_modules/x", Item::File, Change::Created, false},
          {"web/node_modules/y/z.js", Item::File, Change::Created, false}},
         {}, false},
        {"project exclusion", {{"dist/app.js", Item::File, Change::Modified, false}}, {}, false},
        {"top-level file", {{"README.md", Item::File, Change::Modified, false}}, {""}, false},
        {"resync outside the root", {{"@", Item::Directory, Change::Unknown, true}}, {""}, true},
        {"plain event outside the root", {{"@", Item::File, Change::Modified, false}}, {}, false},
        {"resync is sticky",
         {{"a/x", Item::File, Change::Created, false}, {"", Item::Directory, Change::Unknown, true},
          {"b/y", Item::File, Change::Created, false}},
         {"", "a", "b"}, true},
        {"unknown kind on an existing folder", {{"real", Item::Unknown, Change::Modified, false}}, {"real"}, false},
        {"unknown kind on a missing path", {{"real/gone", Item::Unknown, Change::Removed, false}}, {"real"}, false},
        {"duplicates collapse",
         {{"a/x", Item::File, Change::Modified, false}, {"a/y", Item::File, Change::Modified, false}}, {"a"}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h;
        std::filesystem::create_directories(h.root.file("real"));
        ASSERT_TRUE(h.activate(h.project, {"dist"}));
        EXPECT_EQ(h.watcher->lastRoot, h.realRoot());
        std::vector<ExplorerFileEvent> events;
        for (const auto& [path, item, change, resync] : c.events)
            events.push_back({path == "@" ? "/elsewhere/entirely" : h.abs(path), item, change, resync});
        h.deliver(events);
        h.settle();
        ASSERT_EQ(h.batches.size(), c.expectedDirectories.empty() ? 0u : 1u);
        if (h.batches.empty()) continue;
        EXPECT_EQ(h.batches[0].projectId, h.project);
        EXPECT_EQ(h.batches[0].directoryPaths, c.expectedDirectories);
        EXPECT_EQ(h.batches[0].requiresResync, c.expectedResync);
    }
}

TEST(ExplorerService, DebounceTrailsASteadyStreamAndSendsOneBatchAfterTheLastChange) {
    Harness h;
    ASSERT_TRUE(h.activate(h.project));
    for (int i = 0; i < 34; ++i) {  // every 0.3 s for ten seconds
        h.deliver({{h.abs("d" + std::to_string(i % 3) + "/f"), Item::File, Change::Modified, false}});
        h.debounce->advance(300ms);
        h.callbacks->runUntilIdle();
        ASSERT_TRUE(h.batches.empty()) << "flushed during the stream at step " << i;
    }
    h.debounce->advance(99ms);
    h.callbacks->runUntilIdle();
    EXPECT_TRUE(h.batches.empty());
    h.debounce->advance(1ms);
    h.callbacks->runUntilIdle();
    ASSERT_EQ(h.batches.size(), 1u);
    EXPECT_EQ(h.batches[0].directoryPaths, (std::vector<std::string>{"d0", "d1", "d2"}));
    // The pending set was emptied with the flush.
    h.settle();
    EXPECT_EQ(h.batches.size(), 1u);
}

TEST(ExplorerService, NothingFromAnEarlierRunOrAStoppedOneReachesThePage) {
    struct Case {
        const char* name;
        std::function<void(Harness&)> between;  // runs after a change was recorded
        size_t expectedBatches;
    };
    const Case cases[] = {
        {"undisturbed", [](Harness&) {}, 1},
        {"switch to another project", [](Harness& h) { ASSERT_TRUE(h.activate(Uuid::random())); }, 0},
        {"stop", [](Harness& h) { h.service->stopMonitoring(); }, 0},
        {"delivery after stop",
         [](Harness& h) {
             h.service->stopMonitoring();
             h.deliver({{h.abs("x"), Item::File, Change::Created, false}});
         },
         0},
        {"late delivery of the old watcher after a restart",
         [](Harness& h) {
             auto old = h.watcher->handlers.front();
             ASSERT_TRUE(h.activate(h.project));
             old({{h.abs("late.txt"), Item::File, Change::Created, false}});
         },
         0},
        {"stop after the flush left the debounce queue",
         [](Harness& h) {
             h.debounce->advance(400ms);  // the batch now waits on the callback queue
             h.service->stopMonitoring();
         },
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h;
        ASSERT_TRUE(h.activate(h.project));
        h.deliver({{h.abs("a.txt"), Item::File, Change::Created, false}});
        c.between(h);
        h.settle();
        EXPECT_EQ(h.batches.size(), c.expectedBatches);
        EXPECT_EQ(h.watcher->stops, h.watcher->starts - (h.service->isMonitoring() ? 1 : 0));
    }
}

TEST(ExplorerService, AFailedStartLeavesNothingMonitored) {
    Harness h;
    h.watcher->failStart = true;
    EXPECT_FALSE(h.activate(h.project));
    EXPECT_FALSE(h.service->isMonitoring());
    EXPECT_EQ(h.watcher->stops, 1);
}
