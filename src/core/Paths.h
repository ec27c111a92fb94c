#pragma once
// Per-user directories of the process, read from the environment each time so
// that tests can point HOME and the XDG variables at temporary folders.

#include <string>

namespace velko {

std::string homeDirectory();            // $HOME, else the password database
std::string dataDirectory();            // $XDG_DATA_HOME/velko or ~/.local/share/velko
std::string cacheDirectory();           // $XDG_CACHE_HOME/velko or ~/.cache/velko
std::string temporaryDirectory();       // $TMPDIR or /tmp, without a trailing slash

// Creates `path` and its parents (mode 0700 for new folders). False on failure.
bool createDirectories(const std::string& path);
// Replaces `path` with `contents` atomically: a temporary file beside it,
// written, flushed to disk and renamed over the target. The target's
// permission bits are kept when it exists, else `mode` is used.
// On failure the old file is untouched and errno describes the cause.
bool writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode = 0644);
// Whole file into `out`. False if it cannot be opened or read.
bool readWholeFile(const std::string& path, std::string& out);

}  // namespace velko
