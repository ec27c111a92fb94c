// The metrics percentage over a scripted sampler and clock, the timer on a
// hand-run main queue.
#include <gtest/gtest.h>

#include <deque>

#include "core/MainQueue.h"
#include "support/TestSupport.h"
#include "telemetry/SystemMetricsService.h"

using namespace velko;
using namespace std::chrono_literals;

namespace {

// One step per reading: the steady clock's time (in microseconds) and the CPU
// sample taken with it (nothing: the sample failed).
struct Step {
    int64_t at;
    std::optional<CpuTimes> cpu;
};

struct ScriptedSampler final : SystemMetricsSampling {
    std::optional<CpuTimes> sampleCPUTime() override {
        auto cpu = steps.front().cpu;
        steps.pop_front();
        return cpu;
    }
    std::optional<uint64_t> residentBytes() override { return resident; }
    unsigned activeProcessorCount() override { return processors; }
    uint64_t physicalMemoryBytes() override { return 16ull << 30; }
    std::chrono::steady_clock::time_point now() const {
        return std::chrono::steady_clock::time_point(std::chrono::microseconds(steps.front().at));
    }
    std::deque<Step> steps;
    std::optional<uint64_t> resident = 142ull << 20;
    unsigned processors = 2;
};

// Runs the service over `steps`: start() takes the baseline and the first
// event, each further step is one timer interval. Returns what each event said.
std::vector<double> run(std::vector<Step> steps, unsigned processors, const char* field = "cpuPercent",
                        const std::function<void(SystemMetricsService&, ScriptedSampler&)>& between = {}) {
    auto main = std::make_shared<ManualQueue>();
    setMainQueue(main);
    auto events = std::make_shared<test::EventRecorder>();
    auto sampler = std::make_shared<ScriptedSampler>();
    sampler->steps.assign(steps.begin(), steps.end());
    sampler->processors = processors;
    auto service = std::make_shared<SystemMetricsService>(
        events, SystemMetricsService::Options{.sampler = sampler, .monotonicClock = [&] { return sampler->now(); }});
    service->start();
    if (between) between(*service, *sampler);
    while (!sampler->steps.empty()) main->advance(5s);
    std::vector<double> out;
    for (const auto& e : events->eventsOfType("system/metrics")) out.push_back(e.payload[field].get<double>());
    return out;
}

}  // namespace

TEST(SystemMetrics, PercentageFollowsTheCpuTimeGainedOverTheTimePassed) {
    struct Case {
        const char* name;
        unsigned processors;
        std::vector<Step> steps;
        std::vector<double> percents;  // of each event
    };
    const Case cases[] = {
        {"the first event covers the tiny time since the baseline", 2, {{0, CpuTimes{0, 0}}, {1000, CpuTimes{400, 100}}},
         {50}},
        {"a falling counter gains nothing", 2, {{0, CpuTimes{1000, 1000}}, {1'000'000, CpuTimes{500, 1500}}}, {0.05}},
        {"at most 100 per processor", 8, {{0, CpuTimes{0, 0}}, {1'000'000, CpuTimes{20'000'000, 0}}}, {800}},
        {"a failed sample reads 0 and keeps the old base", 2,
         {{0, CpuTimes{0, 0}}, {1'000'000, std::nullopt}, {2'000'000, CpuTimes{1'000'000, 0}}}, {0, 50}},
        {"no time passed", 2, {{0, CpuTimes{0, 0}}, {0, CpuTimes{500, 0}}, {1'000'000, CpuTimes{100'500, 0}}}, {0, 10}},
        {"no baseline: the first sample becomes it", 2,
         {{0, std::nullopt}, {0, CpuTimes{0, 0}}, {5'000'000, CpuTimes{250'000, 0}}}, {0, 5}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto percents = run(c.steps, c.processors);
        ASSERT_EQ(percents.size(), c.percents.size());
        for (size_t i = 0; i < percents.size(); ++i) EXPECT_NEAR(percents[i], c.percents[i], 1e-9) << i;
    }
}

TEST(SystemMetrics, StopEndsTheEventsAndStartTakesANewBaseline) {
    auto restart = [](SystemMetricsService& service, ScriptedSampler&) {
        service.stop();
        service.start();  // measured from the sample before stop(), its first event would read 10
    };
    EXPECT_EQ(run({{0, CpuTimes{0, 0}}, {1'000'000, CpuTimes{900'000, 0}}, {1'500'000, CpuTimes{1'000'000, 0}},
                   {2'000'000, CpuTimes{1'000'000, 0}}, {3'000'000, CpuTimes{1'250'000, 0}}},
                  2, "cpuPercent", restart),
              (std::vector<double>{90, 0, 25}));
    // Memory in mebibytes; without a reading, 1 % of the machine's memory.
    auto noReading = [](SystemMetricsService&, ScriptedSampler& sampler) { sampler.resident.reset(); };
    EXPECT_EQ(run({{0, CpuTimes{}}, {0, CpuTimes{}}, {1, CpuTimes{}}}, 2, "memoryMB", noReading),
              (std::vector<double>{142, 16 * 1024 / 100.0}));
}
