// Change monitoring on a tree of 5,000 directories:
// - starting the recursive inotify watcher (every directory walked and
//   watched) against a plain recursive readdir walk of the same tree; the
//   counter "ratio" is start time ÷ walk time;
// - stopping while that first walk still runs (a quick project switch);
// - the delay from a file write to the batch that names its directory,
//   through the real watcher and the service's debounce; the counter
//   "ratio" is that delay ÷ (stream latency + debounce), so about 1 is the
//   expected value and anything above it is overhead.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "core/SerialQueue.h"
#include "core/Uuid.h"
#include "files/ExplorerService.h"
#include "files/InotifyExplorerWatcher.h"

using namespace velko;
using Clock = std::chrono::steady_clock;

namespace {

struct Tree {
    std::string root;
    Tree(int top, int perTop) {
        char pattern[] = "/tmp/velko-bench-monitor-XXXXXX";
        root = mkdtemp(pattern);
        for (int t = 0; t < top; ++t)
            for (int d = 0; d < perTop; ++d)
                std::filesystem::create_directories(root + "/t" + std::to_string(t) + "/d" + std::to_string(d));
    }
    ~Tree() {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }
};

size_t walk(const std::string& directory) {
    DIR* dir = opendir(directory.c_str());
    if (!dir) return 0;
    size_t count = 1;
    while (dirent* entry = readdir(dir)) {
        std::string_view name = entry->d_name;
        if (entry->d_type == DT_DIR && name != "." && name != "..") count += walk(directory + "/" + entry->d_name);
    }
    closedir(dir);
    return count;
}

void BM_StartMonitoringVsWalk(benchmark::State& state) {
    Tree tree(50, 99);  // 50 + 50 × 99 + the root ≈ 5,000 directories
    double baseline = 0, start = 0;
    size_t watches = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        benchmark::DoNotOptimize(walk(tree.root));
        auto t1 = Clock::now();
        InotifyExplorerWatcher watcher(tree.root, ExplorerExclusionRules{});
        if (!watcher.start([](std::vector<ExplorerFileEvent>) {})) {
            state.SkipWithError("inotify unavailable");
            return;
        }
        watcher.waitUntilScanned();
        auto t2 = Clock::now();
        watches = watcher.watchCountForTesting();
        watcher.stop();
        baseline += std::chrono::duration<double>(t1 - t0).count();
        start += std::chrono::duration<double>(t2 - t1).count();
        state.SetIterationTime(std::chrono::duration<double>(t2 - t1).count());
    }
    state.counters["watches"] = static_cast<double>(watches);
    state.counters["walk_ms"] = baseline * 1000 / static_cast<double>(state.iterations());
    state.counters["start_ms"] = start * 1000 / static_cast<double>(state.iterations());
    state.counters["ratio"] = baseline > 0 ? start / baseline : 0;
}

// Switching project while the first walk of a big tree is still running:
// start and stop at once, against a start that waits for the whole walk.
// The counter "ratio" is stop-early time ÷ full start time (well below 1).
void BM_StopDuringFirstWalk(benchmark::State& state) {
    Tree tree(50, 99);
    double full = 0, early = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        {
            InotifyExplorerWatcher watcher(tree.root, ExplorerExclusionRules{});
            if (!watcher.start([](std::vector<ExplorerFileEvent>) {})) {
                state.SkipWithError("inotify unavailable");
                return;
            }
            watcher.waitUntilScanned();
            watcher.stop();
        }
        auto t1 = Clock::now();
        {
            InotifyExplorerWatcher watcher(tree.root, ExplorerExclusionRules{});
            (void)watcher.start([](std::vector<ExplorerFileEvent>) {});
            watcher.stop();
        }
        auto t2 = Clock::now();
        full += std::chrono::duration<double>(t1 - t0).count();
        early += std::chrono::duration<double>(t2 - t1).count();
        state.SetIterationTime(std::chrono::duration<double>(t2 - t1).count());
    }
    state.counters["full_ms"] = full * 1000 / static_cast<double>(state.iterations());
    state.counters["stop_early_ms"] = early * 1000 / static_cast<double>(state.iterations());
    state.counters["ratio"] = full > 0 ? early / full : 0;
}

void BM_WriteToBatchDelay(benchmark::State& state) {
    Tree tree(50, 99);
    std::mutex mutex;
    std::condition_variable arrived;
    int batches = 0;
    ExplorerService::Options options;
    options.debounceQueue = std::make_shared<SerialQueue>("bench.explorer.debounce");
    options.callbackQueue = std::make_shared<SerialQueue>("bench.explorer.callbacks");
    auto service = std::make_shared<ExplorerService>(std::move(options));
    const auto expected = std::chrono::duration<double>(InotifyExplorerWatcher::kLatency + std::chrono::milliseconds(400));
    if (!service->activateMonitoring(Uuid::random(), tree.root, {}, [&](const ExplorerChangeBatch&) {
            std::lock_guard lock(mutex);
            ++batches;
            arrived.notify_all();
        })) {
        state.SkipWithError("monitoring did not start");
        return;
    }
    // Let the initial walk finish before the first write.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    double total = 0;
    int i = 0;
    for (auto _ : state) {
        std::unique_lock lock(mutex);
        int before = batches;
        lock.unlock();
        auto t0 = Clock::now();
        std::string path = tree.root + "/t7/d42/file" + std::to_string(i++);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            (void)!write(fd, "x", 1);
            close(fd);
        }
        lock.lock();
        if (!arrived.wait_for(lock, std::chrono::seconds(5), [&] { return batches > before; })) {
            state.SkipWithError("no batch within 5 s");
            break;
        }
        double delay = std::chrono::duration<double>(Clock::now() - t0).count();
        total += delay;
        state.SetIterationTime(delay);
    }
    service->stopMonitoring();
    state.counters["delay_ms"] = total * 1000 / static_cast<double>(std::max<int64_t>(state.iterations(), 1));
    state.counters["ratio"] = total / static_cast<double>(std::max<int64_t>(state.iterations(), 1)) / expected.count();
}

}  // namespace

BENCHMARK(BM_StartMonitoringVsWalk)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_StopDuringFirstWalk)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_WriteToBatchDelay)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_MAIN();
