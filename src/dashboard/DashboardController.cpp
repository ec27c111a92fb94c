#include "dashboard/DashboardController.h"

namespace velko {

DashboardController::DashboardController(std::shared_ptr<DashboardMetricsServicing> metricsService,
                                         std::weak_ptr<DashboardEventEmitting> eventEmitter,
                                         std::shared_ptr<AnalyticsLogging> analyticsLogger)
    : m_metricsService(std::move(metricsService)),
      m_eventEmitter(std::move(eventEmitter)),
      m_analyticsLogger(std::move(analyticsLogger)) {}

void DashboardController::log(std::string_view event, const AnalyticsProperties& properties) {
    if (m_analyticsLogger) m_analyticsLogger->log(event, properties);
}

void DashboardController::present(bool forceRefresh, const std::optional<std::string>& source) {
    if (!m_isPresented) {
        m_lastOpenSource = source.value_or("native");
        m_isPresented = true;
        if (auto emitter = m_eventEmitter.lock()) emitter->emitDashboardToggled(true);
        log("dashboard_opened", {{"source", m_lastOpenSource}});
        if (!m_isFetchingSnapshot) loadSnapshot(forceRefresh);
        return;
    }
    // Already open: only an explicit refresh fetches again, and never on top of a running fetch.
    if (forceRefresh && !m_isFetchingSnapshot) loadSnapshot(true);
}

void DashboardController::loadSnapshot(bool forceRefresh) {
    m_isFetchingSnapshot = true;
    if (!m_metricsService) {
        m_isFetchingSnapshot = false;
        return;
    }
    std::weak_ptr<DashboardController> weak = weak_from_this();
    m_metricsService->fetchSnapshot(forceRefresh, [weak](DashboardMetricsServicing::SnapshotResult result) {
        auto self = weak.lock();
        if (!self) return;
        self->m_isFetchingSnapshot = false;
        auto emitter = self->m_eventEmitter.lock();
        if (result) {
            if (emitter) emitter->emitDashboardMetrics(result.value());
            return;
        }
        if (emitter) emitter->emitDashboardMetricsError(kDashboardMetricsErrorMessage);
        self->log("dashboard_metrics_error", {{"reason", describe(result.error())}});
    });
}

void DashboardController::dismiss() {
    if (!m_isPresented) return;
    m_isPresented = false;
    if (auto emitter = m_eventEmitter.lock()) emitter->emitDashboardToggled(false);
    log("dashboard_closed", {{"source", m_lastOpenSource}});
}

void DashboardController::noteCardOpened(const Uuid& projectId, const std::optional<std::string>& projectName) {
    if (!m_isPresented) return;
    AnalyticsProperties properties{{"projectId", projectId.toString()}, {"source", std::string("dashboard")}};
    if (projectName) properties["projectName"] = *projectName;
    log("dashboard_card_opened", properties);
}

}  // namespace velko
