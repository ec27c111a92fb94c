#pragma once
// TerminalMessageHandling: where the bridge hands the page's terminal messages
// ("terminal/…" and their "cli/…" aliases, with the type as received) and the
// sessions a closed project took with it. The terminal service implements it
// through an adapter of the composition root.
//
// Main thread only. The bridge holds it weakly: messages for a service that is
// gone are dropped.

#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "core/Uuid.h"

namespace velko {

class TerminalMessageHandling {
public:
    virtual ~TerminalMessageHandling() = default;
    // `payload` is the message's payload object, or null when it had none.
    virtual void handleMessage(std::string_view type, const nlohmann::json* payload) = 0;
    virtual void terminateSessions(const std::vector<Uuid>& ids) = 0;
};

}  // namespace velko
