#include "files/PathRules.h"

namespace velko {

namespace {

bool startsWithParent(std::string_view path) {
    return path == ".." || path.substr(0, 3) == "../";
}

}  // namespace

std::optional<std::string> sanitizeRelativePath(std::string_view path, std::string_view homePath) {
    if (path.find('\0') != std::string_view::npos) return std::nullopt;
    std::string standardized = standardizePath(path, homePath);
    if (startsWithParent(standardized)) return std::nullopt;
    size_t first = standardized.find_first_not_of('/');
    if (first == std::string::npos) return std::string();
    return standardized.substr(first);
}

std::optional<std::string> normalizeRelativePath(std::string_view path, std::string_view homePath) {
    if (path.empty() || path == ".") return std::string();
    if (path.front() == '/' || path.find('\0') != std::string_view::npos) return std::nullopt;
    std::string standardized = standardizePath(path, homePath);
    if (startsWithParent(standardized) || (!standardized.empty() && standardized.front() == '/')) return std::nullopt;
    if (standardized == ".") return std::string();
    return standardized;
}

std::optional<std::string> relativePathFromRoot(std::string_view path, std::string_view rootPath) {
    std::string standardizedPath = standardizePath(path, {});
    std::string standardizedRoot = standardizePath(rootPath, {});
    if (standardizedPath == standardizedRoot) return std::string();
    std::string prefix = standardizedRoot == "/" ? standardizedRoot : standardizedRoot + "/";
    if (standardizedPath.size() > prefix.size() && standardizedPath.compare(0, prefix.size(), prefix) == 0)
        return standardizedPath.substr(prefix.size());
    return std::nullopt;
}

}  // namespace velko
