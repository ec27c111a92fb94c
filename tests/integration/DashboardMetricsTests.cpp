// The dashboard's counts and heatmap from real repositories with chosen
// committer dates, read with an injected clock and time zone: days follow the
// user's zone across daylight-saving changes, a day without a midnight, and
// commits whose UTC day differs from the local one.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "core/MainQueue.h"
#include "dashboard/DashboardMetricsService.h"
#include "integration/GitTestRepos.h"

using namespace velko;
using namespace velko::test;

namespace {

void gitAt(const std::string& dir, const std::string& date, std::vector<std::string> args) {
    GitEnvironment env = testGitEnvironment();
    env["GIT_COMMITTER_DATE"] = env["GIT_AUTHOR_DATE"] = date;
    args.insert(args.begin(), "git");
    auto result = ProcessGitProcessRunner().run(args, dir, env);
    ASSERT_EQ(result.status, 0) << result.stderr;
}
void commitAt(const std::string& dir, const std::string& date) {
    gitAt(dir, date, {"commit", "-q", "--allow-empty", "-m", "change"});
}

struct Projects final : DashboardProjectProviding {
    Result<std::vector<ProjectMetadata>, DashboardMetricsError> dashboardProjects() override { return list; }
    std::vector<ProjectMetadata> list;
};

std::optional<DashboardSnapshot> measure(const std::vector<std::string>& folders, const char* zone, const char* now) {
    auto main = std::make_shared<ManualQueue>();
    setMainQueue(main);
    auto projects = std::make_shared<Projects>();
    for (const auto& folder : folders)
        projects->list.push_back({Uuid::random(), std::filesystem::path(folder).filename(), folder, std::nullopt, {}});
    DashboardMetricsService::Dependencies deps;
    deps.projectProvider = projects;
    deps.processRunner = std::make_shared<ProcessGitProcessRunner>();
    deps.clock = [now = *parseIso8601(now)] { return now; };
    deps.calendar = DashboardCalendar::forZone(zone);
    deps.environment = testGitEnvironment();
    auto service = std::make_shared<DashboardMetricsService>(std::move(deps));
    std::optional<DashboardSnapshot> out;
    service->fetchSnapshot(true, [&](auto result) { out = result.value(); });
    for (auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
         !out && std::chrono::steady_clock::now() < limit;)
        main->runUntilIdle();
    return out;
}

}  // namespace

TEST(DashboardMetrics, CountsAndHeatmapFollowTheUsersLocalDays) {
    IsolatedHome home;
    TempDir base;
    struct Case {
        const char *name, *zone, *now;
        std::vector<const char*> commits;  // oldest first: git stops a --since walk at an older HEAD
        int64_t today, last30, previous30;
        double delta;
        std::map<std::string, int64_t> cells;  // every non-zero cell
    };
    const Case cases[] = {
        {"Berlin, the spring change", "Europe/Berlin", "2024-03-31T12:00:00+02:00",
         {"2024-03-30T23:30:00+01:00", "2024-03-31T01:30:00+01:00", "2024-03-31T03:30:00+02:00"}, 2, 3, 0, 100.0,
         {{"2024-03-30T00:00:00Z", 1}, {"2024-03-31T00:00:00Z", 2}}},
        {"Berlin, the autumn change: the hour twice", "Europe/Berlin", "2024-10-27T23:45:00+01:00",
         {"2024-10-27T02:30:00+02:00", "2024-10-27T02:30:00+01:00", "2024-10-27T23:30:00+01:00",
          "2024-10-28T00:10:00+01:00"},
         3, 3, 0, 100.0, {{"2024-10-27T00:00:00Z", 3}}},
        {"Santiago, a day without a midnight", "America/Santiago", "2024-09-08T10:00:00-03:00",
         {"2024-09-07T23:45:00-04:00", "2024-09-08T01:15:00-03:00"}, 1, 2, 0, 100.0,
         {{"2024-09-07T00:00:00Z", 1}, {"2024-09-08T00:00:00Z", 1}}},
        {"23:30 local is the next day in UTC; a Tokyo morning is our evening", "America/New_York",
         "2024-06-15T10:00:00-04:00", {"2024-06-14T23:30:00-04:00", "2024-06-15T08:00:00+09:00"}, 0, 2, 0, 100.0,
         {{"2024-06-14T00:00:00Z", 2}}},
        {"the last 30 days against the 30 before", "UTC", "2024-06-15T12:00:00Z",
         {"2024-03-01T10:00:00Z", "2024-04-20T10:00:00Z", "2024-05-01T10:00:00Z", "2024-06-01T10:00:00Z",
          "2024-06-02T10:00:00Z", "2024-06-03T10:00:00Z", "2024-06-03T11:00:00Z", "2024-06-15T09:00:00Z"},
         1, 5, 2, 150.0,
         {{"2024-06-01T00:00:00Z", 1}, {"2024-06-02T00:00:00Z", 1}, {"2024-06-03T00:00:00Z", 2},
          {"2024-06-15T00:00:00Z", 1}}},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string dir = initRepo(base, "repo" + std::to_string(n++));
        for (const char* date : c.commits) commitAt(dir, date);
        auto snapshot = measure({dir}, c.zone, c.now);
        ASSERT_TRUE(snapshot);
        const auto& summary = snapshot->projectSummaries.at(0);
        EXPECT_EQ(summary.branch, "main");
        EXPECT_EQ(summary.commitCount, int64_t(c.commits.size()));
        EXPECT_EQ((std::vector<int64_t>{snapshot->todaysCommits, snapshot->last30DayCommits,
                                        snapshot->previous30DayCommits}),
                  (std::vector<int64_t>{c.today, c.last30, c.previous30}));
        EXPECT_DOUBLE_EQ(snapshot->last30DayDeltaPercent, c.delta);
        EXPECT_TRUE(summary.lastCommitAt);
        // 28 consecutive UTC midnights, the last one today's local date.
        ASSERT_EQ(summary.heatmap.size(), 28u);
        EXPECT_EQ(summary.heatmap.back().date,
                  utcMidnight(DashboardCalendar::forZone(c.zone)->localDate(*parseIso8601(c.now))));
        std::map<std::string, int64_t> cells;
        for (size_t i = 0; i < summary.heatmap.size(); ++i) {
            const auto& cell = summary.heatmap[i];
            EXPECT_EQ(formatDashboardDate(cell.date).substr(10), "T00:00:00Z");
            EXPECT_TRUE(i == 0 || cell.date - summary.heatmap[i - 1].date == std::chrono::hours(24));
            if (cell.count) cells[formatDashboardDate(cell.date)] = cell.count;
        }
        EXPECT_EQ(cells, c.cells);
    }
}

TEST(DashboardMetrics, MergesCountInTotalsOnlyAndBrokenProjectsStillHaveTheirLine) {
    IsolatedHome home;
    TempDir base;
    std::string merged = initRepo(base, "merged");
    commitAt(merged, "2024-06-10T10:00:00Z");
    git(merged, {"checkout", "-q", "-b", "topic"});
    commitAt(merged, "2024-06-11T10:00:00Z");
    git(merged, {"checkout", "-q", "main"});
    commitAt(merged, "2024-06-12T10:00:00Z");
    gitAt(merged, "2024-06-13T10:00:00Z", {"merge", "-q", "--no-ff", "-m", "merge", "topic"});
    std::filesystem::create_directories(base.file("plain"));
    auto snapshot = measure({merged, initRepo(base, "empty"), base.file("plain"), base.file("gone")}, "UTC",
                            "2024-06-15T12:00:00Z");
    ASSERT_TRUE(snapshot);
    ASSERT_EQ(snapshot->projectSummaries.size(), 4u);
    EXPECT_EQ(snapshot->projectSummaries[0].commitCount, 4);
    EXPECT_EQ(snapshot->last30DayCommits, 4);
    int64_t cells = 0;
    for (const auto& cell : snapshot->projectSummaries[0].heatmap) cells += cell.count;
    EXPECT_EQ(cells, 3) << "the merge is not in the heatmap";
    for (size_t i = 1; i < 4; ++i) {
        const auto& summary = snapshot->projectSummaries[i];
        SCOPED_TRACE(summary.projectName);
        EXPECT_EQ(summary.commitCount, 0);
        EXPECT_EQ(summary.branch, "HEAD");
        EXPECT_FALSE(summary.lastCommitAt);
        ASSERT_EQ(summary.heatmap.size(), 28u);
        EXPECT_TRUE(std::all_of(summary.heatmap.begin(), summary.heatmap.end(), [](auto& c) { return c.count == 0; }));
    }
}
