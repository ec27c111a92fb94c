#pragma once
// The dashboard's two roles at the bridge. DashboardEventEmitting: the three
// dashboard events ("dashboard.toggled", "dashboard.metrics",
// "dashboard.metrics.error"), implemented by the bridge, callable from any
// thread. DashboardControlling: what the page's dashboard messages reach,
// implemented by the controller, main thread only.

#include <optional>
#include <string>

#include "core/Uuid.h"

namespace velko {

struct DashboardSnapshot;

class DashboardEventEmitting {
public:
    virtual ~DashboardEventEmitting() = default;
    virtual void emitDashboardToggled(bool open) = 0;
    virtual void emitDashboardMetrics(const DashboardSnapshot& snapshot) = 0;
    virtual void emitDashboardMetricsError(const std::string& message) = 0;
};

class DashboardControlling {
public:
    virtual ~DashboardControlling() = default;
    virtual void present(bool forceRefresh, const std::optional<std::string>& source) = 0;
    virtual void dismiss() = 0;
    virtual void noteCardOpened(const Uuid& projectId, const std::optional<std::string>& projectName) = 0;
};

}  // namespace velko
