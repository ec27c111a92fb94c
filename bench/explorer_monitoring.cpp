// Change monitoring on a tree of 5,001 directories (see BenchSupport.h for
// how baseline and variant take turns):
// - starting the recursive inotify watcher (every directory walked and
//   watched, on the watcher's own thread) against a plain recursive readdir
//   walk of the same tree, in process CPU time; the figure is start ÷ walk,
//   goal ≤ 1.3;
// - stopping while that first walk still runs (a quick project switch)
//   against a start that waits for the whole walk, in process CPU time; the
//   figure is stop-early ÷ full start, well below 1;
// - the delay from a file write to the batch that names its directory,
//   through the real watcher and the service's debounce, against stream
//   latency + debounce: about 1 is expected, anything above is overhead.
//   A delay is waiting by nature, so wall time.
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

#include "BenchSupport.h"
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
        // A project is opened well after its folders last changed; the
        // watcher reports a folder changed within the last second as stale.
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
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
    Tree tree(50, 99);  // 50 + 50 × 99 + the root = 5,001 directories
    bench::SideBySide figure(state, {"start monitoring 5,001 dirs / plain walk (time)",
                                     bench::Ratio::VariantOverBaseline, bench::Clock::ProcessCpu,
                                     bench::Goal::atMost(1.3)});
    size_t watches = 0;
    for (auto _ : state) {
        figure.round([&] { benchmark::DoNotOptimize(walk(tree.root)); },
                     [&]() -> double {
                         bench::Stopwatch cpu(bench::Clock::ProcessCpu);
                         InotifyExplorerWatcher watcher(tree.root, ExplorerExclusionRules{});
                         if (!watcher.start([](std::vector<ExplorerFileEvent>) {})) return -1;
                         watcher.waitUntilScanned();
                         const double seconds = cpu.elapsed();
                         watches = watcher.watchCountForTesting();
                         watcher.stop();
                         return seconds;
                     });
        if (figure.failed()) return state.SkipWithError("inotify unavailable");
    }
    state.counters["watches"] = static_cast<double>(watches);
    figure.report();
}

// Switching project while the first walk of a big tree is still running:
// start and stop at once, against a start that waits for the whole walk.
void BM_StopDuringFirstWalk(benchmark::State& state) {
    Tree tree(50, 99);
    bench::SideBySide figure(state, {"monitoring: stop during first walk / full start (time)",
                                     bench::Ratio::VariantOverBaseline, bench::Clock::ProcessCpu, bench::Goal::none()});
    for (auto _ : state) {
        figure.round(
            [&]() -> double {
                bench::Stopwatch cpu(bench::Clock::ProcessCpu);
                {
                    InotifyExplorerWatcher watcher(tree.root, ExplorerExclusionRules{});
                    if (!watcher.start([](std::vector<ExplorerFileEvent>) {})) return -1;
                    watcher.waitUntilScanned();
                    watcher.stop();
                }
                return cpu.elapsed();
            },
            [&] {
                InotifyExplorerWatcher watcher(tree.root, ExplorerExclusionRules{});
                (void)watcher.start([](std::vector<ExplorerFileEvent>) {});
                watcher.stop();
            });
        if (figure.failed()) return state.SkipWithError("inotify unavailable");
    }
    figure.report();
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
    std::vector<double> ratios, delays;
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
        const double delay = std::chrono::duration<double>(Clock::now() - t0).count();
        if (i > bench::kWarmupRounds) {
            delays.push_back(delay * 1e3);
            ratios.push_back(delay / expected.count());
        }
    }
    service->stopMonitoring();
    state.counters["delay_ms"] = bench::Spread::of(delays).median;
    bench::reportFigure("monitoring: write-to-batch delay / latency + debounce", bench::Spread::of(ratios),
                        bench::Goal::none(), "wall");
}

}  // namespace

BENCHMARK(BM_StartMonitoringVsWalk)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(15));
BENCHMARK(BM_StopDuringFirstWalk)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(9));
BENCHMARK(BM_WriteToBatchDelay)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(7));
BENCHMARK_MAIN();
