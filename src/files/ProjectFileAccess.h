#pragma once
// Reading and saving one file under a project root.
//
// These functions block on the disk and are called on the bridge's file queue
// only; they hold no state. Failures are typed values whose descriptions are
// the Japanese texts the page shows. Special files (FIFOs, sockets, devices)
// are refused at once: they are opened without blocking and their type is
// checked before a byte is read, so a stray named pipe cannot hang the queue.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "core/Result.h"
#include "core/Utf8.h"
#include "workspace/Models.h"

namespace velko {

inline constexpr int64_t kFileSoftLimitBytes = 31457280;   // above it the user confirms
inline constexpr int64_t kFileHardLimitBytes = 314572800;  // above it the file is refused

struct FileTextContent {
    std::string text;  // UTF-8
};
struct FileBinaryContent {
    std::string bytes;
    std::optional<std::string> mimeType;
};
struct FileRequiresConfirmation {
    int64_t fileSize = 0;
    int64_t softLimit = kFileSoftLimitBytes;
    int64_t hardLimit = kFileHardLimitBytes;
};
using FileReadResult = std::variant<FileTextContent, FileBinaryContent, FileRequiresConfirmation>;

struct FileReadError {
    enum class Kind { TooLarge, InvalidPath, NotFound, Directory, Unreadable };
    Kind kind = Kind::Unreadable;
    int64_t fileSize = 0;  // TooLarge only
    int64_t maxBytes = 0;  // TooLarge only
    std::string errorDescription() const;
};

enum class LargeFilePolicy { AskFirst, Allow };

// The project's folder: its stored path with the tilde expanded, if a
// directory exists there. An unknown project is the caller's nothing.
std::optional<std::string> projectRootPath(const ProjectMetadata& project, std::string_view homePath);

// Reads `relativePath` below `rootPath`. The path is sanitised and must stay
// inside the root lexically; symbolic links inside the project are followed.
Result<FileReadResult, FileReadError> readProjectFile(std::string_view relativePath, std::string_view rootPath,
                                                      LargeFilePolicy policy, std::string_view homePath);

// The image type for a path's extension, matched case-insensitively, or nothing.
std::optional<std::string> imageMimeType(std::string_view path);

// The size message (texts in FileMessages.h) for a file of `fileSize` bytes over `maxBytes`.
std::string tooLargeMessage(int64_t fileSize, int64_t maxBytes);

// Each byte as the code point of the same value, encoded as UTF-8.
std::string latin1ToUtf8(std::string_view bytes);

struct FileSaveError {
    std::string message;  // the whole user-visible text
};

// Saves `content` as `relativePath` below `rootPath` atomically (a crash
// leaves the old file or the new one), keeping the permission bits of the
// file it replaces and writing through a symbolic link into its target. Only
// the sanitiser guards the path; the parent folder must exist already.
Status<FileSaveError> saveProjectFile(std::string_view relativePath, std::string_view rootPath,
                                      std::string_view content, std::string_view homePath);

}  // namespace velko
