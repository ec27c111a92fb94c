#pragma once
// DashboardController: whether the dashboard is on screen, and when its
// metrics are fetched. It tells the page to show or hide the dashboard,
// delivers each snapshot (even after a dismiss), and records the user's use
// of it in analytics.
//
// Main thread only; only the fetch runs elsewhere. Owned by the composition
// root; the bridge holds it weakly, and it holds the bridge's event side
// weakly. A failed fetch leaves the dashboard open with an error event; the
// next present with forceRefresh tries again.

#include <memory>
#include <optional>
#include <string>

#include "dashboard/DashboardEventEmitting.h"
#include "dashboard/DashboardMetricsService.h"
#include "telemetry/AnalyticsLogging.h"

namespace velko {

inline constexpr const char* kDashboardMetricsErrorMessage = "Failed to fetch dashboard metrics";

class DashboardController final : public DashboardControlling,
                                  public std::enable_shared_from_this<DashboardController> {
public:
    DashboardController(std::shared_ptr<DashboardMetricsServicing> metricsService,
                        std::weak_ptr<DashboardEventEmitting> eventEmitter,
                        std::shared_ptr<AnalyticsLogging> analyticsLogger);

    void present(bool forceRefresh, const std::optional<std::string>& source) override;
    void dismiss() override;
    void noteCardOpened(const Uuid& projectId, const std::optional<std::string>& projectName) override;

    bool isPresented() const { return m_isPresented; }
    bool isFetchingSnapshot() const { return m_isFetchingSnapshot; }

private:
    void loadSnapshot(bool forceRefresh);
    void log(std::string_view event, const AnalyticsProperties& properties);

    std::shared_ptr<DashboardMetricsServicing> m_metricsService;
    std::weak_ptr<DashboardEventEmitting> m_eventEmitter;
    std::shared_ptr<AnalyticsLogging> m_analyticsLogger;
    bool m_isPresented = false;
    bool m_isFetchingSnapshot = false;
    std::string m_lastOpenSource = "native";
};

}  // namespace velko
