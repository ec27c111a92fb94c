#pragma once
// Version numbers of velko and of the items of its update feed, and their
// order: numeric parts compared as numbers (1.10 > 1.9), missing parts as 0
// (1.0 = 1.0.0), a pre-release after a hyphen below its release, its parts
// compared as numbers or as ASCII text (2.0-beta.2 < 2.0-rc.1 < 2.0).
// Build metadata after "+" is ignored. Pure values, any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko {

struct Version {
    std::vector<uint64_t> release;
    std::vector<std::string> preRelease;  // empty for a release
    bool isPreRelease() const { return !preRelease.empty(); }
};

// Nothing for text that is not a version ("", "abc", "1..2", "1.x").
std::optional<Version> parseVersion(std::string_view text);
// Negative, zero or positive as `a` is below, equal to or above `b`.
int compareVersions(const Version& a, const Version& b);

// This build's version: the project version with its pre-release suffix, if any.
std::string_view velkoVersion();

}  // namespace velko
