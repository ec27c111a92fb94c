#pragma once
// Clean-up of the temporary files a save leaves behind when velko is killed
// between writing and renaming (".velko-save-XXXXXXXX.tmp" beside the target,
// see writeFileAtomically).
//
// Only files that cannot belong to a save still running are removed: the
// exact name pattern (eight upper-case hex digits), a regular file (a link
// with that name is never followed, a folder is kept) last modified before
// this process started. Everything runs on the caller's thread, which is the
// file queue or the explorer watcher's thread, never the main thread.
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace velko {

// True for exactly ".velko-save-" + 8 hex digits (0-9, A-F) + ".tmp".
bool isSaveLeftoverName(std::string_view name);

// When this process started, by the wall clock, rounded down (so never later
// than the real start). Nothing when /proc cannot tell: then nothing is removed.
std::optional<timespec> processStartTime();

// Removes `name` in the open directory `directoryFd` if it is a leftover:
// our name, a regular file, modified before `cutoff`. True when removed.
bool removeSaveLeftoverAt(int directoryFd, std::string_view name, const timespec& cutoff);

// Removes the leftovers directly in `directory`. Done once per folder per
// process: any leftover a later kill leaves is newer than this process and
// would be kept anyway. Returns how many were removed.
size_t removeSaveLeftoversOnce(const std::string& directory);

}  // namespace velko
