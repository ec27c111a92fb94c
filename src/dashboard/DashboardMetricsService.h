#pragma once
// DashboardMetricsService: the commit activity of every open project, read
// from its local git repository: totals, today, the last 30 days against the
// 30 before, and per project its branch, last commit, language stack and a
// heatmap of 28 local days. The snapshot is kept for five minutes, and each
// project's language stack apart from it for five minutes as well.
//
// fetchSnapshot is called on the main thread and answers there. The projects
// are computed on a bounded pool, one task per project; git runs blocking in
// it. A project not finished by the deadline gets the summary of a failed
// project in that snapshot, and it is not started again while its old task
// lives, so a project on a hung mount holds one thread, not one per fetch,
// and the other cards still arrive. Per-project failures never fail the
// snapshot; only a provider that cannot tell the projects does.
//
// Owned by the composition root. Tasks hold the worker state, not the
// service, so a service released while git runs leaves nothing dangling.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/Result.h"
#include "core/TaskQueue.h"
#include "dashboard/DashboardCalendar.h"
#include "dashboard/DashboardLanguagesProvider.h"
#include "dashboard/DashboardModels.h"
#include "git/GitProcessRunner.h"
#include "telemetry/AnalyticsLogging.h"
#include "workspace/Models.h"

namespace velko {

class ProjectProviding;

enum class DashboardMetricsError { ProjectsUnavailable };
std::string describe(DashboardMetricsError error);

// The projects to measure, in the configuration's order. Main thread.
class DashboardProjectProviding {
public:
    virtual ~DashboardProjectProviding() = default;
    virtual Result<std::vector<ProjectMetadata>, DashboardMetricsError> dashboardProjects() = 0;
};

// The projects of the workspace configuration; fails once the store is gone.
std::shared_ptr<DashboardProjectProviding> makeDashboardProjectProvider(std::weak_ptr<ProjectProviding> store);

class DashboardMetricsServicing {
public:
    using SnapshotResult = Result<DashboardSnapshot, DashboardMetricsError>;
    using Completion = std::function<void(SnapshotResult)>;
    virtual ~DashboardMetricsServicing() = default;
    // Main thread; `completion` runs on the main thread, later.
    virtual void fetchSnapshot(bool forceRefresh, Completion completion) = 0;
};

class DashboardMetricsService final : public DashboardMetricsServicing,
                                      public std::enable_shared_from_this<DashboardMetricsService> {
public:
    struct Dependencies {
        std::shared_ptr<DashboardProjectProviding> projectProvider;
        std::shared_ptr<DashboardLanguagesProviding> languagesProvider;  // none: the local walk only
        std::shared_ptr<GitProcessRunning> processRunner;
        std::shared_ptr<AnalyticsLogging> analyticsLogger;  // optional
        std::function<SystemTime()> clock;                  // default: the system clock
        std::optional<DashboardCalendar> calendar;          // default: the process's zone
        std::optional<GitEnvironment> environment;          // default: the process environment
        std::string homePath;                               // what a leading "~" means
        // Default: a pool of twice the processors, at least four threads.
        std::shared_ptr<TaskQueue> pool;
        std::chrono::milliseconds deadline{20'000};
    };

    explicit DashboardMetricsService(Dependencies dependencies);
    ~DashboardMetricsService() override;
    DashboardMetricsService(const DashboardMetricsService&) = delete;
    DashboardMetricsService& operator=(const DashboardMetricsService&) = delete;

    void fetchSnapshot(bool forceRefresh, Completion completion) override;

    static unsigned defaultPoolWidth();
    static constexpr auto kCacheLifetime = std::chrono::minutes(5);

    struct Bounds {
        SystemTime generatedAt{};
        CivilDate today{};
        SystemTime startOfToday{}, heatmapStart{}, last30Start{}, previous30Start{}, end{};
    };
    struct ProjectComputation {
        DashboardProjectSummary summary;
        int64_t totalCommits = 0, todaysCommits = 0, last30DayCommits = 0, previous30DayCommits = 0;
    };
    struct Worker;

private:
    struct Run;
    void projectFinished(const std::shared_ptr<Run>& run, size_t index, ProjectComputation computation);
    void finishRun(const std::shared_ptr<Run>& run);
    void deliver(DashboardSnapshot snapshot, Completion completion);

    std::shared_ptr<DashboardProjectProviding> m_projectProvider;
    std::shared_ptr<Worker> m_worker;
    std::function<SystemTime()> m_clock;
    std::shared_ptr<TaskQueue> m_pool;
    bool m_ownsPool = false;
    std::chrono::milliseconds m_deadline;
    struct CachedSnapshot {
        DashboardSnapshot snapshot;
        SystemTime expiresAt;
    };
    std::optional<CachedSnapshot> m_cache;  // main thread
    std::multiset<Uuid> m_liveProjects;     // main thread: projects whose task has not answered yet
};

}  // namespace velko
