// Cost of sending one event to the page (encoding, escaping and building the
// script) against copying the same payload bytes, taking turns (see
// BenchSupport.h), in thread CPU time. The figure is dispatch speed ÷ copy
// speed; no goal is set for it.
#include <benchmark/benchmark.h>

#include <cstring>

#include "BenchSupport.h"
#include "core/MainQueue.h"
#include "shell/WebBridge.h"

using namespace velko;

namespace {

class NullView final : public WebViewHosting {
public:
    void evaluateScript(const std::string& script) override { benchmark::DoNotOptimize(script.data()); }
};

std::string samplePayloadText(size_t size) {
    std::string text;
    while (text.size() < size) text += "path/to/file_name.cpp it's \"quoted\" \\ 日本語 ";
    text.resize(size);
    return text;
}

void BM_DispatchVersusCopy(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    setMainQueue(std::make_shared<ManualQueue>());
    auto bridge = std::make_shared<WebBridge>();
    auto view = std::make_shared<NullView>();
    bridge->setWebView(view);
    bridge->notifyWebViewDidFinishNavigation();
    const std::string text = samplePayloadText(size);
    OrderedJson payload = {{"projectId", "AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE0"}, {"text", text}};
    std::string copy(text.size(), '\0');
    auto copyOnce = [&] {
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    };
    auto dispatchOnce = [&] { bridge->dispatchEvent("bench/event", payload); };
    // Enough calls that the copy's turn lasts about 1 ms; the dispatch
    // repeats as often. A megabyte's copy is some 60 µs: a turn of one call
    // would read warm or cold caches depending on which side went before.
    const int calls = bench::repetitionsFor(bench::Clock::ThreadCpu, 1e-3, copyOnce);
    bench::SideBySide figure(state, {"bridge dispatch " + std::to_string(size / 1024) + " KiB / memcpy (speed)",
                                     bench::Ratio::BaselineOverVariant, bench::Clock::ThreadCpu, bench::Goal::none()});
    for (auto _ : state) {
        figure.round([&] { for (int i = 0; i < calls; ++i) copyOnce(); },
                     [&] { for (int i = 0; i < calls; ++i) dispatchOnce(); });
    }
    figure.report();
}

}  // namespace

BENCHMARK(BM_DispatchVersusCopy)
    ->Arg(4096)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(bench::withWarmup(21));
BENCHMARK_MAIN();
