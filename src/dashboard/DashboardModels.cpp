#include "dashboard/DashboardModels.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace velko {

double dashboardDeltaPercent(int64_t last30, int64_t previous30) {
    if (previous30 >= 1) {
        double tenths = std::round(double(last30 - previous30) / double(previous30) * 100.0 * 10.0);
        return tenths / 10.0;
    }
    return last30 > 0 ? 100.0 : 0.0;
}

std::string formatDashboardDate(SystemTime time) {
    std::time_t t = std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buffer;
}

namespace {

OrderedJson summaryJson(const DashboardProjectSummary& summary) {
    OrderedJson out;
    out["projectId"] = summary.projectId.toString();
    out["projectName"] = summary.projectName;
    out["branch"] = summary.branch;
    out["commitCount"] = summary.commitCount;
    if (summary.lastCommitAt) out["lastCommitAt"] = formatDashboardDate(*summary.lastCommitAt);
    OrderedJson languages = OrderedJson::array();
    for (const auto& entry : summary.techStack.languages)
        languages.push_back(OrderedJson{{"name", entry.name}, {"bytes", entry.bytes}, {"ratio", entry.ratio}});
    out["techStack"] = OrderedJson{{"totalBytes", summary.techStack.totalBytes}, {"languages", std::move(languages)}};
    OrderedJson cells = OrderedJson::array();
    for (const auto& cell : summary.heatmap)
        cells.push_back(OrderedJson{{"date", formatDashboardDate(cell.date)}, {"count", cell.count}});
    out["heatmap"] = std::move(cells);
    return out;
}

}  // namespace

OrderedJson dashboardSnapshotJson(const DashboardSnapshot& snapshot) {
    OrderedJson out;
    out["generatedAt"] = formatDashboardDate(snapshot.generatedAt);
    out["totalCommits"] = snapshot.totalCommits;
    out["todaysCommits"] = snapshot.todaysCommits;
    out["last30DayCommits"] = snapshot.last30DayCommits;
    out["previous30DayCommits"] = snapshot.previous30DayCommits;
    out["last30DayDeltaPercent"] = snapshot.last30DayDeltaPercent;
    OrderedJson summaries = OrderedJson::array();
    for (const auto& summary : snapshot.projectSummaries) summaries.push_back(summaryJson(summary));
    out["projectSummaries"] = std::move(summaries);
    return out;
}

}  // namespace velko
