#pragma once
// Renaming one file or folder in place, under a project root.
//
// Blocking; runs on the bridge's file queue. A rename never moves an item to
// another folder, never replaces an existing item, and survives a case-only
// rename (`readme` → `README`) on a case-insensitive volume by going through a
// temporary name. Whether two names are one item is decided by device and
// inode, so on a case-sensitive volume two such names are two items and the
// answer is a conflict. Each failure carries the page's code and message.
#include <optional>
#include <string>
#include <string_view>

#include "core/Result.h"

namespace velko {

enum class EntityTypeHint { File, Folder, None };

struct RenameOutcome {
    std::string path;      // the old relative path, sanitised
    std::string nextPath;  // the new relative path, sanitised
    bool isFolder = false;
    std::string parentDirectory;  // "" for the project root
};

struct RenameError {
    std::string code;
    std::string message;
};

// The hint is accepted for the record only: what is on disk decides the type.
Result<RenameOutcome, RenameError> renameProjectItem(std::string_view rootPath, std::string_view fromPath,
                                                     std::string_view toPath, EntityTypeHint hint,
                                                     std::string_view homePath);

// Case-insensitive equality by Unicode case folding (bytewise for text that is
// not UTF-8).
bool equalIgnoringCase(std::string_view a, std::string_view b);

// The new name as the user meant it: surrounding Unicode white space and line
// breaks removed.
std::string trimWhitespace(std::string_view text);

}  // namespace velko
