#pragma once
// ExplorerMonitoring: the watch the bridge keeps on the active project's
// folder. The explorer service implements it through an adapter of the
// composition root. Change batches arrive on the main thread.
//
// Called on the main thread. The bridge owns it.

#include <functional>
#include <string>
#include <vector>

#include "core/Uuid.h"

namespace velko {

struct ExplorerChangeBatch;

class ExplorerMonitoring {
public:
    using ChangeHandler = std::function<void(const ExplorerChangeBatch&)>;
    virtual ~ExplorerMonitoring() = default;
    // Stops any earlier watch, then watches `rootPath`. False when the watch could not start.
    virtual bool activateMonitoring(const Uuid& projectId, const std::string& rootPath,
                                    const std::vector<std::string>& excludedPaths, ChangeHandler onChange) = 0;
    virtual void stopMonitoring() = 0;
};

}  // namespace velko
