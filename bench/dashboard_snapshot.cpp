// A forced dashboard snapshot of 20 real repositories (languages faked)
// against the same git commands run one after another, taking turns (see
// BenchSupport.h). The snapshot runs the projects on a pool, so what it asks
// is wall time: on two cores the floor is about 0.5, since git itself is the
// work, and a busy machine moves it. The CPU of both sides with their reaped
// git children is printed beside it: that one holds still under load, and
// what the snapshot adds to it is its own work. No goal is set for either.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "dashboard/DashboardMetricsService.h"

using namespace velko;

namespace {

constexpr int kRepositories = 20;
constexpr int kCommits = 3000;

GitEnvironment benchEnvironment(const std::string& home) {
    GitEnvironment env = gitEnvironment();
    env["HOME"] = home;
    env["GIT_CONFIG_NOSYSTEM"] = "1";
    env["GIT_CONFIG_GLOBAL"] = home + "/.gitconfig";
    return env;
}

// Repositories whose commits are spread over the last 90 days, made in one
// fast-import each.
struct Repositories {
    std::string root;
    std::vector<ProjectMetadata> projects;
    Repositories() {
        char pattern[] = "/tmp/velko-bench-dashboard-XXXXXX";
        root = mkdtemp(pattern);
        long now = long(std::time(nullptr));
        for (int r = 0; r < kRepositories; ++r) {
            std::string dir = root + "/repo" + std::to_string(r);
            std::filesystem::create_directories(dir);
            std::string stream;
            for (int c = 0; c < kCommits; ++c) {
                long when = now - long(90L * 86400 * (kCommits - c) / kCommits);
                std::string message = "commit " + std::to_string(c);
                stream += "commit refs/heads/main\ncommitter Bench <b@velko.invalid> " + std::to_string(when) +
                          " +0000\ndata " + std::to_string(message.size()) + "\n" + message + "\n";
                stream += "\n";
            }
            std::string script = dir + "/stream";
            writeFileAtomically(script, stream);
            std::string command = "cd '" + dir + "' && git init -q -b main && git fast-import --quiet < stream && rm stream";
            if (std::system(command.c_str()) != 0) {
                std::fprintf(stderr, "could not make %s\n", dir.c_str());
                continue;
            }
            projects.push_back({Uuid::random(), "repo" + std::to_string(r), dir, std::nullopt, {}});
        }
    }
    ~Repositories() {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }
};

class FixedLanguages final : public DashboardLanguagesProviding {
public:
    LanguagesAnswer fetchLanguages(const ProjectMetadata&) override {
        return std::optional<LanguageBytes>(LanguageBytes{{"C++", 1000}});
    }
};

class Projects final : public DashboardProjectProviding {
public:
    explicit Projects(std::vector<ProjectMetadata> p) : m_projects(std::move(p)) {}
    Result<std::vector<ProjectMetadata>, DashboardMetricsError> dashboardProjects() override { return m_projects; }

private:
    std::vector<ProjectMetadata> m_projects;
};

// The seven commands the snapshot runs per project, with the same kind of bounds.
void runSerially(const std::vector<ProjectMetadata>& projects, const GitEnvironment& env, SystemTime now) {
    ProcessGitProcessRunner runner;
    auto today = std::chrono::floor<std::chrono::days>(now);
    auto at = [&](int days) { return formatDashboardDate(today + std::chrono::days(days)); };
    const std::vector<std::vector<std::string>> commands{
        {"git", "rev-parse", "--abbrev-ref", "HEAD"},
        {"git", "rev-list", "--count", "HEAD"},
        {"git", "rev-list", "--count", "HEAD", "--since=" + at(0), "--until=" + at(1)},
        {"git", "rev-list", "--count", "HEAD", "--since=" + at(-29), "--until=" + at(1)},
        {"git", "rev-list", "--count", "HEAD", "--since=" + at(-59), "--until=" + at(-29)},
        {"git", "log", "-1", "--pretty=%cI"},
        {"git", "log", "--since=" + at(-27), "--until=" + at(2), "--pretty=%cI", "--no-merges"},
    };
    for (const auto& project : projects)
        for (const auto& command : commands) benchmark::DoNotOptimize(runner.run(command, project.rootPath, env).status);
}

void BM_SnapshotVsSerialGit(benchmark::State& state) {
    Repositories repositories;
    auto main = std::make_shared<ManualQueue>();
    setMainQueue(main);
    GitEnvironment env = benchEnvironment(repositories.root);
    DashboardMetricsService::Dependencies deps;
    deps.projectProvider = std::make_shared<Projects>(repositories.projects);
    deps.languagesProvider = std::make_shared<FixedLanguages>();
    deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
    deps.calendar = DashboardCalendar::forZone("UTC");
    deps.environment = env;
    auto service = std::make_shared<DashboardMetricsService>(std::move(deps));

    bench::SideBySide figure(state, {"dashboard snapshot 20 repos / serial git commands (time)",
                                     bench::Ratio::VariantOverBaseline, bench::Clock::Wall, bench::Goal::atMost(0.6), "",
                                     1});
    bench::SideBySide cpuFigure(state, {"dashboard snapshot 20 repos / serial git commands, CPU (time)",
                                        bench::Ratio::VariantOverBaseline, bench::Clock::ProcessAndChildrenCpu,
                                        bench::Goal::none(), "cpu_", 1});
    double serialCpu = 0, snapshotCpu = 0;
    auto serial = [&]() -> double {
        bench::Stopwatch cpu(bench::Clock::ProcessAndChildrenCpu);
        bench::Stopwatch wall(bench::Clock::Wall);
        runSerially(repositories.projects, gitEnvironment(env), std::chrono::system_clock::now());
        serialCpu = cpu.elapsed();
        return wall.elapsed();
    };
    auto snapshot = [&]() -> double {
        bench::Stopwatch cpu(bench::Clock::ProcessAndChildrenCpu);
        bench::Stopwatch wall(bench::Clock::Wall);
        bool done = false, ok = false;
        service->fetchSnapshot(true, [&](auto result) {
            ok = result.ok();
            done = true;
        });
        // A short sleep, not a spin: the spin's CPU would count as the snapshot's.
        while (!done) {
            if (main->runUntilIdle() == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        snapshotCpu = cpu.elapsed();
        return ok ? wall.elapsed() : -1;
    };
    for (auto _ : state) {
        figure.round(serial, snapshot);
        if (figure.failed()) return state.SkipWithError("the snapshot failed");
        cpuFigure.record(serialCpu, snapshotCpu);
    }
    figure.report();
    cpuFigure.report();
}

}  // namespace

BENCHMARK(BM_SnapshotVsSerialGit)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(9, 1));
BENCHMARK_MAIN();
