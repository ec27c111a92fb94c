// Parsing a 50,000-line diff and a 50,000-line working tree listing, each
// decoded, parsed and turned into its event payload, against reading the same
// bytes from a pipe, taking turns (see BenchSupport.h). The clock is CPU
// time of this process and its reaped children (the pipe's writer). The
// figure is parse ÷ read; no goal is set for it.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>
#include <cstdlib>
#include <filesystem>

#include "BenchSupport.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "git/GitDiffParsing.h"
#include "git/GitProcessRunner.h"
#include "git/GitWorkingTreeParser.h"

using namespace velko;

namespace {

struct Inputs {
    std::string dir;
    std::string diffPath, numstatPath, treePath;
    Inputs() {
        char pattern[] = "/tmp/velko-bench-parse-XXXXXX";
        dir = mkdtemp(pattern);
        std::string diff, numstat, tree;
        for (int file = 0; file < 500; ++file) {
            std::string name = "src/module" + std::to_string(file) + "/file.cpp";
            diff += "diff --git a/" + name + " b/" + name + "\nindex 1234567..89abcde 100644\n--- a/" + name +
                    "\n+++ b/" + name + "\n@@ -1,48 +1,48 @@\n";
            for (int line = 0; line < 95; ++line) {
                diff += (line % 3 == 0 ? "-" : line % 3 == 1 ? "+" : " ");
                diff += "    int value" + std::to_string(line) + " = compute(\"text\", " + std::to_string(line) + ");\n";
            }
            numstat += "32\t32\t" + name + "\n";
        }
        // Paths in git's own order (it sorts them), as `git status` would list them.
        std::vector<std::string> paths;
        for (int i = 0; i < 50000; ++i) {
            paths.push_back("dir" + std::to_string(i % 100) + "/name with blank " + std::to_string(i) + ".txt");
        }
        std::sort(paths.begin(), paths.end());
        for (int i = 0; i < 50000; ++i) {
            const std::string& path = paths[static_cast<size_t>(i)];
            if (i % 5 == 0) tree += "? " + path + "\n";
            else if (i % 7 == 0) tree += "2 R. N... 100644 100644 100644 1234567 89abcde R90 " + path + "\told/" + path + "\n";
            else tree += "1 .M N... 100644 100644 100644 1234567890abcdef1234567890abcdef12345678 "
                         "1234567890abcdef1234567890abcdef12345678 " + path + "\n";
        }
        diffPath = dir + "/diff.txt";
        numstatPath = dir + "/numstat.txt";
        treePath = dir + "/tree.txt";
        writeFileAtomically(diffPath, diff);
        writeFileAtomically(numstatPath, numstat);
        writeFileAtomically(treePath, tree);
    }
    ~Inputs() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

Inputs& inputs() {
    static Inputs instance;
    return instance;
}

GitEnvironment env() { return {{"PATH", "/usr/bin:/bin"}}; }

// The baseline reads the file through a pipe from `cat`; the variant
// decodes, parses and encodes the bytes such a read returned.
template <typename Parse>
void measure(benchmark::State& state, const std::string& path, const std::string& name, Parse parse) {
    bench::SideBySide figure(state, {name, bench::Ratio::VariantOverBaseline, bench::Clock::ProcessAndChildrenCpu,
                                     bench::Goal::none()});
    const std::string bytes = spawnAndDrain({"cat", path}, "/", env()).stdoutBytes;
    for (auto _ : state) {
        figure.round(
            [&] {
                auto raw = spawnAndDrain({"cat", path}, "/", env());
                benchmark::DoNotOptimize(raw.stdoutBytes.data());
            },
            [&] {
                std::string text = decodeUtf8OrEmpty(std::string(bytes));
                std::string payload = parse(text);
                benchmark::DoNotOptimize(payload.data());
            });
    }
    figure.report();
    state.SetBytesProcessed(static_cast<int64_t>(bytes.size() * state.iterations()));
}

void BM_DiffPayloadVersusPipeRead(benchmark::State& state) {
    std::string numstat;
    readWholeFile(inputs().numstatPath, numstat);
    measure(state, inputs().diffPath, "diff payload / pipe read (time)", [&](const std::string& patch) {
        GitNumstat counts = parseNumstat(numstat);
        OrderedJson file;
        file["path"] = ".";
        file["stage"] = "unstaged";
        file["additions"] = counts.additions;
        file["deletions"] = counts.deletions;
        file["isBinary"] = counts.isBinary;
        file["patch"] = patch;
        OrderedJson payload;
        payload["projectId"] = "00000000-0000-0000-0000-000000000000";
        payload["files"] = OrderedJson::array({std::move(file)});
        return dumpJson(payload);
    });
}
BENCHMARK(BM_DiffPayloadVersusPipeRead)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(21));

void BM_WorkingTreePayloadVersusPipeRead(benchmark::State& state) {
    measure(state, inputs().treePath, "working tree payload / pipe read (time)", [](const std::string& text) {
        auto entries = GitWorkingTreeParser::parse(text);
        return encodeWorkingTreePayload(entries, "00000000-0000-0000-0000-000000000000");
    });
}
BENCHMARK(BM_WorkingTreePayloadVersusPipeRead)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(21));

}  // namespace

BENCHMARK_MAIN();
