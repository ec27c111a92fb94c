#include "terminal/TerminalOutputPump.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "core/Base64.h"
#include "core/FileHandle.h"
#include "terminal/TerminalLogger.h"

namespace velko {

namespace {

constexpr int kLogBacklogRecheckMilliseconds = 5;
// Without its wake-up descriptor the reader looks at its flags this often, so
// that stop() and finish() still end it.
constexpr int kNoWakeRecheckMilliseconds = 20;

constexpr std::string_view kOutputHead = R"({"type":"terminal/output","payload":{"sessionId":")";
constexpr std::string_view kOutputMiddle = R"(","chunk":")";
constexpr std::string_view kOutputTail = R"(","encoding":"base64"}})";
constexpr uint64_t kOutputOverhead = kOutputHead.size() + 36 + kOutputMiddle.size() + kOutputTail.size();

// The envelope `bytes` raw bytes become at most: normalising never grows a
// chunk, except by an OSC sequence held from an earlier one.
uint64_t envelopeEstimate(uint64_t bytes) { return (bytes + 2) / 3 * 4 + kOutputOverhead; }

}  // namespace

struct TerminalOutputPump::Shared {
    FileHandle wake;  // eventfd for the reader: stop, finish, or room again below the cap
    std::atomic<uint64_t> pending{0};
    std::atomic<uint64_t> peak{0};
    std::atomic<bool> paused{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> draining{false};
    uint64_t cap = 0;

    // Between the reader and the processor.
    std::mutex mutex;
    std::condition_variable handedOn;
    std::string inbox;
    std::atomic<uint64_t> inboxEstimate{0};  // changed under the mutex, read without it
    bool readerDone = false;

    void signal() {
        uint64_t one = 1;
        if (wake.valid()) (void)!::write(wake.get(), &one, sizeof one);
    }
    void add(uint64_t bytes) {
        const uint64_t now = pending.fetch_add(bytes) + bytes;
        uint64_t seen = peak.load();
        while (now > seen && !peak.compare_exchange_weak(seen, now)) {
        }
    }
    // Room may have come back: a paused reader looks again.
    void remove(uint64_t bytes) {
        const uint64_t left = pending.fetch_sub(bytes) - bytes;
        if (paused && left < cap) signal();
    }
    void wakeProcessor() {
        { std::lock_guard lock(mutex); }
        handedOn.notify_all();
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
    if (m_reader.joinable() || m_processor.joinable()) return;
    try {
        m_processor = std::thread([this] { process(); });
        m_reader = std::thread([this] { read(); });
    } catch (const std::system_error&) {
        // No thread to be had: the session shows no output, but velko goes on.
        stop();
    }
}

void TerminalOutputPump::finish() {
    m_shared->draining = true;
    m_shared->signal();
    if (m_reader.joinable()) m_reader.join();
    if (m_processor.joinable()) m_processor.join();
}

void TerminalOutputPump::stop() {
    m_shared->stopping = true;
    m_shared->signal();
    m_shared->wakeProcessor();
    if (m_reader.joinable()) m_reader.join();
    if (m_processor.joinable()) m_processor.join();
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
    out.reserve(out.size() + kOutputHead.size() + sessionId.size() + kOutputMiddle.size() + (bytes.size() + 2) / 3 * 4 +
                kOutputTail.size());
    out.append(kOutputHead);
    out.append(sessionId);
    out.append(kOutputMiddle);
    base64EncodeAppend(bytes, out);
    out.append(kOutputTail);
}

std::string TerminalOutputPump::activityEnvelope(std::string_view sessionId) {
    std::string out = R"({"type":"terminal/activity","payload":{"sessionId":")";
    out.append(sessionId);
    out.append("\"}}");
    return out;
}

void TerminalOutputPump::read() {
    auto shared = m_shared;
    char buffer[kMaxChunkBytes];
    // What finish() still reads is bounded: a background job that keeps the
    // terminal open and writes without end must not hold up its caller.
    uint64_t drainBudget = shared->cap;
    const int idleTimeout = shared->wake.valid() ? -1 : kNoWakeRecheckMilliseconds;
    for (;;) {
        if (shared->stopping) break;
        const bool draining = shared->draining;
        if (draining && drainBudget == 0) break;
        // The log is a second consumer that can fall behind (a slow disk); its
        // backlog, with what is on its way to it, counts against the same cap.
        // It sends no wake-up, so a pause for it looks again after a short wait.
        const bool logBehind =
            !draining && m_logger && m_logger->pendingBytes() + shared->inboxEstimate.load() >= shared->cap;
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
                // Take what else is already there before handing on: one
                // hand-over, and at most one wake-up of the processor, per burst.
                size_t total = static_cast<size_t>(n);
                while (total < sizeof buffer) {
                    ssize_t more = ::read(m_fd, buffer + total, sizeof buffer - total);
                    if (more > 0) total += static_cast<size_t>(more);
                    else if (more < 0 && errno == EINTR) continue;
                    else break;  // empty for now, or the end: the next turn sees it again
                }
                if (draining) drainBudget -= std::min<uint64_t>(drainBudget, total);
                const uint64_t estimate = envelopeEstimate(total);
                shared->add(estimate);
                bool wasEmpty;
                {
                    std::lock_guard lock(shared->mutex);
                    wasEmpty = shared->inbox.empty();
                    shared->inbox.append(buffer, total);
                    shared->inboxEstimate += estimate;
                }
                if (wasEmpty) shared->handedOn.notify_one();
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n == 0 || errno != EAGAIN) break;  // 0 or EIO: the slave side is gone for good
            if (draining) break;                    // nothing left to read
        }
        pollfd fds[2] = {{paused ? -1 : m_fd, POLLIN, 0}, {shared->wake.get(), POLLIN, 0}};
        int ready = ::poll(fds, 2, logBehind ? kLogBacklogRecheckMilliseconds : idleTimeout);
        if (ready < 0 && errno != EINTR) break;
        if (fds[1].revents & POLLIN) {
            uint64_t value;
            (void)!::read(shared->wake.get(), &value, sizeof value);
        }
    }
    {
        std::lock_guard lock(shared->mutex);
        shared->readerDone = true;
    }
    shared->handedOn.notify_all();
}

void TerminalOutputPump::process() {
    auto shared = m_shared;
    std::string batch, normalized;
    for (;;) {
        uint64_t estimate = 0;
        {
            std::unique_lock lock(shared->mutex);
            shared->handedOn.wait(lock, [&] { return shared->stopping || shared->readerDone || !shared->inbox.empty(); });
            if (shared->stopping) return;
            if (shared->inbox.empty()) return;  // the reader is done and everything went out
            batch.clear();
            batch.swap(shared->inbox);
            estimate = shared->inboxEstimate.exchange(0);
        }
        for (size_t at = 0; at < batch.size() && !shared->stopping; at += kMaxChunkBytes) {
            const std::string_view chunk = std::string_view(batch).substr(at, kMaxChunkBytes);
            const bool last = at + chunk.size() >= batch.size();
            const uint64_t share = last ? estimate : std::min(estimate, envelopeEstimate(chunk.size()));
            estimate -= share;
            normalized.clear();
            m_normalizer.normalizeInto(chunk, normalized);
            deliver(chunk, normalized, share);
        }
        if (estimate) shared->remove(estimate);  // stopped part-way
    }
}

void TerminalOutputPump::deliver(std::string_view raw, std::string_view normalized, uint64_t estimate) {
    auto shared = m_shared;
    {
        std::lock_guard lock(m_dumpMutex);
        if (m_dump) m_dump->record(m_sessionID, raw, normalized);
    }
    if (normalized.empty()) {  // only part of an OSC sequence so far
        shared->remove(estimate);
        return;
    }
    // One base64 text serves the event and the log line.
    std::string chunk;
    base64EncodeAppend(normalized, chunk);
    auto dispatcher = m_dispatcher.lock();
    std::string envelope;
    if (dispatcher) {
        envelope.reserve(kOutputOverhead + chunk.size());
        envelope.append(kOutputHead).append(m_sessionText).append(kOutputMiddle).append(chunk).append(kOutputTail);
    }
    if (m_logger) {
        TerminalLogEvent line{m_sessionID, TerminalLogEvent::Event::Output, std::nullopt, {}, {}};
        line.chunkBase64 = std::move(chunk);
        m_logger->record(std::move(line));
    }
    if (!dispatcher) {
        shared->remove(estimate);
        return;
    }
    // The estimate gives way to the envelope's real size (never larger but
    // for a held OSC sequence) in one step: a dip in between would let the
    // reader take another read's worth past the cap.
    const uint64_t size = envelope.size();
    if (size <= estimate) shared->remove(estimate - size);
    else shared->add(size - estimate);
    dispatcher->dispatchEncodedEvent("terminal/output", std::move(envelope), [shared, size] { shared->remove(size); });
    dispatcher->dispatchEncodedEvent("terminal/activity", activityEnvelope(m_sessionText));
}

}  // namespace velko
