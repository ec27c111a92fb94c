#include "dashboard/DashboardMetricsService.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "core/Log.h"
#include "core/PathText.h"
#include "core/SerialQueue.h"
#include "workspace/ConfigStore.h"

namespace velko {

std::string describe(DashboardMetricsError error) {
    switch (error) {
        case DashboardMetricsError::ProjectsUnavailable: return "projectsUnavailable";
    }
    return "projectsUnavailable";
}

namespace {

class ConfigDashboardProjects final : public DashboardProjectProviding {
public:
    explicit ConfigDashboardProjects(std::weak_ptr<ProjectProviding> store) : m_store(std::move(store)) {}
    Result<std::vector<ProjectMetadata>, DashboardMetricsError> dashboardProjects() override {
        auto store = m_store.lock();
        if (!store) return fail(DashboardMetricsError::ProjectsUnavailable);
        return store->config().projects;
    }

private:
    std::weak_ptr<ProjectProviding> m_store;
};

std::string_view trimmed(std::string_view text) {
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

constexpr int kHeatmapDays = 28;

}  // namespace

std::shared_ptr<DashboardProjectProviding> makeDashboardProjectProvider(std::weak_ptr<ProjectProviding> store) {
    return std::make_shared<ConfigDashboardProjects>(std::move(store));
}

// What the pool's tasks use: the runner, the languages source and its cache.
// Shared by the service and every task in flight.
struct DashboardMetricsService::Worker {
    std::shared_ptr<GitProcessRunning> runner;
    std::shared_ptr<DashboardLanguagesProviding> languages;
    std::shared_ptr<AnalyticsLogging> analytics;
    DashboardCalendar calendar;
    GitEnvironment environment;
    std::string homePath;
    Logger logger{"app.velko.dashboard", "metrics"};

    std::atomic<bool> cancelled{false};
    std::mutex inFlightMutex{};
    std::condition_variable inFlightChanged{};
    size_t inFlight = 0;

    // A lock rather than a queue of its own, since a task would only wait on
    // that queue's answer; held only around the map.
    std::mutex languagesCacheMutex{};
    struct CachedLanguages {
        DashboardTechStack techStack;
        SystemTime expiresAt;
    };
    std::unordered_map<Uuid, CachedLanguages> languagesCache{};

    GitProcessExecutionResult runGit(std::vector<std::string> arguments, const std::string& directory) {
        arguments.insert(arguments.begin(), "git");
        return runner->run(arguments, directory, environment);
    }

    int64_t revListCount(const std::string& directory, std::optional<SystemTime> since,
                         std::optional<SystemTime> until) {
        std::vector<std::string> arguments{"rev-list", "--count", "HEAD"};
        if (since) arguments.push_back("--since=" + formatDashboardDate(*since));
        if (until) arguments.push_back("--until=" + formatDashboardDate(*until));
        auto result = runGit(std::move(arguments), directory);
        if (result.status != 0) return 0;
        std::string_view text = trimmed(result.stdout);
        int64_t count = 0;
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
        if (error != std::errc() || end != text.data() + text.size() || count < 0) return 0;
        return count;
    }

    std::vector<DashboardHeatmapCell> resolveHeatmap(const std::string& directory, const Bounds& bounds) {
        std::map<CivilDate, int64_t> perDay;
        auto until = calendar.startOfDay(addingDays(calendar.localDate(bounds.end), 1));
        auto result = runGit({"log", "--since=" + formatDashboardDate(bounds.heatmapStart),
                              "--until=" + formatDashboardDate(until.value_or(bounds.end)), "--pretty=%cI",
                              "--no-merges"},
                             directory);
        if (result.status == 0) {
            std::string_view output = result.stdout;
            while (!output.empty()) {
                size_t newline = std::min(output.find('\n'), output.size());
                std::string_view line = trimmed(output.substr(0, newline));
                output.remove_prefix(std::min(newline + 1, output.size()));
                // Each commit is placed on the user's local day, whatever the
                // offset its committer had.
                if (auto date = parseIso8601(line)) ++perDay[calendar.localDate(*date)];
            }
        }
        return heatmapCells(bounds, perDay);
    }

    std::vector<DashboardHeatmapCell> heatmapCells(const Bounds& bounds, const std::map<CivilDate, int64_t>& perDay) {
        std::vector<DashboardHeatmapCell> cells;
        cells.reserve(kHeatmapDays);
        CivilDate first = addingDays(bounds.today, 1 - kHeatmapDays);
        for (int offset = 0; offset < kHeatmapDays; ++offset) {
            CivilDate day = addingDays(first, offset);
            auto it = perDay.find(day);
            cells.push_back({utcMidnight(day), it == perDay.end() ? 0 : it->second});
        }
        return cells;
    }

    void logLanguagesUnavailable(const ProjectMetadata& project, const char* reason,
                                 std::optional<std::string> error) {
        if (!analytics) return;
        AnalyticsProperties properties{{"projectId", project.id.toString()},
                                       {"projectName", project.name},
                                       {"reason", std::string(reason)}};
        if (error) properties["error"] = std::move(*error);
        analytics->log("dashboard_languages_unavailable", properties);
    }

    DashboardTechStack localTechStack(const ProjectMetadata& project, const std::string& directory) {
        LocalWalkOptions options;
        options.explorerExcludedPaths = project.explorerExcludedPaths;
        auto walk = computeLocalLanguageBreakdown(directory, options);
        if (walk.stoppedAtLimit)
            logger.notice("dashboard.languages: local walk of " + project.name + " stopped after " +
                          std::to_string(walk.entriesSeen) + " entries; the sizes are partial");
        return buildTechStack(walk.bytes);
    }

    std::optional<DashboardTechStack> cachedTechStack(const Uuid& id, SystemTime timestamp) {
        std::lock_guard lock(languagesCacheMutex);
        auto it = languagesCache.find(id);
        if (it != languagesCache.end() && timestamp < it->second.expiresAt) return it->second.techStack;
        return std::nullopt;
    }

    DashboardTechStack resolveTechStack(const ProjectMetadata& project, const std::string& directory,
                                        SystemTime timestamp, bool useCache) {
        if (useCache)
            if (auto cached = cachedTechStack(project.id, timestamp)) return *cached;
        LanguagesAnswer answer = languages ? languages->fetchLanguages(project) : LanguagesAnswer(std::nullopt);
        DashboardTechStack stack;
        if (answer.ok() && answer.value() && !answer.value()->empty()) {
            stack = buildTechStack(*answer.value());
        } else if (answer.ok()) {
            logLanguagesUnavailable(project, "empty_response", std::nullopt);
            stack = localTechStack(project, directory);
        } else {
            logLanguagesUnavailable(project, "error", answer.error().description());
            if (auto cached = cachedTechStack(project.id, timestamp)) return *cached;
            stack = localTechStack(project, directory);
        }
        std::lock_guard lock(languagesCacheMutex);
        languagesCache[project.id] = {stack, timestamp + kCacheLifetime};
        return stack;
    }

    ProjectComputation failedComputation(const ProjectMetadata& project, const Bounds& bounds) {
        ProjectComputation computation;
        computation.summary.projectId = project.id;
        computation.summary.projectName = project.name;
        computation.summary.heatmap = heatmapCells(bounds, {});
        return computation;
    }

    ProjectComputation compute(const ProjectMetadata& project, const Bounds& bounds, bool useCache) {
        ProjectComputation computation = failedComputation(project, bounds);
        if (cancelled) return computation;
        const std::string directory = expandTilde(project.rootPath, homePath);
        DashboardProjectSummary& summary = computation.summary;

        auto branch = runGit({"rev-parse", "--abbrev-ref", "HEAD"}, directory);
        if (branch.status == 0 && !trimmed(branch.stdout).empty()) summary.branch = trimmed(branch.stdout);
        computation.totalCommits = revListCount(directory, std::nullopt, std::nullopt);
        computation.todaysCommits = revListCount(directory, bounds.startOfToday, bounds.end);
        computation.last30DayCommits = revListCount(directory, bounds.last30Start, bounds.end);
        computation.previous30DayCommits = revListCount(directory, bounds.previous30Start, bounds.last30Start);
        auto last = runGit({"log", "-1", "--pretty=%cI"}, directory);
        if (last.status == 0) summary.lastCommitAt = parseIso8601(trimmed(last.stdout));
        summary.heatmap = resolveHeatmap(directory, bounds);
        summary.techStack = resolveTechStack(project, directory, bounds.generatedAt, useCache);
        summary.commitCount = computation.totalCommits;
        return computation;
    }
};

struct DashboardMetricsService::Run {
    std::vector<ProjectMetadata> projects;
    std::vector<std::optional<ProjectComputation>> results;
    size_t remaining = 0;
    bool finished = false;
    Bounds bounds;
    Completion completion;
};

unsigned DashboardMetricsService::defaultPoolWidth() {
    return std::max(4u, 2 * std::max(1u, std::thread::hardware_concurrency()));
}

DashboardMetricsService::DashboardMetricsService(Dependencies deps)
    : m_projectProvider(std::move(deps.projectProvider)),
      m_clock(deps.clock ? std::move(deps.clock) : [] { return std::chrono::system_clock::now(); }),
      m_pool(std::move(deps.pool)),
      m_deadline(deps.deadline) {
    m_worker = std::shared_ptr<Worker>(new Worker{
        .runner = std::move(deps.processRunner),
        .languages = std::move(deps.languagesProvider),
        .analytics = std::move(deps.analyticsLogger),
        .calendar = deps.calendar ? *deps.calendar : DashboardCalendar::local(),
        .environment = deps.environment ? gitEnvironment(*deps.environment) : gitEnvironment(),
        .homePath = std::move(deps.homePath),
    });
    if (!m_pool) {
        m_pool = std::make_shared<ConcurrentQueue>("app.velko.dashboard", defaultPoolWidth());
        m_ownsPool = true;
    }
}

DashboardMetricsService::~DashboardMetricsService() {
    m_worker->cancelled = true;
    if (!m_ownsPool) return;
    // Queued projects now return at once; one still in git gets a moment. A
    // task stuck on a hung mount cannot be joined: its pool is left to the
    // process's end instead of holding the exit.
    std::unique_lock lock(m_worker->inFlightMutex);
    if (!m_worker->inFlightChanged.wait_for(lock, std::chrono::seconds(2), [&] { return m_worker->inFlight == 0; })) {
        m_worker->logger.notice("dashboard: " + std::to_string(m_worker->inFlight) +
                                " project tasks still running at exit are left behind");
        new std::shared_ptr<TaskQueue>(std::move(m_pool));  // deliberately never released
    }
}

void DashboardMetricsService::deliver(DashboardSnapshot snapshot, Completion completion) {
    m_cache = CachedSnapshot{snapshot, m_clock() + kCacheLifetime};
    mainQueue().post([completion = std::move(completion), snapshot = std::move(snapshot)]() mutable {
        completion(std::move(snapshot));
    });
}

void DashboardMetricsService::fetchSnapshot(bool forceRefresh, Completion completion) {
    const SystemTime now = m_clock();
    if (!forceRefresh && m_cache && now < m_cache->expiresAt) {
        mainQueue().post([completion = std::move(completion), snapshot = m_cache->snapshot]() mutable {
            completion(std::move(snapshot));
        });
        return;
    }
    auto projects = m_projectProvider ? m_projectProvider->dashboardProjects()
                                      : Result<std::vector<ProjectMetadata>, DashboardMetricsError>(
                                            fail(DashboardMetricsError::ProjectsUnavailable));
    if (!projects) {
        mainQueue().post([completion = std::move(completion), error = projects.error()] { completion(fail(error)); });
        return;
    }
    DashboardSnapshot zero;
    zero.generatedAt = now;
    if (projects->empty()) return deliver(std::move(zero), std::move(completion));

    const DashboardCalendar& calendar = m_worker->calendar;
    Bounds bounds{.generatedAt = now, .today = calendar.localDate(now)};
    auto startOf = [&](int days) { return calendar.startOfDay(addingDays(bounds.today, days)); };
    auto today = startOf(0), heatmap = startOf(1 - kHeatmapDays), last30 = startOf(-29), previous30 = startOf(-59),
         end = startOf(1);
    if (!today || !heatmap || !last30 || !previous30 || !end) return deliver(std::move(zero), std::move(completion));
    bounds.startOfToday = *today;
    bounds.heatmapStart = *heatmap;
    bounds.last30Start = *last30;
    bounds.previous30Start = *previous30;
    bounds.end = *end;

    auto run = std::make_shared<Run>();
    run->projects = std::move(projects.value());
    run->results.resize(run->projects.size());
    run->bounds = bounds;
    run->completion = std::move(completion);
    std::weak_ptr<DashboardMetricsService> weak = weak_from_this();
    for (size_t i = 0; i < run->projects.size(); ++i) {
        const ProjectMetadata& project = run->projects[i];
        // Its task from an earlier fetch still runs (a hung mount): it is not
        // started twice; this snapshot shows it as failed.
        if (m_liveProjects.count(project.id)) {
            run->results[i] = m_worker->failedComputation(project, bounds);
            continue;
        }
        m_liveProjects.insert(project.id);
        ++run->remaining;
        {
            std::lock_guard lock(m_worker->inFlightMutex);
            ++m_worker->inFlight;
        }
        m_pool->post([worker = m_worker, weak, run, i, project, bounds, useCache = !forceRefresh] {
            ProjectComputation computation = worker->compute(project, bounds, useCache);
            mainQueue().post([weak, run, i, computation = std::move(computation)]() mutable {
                if (auto self = weak.lock()) self->projectFinished(run, i, std::move(computation));
            });
            std::lock_guard lock(worker->inFlightMutex);
            --worker->inFlight;
            worker->inFlightChanged.notify_all();
        });
    }
    if (run->remaining == 0) return finishRun(run);
    mainQueue().postDelayed(m_deadline, [weak, run] {
        if (auto self = weak.lock()) self->finishRun(run);
    });
}

void DashboardMetricsService::projectFinished(const std::shared_ptr<Run>& run, size_t index,
                                              ProjectComputation computation) {
    if (auto it = m_liveProjects.find(run->projects[index].id); it != m_liveProjects.end()) m_liveProjects.erase(it);
    if (run->finished) return;
    run->results[index] = std::move(computation);
    if (--run->remaining == 0) finishRun(run);
}

void DashboardMetricsService::finishRun(const std::shared_ptr<Run>& run) {
    if (run->finished) return;
    run->finished = true;
    DashboardSnapshot snapshot;
    snapshot.generatedAt = run->bounds.generatedAt;
    for (size_t i = 0; i < run->projects.size(); ++i) {
        if (!run->results[i]) {
            m_worker->logger.notice("dashboard: " + run->projects[i].name + " did not finish in time");
            run->results[i] = m_worker->failedComputation(run->projects[i], run->bounds);
        }
        ProjectComputation& result = *run->results[i];
        snapshot.totalCommits += result.totalCommits;
        snapshot.todaysCommits += result.todaysCommits;
        snapshot.last30DayCommits += result.last30DayCommits;
        snapshot.previous30DayCommits += result.previous30DayCommits;
        snapshot.projectSummaries.push_back(std::move(result.summary));
    }
    snapshot.last30DayDeltaPercent = dashboardDeltaPercent(snapshot.last30DayCommits, snapshot.previous30DayCommits);
    deliver(std::move(snapshot), std::move(run->completion));
}

}  // namespace velko
