#include "terminal/TerminalLogger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "core/PrivateFiles.h"
#include "core/SerialQueue.h"
#include "core/Time.h"

namespace velko {

namespace {

// Appends `bytes` to the file, creating it when it is missing. False on any
// failure. The log holds what was typed, passwords too: the user's alone.
bool appendToFile(const std::string& path, const std::string& bytes) {
    int fd = openPrivateForAppend(path);
    if (fd < 0) return false;
    const char* data = bytes.data();
    size_t left = bytes.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    ::close(fd);
    return ok;
}

}  // namespace

const char* TerminalLogEvent::rawValue(Event event) {
    switch (event) {
        case Event::Spawn: return "spawn";
        case Event::Ready: return "ready";
        case Event::Output: return "output";
        case Event::Input: return "input";
        case Event::Resize: return "resize";
        case Event::Signal: return "signal";
        case Event::Exit: return "exit";
        case Event::Error: return "error";
    }
    return "error";
}

std::shared_ptr<TerminalLogger> TerminalLogger::create(std::optional<std::string> filePath, uint64_t maxFileSize) {
    std::string path;
    if (filePath) {
        path = *filePath;
    } else {
        std::string directory = cacheDirectory();
        if (directory.empty()) directory = temporaryDirectory() + "/velko";
        (void)ensurePrivateDirectory(directory);  // a failure shows up as unwritable lines, which are dropped
        path = directory + "/velko-terminal.log";
    }
    return std::shared_ptr<TerminalLogger>(new TerminalLogger(std::move(path), maxFileSize));
}

TerminalLogger::TerminalLogger(std::string filePath, uint64_t maxFileSize)
    : m_filePath(std::move(filePath)),
      m_maxFileSize(maxFileSize),
      m_queue(std::make_unique<SerialQueue>("app.velko.terminal.logger")) {}

TerminalLogger::~TerminalLogger() = default;

std::string TerminalLogger::encodeLine(const TerminalLogEvent& event, const std::string& timestamp) {
    std::string line;
    appendLine(event, timestamp, line);
    return line;
}

void TerminalLogger::appendLine(const TerminalLogEvent& event, const std::string& timestamp, std::string& line) {
    if (!event.message && !event.metadata) {
        // Output and input lines, the bulk of the log under a flood: fixed
        // keys, a timestamp, a canonical UUID and base64 need no escaping, so
        // the line is written directly, as the encoder below would write it.
        line.reserve(line.size() + 96 + timestamp.size() + (event.chunk ? event.chunk->size() / 3 * 4 + 4 : 0) +
                     (event.chunkBase64 ? event.chunkBase64->size() : 0));
        line.append(R"({"ts":")").append(timestamp).append(R"(","session":")");
        line.append(event.sessionID.toString()).append(R"(","event":")");
        line.append(TerminalLogEvent::rawValue(event.event)).push_back('"');
        if (event.chunkBase64) {
            line.append(R"(,"chunkBase64":")").append(*event.chunkBase64).push_back('"');
        } else if (event.chunk) {
            line.append(R"(,"chunkBase64":")");
            base64EncodeAppend(*event.chunk, line);
            line.push_back('"');
        }
        line.push_back('}');
        return;
    }
    OrderedJson json;
    json["ts"] = timestamp;
    json["session"] = event.sessionID.toString();
    json["event"] = TerminalLogEvent::rawValue(event.event);
    if (event.chunkBase64) json["chunkBase64"] = *event.chunkBase64;
    else if (event.chunk) json["chunkBase64"] = base64Encode(*event.chunk);
    if (event.message) json["message"] = *event.message;
    if (event.metadata) {
        OrderedJson metadata = OrderedJson::object();
        for (const auto& [key, value] : *event.metadata) metadata[key] = value;
        json["metadata"] = std::move(metadata);
    }
    line.append(dumpJson(json));
}

void TerminalLogger::record(TerminalLogEvent event) {
    bool schedule;
    {
        std::lock_guard lock(m_mutex);
        schedule = m_pending.empty();
        m_pendingBytes += (event.chunk ? event.chunk->size() : 0) + (event.chunkBase64 ? event.chunkBase64->size() : 0);
        m_pending.push_back(std::move(event));
    }
    if (!schedule) return;
    std::weak_ptr<TerminalLogger> weak = weak_from_this();
    m_queue->post([weak] {
        if (auto self = weak.lock()) self->writePending();
    });
}

uint64_t TerminalLogger::pendingBytes() const {
    std::lock_guard lock(m_mutex);
    return m_pendingBytes;
}

void TerminalLogger::drainForTesting() { m_queue->drainForTesting(); }

void TerminalLogger::writePending() {
    std::vector<TerminalLogEvent> events;
    {
        std::lock_guard lock(m_mutex);
        events.swap(m_pending);
        m_pendingBytes = 0;
    }
    // One open and close per batch; the size check still runs before each
    // line, so the line that crosses the limit starts the new file.
    struct stat info {};
    uint64_t size = ::stat(m_filePath.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
    std::string batch;
    auto flush = [&] {
        if (!batch.empty()) (void)appendToFile(m_filePath, batch);
        batch.clear();
    };
    for (const auto& event : events) {
        if (size > m_maxFileSize) {
            flush();
            std::string rotated = m_filePath + ".1";
            ::unlink(rotated.c_str());
            if (::rename(m_filePath.c_str(), rotated.c_str()) == 0) size = 0;
        }
        // Straight into the batch: under a flood each line is a large chunk.
        const size_t before = batch.size();
        appendLine(event, iso8601Now(), batch);
        batch.push_back('\n');
        size += batch.size() - before;
    }
    flush();
}

}  // namespace velko
