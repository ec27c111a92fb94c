#pragma once
// Lexical rules for the relative paths of file requests and the explorer
// (the general path rules are in core/PathText.h).
//
// Everything here is text in, text out: no file system access, so the rules
// behave the same on every thread and are cheap enough for the hot listing
// path. Paths are "/"-separated byte strings; bytes that are not UTF-8 are
// carried through untouched.
//
// The rules deliberately differ in strictness. `sanitizeRelativePath` is the
// lenient rule for open, save and rename: it refuses only a leading "..", and
// turns an absolute path into a relative one. `normalizeRelativePath` is the
// explorer's strict rule: absolute and escaping paths give nothing. Reads add a
// containment check of their own (`isContained`); saves do not.
#include <optional>
#include <string>
#include <string_view>

#include "core/PathText.h"

namespace velko {

// The sanitiser of file requests: standardise, refuse a leading "..", then
// strip leading slashes. Text with a NUL byte can name no file and is refused.
// The result may be empty; callers treat empty like nothing.
std::optional<std::string> sanitizeRelativePath(std::string_view path, std::string_view homePath);

// The explorer's rule: "" or "." is the root (""); absolute paths, paths that
// leave the root and paths with a NUL byte give nothing.
std::optional<std::string> normalizeRelativePath(std::string_view path, std::string_view homePath);

// `path` relative to `rootPath` after standardising both: "" for the root
// itself, nothing for a path outside it.
std::optional<std::string> relativePathFromRoot(std::string_view path, std::string_view rootPath);


}  // namespace velko
