#include "terminal/TerminalOutputPump.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "core/Base64.h"
#include "core/FileHandle.h"
#include "terminal/TerminalLogger.h"

namespace velko {

namespace {
constexpr int kLogBacklogRecheckMilliseconds = 5;
}  // namespace

struct TerminalOutputPump::Shared {
    FileHandle wake;  // eventfd: stop, finish, or room again below the cap
    std::atomic<uint64_t> pending{0};
    std::atomic<uint64_t> peak{0};
    std::atomic<bool> paused{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> draining{false};
    uint64_t cap = 0;

    void signal() {
        uint64_t one = 1;
        (void)!::write(wake.get(), &one, sizeof one);
    }
};

TerminalOutputPump::TerminalOutputPump(Uuid sessionID, int masterFD, std::shared_ptr<TerminalLogger> logger,
                                       std::weak_ptr<EventDispatching> dispatcher, uint64_t maxPendingBytes)
    : m_sessionID(sessionID),
      m_sessionText(sessionID.toString()),
      m_fd(masterFD),
      m_logger(std::move(logger)),
      m_dispatcher(std::move(dispatcher)),
      m_shared(std::make_shared<Shared>()) {
    m_shared->wake = FileHandle(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_shared->cap = maxPendingBytes;
}

TerminalOutputPump::~TerminalOutputPump() { stop(); }

void TerminalOutputPump::start() {
    if (m_thread.joinable()) return;
    m_thread = std::thread([this] { run(); });
}

void TerminalOutputPump::finish() {
    m_shared->draining = true;
    m_shared->signal();
    if (m_thread.joinable()) m_thread.join();
}

void TerminalOutputPump::stop() {
    m_shared->stopping = true;
    m_shared->signal();
    if (m_thread.joinable()) m_thread.join();
}

void TerminalOutputPump::setDebugDump(std::shared_ptr<TerminalDebugDumpRecording> dump) {
    std::lock_guard lock(m_dumpMutex);
    m_dump = std::move(dump);
}

bool TerminalOutputPump::hasDebugDump() const {
    std::lock_guard lock(m_dumpMutex);
    return m_dump != nullptr;
}

uint64_t TerminalOutputPump::pendingBytes() const { return m_shared->pending.load(); }
uint64_t TerminalOutputPump::peakPendingBytes() const { return m_shared->peak.load(); }
uint64_t TerminalOutputPump::maxPendingBytes() const { return m_shared->cap; }

void TerminalOutputPump::appendOutputEnvelope(std::string_view sessionId, std::string_view bytes, std::string& out) {
    static constexpr std::string_view kHead = R"({"type":"terminal/output","payload":{"sessionId":")";
    static constexpr std::string_view kMiddle = R"(","chunk":")";
    static constexpr std::string_view kTail = R"(","encoding":"base64"}})";
    out.reserve(out.size() + kHead.size() + sessionId.size() + kMiddle.size() + (bytes.size() + 2) / 3 * 4 +
                kTail.size());
    out.append(kHead);
    out.append(sessionId);
    out.append(kMiddle);
    base64EncodeAppend(bytes, out);
    out.append(kTail);
}

std::string TerminalOutputPump::activityEnvelope(std::string_view sessionId) {
    std::string out = R"({"type":"terminal/activity","payload":{"sessionId":")";
    out.append(sessionId);
    out.append("\"}}");
    return out;
}

void TerminalOutputPump::run() {
    auto shared = m_shared;
    char buffer[65536];
    std::string normalized;
    // What finish() still reads is bounded: a background job that keeps the
    // terminal open and writes without end must not hold up its caller.
    uint64_t drainBudget = shared->cap;
    for (;;) {
        if (shared->stopping) return;
        const bool draining = shared->draining;
        if (draining && drainBudget == 0) return;
        // The log is a second consumer that can fall behind (a slow disk); its
        // backlog counts against the same cap. It sends no wake-up, so a pause
        // for it looks again after a short wait.
        const bool logBehind = !draining && m_logger && m_logger->pendingBytes() >= shared->cap;
        const bool pageBehind = !draining && shared->pending.load() >= shared->cap;
        const bool paused = pageBehind || logBehind;
        shared->paused = pageBehind;
        // Re-check after announcing the pause: a delivery in between must not be missed.
        if (pageBehind && !logBehind && shared->pending.load() < shared->cap) continue;
        if (!paused) {
            // Read first and wait only when the master is empty: a poll on a
            // terminal costs a flush of its buffer work, and a busy session
            // has data ready again by the time a chunk was handed on.
            ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n > 0) {
                // A chunk is all that is available now. A terminal hands out
                // at most 4,095 bytes per read; taking what else is already
                // there spares an event, a log line and a wake-up per read.
                size_t total = static_cast<size_t>(n);
                while (total < sizeof buffer) {
                    ssize_t more = ::read(m_fd, buffer + total, sizeof buffer - total);
                    if (more > 0) total += static_cast<size_t>(more);
                    else if (more < 0 && errno == EINTR) continue;
                    else break;  // empty for now, or the end: the next turn sees it again
                }
                if (draining) drainBudget -= std::min<uint64_t>(drainBudget, total);
                std::string_view chunk(buffer, total);
                normalized.clear();
                m_normalizer.normalizeInto(chunk, normalized);
                deliver(chunk, normalized);
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n == 0 || errno != EAGAIN) return;  // 0 or EIO: the slave side is gone for good
            if (draining) return;                    // nothing left to read
        }
        pollfd fds[2] = {{paused ? -1 : m_fd, POLLIN, 0}, {shared->wake.get(), POLLIN, 0}};
        int ready = ::poll(fds, 2, logBehind ? kLogBacklogRecheckMilliseconds : -1);
        if (ready < 0 && errno != EINTR) return;
        if (fds[1].revents & POLLIN) {
            uint64_t value;
            (void)!::read(shared->wake.get(), &value, sizeof value);
        }
    }
}

void TerminalOutputPump::deliver(std::string_view raw, std::string_view normalized) {
    {
        std::lock_guard lock(m_dumpMutex);
        if (m_dump) m_dump->record(m_sessionID, raw, normalized);
    }
    if (normalized.empty()) return;  // only part of an OSC sequence so far
    if (m_logger) m_logger->record({m_sessionID, TerminalLogEvent::Event::Output, std::string(normalized), {}, {}});
    auto dispatcher = m_dispatcher.lock();
    if (!dispatcher) return;
    std::string envelope;
    appendOutputEnvelope(m_sessionText, normalized, envelope);
    const uint64_t size = envelope.size();
    auto shared = m_shared;
    uint64_t now = shared->pending.fetch_add(size) + size;
    uint64_t peak = shared->peak.load();
    while (now > peak && !shared->peak.compare_exchange_weak(peak, now)) {
    }
    dispatcher->dispatchEncodedEvent("terminal/output", std::move(envelope), [shared, size] {
        uint64_t left = shared->pending.fetch_sub(size) - size;
        if (shared->paused && left < shared->cap) shared->signal();
    });
    dispatcher->dispatchEncodedEvent("terminal/activity", activityEnvelope(m_sessionText));
}

}  // namespace velko
