#pragma once
// DirectoryReader: the entries of one directory, read straight from the
// kernel (getdents64) into a buffer the reader keeps between directories.
//
// The explorer reads a lot of directories (a listing of 10,000 entries, the
// watcher's walk of every folder of a project), so it skips what opendir adds:
// an fstat, an fcntl and a fresh 32 KiB buffer per directory. Entries whose
// type the file system does not report are asked with fstatat relative to the
// open directory, never following a link. One reader per thread; not shared.
#include <dirent.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "core/FileHandle.h"

namespace velko {

class DirectoryReader {
public:
    DirectoryReader();

    // Opens `path` (relative to `atFd`, or absolute with AT_FDCWD) as a
    // directory. A symbolic link as the last component is not followed. Closes
    // the directory opened before. False when it cannot be opened.
    bool open(int atFd, const char* path);
    // The open directory's descriptor, for calls relative to it.
    int fd() const { return m_fd.get(); }
    void close() { m_fd.reset(); }

    // Calls `visit(std::string_view name, unsigned char type)` for each entry
    // but "." and "..", `type` being a DT_* value (DT_UNKNOWN only when even
    // fstatat could not tell). False when reading failed part-way.
    template <typename Visit>
    bool forEach(Visit&& visit);

private:
    ssize_t readBatch();
    unsigned char typeOf(const char* name) const;

    FileHandle m_fd;
    std::unique_ptr<char[]> m_buffer;
};

// The kernel's record layout (struct linux_dirent64): inode and offset (8
// bytes each), the record length (2), the type (1), then the NUL-ended name.
inline constexpr size_t kDirentLengthOffset = 16;
inline constexpr size_t kDirentTypeOffset = 18;
inline constexpr size_t kDirentNameOffset = 19;

template <typename Visit>
bool DirectoryReader::forEach(Visit&& visit) {
    for (;;) {
        ssize_t length = readBatch();
        if (length < 0) return false;
        if (length == 0) return true;
        for (ssize_t offset = 0; offset < length;) {
            const char* record = m_buffer.get() + offset;
            unsigned short recordLength = 0;
            std::memcpy(&recordLength, record + kDirentLengthOffset, sizeof recordLength);
            if (recordLength == 0) return false;
            offset += recordLength;
            const char* name = record + kDirentNameOffset;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
            auto type = static_cast<unsigned char>(record[kDirentTypeOffset]);
            if (type == DT_UNKNOWN) type = typeOf(name);
            visit(std::string_view(name), type);
        }
    }
}

}  // namespace velko
