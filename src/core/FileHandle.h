#pragma once
// FileHandle: sole owner of one descriptor, closed on destruction. Move-only,
// so a descriptor has exactly one closer and is never closed twice.

#include <unistd.h>

#include <utility>

namespace velko {

class FileHandle {
public:
    FileHandle() = default;
    explicit FileHandle(int fd) : m_fd(fd) {}
    ~FileHandle() { reset(); }
    FileHandle(FileHandle&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileHandle& operator=(FileHandle&& other) noexcept {
        if (this != &other) {
            reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }
    void reset() {
        // close() is not retried on EINTR: on Linux the descriptor is gone either way.
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

}  // namespace velko
