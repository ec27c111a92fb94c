#pragma once
// TerminalOutputPump: the output road of one session, on two threads of its
// own. The reader only reads the PTY master and hands the bytes on, so a
// program writing to the terminal is never slowed by what follows; the
// processor takes everything handed on since its last turn, normalises it,
// records it in the debug dump and the log, and sends "terminal/output" and
// "terminal/activity" to the page. Neither touches the main thread.
//
// Memory stays bounded under a flood: bytes handed on but not yet processed
// (counted as the envelope they will become) and envelopes given to the page
// but not yet delivered share one cap; at the cap the reader stops reading
// until deliveries catch up, so the kernel's PTY buffer pushes back on the
// child. Lines the terminal log has not written yet, with the bytes on their
// way to it, count against the same cap. Nothing is dropped and order is kept.
//
// Owned by the session on the main thread; stop() and finish() join both
// threads, which never wait on the main thread, so they return promptly.
// End of stream (EIO on the master) ends the reader; the processor ends when
// it has handed on what the reader left.

#include <atomic>
#include <condition_variable>
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
    // The most raw bytes one output event carries. What a busy program wrote
    // while the last event was on its way goes out together, up to this: a
    // terminal hands out at most 4,095 bytes per read, and an event, a log
    // line and a wake-up per read would cost the page and velko far more.
    static constexpr size_t kMaxChunkBytes = 64 * 1024;

    TerminalOutputPump(Uuid sessionID, int masterFD, std::shared_ptr<TerminalLogger> logger,
                       std::weak_ptr<EventDispatching> dispatcher, uint64_t maxPendingBytes = kDefaultMaxPendingBytes);
    ~TerminalOutputPump();  // stops and joins
    TerminalOutputPump(const TerminalOutputPump&) = delete;
    TerminalOutputPump& operator=(const TerminalOutputPump&) = delete;

    void start();
    // Reads what the master still holds, at most the cap's worth more, hands
    // all of it to the page, then ends both threads and joins them.
    void finish();
    // Ends both threads now and joins them; what was not handed on is dropped.
    void stop();

    void setDebugDump(std::shared_ptr<TerminalDebugDumpRecording> dump);
    bool hasDebugDump() const;

    // Bytes read but not yet delivered to the page (as envelope bytes), and the most seen.
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
    void read();
    void process();
    void deliver(std::string_view raw, std::string_view normalized, uint64_t estimate);

    Uuid m_sessionID;
    std::string m_sessionText;
    int m_fd;
    std::shared_ptr<TerminalLogger> m_logger;
    std::weak_ptr<EventDispatching> m_dispatcher;
    std::shared_ptr<Shared> m_shared;
    TerminalOutputNormalizer m_normalizer;  // the processor's alone
    mutable std::mutex m_dumpMutex;
    std::shared_ptr<TerminalDebugDumpRecording> m_dump;
    std::thread m_reader;
    std::thread m_processor;
};

}  // namespace velko
