#pragma once
// Per-user directories of the process, read from the environment each time so
// that tests can point HOME and the XDG variables at temporary folders.

#include <optional>
#include <string>
#include <string_view>

namespace velko {

std::string homeDirectory();            // $HOME, else the password database
std::string dataDirectory();            // $XDG_DATA_HOME/velko or ~/.local/share/velko
std::string cacheDirectory();           // $XDG_CACHE_HOME/velko or ~/.cache/velko
std::string temporaryDirectory();       // $TMPDIR or /tmp, without a trailing slash

// Creates `path` and its parents (mode 0700 for new folders). False on failure.
bool createDirectories(const std::string& path);
// Replaces `path` with `contents` atomically: a temporary file beside it
// (named kAtomicWritePrefix + 8 hex digits + kAtomicWriteSuffix), written,
// flushed to disk and renamed over the target. The target's owner and
// permission bits are kept when it exists, else `mode` is used. A directory
// (EISDIR) or a pipe, socket or device (ENOTSUP) is never replaced.
// On failure the old file is untouched and errno describes the cause.
bool writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode = 0644);
inline constexpr std::string_view kAtomicWritePrefix = ".velko-save-";
inline constexpr std::string_view kAtomicWriteSuffix = ".tmp";
// The path with every symbolic link resolved (realpath), or `path` itself
// when it cannot be resolved (it does not exist, a loop, no permission).
std::string resolveSymlinks(const std::string& path);
// The running program's own file (/proc/self/exe), if the kernel tells.
std::optional<std::string> executablePath();
// Whole file into `out`. False if it cannot be opened or read.
bool readWholeFile(const std::string& path, std::string& out);

}  // namespace velko
