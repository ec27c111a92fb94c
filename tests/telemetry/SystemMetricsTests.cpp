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

using Steady = std::chrono::steady_clock;

// Each reading takes the next scripted sample; the clock is read once per sample.
struct ScriptedSampler final : SystemMetricsSampling {
    std::optional<CpuTimes> sampleCPUTime() override {
        if (samples.empty()) return std::nullopt;
        auto sample = samples.front();
        samples.pop_front();
        return sample;
    }
    std::optional<uint64_t> residentBytes() override { return resident; }
    unsigned activeProcessorCount() override { return processors; }
    uint64_t physicalMemoryBytes() override { return 16ull << 30; }
    std::deque<std::optional<CpuTimes>> samples;
    std::optional<uint64_t> resident = 142ull << 20;
    unsigned processors = 2;
};

struct Harness {
    Harness() { setMainQueue(main); }
    std::shared_ptr<SystemMetricsService> make(std::deque<int64_t> microseconds) {
        times = std::move(microseconds);
        return std::make_shared<SystemMetricsService>(
            events, SystemMetricsService::Options{.sampler = sampler, .monotonicClock = [this] {
                                                      int64_t t = times.empty() ? last : times.front();
                                                      if (!times.empty()) times.pop_front();
                                                      last = t;
                                                      return Steady::time_point(std::chrono::microseconds(t));
                                                  }});
    }
    std::vector<double> field(const char* name) const {
        std::vector<double> out;
        for (const auto& e : events->eventsOfType("system/metrics")) out.push_back(e.payload[name].get<double>());
        return out;
    }
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<test::EventRecorder> events = std::make_shared<test::EventRecorder>();
    std::shared_ptr<ScriptedSampler> sampler = std::make_shared<ScriptedSampler>();
    std::deque<int64_t> times;
    int64_t last = 0;
};

}  // namespace

TEST(SystemMetrics, PercentageFollowsTheCpuTimeGainedOverTheTimePassed) {
    struct Step {
        int64_t at;                     // microseconds on the steady clock
        std::optional<CpuTimes> cpu;    // nothing: the sample failed
    };
    struct Case {
        const char* name;
        unsigned processors;
        std::vector<Step> steps;        // the baseline, the first event at start, then one per interval
        std::vector<double> percents;   // of each event
    };
    const Case cases[] = {
        {"the first event covers the tiny time since the baseline", 2, {{0, CpuTimes{0, 0}}, {1000, CpuTimes{400, 100}}},
         {50}},
        {"a falling counter gains nothing", 2,
         {{0, CpuTimes{1000, 1000}}, {1'000'000, CpuTimes{500, 1500}}}, {0.05}},
        {"at most 100 per processor", 8, {{0, CpuTimes{0, 0}}, {1'000'000, CpuTimes{20'000'000, 0}}}, {800}},
        {"a failed sample reads 0 and keeps the old base", 2,
         {{0, CpuTimes{0, 0}}, {1'000'000, std::nullopt}, {2'000'000, CpuTimes{1'000'000, 0}}}, {0, 50}},
        {"no time passed", 2, {{0, CpuTimes{0, 0}}, {0, CpuTimes{500, 0}}, {1'000'000, CpuTimes{100'500, 0}}},
         {0, 10}},
        {"no baseline: the first sample becomes it", 2,
         {{0, std::nullopt}, {0, CpuTimes{0, 0}}, {5'000'000, CpuTimes{250'000, 0}}}, {0, 5}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h;
        h.sampler->processors = c.processors;
        std::deque<int64_t> times;
        for (const auto& step : c.steps) {
            times.push_back(step.at);
            h.sampler->samples.push_back(step.cpu);
        }
        // The baseline reads the clock once, each event once more.
        auto service = h.make(times);
        service->start();
        for (size_t i = 2; i < c.steps.size(); ++i) h.main->advance(5s);
        auto percents = h.field("cpuPercent");
        ASSERT_EQ(percents.size(), c.percents.size());
        for (size_t i = 0; i < percents.size(); ++i) EXPECT_NEAR(percents[i], c.percents[i], 1e-9) << i;
    }
}

TEST(SystemMetrics, StopEndsTheEventsAndStartTakesANewBaseline) {
    Harness h;
    h.sampler->samples = {CpuTimes{0, 0}, CpuTimes{0, 0}, CpuTimes{900'000, 0},
                          CpuTimes{5'000'000, 0}, CpuTimes{5'000'000, 0}, CpuTimes{5'250'000, 0}};
    auto service = h.make({0, 0, 1'000'000, 10'000'000, 10'000'000, 11'000'000});
    service->start();
    h.main->advance(5s);
    service->stop();
    h.main->advance(30s);
    EXPECT_EQ(h.field("cpuPercent"), (std::vector<double>{0, 90}));
    // Measured from the new baseline, not from the sample before stop().
    service->start();
    h.main->advance(5s);
    EXPECT_EQ(h.field("cpuPercent"), (std::vector<double>{0, 90, 0, 25}));
    // Memory in mebibytes; without a reading, 1 % of the machine's memory.
    EXPECT_EQ(h.field("memoryMB").back(), 142);
    h.sampler->resident.reset();
    EXPECT_NEAR(service->getCurrentMetrics().memoryMB, 16 * 1024 / 100.0, 1e-9);
}
