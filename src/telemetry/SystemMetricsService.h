#pragma once
// SystemMetricsService: measures velko's own CPU use and memory every few
// seconds and pushes them to the page as "system/metrics" (the small
// "CPU 3.1% · 142 MB" in a corner).
//
// The CPU percentage is the CPU time the process gained since the previous
// sample over the time that passed, so it may exceed 100 on several
// processors (never 100 × their count). A failed CPU sample reads as 0; a
// failed memory reading as 1 % of the machine's memory. Neither is reported.
//
// Main thread only: start(), stop() and the timer, which runs on the main
// queue. Owned by the composition root; the page is reached through a weak
// event dispatcher.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "core/TaskQueue.h"
#include "core/Time.h"
#include "telemetry/SystemMetricsSampler.h"

namespace velko {

struct SystemMetricsSnapshot {
    SystemTime timestamp;
    double cpuPercent = 0;
    double memoryMB = 0;  // resident size in mebibytes
};

OrderedJson systemMetricsPayload(const SystemMetricsSnapshot& snapshot);

class SystemMetricsService : public std::enable_shared_from_this<SystemMetricsService> {
public:
    using MonotonicClock = std::function<std::chrono::steady_clock::time_point()>;

    struct Options {
        std::shared_ptr<SystemMetricsSampling> sampler = {};  // default: this process
        Duration pollingInterval = std::chrono::seconds(5);
        // Measures the time between samples; a steady clock, so that a change
        // of the wall clock never makes a percentage.
        MonotonicClock monotonicClock = {};
        std::function<SystemTime()> clock = {};  // the events' timestamps
    };

    SystemMetricsService(std::weak_ptr<EventDispatching> emitter, Options options);

    // Takes the baseline, sends the first metrics at once, then every interval.
    void start();
    // Ends the timer and forgets the baseline; a later start() takes a new one.
    void stop();
    bool isRunning() const { return m_running; }

    SystemMetricsSnapshot getCurrentMetrics();

private:
    void emitCurrentMetrics();
    void scheduleNext();
    double calculateCPUPercent();

    std::weak_ptr<EventDispatching> m_emitter;
    std::shared_ptr<SystemMetricsSampling> m_sampler;
    Duration m_pollingInterval;
    MonotonicClock m_monotonicClock;
    std::function<SystemTime()> m_clock;
    std::optional<CpuTimes> m_lastCPUTime;
    std::optional<std::chrono::steady_clock::time_point> m_lastSampleTime;
    bool m_running = false;
    uint64_t m_generation = 0;  // a timer armed before the last stop() is void
};

}  // namespace velko
