#include "files/DirectoryReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace velko {

namespace {
// Big enough for a few hundred entries per call, small enough to stay in cache.
constexpr size_t kBufferSize = 32 * 1024;
}  // namespace

DirectoryReader::DirectoryReader() : m_buffer(new char[kBufferSize]) {}

bool DirectoryReader::open(int atFd, const char* path) {
    m_fd = FileHandle(::openat(atFd, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return m_fd.valid();
}

ssize_t DirectoryReader::readBatch() {
    if (!m_fd.valid()) return -1;
    for (;;) {
        long n = ::syscall(SYS_getdents64, m_fd.get(), m_buffer.get(), kBufferSize);
        if (n >= 0 || errno != EINTR) return static_cast<ssize_t>(n);
    }
}

unsigned char DirectoryReader::typeOf(const char* name) const {
    struct stat st {};
    if (::fstatat(m_fd.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
    return IFTODT(st.st_mode);
}

}  // namespace velko
