// "git/status" end to end (message into the bridge → "git/status" script out)
// against `git status --porcelain=v2` alone, on one generated repository of
// 20,000 files with 2,000 modified, taking turns (see BenchSupport.h). Most
// of both is git's own work, so the clock is CPU time of this process and
// its reaped children. The figure is end-to-end ÷ plain git; no goal is set
// for it, it shows what velko adds.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "BenchSupport.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "git/GitService.h"
#include "shell/ServiceAdapters.h"
#include "shell/WebBridge.h"

using namespace velko;

namespace {

class FlagView final : public WebViewHosting {
public:
    void evaluateScript(const std::string& script) override {
        if (script.find("git/status") != std::string::npos) ++statuses;
    }
    std::atomic<int> statuses{0};
};

class OneProject final : public ProjectProviding {
public:
    explicit OneProject(std::string root) {
        ProjectMetadata p;
        p.id = Uuid::random();
        p.name = "bench";
        p.rootPath = std::move(root);
        m_config.projects.push_back(p);
        m_config.activeProjectID = p.id;
    }
    const AppConfig& config() const override { return m_config; }
    std::optional<ProjectMetadata> project(const Uuid& id) const override {
        if (id == m_config.projects[0].id) return m_config.projects[0];
        return std::nullopt;
    }
    Uuid id() const { return m_config.projects[0].id; }

private:
    AppConfig m_config;
};

GitEnvironment benchEnvironment(const std::string& home) {
    GitEnvironment env = currentProcessEnvironment();
    env["HOME"] = home;
    env["GIT_CONFIG_NOSYSTEM"] = "1";
    env["GIT_CONFIG_GLOBAL"] = "/dev/null";
    env["GIT_AUTHOR_NAME"] = env["GIT_COMMITTER_NAME"] = "bench";
    env["GIT_AUTHOR_EMAIL"] = env["GIT_COMMITTER_EMAIL"] = "bench@velko.invalid";
    return gitEnvironment(env);
}

// Set-up files need no fsync: 22,000 of them would take minutes on a busy disk.
void writeSetupFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

struct Repository {
    std::string root;
    std::string repo;
    Repository() {
        char pattern[] = "/tmp/velko-bench-git-XXXXXX";
        root = mkdtemp(pattern);
        repo = root + "/repo";
        GitEnvironment env = benchEnvironment(root);
        ProcessGitProcessRunner runner;
        runner.run({"git", "init", "-q", "-b", "main", repo}, root, env);
        for (int d = 0; d < 200; ++d) {
            std::string dir = repo + "/d" + std::to_string(d);
            std::filesystem::create_directories(dir);
            for (int f = 0; f < 100; ++f) {
                writeSetupFile(dir + "/f" + std::to_string(f) + ".txt", "line " + std::to_string(f) + "\n");
            }
        }
        runner.run({"git", "add", "-A"}, repo, env);
        runner.run({"git", "commit", "-q", "-m", "bench"}, repo, env);
        for (int d = 0; d < 200; ++d) {
            for (int f = 0; f < 10; ++f) {
                writeSetupFile(repo + "/d" + std::to_string(d) + "/f" + std::to_string(f) + ".txt", "changed\n");
            }
        }
        runner.run({"git", "status", "--porcelain=v2"}, repo, env);  // refresh the index once
    }
    ~Repository() {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
};

void BM_GitStatusEndToEndVersusPlainGit(benchmark::State& state) {
    static Repository repository;
    setMainQueue(std::make_shared<GlibMainQueue>());
    auto project = std::make_shared<OneProject>(repository.repo);
    GitService::Dependencies deps;
    deps.configProvider = project;
    deps.environment = benchEnvironment(repository.root);
    auto service = std::make_shared<GitService>(std::move(deps));
    auto bridge = std::make_shared<WebBridge>();
    auto view = std::make_shared<FlagView>();
    bridge->setWebView(view);
    bridge->notifyWebViewDidFinishNavigation();
    auto gitOperations = makeGitOperating(service);  // the bridge holds it weakly
    bridge->setGitService(gitOperations);
    service->setEventSink(bridge);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    const std::string message = "{\"type\":\"git/status\",\"payload\":{\"projectId\":\"" + project->id().toString() + "\"}}";
    GitEnvironment env = benchEnvironment(repository.root);

    bench::SideBySide figure(state, {"git status end to end / plain git (time)", bench::Ratio::VariantOverBaseline,
                                     bench::Clock::ProcessAndChildrenCpu, bench::Goal::none()});
    for (auto _ : state) {
        figure.round(
            [&] {
                auto plain = spawnAndDrain({"git", "status", "--porcelain=v2"}, repository.repo, env);
                benchmark::DoNotOptimize(plain.stdoutBytes.data());
            },
            [&] {
                int before = view->statuses;
                bridge->handleMessageText(message);
                // Block in the GLib main context like the program does, so
                // that no spinning thread takes a core from git.
                while (view->statuses == before) g_main_context_iteration(nullptr, TRUE);
            });
    }
    figure.report();
}
BENCHMARK(BM_GitStatusEndToEndVersusPlainGit)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(15));

}  // namespace

BENCHMARK_MAIN();
