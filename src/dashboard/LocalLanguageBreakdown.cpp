#include "dashboard/LocalLanguageBreakdown.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "files/ExplorerListing.h"

namespace velko {

namespace {

constexpr std::pair<std::string_view, std::string_view> kLanguageByExtension[] = {
    {"ts", "TypeScript"}, {"tsx", "TypeScript"}, {"js", "JavaScript"}, {"jsx", "JavaScript"},
    {"mjs", "JavaScript"}, {"cjs", "JavaScript"}, {"swift", "Swift"},  {"sh", "Shell"},
    {"bash", "Shell"},     {"zsh", "Shell"},      {"py", "Python"},     {"rb", "Ruby"},
    {"go", "Go"},          {"rs", "Rust"},        {"java", "Java"},     {"kt", "Kotlin"},
    {"kts", "Kotlin"},     {"css", "CSS"},        {"scss", "CSS"},      {"less", "CSS"},
    {"html", "HTML"},      {"md", "Markdown"},    {"json", "JSON"},     {"yml", "YAML"},
    {"yaml", "YAML"},
};

// Build output and dependencies, in lower case: the names are compared so.
constexpr std::string_view kDirectoriesToSkip[] = {".git", "node_modules", "vendor",      "build",
                                                   "dist", ".build",       "deriveddata"};

std::string lowerCase(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return out;
}

bool isSkippedDirectory(std::string_view name) {
    std::string lower = lowerCase(name);
    return std::find(std::begin(kDirectoriesToSkip), std::end(kDirectoriesToSkip), lower) !=
           std::end(kDirectoriesToSkip);
}

std::string_view extensionOf(std::string_view name) {
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

std::string_view languageForExtension(std::string_view extension) {
    if (extension.empty() || extension.size() > 8) return {};
    std::string lower = lowerCase(extension);
    for (const auto& [ext, language] : kLanguageByExtension)
        if (ext == lower) return language;
    return {};
}

LocalWalkResult computeLocalLanguageBreakdown(const std::string& root, const LocalWalkOptions& options) {
    LocalWalkResult result;
    int rootFd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) return result;
    ExplorerExclusionRules rules(options.explorerExcludedPaths);
    const bool hasExcludedPaths = !rules.paths().empty();

    // Depth first, one directory open at a time; a directory is opened by its
    // path below the root, refusing a link in its place.
    std::vector<std::string> pending{std::string()};
    while (!pending.empty() && !result.stoppedAtLimit) {
        std::string relative = std::move(pending.back());
        pending.pop_back();
        int fd = relative.empty() ? dup(rootFd)
                                  : openat(rootFd, relative.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        std::unique_ptr<DIR, DirCloser> dir(fdopendir(fd));
        if (!dir) {
            close(fd);
            continue;
        }
        while (dirent* entry = readdir(dir.get())) {
            std::string_view name(entry->d_name);
            if (name == "." || name == "..") continue;
            if (++result.entriesSeen > options.entryLimit) {
                result.entriesSeen = options.entryLimit;
                result.stoppedAtLimit = true;
                break;
            }
            if (name.front() == '.' || rules.containsName(name)) continue;
            std::string childPath = relative.empty() ? std::string(name) : relative + "/" + std::string(name);
            if (hasExcludedPaths && rules.contains(childPath)) continue;

            unsigned char type = entry->d_type;
            struct stat info;
            bool haveInfo = false;
            if (type == DT_UNKNOWN) {
                if (fstatat(dirfd(dir.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
                haveInfo = true;
                type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
            }
            if (type == DT_DIR) {
                if (!isSkippedDirectory(name)) pending.push_back(std::move(childPath));
                continue;
            }
            if (type != DT_REG) continue;
            std::string_view language = languageForExtension(extensionOf(name));
            if (language.empty()) continue;
            // Only files of a known language are looked at: most of a tree is not.
            if (!haveInfo && fstatat(dirfd(dir.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (!S_ISREG(info.st_mode)) continue;
            result.bytes[std::string(language)] += int64_t(info.st_blocks) * 512;
        }
    }
    close(rootFd);
    return result;
}

DashboardTechStack buildTechStack(const LanguageBytes& bytes) {
    DashboardTechStack stack;
    int64_t total = 0;
    for (const auto& [name, count] : bytes) {
        // A remote answer may hold any numbers; the sum saturates, it never wraps.
        int64_t add = std::max<int64_t>(count, 0);
        total = total > INT64_MAX - add ? INT64_MAX : total + add;
    }
    if (total < 1) return stack;
    std::vector<std::pair<std::string, int64_t>> entries;
    for (const auto& [name, count] : bytes) entries.emplace_back(name, std::max<int64_t>(count, 0));
    // Equal sizes keep the order of the names, so a card does not flicker.
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    stack.totalBytes = total;
    for (size_t i = 0; i < entries.size() && i < 5; ++i)
        stack.languages.push_back({entries[i].first, entries[i].second, double(entries[i].second) / double(total)});
    return stack;
}

}  // namespace velko
