#include "telemetry/SystemMetricsService.h"

#include <algorithm>

namespace velko {

OrderedJson systemMetricsPayload(const SystemMetricsSnapshot& snapshot) {
    return OrderedJson{{"timestamp", formatIso8601(snapshot.timestamp)},
                       {"cpuPercent", snapshot.cpuPercent},
                       {"memoryMB", snapshot.memoryMB}};
}

SystemMetricsService::SystemMetricsService(std::weak_ptr<EventDispatching> emitter, Options options)
    : m_emitter(std::move(emitter)),
      m_sampler(options.sampler ? std::move(options.sampler) : std::make_shared<ProcessMetricsSampler>()),
      m_pollingInterval(options.pollingInterval),
      m_monotonicClock(std::move(options.monotonicClock)),
      m_clock(std::move(options.clock)) {
    if (!m_monotonicClock) m_monotonicClock = [] { return std::chrono::steady_clock::now(); };
    if (!m_clock) m_clock = [] { return std::chrono::system_clock::now(); };
}

void SystemMetricsService::start() {
    if (m_running) return;
    m_running = true;
    // Clock, then sample: the same order as every later reading.
    m_lastSampleTime = m_monotonicClock();
    m_lastCPUTime = m_sampler->sampleCPUTime();
    emitCurrentMetrics();
    scheduleNext();
}

void SystemMetricsService::stop() {
    m_running = false;
    ++m_generation;
    m_lastCPUTime.reset();
    m_lastSampleTime.reset();
}

void SystemMetricsService::scheduleNext() {
    std::weak_ptr<SystemMetricsService> weak = weak_from_this();
    mainQueue().postDelayed(m_pollingInterval, [weak, generation = m_generation] {
        auto self = weak.lock();
        if (!self || !self->m_running || generation != self->m_generation) return;
        self->emitCurrentMetrics();
        self->scheduleNext();
    });
}

void SystemMetricsService::emitCurrentMetrics() {
    if (auto emitter = m_emitter.lock()) emitter->dispatchEvent("system/metrics", systemMetricsPayload(getCurrentMetrics()));
}

SystemMetricsSnapshot SystemMetricsService::getCurrentMetrics() {
    constexpr double kMebibyte = 1024.0 * 1024.0;
    SystemMetricsSnapshot snapshot;
    snapshot.timestamp = m_clock();
    if (auto resident = m_sampler->residentBytes())
        snapshot.memoryMB = static_cast<double>(*resident) / kMebibyte;
    else
        snapshot.memoryMB = static_cast<double>(m_sampler->physicalMemoryBytes()) / kMebibyte / 100.0;
    snapshot.cpuPercent = calculateCPUPercent();
    return snapshot;
}

double SystemMetricsService::calculateCPUPercent() {
    auto now = m_monotonicClock();
    auto sample = m_sampler->sampleCPUTime();
    if (!sample) return 0;
    auto store = [&] {
        m_lastCPUTime = sample;
        m_lastSampleTime = now;
    };
    if (!m_lastCPUTime || !m_lastSampleTime) {
        store();
        return 0;
    }
    double elapsed = std::chrono::duration<double, std::micro>(now - *m_lastSampleTime).count();
    if (elapsed <= 0) {
        store();
        return 0;
    }
    // A counter that fell counts as no growth rather than a wrap-around.
    auto growth = [](uint64_t current, uint64_t previous) { return current >= previous ? current - previous : 0; };
    double gained = static_cast<double>(growth(sample->user, m_lastCPUTime->user) +
                                        growth(sample->system, m_lastCPUTime->system));
    double percent = std::min(gained / elapsed * 100.0, 100.0 * m_sampler->activeProcessorCount());
    store();
    return percent;
}

}  // namespace velko
