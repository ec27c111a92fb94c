#include "terminal/TerminalDebugDumpStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <future>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "core/PrivateFiles.h"
#include "core/SerialQueue.h"
#include "core/Utf8.h"

namespace velko {

namespace {

bool appendAll(const std::string& path, const std::string& bytes) {
    int fd = openPrivateForAppend(path, false);
    if (fd < 0) return false;
    size_t done = 0;
    bool ok = true;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (::close(fd) != 0) ok = false;
    return ok;
}

bool createEmpty(const std::string& path) {
    int fd = openPrivateForAppend(path);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

bool exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

uint64_t fileSize(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

}  // namespace

std::shared_ptr<TerminalDebugDumpStore> TerminalDebugDumpStore::create(std::optional<std::string> directory,
                                                                      TerminalDebugDumpPolicy policy, Clock clock) {
    std::string path = directory ? *directory : cacheDirectory() + "/terminal-dumps";
    if (!clock) clock = [] { return std::chrono::system_clock::now(); };
    return std::shared_ptr<TerminalDebugDumpStore>(new TerminalDebugDumpStore(std::move(path), policy, std::move(clock)));
}

TerminalDebugDumpStore::TerminalDebugDumpStore(std::string directory, TerminalDebugDumpPolicy policy, Clock clock)
    : m_directory(std::move(directory)),
      m_policy(policy),
      m_clock(std::move(clock)),
      m_queue(std::make_unique<SerialQueue>("app.velko.terminal.debugdump.store")) {}

TerminalDebugDumpStore::~TerminalDebugDumpStore() = default;

template <typename F>
auto TerminalDebugDumpStore::runSync(F&& body) {
    using R = decltype(body());
    std::packaged_task<R()> task(std::forward<F>(body));
    auto future = task.get_future();
    m_queue->post([&task] { task(); });
    return future.get();
}

std::optional<std::string> TerminalDebugDumpStore::previewString(std::string_view bytes) {
    if (bytes.empty()) return std::nullopt;
    auto prefix = bytes.substr(0, 120);
    if (!isValidUtf8(prefix)) return std::nullopt;
    return std::string(prefix);
}

std::optional<int> TerminalDebugDumpStore::generation(const std::string& fileName) {
    auto dot = fileName.rfind('.');
    if (dot == std::string::npos) return std::nullopt;
    std::string stem = fileName.substr(0, dot);
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start <= stem.size()) {
        size_t next = stem.find('.', start);
        if (next == std::string::npos) next = stem.size();
        if (next > start) pieces.push_back(stem.substr(start, next - start));
        start = next + 1;
    }
    if (pieces.empty() || pieces.size() > 2 || !Uuid::parse(pieces[0])) return std::nullopt;
    if (pieces.size() == 1) return 0;
    const auto& digits = pieces[1];
    if (digits.size() > 9 || !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return std::stoi(digits);
}

std::string TerminalDebugDumpStore::fileFor(const Uuid& sessionID, int generation) const {
    std::string name = sessionID.toString();
    if (generation > 0) name += "." + std::to_string(generation);
    return m_directory + "/" + name + ".jsonl";
}

bool TerminalDebugDumpStore::validateDirectoryLocked(bool createIfNeeded) {
    struct stat info {};
    if (::lstat(m_directory.c_str(), &info) != 0) {
        if (!createIfNeeded || !createDirectories(m_directory)) return false;
        m_totalSizeBytes = 0;
        return true;
    }
    if (!S_ISDIR(info.st_mode)) return false;  // a symbolic link or a file stops all dumping
    // Dumps hold what programs printed: the folder is the user's alone.
    if (info.st_mode & (S_IRWXG | S_IRWXO)) (void)::chmod(m_directory.c_str(), info.st_mode & 07700);
    return true;
}

std::vector<TerminalDebugDumpStore::DumpFile> TerminalDebugDumpStore::dumpFilesLocked() const {
    std::vector<DumpFile> files;
    DIR* dir = ::opendir(m_directory.c_str());
    if (!dir) return files;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name.empty() || name[0] == '.') continue;
        if (name.size() < 6 || name.compare(name.size() - 6, 6, ".jsonl") != 0) continue;
        std::string path = m_directory + "/" + name;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        SystemTime modified{std::chrono::duration_cast<SystemTime::duration>(
            std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec))};
        files.push_back({path, name, static_cast<uint64_t>(info.st_size), modified});
    }
    ::closedir(dir);
    return files;
}

void TerminalDebugDumpStore::recomputeTotalLocked() {
    m_totalSizeBytes = 0;
    for (const auto& file : dumpFilesLocked()) m_totalSizeBytes += file.size;
}

void TerminalDebugDumpStore::removeFileLocked(const std::string& path) {
    if (!exists(path)) return;
    uint64_t size = fileSize(path);
    if (::unlink(path.c_str()) == 0) m_totalSizeBytes = m_totalSizeBytes > size ? m_totalSizeBytes - size : 0;
    else recomputeTotalLocked();
}

void TerminalDebugDumpStore::maintenanceLocked() {
    for (const auto& file : dumpFilesLocked())
        if (file.size > m_policy.maxFileSizeBytes) ::unlink(file.path.c_str());
    const SystemTime cutoff = m_clock() - m_policy.retentionInterval;
    for (const auto& file : dumpFilesLocked())
        if (file.modifiedAt < cutoff) ::unlink(file.path.c_str());
    for (const auto& file : dumpFilesLocked()) {
        auto gen = generation(file.name);
        if (gen && *gen >= m_policy.maxFilesPerSession) ::unlink(file.path.c_str());
    }
    recomputeTotalLocked();
    if (m_totalSizeBytes > m_policy.maxDirectorySizeBytes) pruneDirectoryLocked(0, {});
}

void TerminalDebugDumpStore::pruneDirectoryLocked(uint64_t reserving, const std::string& excluding) {
    auto files = dumpFilesLocked();
    std::erase_if(files, [&](const DumpFile& f) { return f.path == excluding; });
    std::sort(files.begin(), files.end(), [](const DumpFile& a, const DumpFile& b) {
        if (a.modifiedAt != b.modifiedAt) return a.modifiedAt < b.modifiedAt;
        return a.name < b.name;
    });
    for (const auto& file : files) {
        removeFileLocked(file.path);
        if (m_totalSizeBytes + reserving <= m_policy.maxDirectorySizeBytes) break;
    }
}

void TerminalDebugDumpStore::rotateLocked(const Uuid& sessionID) {
    const std::string current = fileFor(sessionID, 0), first = fileFor(sessionID, 1), second = fileFor(sessionID, 2);
    removeFileLocked(second);
    if (exists(first) && ::rename(first.c_str(), second.c_str()) != 0) recomputeTotalLocked();
    if (exists(current) && ::rename(current.c_str(), first.c_str()) != 0) recomputeTotalLocked();
    if (!exists(current)) (void)createEmpty(current);
}

void TerminalDebugDumpStore::writeLocked(const Uuid& sessionID, const std::string& raw, const std::string& normalized) {
    if (!(m_isPrepared && validateDirectoryLocked(false))) {
        if (!validateDirectoryLocked(true)) return;
        m_isPrepared = true;
        maintenanceLocked();
    }
    int64_t sequence = m_sequenceBySession[sessionID];
    m_sequenceBySession[sessionID] = sequence + 1;  // used up even if the entry is dropped

    OrderedJson entry;
    entry["ts"] = formatIso8601(m_clock());
    entry["sequence"] = sequence;
    entry["rawBase64"] = base64Encode(raw);
    entry["normalizedBase64"] = base64Encode(normalized);
    entry["rawCount"] = raw.size();
    entry["normalizedCount"] = normalized.size();
    if (auto preview = previewString(raw)) entry["rawPreviewUTF8"] = *preview;
    if (auto preview = previewString(normalized)) entry["normalizedPreviewUTF8"] = *preview;
    std::string line = dumpJson(entry);
    line.push_back('\n');
    if (line.size() > m_policy.maxFileSizeBytes) return;

    const std::string target = fileFor(sessionID, 0);
    if (fileSize(target) + line.size() > m_policy.maxFileSizeBytes) {
        maintenanceLocked();
        rotateLocked(sessionID);
    }
    if (m_totalSizeBytes + line.size() > m_policy.maxDirectorySizeBytes) pruneDirectoryLocked(line.size(), target);
    if (m_totalSizeBytes + line.size() > m_policy.maxDirectorySizeBytes) return;
    if (!exists(target) && !createEmpty(target)) return;
    if (appendAll(target, line)) m_totalSizeBytes += line.size();
    else recomputeTotalLocked();
}

void TerminalDebugDumpStore::performStartupMaintenance() {
    // Queued, not waited for: whatever uses the folder later runs on the same
    // queue behind it, so launch does not wait on a listing of old dumps.
    std::weak_ptr<TerminalDebugDumpStore> weak = weak_from_this();
    m_queue->post([weak] {
        auto self = weak.lock();
        if (!self || !self->validateDirectoryLocked(false)) return;  // a first run creates nothing
        self->m_isPrepared = true;
        self->maintenanceLocked();
    });
}

bool TerminalDebugDumpStore::prepareForWriting() {
    return runSync([this] {
        if (!validateDirectoryLocked(true)) return false;
        m_isPrepared = true;
        maintenanceLocked();
        return true;
    });
}

void TerminalDebugDumpStore::record(const Uuid& sessionID, std::string_view raw, std::string_view normalized) {
    std::weak_ptr<TerminalDebugDumpStore> weak = weak_from_this();
    m_queue->post([weak, sessionID, raw = std::string(raw), normalized = std::string(normalized)] {
        if (auto self = weak.lock()) self->writeLocked(sessionID, raw, normalized);
    });
}

void TerminalDebugDumpStore::drainForTesting() { m_queue->drainForTesting(); }

std::shared_ptr<TerminalDebugDumpWriter> TerminalDebugDumpWriter::create(std::shared_ptr<TerminalDebugDumpStore> store,
                                                                         Uuid sessionID) {
    if (!store || !store->prepareForWriting()) return nullptr;
    return std::shared_ptr<TerminalDebugDumpWriter>(new TerminalDebugDumpWriter(std::move(store), sessionID));
}

void TerminalDebugDumpWriter::record(const Uuid&, std::string_view raw, std::string_view normalized) {
    m_store->record(m_sessionID, raw, normalized);
}

}  // namespace velko
