#pragma once
// Lexical path rules every subsystem shares: text in, text out, no file system
// access, so they behave the same on every thread. Paths are "/"-separated
// byte strings; bytes that are not UTF-8 are carried through untouched.
//
// The rules differ on purpose in how they treat "..", and each is named for
// its rule: `standardizePath` keeps a relative ".." (it cannot know what lies
// above), `normalizeLexically` resolves it against the component before it.

#include <string>
#include <string_view>

namespace velko {

// A project root or working directory as stored: "~" and "~/…" become the home
// folder; everything else (including "~user") stays as it is.
std::string expandTilde(const std::string& path, const std::string& homePath);

// Standardises path text: an initial "~" or "~user" is expanded, repeated
// slashes collapse, "." components and a trailing slash go. In an absolute path
// ".." removes the component before it (never climbing above "/"); in a
// relative path ".." stays as it is. A relative path that reduces to nothing
// but "." components becomes ".". `homePath` stands in for "~" (empty: "~"
// stays as it is).
std::string standardizePath(std::string_view path, std::string_view homePath);

// Removes "." components and resolves ".." against the component before it,
// purely on the text. An absolute path never climbs above "/"; a relative one
// keeps the ".." it cannot resolve.
std::string normalizeLexically(std::string_view path);

// True when `target` is `root` or lies below it, compared as text.
bool isContained(std::string_view target, std::string_view root);

// The text before the last "/" ("" when there is none), and the text after it.
std::string_view parentPath(std::string_view path);
std::string_view lastPathComponent(std::string_view path);

// Joins a root and a relative path with exactly one "/" between them.
std::string appendPath(std::string_view root, std::string_view relative);

}  // namespace velko
