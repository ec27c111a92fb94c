#pragma once
// Lexical path rules shared by file access, rename and the explorer.
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

namespace velko {

// Standardises path text: an initial "~" or "~user" is expanded, repeated
// slashes collapse, "." components and a trailing slash go. In an absolute path
// ".." removes the component before it (never climbing above "/"); in a
// relative path ".." stays as it is. A relative path that reduces to nothing
// but "." components becomes ".". `homePath` stands in for "~".
std::string standardizePath(std::string_view path, std::string_view homePath);

// The sanitiser of file requests: standardise, refuse a leading "..", then
// strip leading slashes. Text with a NUL byte can name no file and is refused.
// The result may be empty; callers treat empty like nothing.
std::optional<std::string> sanitizeRelativePath(std::string_view path, std::string_view homePath);

// The explorer's rule: "" or "." is the root (""); absolute paths, paths that
// leave the root and paths with a NUL byte give nothing.
std::optional<std::string> normalizeRelativePath(std::string_view path, std::string_view homePath);

// Removes "." components and resolves ".." against the component before it,
// purely on the text. An absolute path never climbs above "/"; a relative one
// keeps the ".." it cannot resolve.
std::string normalizeLexically(std::string_view path);

// True when `target` is `root` or lies below it, compared as text.
bool isContained(std::string_view target, std::string_view root);

// `path` relative to `rootPath` after standardising both: "" for the root
// itself, nothing for a path outside it.
std::optional<std::string> relativePathFromRoot(std::string_view path, std::string_view rootPath);

// The text before the last "/" ("" when there is none), and the text after it.
std::string_view parentPath(std::string_view path);
std::string_view lastPathComponent(std::string_view path);

// Joins a root and a relative path with exactly one "/" between them.
std::string appendPath(std::string_view root, std::string_view relative);

}  // namespace velko
