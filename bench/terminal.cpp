// Terminal benchmarks. Every figure is a ratio against a baseline measured in
// the same run, with the variants taking turns, because absolute times on a
// shared machine are noise.
//
//   OutputPath      whole output road (PTY read, normalise, log, base64,
//                   envelope, script) ÷ a PTY read loop that only counts bytes,
//                   both reading `cat` of the same file. Goal ≥ 1.0.
//   Normalizer      normaliser MiB/s ÷ memchr over the same 64 MiB, in
//                   4,095-byte reads, in thread CPU time. Goals: ≥ 0.25
//                   escape-heavy, ≥ 0.8 plain.
//   SessionStart    "terminal/create" → first output byte ÷ bare `zsh -l` on a
//                   PTY to its first byte, same HOME. Goal ≤ 1.2.
//   KeystrokeEcho   "terminal/input" handled → "terminal/output" holding the
//                   echo, median and p99 over 1,000 keystrokes, in process and
//                   through `velko --headless`. Goal p99 < 2 ms.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "core/Base64.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "shell/WebBridge.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/PTYDriver.h"
#include "terminal/TerminalCoordinator.h"
#include "terminal/TerminalLogger.h"
#include "terminal/TerminalOutputNormalizer.h"
#include "terminal/TerminalOutputPump.h"
#include "terminal/TerminalProcess.h"
#include "terminal/TerminalReaper.h"
#include "terminal/TerminalService.h"
#include "workspace/ConfigStore.h"

extern char** environ;

using namespace velko;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

// A private HOME, cache and ZDOTDIR for the whole run; never the user's.
struct Sandbox {
    std::string root;
    Sandbox() {
        std::string pattern = temporaryDirectory() + "/velko-bench-XXXXXX";
        root = ::mkdtemp(pattern.data()) ? pattern : "/tmp";
        ::setenv("HOME", root.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (root + "/data").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (root + "/cache").c_str(), 1);
        ::setenv("ZDOTDIR", (root + "/zdot").c_str(), 1);
        createDirectories(root + "/zdot");
        std::ofstream(root + "/zdot/.zshrc") << "PROMPT='velko%% '\n";
    }
    ~Sandbox() {
        if (root.size() > 5) std::system(("rm -rf '" + root + "'").c_str());
    }
};

Sandbox& sandbox() {
    static Sandbox instance;
    return instance;
}

// Output as a colourful terminal program writes it: SGR colours, cursor
// moves, OSC titles and UTF-8 text.
std::string escapeHeavy(size_t size) {
    std::string out;
    std::mt19937 random(42);
    while (out.size() < size) {
        out += "\x1b[1;3" + std::to_string(random() % 8) + "mdrwxr-xr-x\x1b[0m  ";
        out += "\x1b[38;5;" + std::to_string(random() % 256) + "mファイル-" + std::to_string(random()) + ".txt\x1b[0m";
        if (random() % 16 == 0) out += "\x1b]0;velko: ~/project\x07";
        if (random() % 8 == 0) out += "\x1b[2K\x1b[1G\x1b[A";
        out += "\r\n";
    }
    out.resize(size);
    return out;
}

std::string plainText(size_t size) {
    std::string out;
    std::mt19937 random(7);
    while (out.size() < size) out += "line " + std::to_string(random()) + " of a plain build log with nothing special\n";
    out.resize(size);
    return out;
}

std::string writeInput(const std::string& name, const std::string& contents) {
    std::string path = sandbox().root + "/" + name;
    std::ofstream(path, std::ios::binary) << contents;
    return path;
}

// Reads a PTY master until end of stream; returns the bytes seen.
uint64_t drainCounting(int master) {
    uint64_t total = 0;
    char buffer[65536];
    for (;;) {
        pollfd pfd{master, POLLIN, 0};
        if (::poll(&pfd, 1, 1000) < 0 && errno != EINTR) break;
        ssize_t n = ::read(master, buffer, sizeof buffer);
        if (n > 0) total += static_cast<uint64_t>(n);
        else if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        else break;
    }
    return total;
}

// Sleeps until the monitor reports the exit: a polling loop here would wake
// thousands of times a second and take the core from the thread measured.
void waitForExit(TerminalProcess& process) {
    std::mutex mutex;
    std::condition_variable exited;
    bool done = false;
    process.setTerminationHandler([&](TerminalProcess&) {
        std::lock_guard lock(mutex);
        done = true;
        exited.notify_all();
    });
    std::unique_lock lock(mutex);
    exited.wait(lock, [&] { return done; });
}

// Stands in for the web view: builds the script the bridge would evaluate,
// and says "delivered" at once.
class ScriptSink final : public EventDispatching {
public:
    void dispatchEvent(std::string_view, const OrderedJson&) override {}
    void dispatchEncodedEvent(std::string_view, std::string envelope, std::function<void()> onDelivered) override {
        std::string script = buildEventScript(envelope);
        bytes.fetch_add(script.size(), std::memory_order_relaxed);
        benchmark::DoNotOptimize(script.data());
        if (onDelivered) onDelivered();
    }
    std::atomic<uint64_t> bytes{0};
};

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void BM_OutputPath(benchmark::State& state) {
    constexpr size_t kInputBytes = 16 << 20;
    const std::string input = writeInput("output.txt", escapeHeavy(kInputBytes));
    double rawSeconds = 0, pathSeconds = 0, pathCpu = 0;
    uint64_t rawBytes = 0, pathBytes = 0;
    std::vector<double> ratios;
    TerminalReaper reaper;
    // Baseline: the same PTY, only counted.
    auto runRaw = [&] {
        auto start = Clock::now();
        auto raw = PTYDriver::spawn(reaper, "/bin/cat", {input}, "/", {}, 120, 40);
        if (!raw) return false;
        rawBytes += drainCounting(raw->masterHandle.get());
        waitForExit(*raw->process);
        rawSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        return true;
    };
    // The whole road, log included.
    auto runPath = [&] {
        auto sink = std::make_shared<ScriptSink>();
        auto logger = TerminalLogger::create(sandbox().root + "/cache/velko-terminal.log");
        const double cpuBefore = cpuSeconds();
        auto start = Clock::now();
        auto spawned = PTYDriver::spawn(reaper, "/bin/cat", {input}, "/", {}, 120, 40);
        if (!spawned) return false;
        {
            TerminalOutputPump pump(Uuid::random(), spawned->masterHandle.get(), logger, sink);
            pump.start();
            waitForExit(*spawned->process);
            pump.finish();
        }
        logger->drainForTesting();
        pathSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        pathCpu += cpuSeconds() - cpuBefore;
        pathBytes += kInputBytes;
        return true;
    };
    bool rawFirst = true;
    for (auto _ : state) {
        const double rawBefore = rawSeconds, pathBefore = pathSeconds;
        // The variants take turns going first, so neither always meets a warmer cache.
        const bool ok = rawFirst ? runRaw() && runPath() : runPath() && runRaw();
        rawFirst = !rawFirst;
        if (!ok) {
            state.SkipWithError("spawn failed");
            return;
        }
        ratios.push_back((rawSeconds - rawBefore) / (pathSeconds - pathBefore));
    }
    std::sort(ratios.begin(), ratios.end());
    const double rawRate = rawBytes / kMiB / rawSeconds, pathRate = pathBytes / kMiB / pathSeconds;
    state.counters["raw_MiBps"] = rawRate;
    state.counters["path_MiBps"] = pathRate;
    state.counters["ratio_path_over_raw"] = pathRate / rawRate;
    state.counters["median_round_ratio"] = ratios[ratios.size() / 2];
    state.counters["velko_cpu_share"] = pathCpu / pathSeconds;
}

// Both variants are pure computation on this thread: its CPU time, unlike the
// wall clock, does not count the time other processes had the core.
double threadCpuSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void normalizerRun(benchmark::State& state, const std::string& text) {
    constexpr size_t kRead = 4095;
    double normalizeSeconds = 0, memchrSeconds = 0;
    std::vector<double> ratios;
    uint64_t sink = 0;
    std::string out;
    out.reserve(kRead * 2);
    for (auto _ : state) {
        const double memchrBefore = memchrSeconds, normalizeBefore = normalizeSeconds;
        auto start = threadCpuSeconds();
        for (size_t at = 0; at < text.size(); at += kRead) {
            const char* p = text.data() + at;
            const char* end = p + std::min(kRead, text.size() - at);
            while ((p = static_cast<const char*>(std::memchr(p, 0x1b, static_cast<size_t>(end - p))))) {
                ++sink;
                ++p;
            }
        }
        memchrSeconds += threadCpuSeconds() - start;

        TerminalOutputNormalizer normalizer;
        start = threadCpuSeconds();
        for (size_t at = 0; at < text.size(); at += kRead) {
            out.clear();
            normalizer.normalizeInto(std::string_view(text).substr(at, kRead), out);
            sink += out.size();
        }
        normalizeSeconds += threadCpuSeconds() - start;
        ratios.push_back((memchrSeconds - memchrBefore) / (normalizeSeconds - normalizeBefore));
    }
    std::sort(ratios.begin(), ratios.end());
    state.counters["median_round_ratio"] = ratios[ratios.size() / 2];
    benchmark::DoNotOptimize(sink);
    const double mib = text.size() / kMiB * static_cast<double>(state.iterations());
    state.counters["memchr_MiBps"] = mib / memchrSeconds;
    state.counters["normalizer_MiBps"] = mib / normalizeSeconds;
    state.counters["ratio_normalizer_over_memchr"] = memchrSeconds / normalizeSeconds;
}

void BM_NormalizerEscapeHeavy(benchmark::State& state) {
    static const std::string text = escapeHeavy(64 << 20);
    normalizerRun(state, text);
}

void BM_NormalizerPlain(benchmark::State& state) {
    static const std::string text = plainText(64 << 20);
    normalizerRun(state, text);
}

// Waits for the first output byte of a session; signalled from a reader thread.
class FirstOutput final : public EventDispatching {
public:
    void dispatchEvent(std::string_view, const OrderedJson&) override {}
    void dispatchEncodedEvent(std::string_view type, std::string envelope, std::function<void()> onDelivered) override {
        if (type == "terminal/output") {
            std::lock_guard lock(m_mutex);
            m_envelopes.push_back(std::move(envelope));
            m_changed.notify_all();
        }
        if (onDelivered) onDelivered();
    }
    // Waits until some output after `from` decodes to text holding `needle`.
    bool waitFor(size_t from, const std::string& needle, std::chrono::milliseconds limit) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] {
            if (needle.empty()) return m_envelopes.size() > from;
            std::string bytes;
            for (size_t i = from; i < m_envelopes.size(); ++i) {
                auto& e = m_envelopes[i];
                auto chunkAt = e.find("\"chunk\":\"") + 9;
                bytes += base64Decode(std::string_view(e).substr(chunkAt, e.find('"', chunkAt) - chunkAt)).value_or("");
            }
            return bytes.find(needle) != std::string::npos;
        });
    }
    size_t count() {
        std::lock_guard lock(m_mutex);
        return m_envelopes.size();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_envelopes;
};

struct Terminals {
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<ConfigStore> store;
    std::shared_ptr<TerminalCoordinator> coordinator;
    std::shared_ptr<TerminalService> service;
    std::shared_ptr<FirstOutput> page = std::make_shared<FirstOutput>();

    Terminals() {
        sandbox();
        setMainQueue(queue);
        store = std::make_shared<ConfigStore>(sandbox().root + "/data/velko");
        (void)store->bootstrap();
        coordinator = std::make_shared<TerminalCoordinator>(TerminalCoordinator::Options{});
        service = TerminalService::create(store, coordinator, std::make_shared<CodexShimInstaller>());
        service->setBridge(page);
        queue->runUntilIdle();
    }
    ~Terminals() {
        service->shutdown();
        queue->runUntilIdle();
        // Closed shells leave within the reaper's grace period.
        for (int i = 0; i < 500 && coordinator->reaper()->childCount() > 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Uuid create() {
        service->createSession(std::string("bench"), std::nullopt);
        return store->config().cliSessions.back().id;
    }
    void close(const Uuid& id) {
        auto json = parseJson("{\"sessionId\":\"" + id.toString() + "\"}");
        service->handleMessage("terminal/close", &*json);
        queue->runUntilIdle();
    }
};

void BM_SessionStart(benchmark::State& state) {
    Terminals terminals;
    double velkoSeconds = 0, bareSeconds = 0, createSeconds = 0;
    std::vector<double> ratios;
    for (auto _ : state) {
        auto start = Clock::now();
        const double bareBefore = bareSeconds, velkoBefore = velkoSeconds;
        auto bare = PTYDriver::spawn(*terminals.coordinator->reaper(), "/bin/zsh", {"-l"}, sandbox().root, {}, 120, 40);
        if (!bare) {
            state.SkipWithError("zsh did not start");
            return;
        }
        pollfd pfd{bare->masterHandle.get(), POLLIN, 0};
        ::poll(&pfd, 1, 5000);
        bareSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        bare->masterHandle.reset();
        waitForExit(*bare->process);

        const size_t before = terminals.page->count();
        start = Clock::now();
        const Uuid id = terminals.create();
        createSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        terminals.page->waitFor(before, "", std::chrono::milliseconds(5000));
        velkoSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        terminals.close(id);
        ratios.push_back((velkoSeconds - velkoBefore) / (bareSeconds - bareBefore));
    }
    std::sort(ratios.begin(), ratios.end());
    state.counters["median_round_ratio"] = ratios[ratios.size() / 2];
    state.counters["bare_ms"] = bareSeconds * 1e3 / static_cast<double>(state.iterations());
    state.counters["velko_ms"] = velkoSeconds * 1e3 / static_cast<double>(state.iterations());
    state.counters["create_call_ms"] = createSeconds * 1e3 / static_cast<double>(state.iterations());
    state.counters["ratio_velko_over_bare"] = velkoSeconds / bareSeconds;
}

void BM_KeystrokeEcho(benchmark::State& state) {
    Terminals terminals;
    const Uuid id = terminals.create();
    if (!terminals.page->waitFor(0, "velko% ", std::chrono::milliseconds(10000))) {
        state.SkipWithError("no prompt");
        return;
    }
    std::vector<double> latencies;
    const std::string keys = "abcdefghijklmnopqrstuvwxyz";
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i) {
            // Ctrl+U every so often keeps the line short, as typing does.
            if (i > 0 && i % 50 == 0) {
                const size_t before = terminals.page->count();
                auto json = parseJson("{\"sessionId\":\"" + id.toString() + "\",\"data\":\"\\u0015\"}");
                terminals.service->handleMessage("terminal/input", &*json);
                terminals.page->waitFor(before, "", std::chrono::milliseconds(2000));  // the line is erased
            }
            const std::string key(1, keys[static_cast<size_t>(i) % keys.size()]);
            auto json = parseJson("{\"sessionId\":\"" + id.toString() + "\",\"data\":\"" + key + "\"}");
            const size_t before = terminals.page->count();
            auto start = Clock::now();
            terminals.service->handleMessage("terminal/input", &*json);
            if (!terminals.page->waitFor(before, key, std::chrono::milliseconds(2000))) {
                state.SkipWithError("no echo");
                return;
            }
            latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100];
    terminals.close(id);
}

// The same keystrokes through the whole program: `velko --headless`, its
// standard input and output standing in for the page.
void BM_KeystrokeEchoHeadless(benchmark::State& state) {
    sandbox();
    char self[4096] = {};
    if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        state.SkipWithError("no executable path");
        return;
    }
    std::string binary = self;
    binary = binary.substr(0, binary.rfind('/')) + "/../velko";
    const std::string project = sandbox().root + "/project";
    createDirectories(project);
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> args = {binary, "--headless", "--pick-folder", project};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    if (spawned != 0) {
        state.SkipWithError("velko did not start");
        return;
    }
    std::string buffer;
    auto send = [&](const std::string& line) { (void)!::write(in[1], line.data(), line.size()); };
    // Reads events until `match` accepts one; nothing within two seconds fails.
    auto waitFor = [&](const std::function<bool(const Json&)>& match) {
        for (;;) {
            size_t newline;
            while ((newline = buffer.find('\n')) != std::string::npos) {
                auto event = parseJson(std::string_view(buffer).substr(0, newline));
                buffer.erase(0, newline + 1);
                if (event && match(*event)) return true;
            }
            pollfd pfd{out[0], POLLIN, 0};
            if (::poll(&pfd, 1, 2000) <= 0) return false;
            char chunk[65536];
            ssize_t n = ::read(out[0], chunk, sizeof chunk);
            if (n <= 0) return false;
            buffer.append(chunk, static_cast<size_t>(n));
        }
    };
    std::string sessionId;
    std::string seen;
    auto outputHolds = [&](const std::string& needle) {
        return [&, needle](const Json& e) {
            if (e.value("type", "") != "terminal/output" || e["payload"].value("sessionId", "") != sessionId) return false;
            seen += base64Decode(e["payload"].value("chunk", "")).value_or("");
            return seen.find(needle) != std::string::npos;
        };
    };
    send("{\"type\":\"project/open\",\"payload\":{}}\n");
    send("{\"type\":\"terminal/create\",\"payload\":{\"title\":\"bench\"}}\n");
    const bool ready = waitFor([&](const Json& e) {
        if (e.value("type", "") != "terminal/created" || e["payload"].value("title", "") != "bench") return false;
        sessionId = e["payload"].value("sessionId", "");
        return true;
    }) && waitFor(outputHolds("velko% "));
    std::vector<double> latencies;
    const std::string keys = "abcdefghijklmnopqrstuvwxyz";
    for (auto _ : state) {
        if (!ready) break;
        for (int i = 0; i < 1000; ++i) {
            if (i > 0 && i % 50 == 0) {
                seen.clear();
                send("{\"type\":\"terminal/input\",\"payload\":{\"sessionId\":\"" + sessionId +
                     "\",\"data\":\"\\u0015\"}}\n");
                waitFor(outputHolds(""));  // the line is erased
            }
            const std::string key(1, keys[static_cast<size_t>(i) % keys.size()]);
            seen.clear();
            auto start = Clock::now();
            send("{\"type\":\"terminal/input\",\"payload\":{\"sessionId\":\"" + sessionId + "\",\"data\":\"" +
                 key + "\"}}\n");
            if (!waitFor(outputHolds(key))) break;
            latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
    }
    ::close(in[1]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(out[0]);
    if (latencies.size() < 1000) {
        state.SkipWithError("echo missing");
        return;
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100];
}

}  // namespace

BENCHMARK(BM_OutputPath)->Unit(benchmark::kMillisecond)->Iterations(9)->UseRealTime();
BENCHMARK(BM_NormalizerEscapeHeavy)->Unit(benchmark::kMillisecond)->Iterations(9);
BENCHMARK(BM_NormalizerPlain)->Unit(benchmark::kMillisecond)->Iterations(9);
BENCHMARK(BM_SessionStart)->Unit(benchmark::kMillisecond)->Iterations(20)->UseRealTime();
BENCHMARK(BM_KeystrokeEcho)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_KeystrokeEchoHeadless)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

BENCHMARK_MAIN();
