#include "files/ProjectFileAccess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <cstdlib>

#include "core/FileHandle.h"
#include "core/Paths.h"
#include "core/Uuid.h"
#include "files/FileMessages.h"
#include "files/PathRules.h"
#include "files/SaveLeftovers.h"

namespace velko {

namespace {

std::string describeErrno(int error) {
    char buffer[256];
    // GNU strerror_r returns the text, which may or may not live in `buffer`.
    return strerror_r(error, buffer, sizeof buffer);
}

// Formats MiB the way the size message wants: at most `maxFractionDigits`
// digits after the point, none when they would be zero, halves to even.
std::string formatMiB(double value, int maxFractionDigits) {
    if (!std::isfinite(value)) return maxFractionDigits > 0 ? "%.1f" : "%.0f";
    double scale = maxFractionDigits > 0 ? 10.0 : 1.0;
    double rounded = std::nearbyint(value * scale) / scale;
    char buffer[64];
    int written = std::snprintf(buffer, sizeof buffer, maxFractionDigits > 0 ? "%.1f" : "%.0f", rounded);
    if (written <= 0 || static_cast<size_t>(written) >= sizeof buffer)
        std::snprintf(buffer, sizeof buffer, maxFractionDigits > 0 ? "%.1f" : "%.0f", value);
    std::string text = buffer;
    if (maxFractionDigits > 0 && text.size() >= 2 && text.compare(text.size() - 2, 2, ".0") == 0)
        text.resize(text.size() - 2);
    return text;
}

std::optional<FileReadError> checkLimits(int64_t size, LargeFilePolicy policy, FileRequiresConfirmation& confirm,
                                         bool& needsConfirmation) {
    if (size > kFileHardLimitBytes)
        return FileReadError{FileReadError::Kind::TooLarge, size, kFileHardLimitBytes};
    if (size > kFileSoftLimitBytes && policy == LargeFilePolicy::AskFirst) {
        confirm.fileSize = size;
        needsConfirmation = true;
    }
    return std::nullopt;
}

// The process's file creation mask, read without changing it (umask(2)
// would, and other threads may be creating files meanwhile).
mode_t creationMask() {
    std::string status;
    if (readWholeFile("/proc/self/status", status)) {
        size_t at = status.find("\nUmask:");
        if (at != std::string::npos) return static_cast<mode_t>(std::strtol(status.c_str() + at + 7, nullptr, 8)) & 0777;
    }
    return 022;
}


}  // namespace

std::string FileReadError::errorDescription() const {
    switch (kind) {
        case Kind::TooLarge:
            return tooLargeMessage(fileSize, maxBytes);
        case Kind::InvalidPath:
            return std::string(file_messages::kInvalidPath);
        case Kind::NotFound:
            return std::string(file_messages::kNotFound);
        case Kind::Directory:
            return std::string(file_messages::kDirectory);
        case Kind::Unreadable:
            break;
    }
    return std::string(file_messages::kUnreadable);
}

std::string tooLargeMessage(int64_t fileSize, int64_t maxBytes) {
    constexpr double kPerMiB = 1.0 / 1048576.0;
    double sizeMiB = static_cast<double>(fileSize) * kPerMiB;
    double limitMiB = static_cast<double>(maxBytes) * kPerMiB;
    std::string message(file_messages::kTooLargeLead);
    message += formatMiB(sizeMiB, sizeMiB < 100.0 ? 1 : 0);
    message += file_messages::kTooLargeMiddle;
    message += formatMiB(limitMiB, 0);
    message += file_messages::kTooLargeTail;
    return message;
}

std::optional<std::string> projectRootPath(const ProjectMetadata& project, std::string_view homePath) {
    std::string path = expandTilde(project.rootPath, std::string(homePath));
    if (path.empty()) return std::nullopt;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::nullopt;
    return path;
}

std::optional<std::string> imageMimeType(std::string_view path) {
    std::string_view name = lastPathComponent(path);
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos) return std::nullopt;
    std::string extension(name.substr(dot + 1));
    for (char& c : extension)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 8> kTypes{{
        {"png", "image/png"},
        {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},
        {"gif", "image/gif"},
        {"bmp", "image/bmp"},
        {"webp", "image/webp"},
        {"svg", "image/svg+xml"},
        {"ico", "image/x-icon"},
    }};
    for (const auto& [ext, type] : kTypes)
        if (extension == ext) return std::string(type);
    return std::nullopt;
}

std::string latin1ToUtf8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        if (c < 0x80) {
            out.push_back(ch);
        } else {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

Result<FileReadResult, FileReadError> readProjectFile(std::string_view relativePath, std::string_view rootPath,
                                                      LargeFilePolicy policy, std::string_view homePath) {
    using Kind = FileReadError::Kind;
    auto sanitized = sanitizeRelativePath(relativePath, homePath);
    if (!sanitized || sanitized->empty()) return fail(FileReadError{Kind::InvalidPath});

    std::string root = normalizeLexically(rootPath);
    std::string target = normalizeLexically(appendPath(rootPath, *sanitized));
    if (!isContained(target, root)) return fail(FileReadError{Kind::InvalidPath});

    struct stat st {};
    if (stat(target.c_str(), &st) != 0) return fail(FileReadError{Kind::NotFound});
    if (S_ISDIR(st.st_mode)) return fail(FileReadError{Kind::Directory});

    FileRequiresConfirmation confirm;
    bool needsConfirmation = false;
    if (S_ISREG(st.st_mode)) {
        if (auto error = checkLimits(st.st_size, policy, confirm, needsConfirmation)) return fail(*error);
        if (needsConfirmation) return FileReadResult{confirm};
    }

    // Never block: a FIFO without a writer would hold the file queue forever.
    FileHandle file(open(target.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) return fail(FileReadError{Kind::Unreadable});
    struct stat opened {};
    if (fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) return fail(FileReadError{Kind::Unreadable});

    std::string bytes;
    // Read at most one byte past the hard limit: enough to know it was crossed.
    const auto cap = static_cast<size_t>(kFileHardLimitBytes) + 1;
    bytes.resize(std::min<size_t>(static_cast<size_t>(std::max<off_t>(opened.st_size, 0)) + 1, cap));
    size_t used = 0;
    for (;;) {
        if (used == bytes.size()) {
            if (bytes.size() >= cap) break;
            bytes.resize(std::min(cap, bytes.size() * 2 + 4096));
        }
        ssize_t n = read(file.get(), bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            return fail(FileReadError{Kind::Unreadable});
        }
        if (n == 0) break;
        used += static_cast<size_t>(n);
    }
    bytes.resize(used);

    // The file may have grown since its size was read, or had none to tell.
    if (auto error = checkLimits(static_cast<int64_t>(used), policy, confirm, needsConfirmation)) return fail(*error);
    if (needsConfirmation) return FileReadResult{confirm};

    if (auto mime = imageMimeType(target)) return FileReadResult{FileBinaryContent{std::move(bytes), std::move(mime)}};
    if (isValidUtf8(bytes)) return FileReadResult{FileTextContent{std::move(bytes)}};
    return FileReadResult{FileTextContent{latin1ToUtf8(bytes)}};
}

Status<FileSaveError> saveProjectFile(std::string_view relativePath, std::string_view rootPath,
                                      std::string_view content, std::string_view homePath) {
    auto sanitized = sanitizeRelativePath(relativePath, homePath);
    if (!sanitized || sanitized->empty()) return fail(FileSaveError{std::string(file_messages::kInvalidSavePath)});
    std::string target = appendPath(rootPath, *sanitized);
    // A file opened through a symbolic link is saved where the link points:
    // replacing the link with a plain file would quietly cut it loose from
    // what it shared (a dotfile kept in another checkout, say).
    struct stat linkInfo {};
    if (lstat(target.c_str(), &linkInfo) == 0 && S_ISLNK(linkInfo.st_mode)) {
        if (char* resolved = realpath(target.c_str(), nullptr)) {
            target = resolved;
            std::free(resolved);
        }
    }
    // Before the write: a leftover of a killed save may be what filled the disk.
    removeSaveLeftoversOnce(resolveSymlinks(std::string(parentPath(target))));
    // A new file gets the usual 0666 less the creation mask; a replaced one
    // keeps its own bits and owner.
    if (!writeFileAtomically(target, content, 0666 & ~creationMask()))
        return fail(FileSaveError{std::string(file_messages::kSaveFailed) + describeErrno(errno)});
    return Ok{};
}

}  // namespace velko
