#include "telemetry/SystemMetricsSampler.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace velko {

namespace {
uint64_t microseconds(const timeval& time) {
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000u + static_cast<uint64_t>(time.tv_usec);
}
}  // namespace

std::optional<CpuTimes> ProcessMetricsSampler::sampleCPUTime() {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) return std::nullopt;
    return CpuTimes{microseconds(usage.ru_utime), microseconds(usage.ru_stime)};
}

std::optional<uint64_t> ProcessMetricsSampler::residentBytes() {
    int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    char buffer[128];
    ssize_t n;
    do {
        n = read(fd, buffer, sizeof buffer - 1);
    } while (n < 0 && errno == EINTR);
    close(fd);
    if (n <= 0) return std::nullopt;
    buffer[n] = '\0';
    unsigned long long size = 0, resident = 0;
    if (std::sscanf(buffer, "%llu %llu", &size, &resident) != 2) return std::nullopt;
    long page = sysconf(_SC_PAGESIZE);
    return static_cast<uint64_t>(resident) * static_cast<uint64_t>(page > 0 ? page : 4096);
}

unsigned ProcessMetricsSampler::activeProcessorCount() {
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<unsigned>(count) : 1u;
}

uint64_t ProcessMetricsSampler::physicalMemoryBytes() {
    long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
    return pages > 0 && page > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(page) : 0;
}

}  // namespace velko
