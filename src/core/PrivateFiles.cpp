#include "core/PrivateFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/Paths.h"

namespace velko {

namespace {
constexpr mode_t kGroupAndOther = S_IRWXG | S_IRWXO;
}  // namespace

bool ensurePrivateDirectory(const std::string& path) {
    if (!createDirectories(path)) return false;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return false;
    if (S_ISLNK(info.st_mode)) {
        // The user's own choice of where the folder lives: used, not changed.
        return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    }
    if (!S_ISDIR(info.st_mode)) return false;
    if (info.st_mode & kGroupAndOther) (void)::chmod(path.c_str(), info.st_mode & 07700);
    return true;
}

int openPrivateForAppend(const std::string& path, bool createIfMissing) {
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | (createIfMissing ? O_CREAT : 0);
    const int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) return -1;
    struct stat info {};
    // Only a regular file is ours to change; a FIFO or device keeps its bits.
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & kGroupAndOther))
        (void)::fchmod(fd, info.st_mode & 07700);
    return fd;
}

}  // namespace velko
