// When the dashboard shows, hides and fetches, over a metrics service whose
// fetches the test completes by hand.
#include <gtest/gtest.h>

#include "dashboard/DashboardController.h"
#include "dashboard/DashboardFakes.h"

using namespace velko;
using namespace velko::test;

namespace {

class HeldFetches final : public DashboardMetricsServicing {
public:
    void fetchSnapshot(bool forceRefresh, Completion completion) override {
        forced.push_back(forceRefresh);
        pending.push_back(std::move(completion));
    }
    void completeOldest(bool ok) {
        auto completion = std::move(pending.front());
        pending.erase(pending.begin());
        if (ok) completion(DashboardSnapshot{});
        else completion(fail(DashboardMetricsError::ProjectsUnavailable));
    }
    std::vector<bool> forced;
    std::vector<Completion> pending;
};

class RecordingEmitter final : public DashboardEventEmitting {
public:
    void emitDashboardToggled(bool open) override { events.push_back(open ? "toggled:open" : "toggled:closed"); }
    void emitDashboardMetrics(const DashboardSnapshot&) override { events.push_back("metrics"); }
    void emitDashboardMetricsError(const std::string& message) override { events.push_back("error:" + message); }
    std::vector<std::string> events;
};

std::string describeEvent(const LoggedEvent& event) {
    std::string text = event.name;
    for (const auto& [key, value] : event.properties)
        text += " " + key + "=" + (std::holds_alternative<std::string>(value) ? std::get<std::string>(value) : "?");
    return text;
}

}  // namespace

TEST(DashboardController, ShowsFetchesAndRecordsAsTheUserAsks) {
    const Uuid card = *Uuid::parse("00000000-0000-4000-8000-000000000001");
    enum class Op { Present, PresentForced, PresentFrom, Dismiss, Succeed, Fail, Card };
    struct Case {
        const char* name;
        std::vector<Op> ops;
        std::vector<std::string> events;
        std::vector<bool> fetches;  // forceRefresh of each fetch started
        std::vector<std::string> analytics;
        bool fetchingAtEnd;
    };
    const std::string kError = std::string("error:") + kDashboardMetricsErrorMessage;
    const Case cases[] = {
        {"present twice: one toggle, one fetch", {Op::Present, Op::Present}, {"toggled:open"}, {false},
         {"dashboard_opened source=native"}, true},
        {"forced present while open and idle: a fetch only",
         {Op::Present, Op::Succeed, Op::PresentForced}, {"toggled:open", "metrics"}, {false, true},
         {"dashboard_opened source=native"}, true},
        {"forced present during a fetch: nothing more", {Op::Present, Op::PresentForced}, {"toggled:open"}, {false},
         {"dashboard_opened source=native"}, true},
        {"dismiss when closed: nothing", {Op::Dismiss}, {}, {}, {}, false},
        {"card when closed: nothing", {Op::Card}, {}, {}, {}, false},
        {"the source travels to the close",
         {Op::PresentFrom, Op::Card, Op::Dismiss}, {"toggled:open", "toggled:closed"}, {false},
         {"dashboard_opened source=acceptance", "dashboard_card_opened projectId=" + card.toString() +
                                                    " projectName=shop source=dashboard",
          "dashboard_closed source=acceptance"},
         true},
        {"a snapshot still arrives after a dismiss", {Op::Present, Op::Dismiss, Op::Succeed},
         {"toggled:open", "toggled:closed", "metrics"}, {false},
         {"dashboard_opened source=native", "dashboard_closed source=native"}, false},
        {"a failed fetch clears the flag and a forced present retries",
         {Op::Present, Op::Fail, Op::PresentForced}, {"toggled:open", kError}, {false, true},
         {"dashboard_opened source=native", "dashboard_metrics_error reason=projectsUnavailable"}, true},
        {"reopening while the first fetch runs starts no second one",
         {Op::Present, Op::Dismiss, Op::Present}, {"toggled:open", "toggled:closed", "toggled:open"}, {false},
         {"dashboard_opened source=native", "dashboard_closed source=native", "dashboard_opened source=native"},
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto service = std::make_shared<HeldFetches>();
        auto emitter = std::make_shared<RecordingEmitter>();
        auto analytics = std::make_shared<CapturingAnalytics>();
        auto controller = std::make_shared<DashboardController>(service, emitter, analytics);
        for (Op op : c.ops) {
            switch (op) {
                case Op::Present: controller->present(false, std::nullopt); break;
                case Op::PresentForced: controller->present(true, std::nullopt); break;
                case Op::PresentFrom: controller->present(false, "acceptance"); break;
                case Op::Dismiss: controller->dismiss(); break;
                case Op::Succeed: service->completeOldest(true); break;
                case Op::Fail: service->completeOldest(false); break;
                case Op::Card: controller->noteCardOpened(card, "shop"); break;
            }
        }
        EXPECT_EQ(emitter->events, c.events);
        EXPECT_EQ(service->forced, c.fetches);
        std::vector<std::string> logged;
        for (const auto& event : analytics->events()) logged.push_back(describeEvent(event));
        EXPECT_EQ(logged, c.analytics);
        EXPECT_EQ(controller->isFetchingSnapshot(), c.fetchingAtEnd);
    }
}
