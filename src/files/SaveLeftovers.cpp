#include "files/SaveLeftovers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "core/Paths.h"
#include "files/DirectoryReader.h"

namespace velko {

namespace {

constexpr size_t kHexDigits = 8;
// Folders already cleaned by this process; forgotten wholesale past this size
// so a long session saving into many folders does not grow it without end.
constexpr size_t kMaxRememberedFolders = 4096;

bool isUpperHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

bool olderThan(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

std::optional<timespec> computeProcessStartTime() {
    std::string stat;
    if (!readWholeFile("/proc/self/stat", stat)) return std::nullopt;
    // The command name in parentheses may hold spaces and parentheses itself.
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    // After ") " come the fields from the third on; the start time is the 22nd.
    const char* cursor = stat.c_str() + close + 1;
    for (int field = 3; field < 22; ++field) {
        while (*cursor == ' ') ++cursor;
        while (*cursor && *cursor != ' ') ++cursor;
        if (!*cursor) return std::nullopt;
    }
    char* end = nullptr;
    unsigned long long ticks = std::strtoull(cursor, &end, 10);
    long ticksPerSecond = sysconf(_SC_CLK_TCK);
    if (end == cursor || ticksPerSecond <= 0) return std::nullopt;
    // The start is counted from boot on the boot clock; the boot moment on the
    // wall clock is the difference of the two clocks now.
    timespec real {}, boot {};
    if (clock_gettime(CLOCK_REALTIME, &real) != 0 || clock_gettime(CLOCK_BOOTTIME, &boot) != 0) return std::nullopt;
    long double bootedAt = real.tv_sec - boot.tv_sec + (real.tv_nsec - boot.tv_nsec) / 1e9L;
    long double started = bootedAt + static_cast<long double>(ticks) / ticksPerSecond;
    timespec start {};
    start.tv_sec = static_cast<time_t>(started);
    // Rounded down to whole milliseconds: never later than the real start.
    start.tv_nsec = static_cast<long>((started - start.tv_sec) * 1000) * 1000000L;
    return start;
}

}  // namespace

bool isSaveLeftoverName(std::string_view name) {
    if (name.size() != kAtomicWritePrefix.size() + kHexDigits + kAtomicWriteSuffix.size()) return false;
    if (name.substr(0, kAtomicWritePrefix.size()) != kAtomicWritePrefix) return false;
    if (name.substr(name.size() - kAtomicWriteSuffix.size()) != kAtomicWriteSuffix) return false;
    for (char c : name.substr(kAtomicWritePrefix.size(), kHexDigits))
        if (!isUpperHexDigit(c)) return false;
    return true;
}

std::optional<timespec> processStartTime() {
    static const std::optional<timespec> start = computeProcessStartTime();
    return start;
}

bool removeSaveLeftoverAt(int directoryFd, std::string_view name, const timespec& cutoff) {
    if (!isSaveLeftoverName(name)) return false;
    std::string file(name);
    struct stat st {};
    if (fstatat(directoryFd, file.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    if (!S_ISREG(st.st_mode) || !olderThan(st.st_mtim, cutoff)) return false;
    // Without AT_REMOVEDIR a folder put here meanwhile is refused, and a link
    // put here meanwhile loses only itself, never what it points to.
    return unlinkat(directoryFd, file.c_str(), 0) == 0;
}

size_t removeSaveLeftoversOnce(const std::string& directory) {
    static std::mutex mutex;
    static std::unordered_set<std::string> cleaned;
    {
        std::lock_guard lock(mutex);
        if (cleaned.count(directory)) return 0;
    }
    auto cutoff = processStartTime();
    DirectoryReader reader;
    // A folder that is not there yet is tried again once it is.
    if (!cutoff || !reader.open(AT_FDCWD, directory.c_str())) return 0;
    {
        std::lock_guard lock(mutex);
        if (cleaned.size() >= kMaxRememberedFolders) cleaned.clear();
        cleaned.insert(directory);
    }
    size_t removed = 0;
    reader.forEach([&](std::string_view name, unsigned char type) {
        if ((type == DT_REG || type == DT_UNKNOWN) && removeSaveLeftoverAt(reader.fd(), name, *cutoff)) ++removed;
    });
    return removed;
}

}  // namespace velko
