// Cost of sending one event to the page: encoding, escaping and building the
// script, against copying the same payload bytes (the baseline). The ratio
// "bytes_per_second ÷ baseline" is what to compare between runs.
#include <benchmark/benchmark.h>

#include <cstring>

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

void BM_CopyBaseline(benchmark::State& state) {
    std::string text = samplePayloadText(static_cast<size_t>(state.range(0)));
    std::string copy(text.size(), '\0');
    for (auto _ : state) {
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_DispatchEvent(benchmark::State& state) {
    setMainQueue(std::make_shared<ManualQueue>());
    auto bridge = std::make_shared<WebBridge>();
    auto view = std::make_shared<NullView>();
    bridge->setWebView(view);
    bridge->notifyWebViewDidFinishNavigation();
    OrderedJson payload = {{"projectId", "AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE0"},
                           {"text", samplePayloadText(static_cast<size_t>(state.range(0)))}};
    for (auto _ : state) bridge->dispatchEvent("bench/event", payload);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

}  // namespace

BENCHMARK(BM_CopyBaseline)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_DispatchEvent)->Arg(4096)->Arg(1 << 20);
BENCHMARK_MAIN();
