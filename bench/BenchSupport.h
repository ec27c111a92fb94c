#pragma once
// BenchSupport: side-by-side ratios for velko's benchmarks.
//
// A benchmark states a baseline, a variant, the clock that measures them and
// a goal. Each Google Benchmark iteration is one round: baseline and variant
// run once each, the one that went first in the previous round going second,
// so neither always meets warmer caches or a quieter machine. The first
// rounds warm up and are discarded; the rest give one ratio each, and the
// figure is the median of those ratios with their spread (interquartile
// range and min–max). A median over alternating rounds tells the same story
// when other processes come and go; a sum of times would not.
//
// Where the work is computation or system calls of our own process, the
// clock is CPU time (the thread's, the process's, or with its reaped
// children): it does not count the time other processes held the core.
// Wall time is used only where waiting is the thing measured (a program's
// throughput through a PTY, a shell's first byte).
//
// Each figure prints one line, and when VELKO_BENCH_SUMMARY names a file,
// appends a tab-separated row to it, which scripts/bench turns into the
// summary table.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace velko::bench {

enum class Clock { Wall, ThreadCpu, ProcessCpu, ProcessAndChildrenCpu };

constexpr int kWarmupRounds = 2;

inline double seconds(const timespec& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}
inline double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }

inline double readClock(Clock clock) {
    timespec now{};
    switch (clock) {
        case Clock::Wall: ::clock_gettime(CLOCK_MONOTONIC, &now); return seconds(now);
        case Clock::ThreadCpu: ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now); return seconds(now);
        case Clock::ProcessCpu: ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now); return seconds(now);
        case Clock::ProcessAndChildrenCpu: {
            // Children count once they are reaped, which every benchmark
            // here does before it stops its clock.
            ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
            rusage children{};
            ::getrusage(RUSAGE_CHILDREN, &children);
            return seconds(now) + seconds(children.ru_utime) + seconds(children.ru_stime);
        }
    }
    return 0;
}

inline const char* clockName(Clock clock) {
    switch (clock) {
        case Clock::Wall: return "wall";
        case Clock::ThreadCpu: return "thread CPU";
        case Clock::ProcessCpu: return "process CPU";
        case Clock::ProcessAndChildrenCpu: return "CPU with children";
    }
    return "";
}

// Measures one span of work; a variant that must leave its set-up out of
// the measure starts one after the set-up and returns elapsed().
class Stopwatch {
public:
    explicit Stopwatch(Clock clock) : m_clock(clock), m_start(readClock(clock)) {}
    double elapsed() const { return readClock(m_clock) - m_start; }

private:
    Clock m_clock;
    double m_start;
};

// How many calls of `work` make a turn of about `seconds` on `clock`, for
// work too short to time one call at a time.
template <typename Work>
int repetitionsFor(Clock clock, double seconds, Work&& work) {
    Stopwatch watch(clock);
    int calls = 0;
    while (watch.elapsed() < seconds / 4 && calls < 1'000'000) {
        work();
        ++calls;
    }
    const double perCall = std::max(watch.elapsed() / std::max(calls, 1), 1e-9);
    return std::max(1, static_cast<int>(seconds / perCall));
}

struct Goal {
    enum class Kind { None, AtLeast, AtMost } kind = Kind::None;
    double value = 0;

    static Goal none() { return {}; }
    static Goal atLeast(double v) { return {Kind::AtLeast, v}; }
    static Goal atMost(double v) { return {Kind::AtMost, v}; }

    bool met(double median) const {
        return kind == Kind::AtLeast ? median >= value : kind == Kind::AtMost ? median <= value : true;
    }
    std::string text() const {
        if (kind == Kind::None) return "-";
        char out[32];
        std::snprintf(out, sizeof out, "%s %.2f", kind == Kind::AtLeast ? ">=" : "<=", value);
        return out;
    }
    std::string verdict(double median) const { return kind == Kind::None ? "-" : met(median) ? "yes" : "NO"; }
};

// Median, quartiles and extremes of a set of samples.
struct Spread {
    double median = 0, q1 = 0, q3 = 0, min = 0, max = 0;
    size_t count = 0;

    static Spread of(std::vector<double> values) {
        Spread s;
        s.count = values.size();
        if (values.empty()) return s;
        std::sort(values.begin(), values.end());
        // Linear interpolation between the closest ranks.
        auto quantile = [&](double q) {
            const double position = q * static_cast<double>(values.size() - 1);
            const size_t below = static_cast<size_t>(position);
            const size_t above = std::min(below + 1, values.size() - 1);
            return values[below] + (values[above] - values[below]) * (position - static_cast<double>(below));
        };
        s.median = quantile(0.5);
        s.q1 = quantile(0.25);
        s.q3 = quantile(0.75);
        s.min = values.front();
        s.max = values.back();
        return s;
    }
};

// Prints a figure and adds it to the run's summary table.
inline void reportFigure(const std::string& name, const Spread& s, const Goal& goal, const std::string& measure) {
    std::printf("  %-56s median %.3g  IQR %.3g-%.3g  range %.3g-%.3g  (%zu rounds, %s)  goal %s: %s\n", name.c_str(),
                s.median, s.q1, s.q3, s.min, s.max, s.count, measure.c_str(), goal.text().c_str(),
                goal.verdict(s.median).c_str());
    std::fflush(stdout);
    if (const char* path = std::getenv("VELKO_BENCH_SUMMARY"); path && *path) {
        if (FILE* file = std::fopen(path, "a")) {
            std::fprintf(file, "%s\t%.3g\t%.3g-%.3g\t%.3g-%.3g\t%s\t%s\n", name.c_str(), s.median, s.q1, s.q3, s.min,
                         s.max, goal.text().c_str(), goal.verdict(s.median).c_str());
            std::fclose(file);
        }
    }
}

// Which way a round's ratio is taken.
enum class Ratio {
    BaselineOverVariant,  // a speed ratio: 1 is as fast as the baseline, higher is faster
    VariantOverBaseline,  // a cost ratio: 1 costs as much as the baseline, lower is cheaper
};

struct Figure {
    Figure(std::string name, Ratio ratio, Clock clock, Goal goal, std::string counterPrefix = {},
           int warmupRounds = kWarmupRounds)
        : name(std::move(name)), ratio(ratio), clock(clock), goal(goal), counterPrefix(std::move(counterPrefix)),
          warmupRounds(warmupRounds) {}

    std::string name;  // the row of the summary table
    Ratio ratio;
    Clock clock;
    Goal goal;
    std::string counterPrefix;  // for a second figure of the same benchmark
    int warmupRounds;
};

// Rounds of a baseline and a variant taking turns; see the file comment.
//
//   SideBySide figure(state, {"explorer ÷ readdir + lstat", Ratio::VariantOverBaseline, Clock::ThreadCpu,
//                             Goal::atMost(1.2)});
//   for (auto _ : state) figure.round([&] { baseline(); }, [&] { variant(); });
//   figure.report();
//
// A side is either timed whole (it returns void) or returns its own measure
// in seconds (it returns double, e.g. from a Stopwatch started after its
// set-up). A negative measure means the side failed: the round is dropped
// and failed() turns true.
class SideBySide {
public:
    SideBySide(benchmark::State& state, Figure figure) : m_state(state), m_figure(std::move(figure)) {}

    template <typename Baseline, typename Variant>
    void round(Baseline&& baseline, Variant&& variant) {
        double baselineCost = 0, variantCost = 0;
        if (m_baselineFirst) {
            baselineCost = measure(baseline);
            variantCost = baselineCost < 0 ? -1 : measure(variant);
        } else {
            variantCost = measure(variant);
            baselineCost = variantCost < 0 ? -1 : measure(baseline);
        }
        m_baselineFirst = !m_baselineFirst;
        record(baselineCost, variantCost);
    }

    // For costs measured elsewhere; the caller alternates the order.
    void record(double baselineCost, double variantCost) {
        if (baselineCost < 0 || variantCost < 0) {
            m_failed = true;
            return;
        }
        if (m_seen++ < m_figure.warmupRounds) return;
        if (baselineCost <= 0 || variantCost <= 0) return;  // below the clock's resolution
        m_baselineCosts.push_back(baselineCost);
        m_variantCosts.push_back(variantCost);
        m_ratios.push_back(m_figure.ratio == Ratio::BaselineOverVariant ? baselineCost / variantCost
                                                                        : variantCost / baselineCost);
    }

    bool failed() const { return m_failed; }
    bool baselineGoesFirst() const { return m_baselineFirst; }
    const std::vector<double>& baselineCosts() const { return m_baselineCosts; }
    const std::vector<double>& variantCosts() const { return m_variantCosts; }

    // Sets the benchmark's counters and prints the figure.
    Spread report() {
        const Spread s = Spread::of(m_ratios);
        if (s.count == 0) {
            if (!m_failed) m_state.SkipWithError("no round was measured");
            return s;
        }
        const std::string& prefix = m_figure.counterPrefix;
        m_state.counters[prefix + "ratio_median"] = s.median;
        m_state.counters[prefix + "ratio_q1"] = s.q1;
        m_state.counters[prefix + "ratio_q3"] = s.q3;
        m_state.counters[prefix + "baseline_ms"] = Spread::of(m_baselineCosts).median * 1e3;
        m_state.counters[prefix + "variant_ms"] = Spread::of(m_variantCosts).median * 1e3;
        reportFigure(m_figure.name, s, m_figure.goal, clockName(m_figure.clock));
        return s;
    }

private:
    template <typename Side>
    double measure(Side& side) {
        if constexpr (std::is_same_v<std::invoke_result_t<Side&>, double>) {
            return side();
        } else {
            Stopwatch watch(m_figure.clock);
            side();
            return watch.elapsed();
        }
    }

    benchmark::State& m_state;
    Figure m_figure;
    bool m_baselineFirst = true;
    bool m_failed = false;
    int m_seen = 0;
    std::vector<double> m_ratios, m_baselineCosts, m_variantCosts;
};

// Iterations to register for `measured` rounds after the warm-up:
// BENCHMARK(BM_X)->Iterations(bench::withWarmup(9)).
constexpr int withWarmup(int measured, int warmup = kWarmupRounds) { return measured + warmup; }

}  // namespace velko::bench
