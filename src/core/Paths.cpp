#include "core/Paths.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "core/Uuid.h"

namespace velko {

namespace {
std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}
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
    struct stat st{};
    if (stat(path.c_str(), &st) == 0) mode = st.st_mode & 07777;
    auto slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temp = dir + "/." + name + "." + Uuid::random().toString().substr(0, 8) + ".tmp";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const char* data = contents.data();
    size_t left = contents.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = write(fd, data, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    ok = ok && fchmod(fd, static_cast<mode_t>(mode)) == 0 && fsync(fd) == 0;
    int saved = errno;
    if (close(fd) != 0 && ok) {
        ok = false;
        saved = errno;
    }
    if (ok && rename(temp.c_str(), path.c_str()) != 0) {
        ok = false;
        saved = errno;
    }
    if (!ok) {
        unlink(temp.c_str());
        errno = saved;
        return false;
    }
    // The rename itself must survive a crash too.
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        fsync(dfd);
        close(dfd);
    }
    return true;
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
