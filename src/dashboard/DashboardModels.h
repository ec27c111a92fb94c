#pragma once
// The dashboard's records: the snapshot the page shows, one summary per
// project, its language breakdown and its 28-day heatmap. Plain values; their
// JSON keys equal the field names, dates are ISO 8601 text in UTC without
// fractions ("2024-03-31T00:00:00Z"), and an absent last commit is left out.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Json.h"
#include "core/Time.h"
#include "core/Uuid.h"

namespace velko {

struct DashboardTechStackEntry {
    std::string name;
    int64_t bytes = 0;
    double ratio = 0;
    friend bool operator==(const DashboardTechStackEntry&, const DashboardTechStackEntry&) = default;
};

struct DashboardTechStack {
    int64_t totalBytes = 0;
    std::vector<DashboardTechStackEntry> languages;
    friend bool operator==(const DashboardTechStack&, const DashboardTechStack&) = default;
};

struct DashboardHeatmapCell {
    SystemTime date;  // UTC midnight of the user's local day
    int64_t count = 0;
};

struct DashboardProjectSummary {
    Uuid projectId;
    std::string projectName;
    std::string branch = "HEAD";
    int64_t commitCount = 0;
    std::optional<SystemTime> lastCommitAt;
    DashboardTechStack techStack;
    std::vector<DashboardHeatmapCell> heatmap;
};

struct DashboardSnapshot {
    SystemTime generatedAt;
    int64_t totalCommits = 0;
    int64_t todaysCommits = 0;
    int64_t last30DayCommits = 0;
    int64_t previous30DayCommits = 0;
    double last30DayDeltaPercent = 0;
    std::vector<DashboardProjectSummary> projectSummaries;
};

// The change of the last 30 days against the 30 before, in percent to one
// decimal; 100 when there was nothing before and something now.
double dashboardDeltaPercent(int64_t last30, int64_t previous30);

// "2024-03-31T00:00:00Z": the date form of every dashboard payload.
std::string formatDashboardDate(SystemTime time);

OrderedJson dashboardSnapshotJson(const DashboardSnapshot& snapshot);

}  // namespace velko
