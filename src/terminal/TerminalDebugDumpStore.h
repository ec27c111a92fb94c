#pragma once
// TerminalDebugDumpStore: with "terminal.debugDump" on, every chunk a session
// reads is written before and after normalising to bounded JSON Lines files
// in the cache directory's "terminal-dumps" folder: "<ID>.jsonl" with up to
// two older generations ("<ID>.1.jsonl", "<ID>.2.jsonl"), each at most
// 32 MiB, the folder at most 512 MiB, nothing older than seven days. Files
// are mode 0600 in a folder of mode 0700.
//
// All disk work runs on the "app.velko.terminal.debugdump.store" queue;
// record() and performStartupMaintenance() only enqueue. prepareForWriting()
// hops there synchronously and must not be called from that queue. Every
// failure drops the entry concerned; a folder that is a symbolic link or a
// file stops all dumping.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/Time.h"
#include "core/Uuid.h"
#include "terminal/TerminalOutputPump.h"

namespace velko {

class SerialQueue;

struct TerminalDebugDumpPolicy {
    uint64_t maxFileSizeBytes = 33554432;
    int maxFilesPerSession = 3;
    uint64_t maxDirectorySizeBytes = 536870912;
    std::chrono::seconds retentionInterval{604800};
    friend bool operator==(const TerminalDebugDumpPolicy&, const TerminalDebugDumpPolicy&) = default;
};

class TerminalDebugDumpStore : public std::enable_shared_from_this<TerminalDebugDumpStore> {
public:
    using Clock = std::function<SystemTime()>;

    // No directory: the cache directory's "terminal-dumps".
    static std::shared_ptr<TerminalDebugDumpStore> create(std::optional<std::string> directory = std::nullopt,
                                                          TerminalDebugDumpPolicy policy = {}, Clock clock = {});
    ~TerminalDebugDumpStore();

    void performStartupMaintenance();
    bool prepareForWriting();
    void record(const Uuid& sessionID, std::string_view raw, std::string_view normalized);
    void drainForTesting();
    const std::string& directory() const { return m_directory; }

    // The first 120 bytes as text, or nothing when empty or not valid UTF-8.
    static std::optional<std::string> previewString(std::string_view bytes);
    // 0 for "<ID>.jsonl", n for "<ID>.n.jsonl", nothing for other names.
    static std::optional<int> generation(const std::string& fileName);

private:
    struct DumpFile {
        std::string path;
        std::string name;
        uint64_t size = 0;
        SystemTime modifiedAt;
    };
    TerminalDebugDumpStore(std::string directory, TerminalDebugDumpPolicy policy, Clock clock);
    template <typename F>
    auto runSync(F&& body);
    bool validateDirectoryLocked(bool createIfNeeded);
    std::vector<DumpFile> dumpFilesLocked() const;
    void maintenanceLocked();
    void pruneDirectoryLocked(uint64_t reserving, const std::string& excluding);
    void removeFileLocked(const std::string& path);
    void recomputeTotalLocked();
    void rotateLocked(const Uuid& sessionID);
    void writeLocked(const Uuid& sessionID, const std::string& raw, const std::string& normalized);
    std::string fileFor(const Uuid& sessionID, int generation) const;

    std::string m_directory;
    TerminalDebugDumpPolicy m_policy;
    Clock m_clock;
    std::unique_ptr<SerialQueue> m_queue;
    std::unordered_map<Uuid, int64_t> m_sequenceBySession;
    uint64_t m_totalSizeBytes = 0;
    bool m_isPrepared = false;
};

// The per-session handle; exists only when the store could be prepared.
class TerminalDebugDumpWriter final : public TerminalDebugDumpRecording {
public:
    static std::shared_ptr<TerminalDebugDumpWriter> create(std::shared_ptr<TerminalDebugDumpStore> store, Uuid sessionID);
    void record(const Uuid& sessionID, std::string_view raw, std::string_view normalized) override;

private:
    TerminalDebugDumpWriter(std::shared_ptr<TerminalDebugDumpStore> store, Uuid sessionID)
        : m_store(std::move(store)), m_sessionID(sessionID) {}
    std::shared_ptr<TerminalDebugDumpStore> m_store;
    Uuid m_sessionID;
};

}  // namespace velko
