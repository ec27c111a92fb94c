#pragma once
// Folders and files that hold what the user typed or what programs printed
// (terminal log, debug dumps, the page's log) are the user's alone: folders
// mode 0700, files 0600. Existing ones with looser bits are tightened, never
// loosened. Callable from any thread.

#include <string>

namespace velko {

// Creates `path` and its parents (new folders 0700) and takes group and
// other bits off the folder itself. A symbolic link is left as it is. False
// when no folder is there in the end.
bool ensurePrivateDirectory(const std::string& path);

// Opens `path` for appending, creating it with mode 0600; an existing file
// loses its group and other bits. `createIfMissing` false opens only an
// existing file. The descriptor (close-on-exec), or -1 with errno set.
int openPrivateForAppend(const std::string& path, bool createIfMissing = true);

}  // namespace velko
