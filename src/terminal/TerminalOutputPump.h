#pragma once
// TerminalOutputPump: the output road of one session. A thread of its own
// reads the PTY master as chunks arrive, normalises them, logs them and hands
// "terminal/output" and "terminal/activity" to the page, never touching the
// main thread on the way.
//
// Memory stays bounded under a flood: bytes handed to the page but not yet
// delivered are counted, and at the cap the thread stops reading until
// deliveries catch up, so the kernel's PTY buffer pushes back on the child.
// Lines the terminal log has not written yet count against the same cap.
// Nothing is dropped and order is kept.
//
// Owned by the session on the main thread; stop() and finish() join the
// thread, which never waits on the main thread, so they return promptly.
// End of stream (EIO on the master) ends the thread.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "core/EventDispatching.h"
#include "core/Uuid.h"
#include "terminal/TerminalOutputNormalizer.h"

namespace velko {

class TerminalLogger;

// Receives every chunk before and after normalising, when the debug dump is on.
class TerminalDebugDumpRecording {
public:
    virtual ~TerminalDebugDumpRecording() = default;
    virtual void record(const Uuid& sessionID, std::string_view raw, std::string_view normalized) = 0;
};

class TerminalOutputPump {
public:
    static constexpr uint64_t kDefaultMaxPendingBytes = 4 * 1024 * 1024;

    TerminalOutputPump(Uuid sessionID, int masterFD, std::shared_ptr<TerminalLogger> logger,
                       std::weak_ptr<EventDispatching> dispatcher, uint64_t maxPendingBytes = kDefaultMaxPendingBytes);
    ~TerminalOutputPump();  // stops and joins
    TerminalOutputPump(const TerminalOutputPump&) = delete;
    TerminalOutputPump& operator=(const TerminalOutputPump&) = delete;

    void start();
    // Reads what the master still holds, at most the cap's worth more, then
    // ends the thread and joins it.
    void finish();
    // Ends the thread now and joins it.
    void stop();

    void setDebugDump(std::shared_ptr<TerminalDebugDumpRecording> dump);
    bool hasDebugDump() const;

    uint64_t pendingBytes() const;
    uint64_t peakPendingBytes() const;
    uint64_t maxPendingBytes() const;

    // The envelopes, written directly: equal byte for byte to what the
    // generic encoder writes for the same payload. `sessionId` is canonical
    // UUID text and needs no escaping, base64 neither.
    static void appendOutputEnvelope(std::string_view sessionId, std::string_view bytes, std::string& out);
    static std::string activityEnvelope(std::string_view sessionId);

private:
    struct Shared;
    void run();
    void deliver(std::string_view raw, std::string_view normalized);

    Uuid m_sessionID;
    std::string m_sessionText;
    int m_fd;
    std::shared_ptr<TerminalLogger> m_logger;
    std::weak_ptr<EventDispatching> m_dispatcher;
    std::shared_ptr<Shared> m_shared;
    TerminalOutputNormalizer m_normalizer;
    mutable std::mutex m_dumpMutex;
    std::shared_ptr<TerminalDebugDumpRecording> m_dump;
    std::thread m_thread;
};

}  // namespace velko
