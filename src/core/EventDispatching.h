#pragma once
// EventDispatching: the one way a service sends an event to the web page.
// WebBridge implements it; services hold it weakly; tests use a recorder.
// Both operations may be called from any thread; events from one thread are
// delivered in the order they were dispatched.

#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace velko {

class EventDispatching {
public:
    virtual ~EventDispatching() = default;

    virtual void dispatchEvent(std::string_view type, const nlohmann::ordered_json& payload) = 0;

    // Hot path for events whose envelope the caller writes itself (terminal output).
    // `envelopeJson` must be byte for byte what dispatchEvent would encode.
    // `onDelivered`, if set, runs on the main thread once the page was handed the
    // event (or it was dropped), so producers can apply back-pressure.
    virtual void dispatchEncodedEvent(std::string_view type, std::string envelopeJson,
                                      std::function<void()> onDelivered = {}) = 0;
};

}  // namespace velko
