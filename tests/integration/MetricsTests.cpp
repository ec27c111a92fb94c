// The real sampler around work this test does itself: CPU burnt on a thread
// until that thread's own clock shows it, memory touched page by page. No
// assertion on wall-clock time.
#include <gtest/gtest.h>
#include <time.h>

#include <cstring>
#include <thread>

#include "core/MainQueue.h"
#include "support/TestSupport.h"
#include "telemetry/SystemMetricsService.h"

using namespace velko;

TEST(SystemMetrics, TheRealSamplerSeesCpuBurntAndMemoryTouchedByThisProcess) {
    setMainQueue(std::make_shared<ManualQueue>());
    auto events = std::make_shared<test::EventRecorder>();
    auto sampler = std::make_shared<ProcessMetricsSampler>();
    auto service = std::make_shared<SystemMetricsService>(events, SystemMetricsService::Options{.sampler = sampler});
    service->start();
    auto before = sampler->sampleCPUTime();
    ASSERT_TRUE(before);
    std::thread([] {
        timespec t{};
        do {
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        } while (t.tv_sec == 0 && t.tv_nsec < 300'000'000);
    }).join();
    auto after = sampler->sampleCPUTime();
    ASSERT_TRUE(after);
    EXPECT_GE((after->user + after->system) - (before->user + before->system), 250'000u);
    auto metrics = service->getCurrentMetrics();
    EXPECT_GT(metrics.cpuPercent, 0);

    constexpr size_t kTouched = 64u << 20;
    auto memory = std::make_unique<char[]>(kTouched);
    std::memset(memory.get(), 1, kTouched);
    EXPECT_GE(service->getCurrentMetrics().memoryMB - metrics.memoryMB, 60);
    EXPECT_EQ(memory[kTouched - 1], 1);
}
