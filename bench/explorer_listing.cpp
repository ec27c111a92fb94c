// Listing one directory of 10,000 entries through the explorer (exclusion
// rules, collation sort, the JSON of the answer) against plain readdir +
// lstat of the same directory, taking turns (see BenchSupport.h). Both run
// on this thread, system calls included, so thread CPU time. The figure is
// explorer time ÷ readdir + lstat time; goal ≤ 1.2.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "BenchSupport.h"
#include "files/ExplorerListing.h"

using namespace velko;

namespace {

struct Tree {
    std::string root;
    explicit Tree(int entries) {
        char pattern[] = "/tmp/velko-bench-explorer-XXXXXX";
        root = mkdtemp(pattern);
        std::string big = root + "/big";
        std::filesystem::create_directories(big);
        for (int i = 0; i < entries; ++i) {
            // One in ten a folder, a few excluded names, mixed case for the sort.
            std::string name = (i % 3 == 0 ? "File_" : "file_") + std::to_string(i * 7919 % entries);
            if (i % 10 == 0) {
                std::filesystem::create_directory(big + "/" + name + "_dir");
            } else if (i % 997 == 0) {
                std::filesystem::create_directory(big + "/node_modules" + std::to_string(i));
            } else {
                int fd = open((big + "/" + name + ".txt").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
                if (fd >= 0) close(fd);
            }
        }
    }
    ~Tree() {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }
};

size_t readdirAndLstat(const std::string& directory) {
    DIR* dir = opendir(directory.c_str());
    if (!dir) return 0;
    size_t regular = 0;
    while (dirent* entry = readdir(dir)) {
        struct stat st {};
        if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) ++regular;
    }
    closedir(dir);
    return regular;
}

void BM_ExplorerListingVsReaddir(benchmark::State& state) {
    Tree tree(static_cast<int>(state.range(0)));
    const std::vector<std::string> paths{"big"};
    bench::SideBySide figure(state, {"explorer 10,000 entries / readdir + lstat (time)",
                                     bench::Ratio::VariantOverBaseline, bench::Clock::ThreadCpu,
                                     bench::Goal::atMost(1.2)});
    for (auto _ : state) {
        figure.round([&] { benchmark::DoNotOptimize(readdirAndLstat(tree.root + "/big")); },
                     [&] {
                         auto snapshots = listExplorerDirectories(tree.root, paths, {}, "/nonexistent-home");
                         std::string json = explorerSnapshotJson(snapshots.at(0)).dump();
                         benchmark::DoNotOptimize(json.data());
                     });
    }
    figure.report();
}

}  // namespace

BENCHMARK(BM_ExplorerListingVsReaddir)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(41));
BENCHMARK_MAIN();
