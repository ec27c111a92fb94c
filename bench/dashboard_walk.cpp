// The dashboard's local language walk over a tree of 50,000 files against a
// plain recursive readdir + fstatat of every entry of the same tree, taking
// turns (see BenchSupport.h), in CPU time of the process: both are system
// calls of our own. The figure is walk ÷ baseline; no goal is set for it.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "dashboard/LocalLanguageBreakdown.h"

using namespace velko;

namespace {

struct Tree {
    std::string root;
    explicit Tree(int files) {
        char pattern[] = "/tmp/velko-bench-walk-XXXXXX";
        root = mkdtemp(pattern);
        const char* extensions[] = {".ts", ".js", ".py", ".md", ".json", ".txt", ".png", ".c", ".go", ".css"};
        const std::string text(700, 'x');
        for (int i = 0; i < files; ++i) {
            // 100 files a folder, folders three deep.
            int folder = i / 100;
            std::string dir = root + "/d" + std::to_string(folder % 10) + "/e" + std::to_string(folder / 10 % 10) +
                              "/f" + std::to_string(folder / 100);
            if (i % 100 == 0) std::filesystem::create_directories(dir);
            std::string path = dir + "/file" + std::to_string(i) + extensions[i % 10];
            int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) continue;
            if (write(fd, text.data(), text.size() * (i % 3)) < 0) { /* an empty file serves as well */ }
            close(fd);
        }
    }
    ~Tree() {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }
};

// Every entry looked at once, no link followed.
size_t readdirAndFstatat(const std::string& root) {
    size_t bytes = 0;
    std::vector<std::string> pending{root};
    while (!pending.empty()) {
        std::string path = std::move(pending.back());
        pending.pop_back();
        DIR* dir = opendir(path.c_str());
        if (!dir) continue;
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.' && (entry->d_name[1] == 0 || (entry->d_name[1] == '.' && entry->d_name[2] == 0)))
                continue;
            struct stat st {};
            if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (S_ISDIR(st.st_mode)) pending.push_back(path + "/" + entry->d_name);
            else if (S_ISREG(st.st_mode)) bytes += size_t(st.st_blocks) * 512;
        }
        closedir(dir);
    }
    return bytes;
}

void BM_LocalWalkVsReaddir(benchmark::State& state) {
    Tree tree(static_cast<int>(state.range(0)));
    bench::SideBySide figure(state, {"dashboard language walk 50,000 files / readdir + fstatat (time)",
                                     bench::Ratio::VariantOverBaseline, bench::Clock::ProcessCpu, bench::Goal::atMost(1.5)});
    for (auto _ : state) {
        figure.round([&] { benchmark::DoNotOptimize(readdirAndFstatat(tree.root)); },
                     [&] { benchmark::DoNotOptimize(computeLocalLanguageBreakdown(tree.root).bytes.size()); });
    }
    figure.report();
}

}  // namespace

BENCHMARK(BM_LocalWalkVsReaddir)->Arg(50000)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(15));
BENCHMARK_MAIN();
