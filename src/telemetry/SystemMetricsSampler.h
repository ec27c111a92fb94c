#pragma once
// What velko measures of its own process: CPU time spent by it (user and
// system, in microseconds) and its resident memory. Only this process: not
// the machine, not the shells of the terminal sessions.
//
// SystemMetricsSampling is the seam for tests; ProcessMetricsSampler asks the
// kernel. Both are cheap (a system call or a small /proc read) and safe on
// any thread.

#include <cstdint>
#include <optional>

namespace velko {

struct CpuTimes {
    uint64_t user = 0;    // microseconds
    uint64_t system = 0;  // microseconds
};

class SystemMetricsSampling {
public:
    virtual ~SystemMetricsSampling() = default;
    virtual std::optional<CpuTimes> sampleCPUTime() = 0;
    virtual std::optional<uint64_t> residentBytes() = 0;
    virtual unsigned activeProcessorCount() = 0;
    virtual uint64_t physicalMemoryBytes() = 0;
};

// getrusage(RUSAGE_SELF) for CPU time (microsecond resolution, and threads
// that ended still count, so it never falls), /proc/self/statm for the
// resident pages.
class ProcessMetricsSampler final : public SystemMetricsSampling {
public:
    std::optional<CpuTimes> sampleCPUTime() override;
    std::optional<uint64_t> residentBytes() override;
    unsigned activeProcessorCount() override;
    uint64_t physicalMemoryBytes() override;
};

}  // namespace velko
