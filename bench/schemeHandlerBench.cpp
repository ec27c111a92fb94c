// Cost of answering one request of the page through the app scheme (URI
// parsing, path resolution inside the page's folder, the MIME type, reading
// the file) against reading the same file straight, taking turns (see
// BenchSupport.h), in thread CPU time. The figure is the scheme's speed ÷ the
// plain read's: the small file shows the per-request overhead, the large one
// the read path. No goal is set for it.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "BenchSupport.h"
#include "core/Paths.h"
#include "shell/AppBundleSchemeHandler.h"

using namespace velko;

namespace {

// A page folder in a temporary directory, removed at exit.
struct PageFolder {
    std::string path;
    PageFolder() {
        char pattern[] = "/tmp/velko-bench-scheme.XXXXXX";
        path = ::mkdtemp(pattern);
        createDirectories(path + "/assets");
        for (int size : {4096, 1 << 20}) {
            std::string body;
            while (body.size() < static_cast<size_t>(size)) body += "export const value = 'velko';\n";
            body.resize(static_cast<size_t>(size));
            writeFileAtomically(file(size), body);
        }
    }
    ~PageFolder() { std::filesystem::remove_all(path); }
    std::string file(int size) const { return path + "/assets/chunk-" + std::to_string(size) + ".js"; }
};

const PageFolder& folder() {
    static PageFolder instance;
    return instance;
}

void BM_SchemeRespondVersusRead(benchmark::State& state) {
    const int size = static_cast<int>(state.range(0));
    const std::string path = folder().file(size);
    AppBundleSchemeHandler handler(folder().path);
    // With a query, as the page's cache-busting requests have.
    const std::string uri = std::string(kAppBundleBaseURI) + "assets/chunk-" + std::to_string(size) + ".js?v=1";
    if (handler.respond(uri).body.size() != static_cast<size_t>(size)) {
        state.SkipWithError("the request did not name the file");
        return;
    }
    auto read = [&] {
        std::string body;
        readWholeFile(path, body);
        benchmark::DoNotOptimize(body.data());
    };
    auto respond = [&] {
        auto response = handler.respond(uri);
        benchmark::DoNotOptimize(response.body.data());
    };
    const int calls = bench::repetitionsFor(bench::Clock::ThreadCpu, 2e-3, read);
    bench::SideBySide figure(state, {"app scheme " + std::to_string(size / 1024) + " KiB / plain read (speed)",
                                     bench::Ratio::BaselineOverVariant, bench::Clock::ThreadCpu, bench::Goal::none()});
    for (auto _ : state) {
        figure.round([&] { for (int i = 0; i < calls; ++i) read(); },
                     [&] { for (int i = 0; i < calls; ++i) respond(); });
    }
    figure.report();
}

}  // namespace

BENCHMARK(BM_SchemeRespondVersusRead)
    ->Arg(4096)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(bench::withWarmup(21));
BENCHMARK_MAIN();
