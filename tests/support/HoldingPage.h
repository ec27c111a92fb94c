#pragma once
// A page that records every event and, while holding, keeps the delivery
// callbacks of terminal output back, like a page slow to take them.

#include <deque>
#include <functional>
#include <mutex>

#include "core/Base64.h"
#include "support/TestSupport.h"

namespace velko::test {

class HoldingPage final : public EventDispatching {
public:
    void dispatchEvent(std::string_view type, const OrderedJson& payload) override {
        recorder.dispatchEvent(type, payload);
    }
    void dispatchEncodedEvent(std::string_view type, std::string envelope, std::function<void()> onDelivered) override {
        recorder.dispatchEncodedEvent(type, std::move(envelope), nullptr);
        if (!onDelivered) return;
        std::unique_lock lock(m_mutex);
        if (m_holding) return m_held.push_back(std::move(onDelivered));
        lock.unlock();
        onDelivered();
    }
    void hold(bool holding = true) {
        std::lock_guard lock(m_mutex);
        m_holding = holding;
    }
    // Delivers what is held; goes on holding only if `keepHolding`.
    void release(bool keepHolding = false) {
        std::deque<std::function<void()>> held;
        {
            std::lock_guard lock(m_mutex);
            m_holding = keepHolding;
            held.swap(m_held);
        }
        for (auto& done : held) done();
    }
    // Every output byte given for the session (any session if empty), decoded, in order.
    std::string output(const std::string& sessionId = {}) const {
        std::string bytes;
        for (const auto& event : recorder.eventsOfType("terminal/output"))
            if (sessionId.empty() || event.payload["sessionId"] == sessionId)
                bytes += base64Decode(event.payload["chunk"].get<std::string>()).value_or("<bad base64>");
        return bytes;
    }

    EventRecorder recorder;

private:
    std::mutex m_mutex;
    bool m_holding = false;
    std::deque<std::function<void()>> m_held;
};

}  // namespace velko::test
