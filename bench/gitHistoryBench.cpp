// History list, branch map and commit graph against the plain work they
// cannot avoid, on one generated repository: 100,000 commits on main with a
// merge every 20, 200 branches of every kind, packed, with a commit-graph file.
//
// Rounds of the subject and its baseline taking turns (see BenchSupport.h).
// The clock is CPU time of this process and its reaped git children: git is
// most of the work, and CPU time holds still while other processes come and
// go. Only the branch map four at a time, whose point is running git side by
// side, is also shown in wall time. No goal is set for these figures.
//
//   history_first_page: "git/history" message in → event out (signed out,
//     page of 50, 10 commits ahead) ÷ `git rev-list --count HEAD` plus the
//     page's `git log --max-count=50 --numstat …`; also ÷ `git log
//     --max-count=50` alone; and page 200 of the same walk ÷ its own two commands.
//   branch_map: the map of 201 branches ÷ replaying the git commands it ran,
//     recorded, one after another; serial and four at a time; processes per branch.
//   graph: decoding a 1,000-commit answer, its lanes (≥ 12) and its payload
//     ÷ nlohmann::json::parse of the same bytes.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "BenchSupport.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "git/GitBranchMapProvider.h"
#include "git/GitCommitGraph.h"
#include "git/GitService.h"
#include "git/GitText.h"
#include "shell/ServiceAdapters.h"
#include "shell/WebBridge.h"

using namespace velko;

namespace {

constexpr bench::Clock kGitClock = bench::Clock::ProcessAndChildrenCpu;

GitEnvironment benchEnvironment(const std::string& home) {
    GitEnvironment env = currentProcessEnvironment();
    env["HOME"] = home;
    env["GIT_CONFIG_NOSYSTEM"] = "1";
    env["GIT_CONFIG_GLOBAL"] = "/dev/null";
    env["GIT_AUTHOR_NAME"] = env["GIT_COMMITTER_NAME"] = "bench";
    env["GIT_AUTHOR_EMAIL"] = env["GIT_COMMITTER_EMAIL"] = "bench@velko.invalid";
    return gitEnvironment(env);
}

struct BigRepository {
    static constexpr int kCommits = 100000;
    std::string root, repo;
    GitEnvironment env;
    int branches = 0;

    BigRepository() {
        char pattern[] = "/tmp/velko-bench-history-XXXXXX";
        root = mkdtemp(pattern);
        repo = root + "/repo";
        env = benchEnvironment(root);
        git({"init", "-q", "-b", "main", repo}, root);
        std::string s;
        s.reserve(64u << 20);
        auto blob = [&](const std::string& path, const std::string& text) {
            s += "M 644 inline " + path + "\ndata " + std::to_string(text.size()) + "\n" + text + "\n";
        };
        auto commit = [&](const std::string& ref, int mark, int time, std::string_view from, std::string_view merge) {
            s += "commit " + ref + "\n";
            if (mark) s += "mark :" + std::to_string(mark) + "\n";
            s += "committer bench <bench@velko.invalid> " + std::to_string(1600000000 + time) + " +0000\n";
            std::string message = "change " + std::to_string(time);
            s += "data " + std::to_string(message.size()) + "\n" + message + "\n";
            if (!from.empty()) s += "from " + std::string(from) + "\n";
            if (!merge.empty()) s += "merge " + std::string(merge) + "\n";
        };
        auto mark = [](int m) { return ":" + std::to_string(m); };
        const int kSide = 200000;
        for (int i = 1; i <= kCommits; ++i) {
            if (i % 20 == 0) {  // a side commit, merged right away
                commit("refs/heads/side", kSide + i, i, mark(i - 1), "");
                blob("side/" + std::to_string(i % 500) + ".txt", std::to_string(i) + "\n");
            }
            commit("refs/heads/main", i, i, i > 1 ? mark(i - 1) : "", i % 20 == 0 ? mark(kSide + i) : "");
            blob("dir" + std::to_string(i % 100) + "/f" + std::to_string(i % 1000) + ".txt", std::to_string(i) + "\n");
        }
        std::vector<std::pair<std::string, std::string>> upstreams;
        auto branch = [&](const std::string& name, const std::string& at) {
            s += "reset refs/heads/" + name + "\nfrom " + at + "\n\n";
            ++branches;
        };
        int extra = 300000;
        for (int k = 1; k <= 40; ++k) {
            branch("ff-" + std::to_string(k), mark(kCommits - 37 * k));
            branch("merged-" + std::to_string(k), mark(kSide + kCommits - 20 * k));
            // Unmerged work forked off main; every fourth touches a file another one touches.
            commit("refs/heads/topic-" + std::to_string(k), ++extra, kCommits + k, mark(kCommits - 13 * k), "");
            blob(k % 4 == 0 ? "shared.txt" : "topic/" + std::to_string(k) + ".txt", std::to_string(k) + "\n");
            ++branches;
            // Merged, then continued.
            commit("refs/heads/followup-" + std::to_string(k), ++extra, kCommits + k,
                   mark(kSide + kCommits - 20 * (k + 40)), "");
            blob("followup/" + std::to_string(k) + ".txt", "f\n");
            ++branches;
        }
        for (int k = 1; k <= 20; ++k) {
            s += "reset refs/remotes/origin/remote-" + std::to_string(k) + "\nfrom " + mark(kCommits - 29 * k) + "\n\n";
            ++branches;
            // Pushed once, one more commit since.
            std::string name = "pushed-" + std::to_string(k);
            const int pushedMark = ++extra, localMark = ++extra;
            commit("refs/remotes/origin/" + name, pushedMark, kCommits + 100 + k, mark(kCommits - 17 * k), "");
            blob("pushed/" + std::to_string(k) + ".txt", "1\n");
            commit("refs/heads/" + name, localMark, kCommits + 200 + k, mark(pushedMark), "");
            blob("pushed/" + std::to_string(k) + ".txt", "2\n");
            upstreams.push_back({name, "origin/" + name});
            ++branches;
        }
        ++branches;  // "side", merged again and again
        std::string streamFile = root + "/stream";
        writeFileAtomically(streamFile, s);
        if (std::system(("cd '" + repo + "' && git fast-import --quiet < '" + streamFile + "'").c_str()) != 0) std::abort();
        std::filesystem::remove(streamFile);
        git({"remote", "add", "origin", "https://github.com/acme/widgets.git"}, repo);
        git({"update-ref", "refs/remotes/origin/main", "main~10"}, repo);
        git({"branch", "--set-upstream-to=origin/main", "main"}, repo);
        for (const auto& [name, upstream] : upstreams) git({"branch", "--set-upstream-to=" + upstream, name}, repo);
        git({"reset", "-q", "--hard", "main"}, repo);
        git({"repack", "-adq"}, repo);
        git({"commit-graph", "write", "--reachable"}, repo);
        ++branches;  // main
    }
    ~BigRepository() {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
    std::string git(std::vector<std::string> args, const std::string& dir) {
        args.insert(args.begin(), "git");
        auto out = spawnAndDrain(args, dir, env);
        if (out.status != 0) {
            std::fprintf(stderr, "bench setup failed: %s\n%s\n", args[1].c_str(), out.stderrBytes.c_str());
            std::abort();
        }
        return out.stdoutBytes;
    }
};

BigRepository& bigRepository() {
    static BigRepository repository;
    return repository;
}

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
    std::optional<ProjectMetadata> project(const Uuid&) const override { return m_config.projects[0]; }
    Uuid id() const { return m_config.projects[0].id; }

private:
    AppConfig m_config;
};

// The history events the bridge hands the page, and the last one's payload.
class HistoryView final : public WebViewHosting {
public:
    void evaluateScript(const std::string& script) override {
        if (script.find("git/history") == std::string::npos) return;
        if (auto envelope = envelopeFromEventScript(script)) last = Json::parse(*envelope)["payload"];
        ++count;
    }
    int count = 0;
    Json last;
};

void BM_HistoryPagesVersusTheirGitCommands(benchmark::State& state) {
    BigRepository& big = bigRepository();
    setMainQueue(std::make_shared<GlibMainQueue>());
    auto project = std::make_shared<OneProject>(big.repo);
    GitService::Dependencies deps;
    deps.configProvider = project;
    deps.environment = big.env;
    auto service = std::make_shared<GitService>(std::move(deps));
    auto bridge = std::make_shared<WebBridge>();
    auto view = std::make_shared<HistoryView>();
    bridge->setWebView(view);
    bridge->notifyWebViewDidFinishNavigation();
    auto operations = makeGitOperating(service);
    bridge->setGitService(operations);
    service->setEventSink(bridge);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    const std::string head(trimWhitespace(big.git({"rev-parse", "HEAD"}, big.repo)));
    const std::string id = project->id().toString();
    auto ask = [&](const std::optional<std::string>& cursor) {
        OrderedJson payload{{"projectId", id}, {"pageSize", 50}};
        if (cursor) payload["cursorPayload"] = *cursor;
        int before = view->count;
        bridge->handleMessageText(dumpJson(OrderedJson{{"type", "git/history"}, {"payload", payload}}));
        while (view->count == before) g_main_context_iteration(nullptr, TRUE);
        return view->last;
    };
    auto plain = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "git");
        benchmark::DoNotOptimize(spawnAndDrain(args, big.repo, big.env).stdoutBytes.size());
    };
    auto baseline = [&](int64_t skip) {
        plain({"rev-list", "--count", head});
        plain({"log", "--skip=" + std::to_string(skip), "--max-count=50", std::string(kLocalHistoryLogFormat),
               "--numstat", "--no-color", head});
    };

    using bench::Figure;
    using bench::Ratio;
    bench::SideBySide first(state, Figure("history first page / its git commands (time)", Ratio::VariantOverBaseline,
                                          kGitClock, bench::Goal::atMost(1.5)));
    bench::SideBySide firstVersusLog(state, Figure("history first page / git log of 50 alone (time)",
                                                   Ratio::VariantOverBaseline, kGitClock, bench::Goal::none(), "log_"));
    double logOnly = 0, subject = 0;
    auto firstPage = [&]() -> double {
        bench::Stopwatch watch(kGitClock);
        Json page = ask(std::nullopt);
        subject = watch.elapsed();
        return page["edges"].size() == 50u ? subject : -1;
    };
    auto itsCommands = [&]() -> double {
        bench::Stopwatch watch(kGitClock);
        baseline(0);
        const double commands = watch.elapsed();
        bench::Stopwatch logWatch(kGitClock);
        plain({"log", "--max-count=50", head});
        logOnly = logWatch.elapsed();
        return commands;
    };
    for (auto _ : state) {
        first.round(itsCommands, firstPage);
        if (first.failed()) return state.SkipWithError("first page is not full");
        firstVersusLog.record(logOnly, subject);
    }
    // Page 200 of one walk: the pages before it are walked untimed, then
    // pages from there on take turns each with their own commands.
    bench::SideBySide page200(state, Figure("history page 200 / its git commands (time)", Ratio::VariantOverBaseline,
                                            kGitClock, bench::Goal::none(), "page200_", 1));
    Json page = ask(std::nullopt);
    for (int n = 2; n < 200; ++n) page = ask(page["cursorPayload"].get<std::string>());
    for (int n = 0; n < 10; ++n) {
        const std::string cursor = page["cursorPayload"];
        // From the second page on, each page reads the next 50 of HEAD.
        const int64_t skip = 50 * (199 + n);
        page200.round([&] { baseline(skip); }, [&] { page = ask(cursor); });
    }
    first.report();
    firstVersusLog.report();
    page200.report();
}
BENCHMARK(BM_HistoryPagesVersusTheirGitCommands)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(15));

// A runner that keeps every vector it ran, for the replay.
class RecordingRunner final : public GitProcessRunning {
public:
    GitProcessExecutionResult run(const std::vector<std::string>& arguments, const std::string& directory,
                                  const GitEnvironment& environment) override {
        {
            std::lock_guard lock(mutex);
            vectors.push_back(arguments);
        }
        return m_real.run(arguments, directory, environment);
    }
    std::mutex mutex;
    std::vector<std::vector<std::string>> vectors;

private:
    ProcessGitProcessRunner m_real;
};

void BM_BranchMapVersusReplayingItsCommands(benchmark::State& state) {
    BigRepository& big = bigRepository();
    const unsigned parallelism = static_cast<unsigned>(state.range(0));
    auto recorder = std::make_shared<RecordingRunner>();
    GitCommandContext commands(GitCommandContext::Options{std::make_shared<NoGitAuthProvider>(), nullptr, recorder,
                                                          big.env, "github.com", nullptr});
    GitBranchMapProvider provider(commands, {parallelism, {}});
    GitProject project{ProjectMetadata{}, Uuid::random(), big.repo};
    auto map = [&] {
        GitBranchMap result = provider.loadBranchMap(project, 50);
        benchmark::DoNotOptimize(dumpJson(gitBranchMapPayload("x", result)).size());
        return result;
    };
    GitBranchMap first = map();
    if (first.totalCount != big.branches) state.SkipWithError("not every branch was mapped");
    const auto recorded = recorder->vectors;
    const std::string name = "branch map " + std::string(parallelism == 1 ? "serial" : "4 at a time") +
                             " / its git commands replayed serially";
    // The serial map must cost no more than its own commands; the parallel one is reported.
    bench::SideBySide cpu(state, {name + " (time)", bench::Ratio::VariantOverBaseline, kGitClock,
                                  parallelism == 1 ? bench::Goal::atMost(1.1) : bench::Goal::none(), "", 1});
    // Running git side by side is the point of the second row: it gains in
    // wall time only, and only where a core is free.
    bench::SideBySide wall(state, {name + ", wall (time)", bench::Ratio::VariantOverBaseline, bench::Clock::Wall,
                                   bench::Goal::none(), "wall_", 1});
    double mapWall = 0, replayWall = 0;
    auto mapOnce = [&] {
        bench::Stopwatch watch(bench::Clock::Wall);
        map();
        mapWall = watch.elapsed();
    };
    auto replay = [&] {
        bench::Stopwatch watch(bench::Clock::Wall);
        for (const auto& argv : recorded) benchmark::DoNotOptimize(spawnAndDrain(argv, big.repo, big.env).status);
        replayWall = watch.elapsed();
    };
    for (auto _ : state) {
        cpu.round(replay, mapOnce);
        if (parallelism > 1) wall.record(replayWall, mapWall);
    }
    cpu.report();
    if (parallelism > 1) wall.report();
    state.counters["branches"] = static_cast<double>(first.totalCount);
    state.counters["processes_per_branch"] = static_cast<double>(recorded.size()) / first.totalCount;
}
BENCHMARK(BM_BranchMapVersusReplayingItsCommands)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(5, 1));

// A 1,000-commit answer over twelve lines of work that merge now and then.
std::string graphAnswer() {
    auto oid = [](int i) {
        char text[41];
        std::snprintf(text, sizeof text, "%040d", i);
        return std::string(text);
    };
    Json edges = Json::array();
    const int kLines = 12, kCommits = 1000;
    for (int i = 0; i < kCommits; ++i) {
        Json parents = Json::array();
        if (i + kLines < kCommits) parents.push_back({{"oid", oid(i + kLines)}});
        if (i % 50 == 0 && i + 1 < kCommits) parents.push_back({{"oid", oid(i + 1)}});
        edges.push_back({{"node",
                          {{"oid", oid(i)},
                           {"messageHeadline", "Change number " + std::to_string(i) + " of the graph"},
                           {"committedDate", "2024-05-01T12:00:00Z"},
                           {"author", {{"name", "Ann Author"}, {"user", {{"login", "ann"}}}}},
                           {"parents", {{"nodes", parents}}}}}});
    }
    Json history{{"edges", edges}, {"pageInfo", {{"hasNextPage", true}, {"endCursor", "E"}}}};
    return Json{{"data", {{"repository", {{"defaultBranchRef", {{"target", {{"history", history}}}}}}}}}}.dump();
}

void BM_GraphVersusJsonParse(benchmark::State& state) {
    const std::string body = graphAnswer();
    int64_t lanes = 0;
    bool decoded = true;
    auto graph = [&] {
        auto answer = decodeGraphQLResponse(body);
        if (!answer || !answer->defaultBranchHistory) {
            decoded = false;
            return;
        }
        GitCommitGraph graph = buildCommitGraph(answer->defaultBranchHistory->nodes);
        for (const auto& n : graph.nodes) lanes = std::max(lanes, n.lane + 1);
        benchmark::DoNotOptimize(encodeCommitGraphPayload("x", graph).size());
    };
    auto parse = [&] { benchmark::DoNotOptimize(nlohmann::json::parse(body).size()); };
    // Turns of about 20 ms: one call is too short to time alone.
    const int calls = bench::repetitionsFor(bench::Clock::ThreadCpu, 2e-2, parse);
    bench::SideBySide figure(state, {"commit graph 1,000 commits / JSON parse (time)", bench::Ratio::VariantOverBaseline,
                                     bench::Clock::ThreadCpu, bench::Goal::atMost(2)});
    for (auto _ : state) {
        figure.round([&] { for (int i = 0; i < calls; ++i) parse(); },
                     [&] { for (int i = 0; i < calls; ++i) graph(); });
        if (!decoded) return state.SkipWithError("the answer did not decode");
    }
    figure.report();
    state.counters["lanes"] = static_cast<double>(lanes);
    state.SetBytesProcessed(static_cast<int64_t>(body.size()) * state.iterations() * calls);
}
BENCHMARK(BM_GraphVersusJsonParse)->Unit(benchmark::kMillisecond)->Iterations(bench::withWarmup(21));

}  // namespace

BENCHMARK_MAIN();
