#include "core/Paths.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "core/Environment.h"
#include "core/FileHandle.h"
#include "core/Uuid.h"

namespace velko {

namespace {
std::string env(const char* name) { return environmentValue(name).value_or(std::string()); }
std::string stripTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}
}  // namespace

std::string homeDirectory() {
    std::string home = env("HOME");
    if (!home.empty()) return stripTrailingSlashes(home);
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return stripTrailingSlashes(pw->pw_dir);
    return "/";
}

std::string dataDirectory() {
    std::string base = env("XDG_DATA_HOME");
    if (base.empty() || base[0] != '/') base = homeDirectory() + "/.local/share";
    return stripTrailingSlashes(base) + "/velko";
}

std::string cacheDirectory() {
    std::string base = env("XDG_CACHE_HOME");
    if (base.empty() || base[0] != '/') base = homeDirectory() + "/.cache";
    return stripTrailingSlashes(base) + "/velko";
}

std::string temporaryDirectory() {
    std::string base = env("TMPDIR");
    if (base.empty()) base = "/tmp";
    return stripTrailingSlashes(base);
}

bool createDirectories(const std::string& path) {
    if (path.empty()) return false;
    struct stat st{};
    if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
        if (!createDirectories(path.substr(0, slash))) return false;
    }
    if (mkdir(path.c_str(), 0700) == 0) return true;
    return errno == EEXIST && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode) {
    struct stat existing {};
    bool exists = stat(path.c_str(), &existing) == 0;
    if (exists && S_ISDIR(existing.st_mode)) {
        errno = EISDIR;
        return false;
    }
    // A named pipe, socket or device is never a file we wrote; replacing it
    // would destroy it.
    if (exists && !S_ISREG(existing.st_mode)) {
        errno = ENOTSUP;
        return false;
    }
    if (exists) mode = existing.st_mode & 07777;
    auto slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string temp = dir + "/" + std::string(kAtomicWritePrefix) + Uuid::random().toString().substr(0, 8) +
                       std::string(kAtomicWriteSuffix);
    FileHandle file(open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.valid()) return false;
    int error = 0;
    for (size_t written = 0; written < contents.size() && !error;) {
        ssize_t n = write(file.get(), contents.data() + written, contents.size() - written);
        if (n < 0 && errno != EINTR) error = errno;
        if (n > 0) written += static_cast<size_t>(n);
    }
    // Owner first: changing it afterwards would clear set-id bits again.
    if (!error && exists && (existing.st_uid != geteuid() || existing.st_gid != getegid()))
        (void)!fchown(file.get(), existing.st_uid, existing.st_gid);
    if (!error && fchmod(file.get(), static_cast<mode_t>(mode)) != 0) error = errno;
    if (!error && fsync(file.get()) != 0) error = errno;
    if (close(file.release()) != 0 && !error) error = errno;
    if (!error && rename(temp.c_str(), path.c_str()) != 0) error = errno;
    if (error) {
        unlink(temp.c_str());
        errno = error;
        return false;
    }
    // The rename itself must survive a crash too.
    FileHandle directory(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) fsync(directory.get());
    return true;
}

std::string resolveSymlinks(const std::string& path) {
    char buffer[PATH_MAX];
    if (realpath(path.c_str(), buffer)) return buffer;
    return path;
}

std::optional<std::string> executablePath() {
    char buffer[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return std::nullopt;
    return std::string(buffer, static_cast<size_t>(n));
}

bool readWholeFile(const std::string& path, std::string& out) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buffer[65536];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            close(fd);
            errno = saved;
            return false;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

}  // namespace velko
