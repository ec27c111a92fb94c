// Cost of answering one request of the page through the app scheme (URI
// parsing, path resolution inside the page's folder, the
// MIME type, reading the file) against reading the same file straight
// (the baseline). Compare "bytes_per_second ÷ baseline" between runs; the
// small file shows the per-request overhead, the large one the read path.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

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

void BM_ReadFileBaseline(benchmark::State& state) {
    int size = static_cast<int>(state.range(0));
    std::string path = folder().file(size);
    for (auto _ : state) {
        std::string body;
        readWholeFile(path, body);
        benchmark::DoNotOptimize(body.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

void BM_SchemeRespond(benchmark::State& state) {
    int size = static_cast<int>(state.range(0));
    AppBundleSchemeHandler handler(folder().path);
    // With a query, as the page's cache-busting requests have.
    std::string uri = std::string(kAppBundleBaseURI) + "assets/chunk-" + std::to_string(size) + ".js?v=1";
    auto first = handler.respond(uri);
    if (first.body.size() != static_cast<size_t>(size)) {
        state.SkipWithError("the request did not name the file");
        return;
    }
    for (auto _ : state) {
        auto response = handler.respond(uri);
        benchmark::DoNotOptimize(response.body.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

}  // namespace

BENCHMARK(BM_ReadFileBaseline)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_SchemeRespond)->Arg(4096)->Arg(1 << 20);
BENCHMARK_MAIN();
