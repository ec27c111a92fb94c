// When the dashboard shows, hides and fetches, over a metrics service whose
// fetches the test completes by hand.
#include <gtest/gtest.h>

#include "dashboard/DashboardController.h"

using namespace velko;

namespace {

// Every call and event in one journal, in order.
struct Recorder final : DashboardMetricsServicing, DashboardEventEmitting, AnalyticsLogging {
    void fetchSnapshot(bool force, Completion completion) override {
        journal.push_back(force ? "fetch forced" : "fetch");
        pending.push_back(std::move(completion));
    }
    void complete(bool ok) {
        auto completion = std::move(pending.front());
        pending.erase(pending.begin());
        ok ? completion(DashboardSnapshot{}) : completion(fail(DashboardMetricsError::ProjectsUnavailable));
    }
    void emitDashboardToggled(bool open) override { journal.push_back(open ? "open" : "closed"); }
    void emitDashboardMetrics(const DashboardSnapshot&) override { journal.push_back("metrics"); }
    void emitDashboardMetricsError(const std::string& message) override { journal.push_back("error: " + message); }
    void log(std::string_view event, const AnalyticsProperties& properties) override {
        std::string line(event);
        for (const auto& [key, value] : properties) line += " " + key + "=" + std::get<std::string>(value);
        journal.push_back(line);
    }
    std::vector<std::string> journal;
    std::vector<Completion> pending;
};

}  // namespace

TEST(DashboardController, ShowsFetchesAndRecordsAsTheUserAsks) {
    const Uuid card = *Uuid::parse("00000000-0000-4000-8000-000000000001");
    enum Op { Present, Forced, FromToolbar, Dismiss, Succeed, Fail, Card };
    struct Case {
        const char* name;
        std::vector<Op> ops;
        std::vector<std::string> journal;
        bool fetchingAtEnd;
    };
    const std::string opened = "dashboard_opened source=native", closed = "dashboard_closed source=native";
    const Case cases[] = {
        {"present twice: one toggle, one fetch", {Present, Present}, {"open", opened, "fetch"}, true},
        {"forced present while open and idle: a fetch only", {Present, Succeed, Forced},
         {"open", opened, "fetch", "metrics", "fetch forced"}, true},
        {"forced present during a fetch: nothing more", {Present, Forced}, {"open", opened, "fetch"}, true},
        {"dismiss or a card when closed: nothing", {Dismiss, Card}, {}, false},
        {"the source travels to the card and the close", {FromToolbar, Card, Dismiss},
         {"open", "dashboard_opened source=toolbar", "fetch",
          "dashboard_card_opened projectId=" + card.toString() + " projectName=shop source=dashboard", "closed",
          "dashboard_closed source=toolbar"},
         true},
        {"a snapshot still arrives after a dismiss", {Present, Dismiss, Succeed},
         {"open", opened, "fetch", "closed", closed, "metrics"}, false},
        {"a failed fetch clears the flag; a forced present retries", {Present, Fail, Forced},
         {"open", opened, "fetch", "error: Failed to fetch dashboard metrics",
          "dashboard_metrics_error reason=projectsUnavailable", "fetch forced"},
         true},
        {"reopening while the first fetch runs starts no second one", {Present, Dismiss, Present},
         {"open", opened, "fetch", "closed", closed, "open", opened}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto recorder = std::make_shared<Recorder>();
        auto controller = std::make_shared<DashboardController>(recorder, recorder, recorder);
        for (Op op : c.ops) {
            switch (op) {
                case Present: controller->present(false, std::nullopt); break;
                case Forced: controller->present(true, std::nullopt); break;
                case FromToolbar: controller->present(false, "toolbar"); break;
                case Dismiss: controller->dismiss(); break;
                case Succeed: recorder->complete(true); break;
                case Fail: recorder->complete(false); break;
                case Card: controller->noteCardOpened(card, "shop"); break;
            }
        }
        EXPECT_EQ(recorder->journal, c.journal);
        EXPECT_EQ(controller->isFetchingSnapshot(), c.fetchingAtEnd);
    }
}
