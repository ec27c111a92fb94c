// The dashboard's messages at the bridge: what reaches the controller from
// each payload, the card note that follows an activation, and the events the
// controller's answers become.
#include <gtest/gtest.h>

#include "dashboard/DashboardModels.h"
#include "shell/BridgeHarness.h"

using namespace velko;

namespace {

struct FakeDashboard final : DashboardControlling, test::Recording {
    using Recording::Recording;
    void present(bool forceRefresh, const std::optional<std::string>& source) override {
        log(std::string("dashboard.present ") + (forceRefresh ? "force " : "") + source.value_or("-"));
    }
    void dismiss() override { log("dashboard.dismiss"); }
    void noteCardOpened(const Uuid& projectId, const std::optional<std::string>& projectName) override {
        log("dashboard.card " + projectId.toString() + " " + projectName.value_or("-"));
    }
};

}  // namespace

TEST(DashboardMessages, PayloadsReachTheControllerStrictlyTyped) {
    using test::kA, test::kUnknown;
    auto msg = test::message;
    struct Case {
        std::string name;
        std::string message;
        test::Journal expected;  // dashboard calls only
    };
    const Case cases[] = {
        {"present", R"({"type":"dashboard.present","payload":[true]})", {"dashboard.present -"}},
        {"present from a source, forced", msg("dashboard.present", {{"source", "toolbar"}, {"forceRefresh", true}}),
         {"dashboard.present force toolbar"}},
        {"a flag that is no boolean is false", msg("dashboard.present", {{"forceRefresh", "true"}}),
         {"dashboard.present -"}},
        {"a source that is no text is none", msg("dashboard.present", {{"source", 3}}), {"dashboard.present -"}},
        {"dismiss", R"({"type":"dashboard.dismiss"})", {"dashboard.dismiss"}},
        {"the spelling is exact", R"({"type":"dashboard/present"})", {}},
        {"activating a project notes the card with its name", msg("project/activate", {{"id", kA}}),
         {"dashboard.card " + kA + " a"}},
        {"an unknown project has no name", msg("project/activate", {{"id", kUnknown}}),
         {"dashboard.card " + kUnknown + " -"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::BridgeHarness h;
        auto dashboard = std::make_shared<FakeDashboard>(h.journal);
        h.bridge->setDashboardController(dashboard);
        h.send(c.message);
        test::Journal calls;
        for (const auto& line : h.journal)
            if (line.rfind("dashboard.", 0) == 0) calls.push_back(line);
        EXPECT_EQ(calls, c.expected);
    }
}

TEST(DashboardMessages, TheControllersAnswersBecomeTheThreeEvents) {
    test::BridgeHarness h;
    DashboardSnapshot snapshot;
    snapshot.generatedAt = std::chrono::sys_days(std::chrono::year{2024} / 3 / 31);
    snapshot.last30DayDeltaPercent = 150;
    snapshot.projectSummaries.push_back({test::id(test::kA), "a", "HEAD", 0, std::nullopt, {}, {}});
    h.bridge->emitDashboardToggled(true);
    h.bridge->emitDashboardMetrics(snapshot);
    h.bridge->emitDashboardMetricsError("Failed to fetch dashboard metrics");
    h.run();
    EXPECT_EQ(h.events(), (std::vector<std::string>{
                              R"(dashboard.toggled {"open":true})",
                              R"(dashboard.metrics {"generatedAt":"2024-03-31T00:00:00Z","totalCommits":0,)"
                              R"("todaysCommits":0,"last30DayCommits":0,"previous30DayCommits":0,)"
                              R"("last30DayDeltaPercent":150.0,"projectSummaries":[{"projectId":")" +
                                  test::kA +
                                  R"(","projectName":"a","branch":"HEAD","commitCount":0,)"
                                  R"("techStack":{"totalBytes":0,"languages":[]},"heatmap":[]}]})",
                              R"(dashboard.metrics.error {"message":"Failed to fetch dashboard metrics"})",
                          }));
}
