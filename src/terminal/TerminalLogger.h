#pragma once
// TerminalLogger: one JSON Lines file of everything that happens in the
// terminal subsystem (spawns, output, input, resizes, signals, exits, errors),
// "velko-terminal.log" in the cache directory, rotated to one ".1" copy when
// it grows past its maximum size. It holds what was typed and printed, so
// the file is mode 0600 in a folder of mode 0700.
//
// record() may be called from any thread and returns at once; lines are
// written on the "app.velko.terminal.logger" queue in the order of the
// record() calls. Lines that pile up while the queue is busy are written in
// one batch. Every failure is swallowed: a session never notices the log.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Uuid.h"

namespace velko {

class SerialQueue;

struct TerminalLogEvent {
    enum class Event { Spawn, Ready, Output, Input, Resize, Signal, Exit, Error };
    Uuid sessionID;
    Event event = Event::Spawn;
    std::optional<std::string> chunk;
    std::optional<std::string> message;
    std::optional<std::map<std::string, std::string>> metadata;
    // `chunk` already in base64, for a caller that encoded it anyway (the
    // output road); written as it is, in place of `chunk`.
    std::optional<std::string> chunkBase64 = std::nullopt;

    static const char* rawValue(Event event);
};

class TerminalLogger : public std::enable_shared_from_this<TerminalLogger> {
public:
    static constexpr uint64_t kDefaultMaxFileSize = 10485760;

    // No path: the cache directory's "velko-terminal.log" (the temporary
    // directory when there is no cache directory).
    static std::shared_ptr<TerminalLogger> create(std::optional<std::string> filePath = std::nullopt,
                                                  uint64_t maxFileSize = kDefaultMaxFileSize);
    ~TerminalLogger();

    void record(TerminalLogEvent event);
    const std::string& filePath() const { return m_filePath; }
    // Bytes of lines accepted but not yet written (for the flood bound).
    uint64_t pendingBytes() const;
    // Blocks until every line recorded before the call is on disk.
    void drainForTesting();

    // The line as written, without its line feed. Exposed for tests.
    static std::string encodeLine(const TerminalLogEvent& event, const std::string& timestamp);
    static void appendLine(const TerminalLogEvent& event, const std::string& timestamp, std::string& out);

private:
    TerminalLogger(std::string filePath, uint64_t maxFileSize);
    void writePending();

    std::string m_filePath;
    uint64_t m_maxFileSize;
    std::unique_ptr<SerialQueue> m_queue;
    mutable std::mutex m_mutex;
    std::vector<TerminalLogEvent> m_pending;
    uint64_t m_pendingBytes = 0;
};

}  // namespace velko
