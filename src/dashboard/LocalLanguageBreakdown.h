#pragma once
// The language breakdown of a working tree on the local disk: file sizes
// summed by extension, and the five-language stack built from any breakdown.
//
// The walk reads each directory with readdir and looks at entries without
// following links (fstatat with AT_SYMLINK_NOFOLLOW), so a link loop or a link
// to "/" is never entered. Hidden entries, the build and dependency folders,
// and whatever the explorer hides in this project are skipped. It stops after
// kLocalWalkEntryLimit entries with the sums so far, so a home directory
// opened as a project costs seconds, not minutes. Blocking; any thread.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "dashboard/DashboardModels.h"

namespace velko {

inline constexpr size_t kLocalWalkEntryLimit = 200'000;

using LanguageBytes = std::map<std::string, int64_t>;

// The language of a file extension (without the dot, any case), or empty.
std::string_view languageForExtension(std::string_view extension);

struct LocalWalkOptions {
    std::vector<std::string> explorerExcludedPaths = {};  // the project's own exclusions
    size_t entryLimit = kLocalWalkEntryLimit;
};

struct LocalWalkResult {
    LanguageBytes bytes;
    size_t entriesSeen = 0;
    bool stoppedAtLimit = false;
};

// `root` is an absolute path (tilde already expanded); a root that is no
// directory gives an empty result.
LocalWalkResult computeLocalLanguageBreakdown(const std::string& root, const LocalWalkOptions& options = {});

// The five largest languages, each with its share of the bytes of all of them.
DashboardTechStack buildTechStack(const LanguageBytes& bytes);

}  // namespace velko
