#include "core/PathText.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace velko {

namespace {

// "~" and "~/x" use the given home; "~name" asks the password database and is
// left alone for an unknown user.
std::string expandLeadingTilde(std::string_view path, std::string_view homePath) {
    if (path.empty() || path.front() != '~') return std::string(path);
    size_t slash = path.find('/');
    std::string_view user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    std::string_view rest = slash == std::string_view::npos ? std::string_view{} : path.substr(slash);
    std::string home;
    if (user.empty()) {
        home = homePath;
    } else {
        struct passwd entry {};
        struct passwd* found = nullptr;
        std::vector<char> buffer(16384);
        std::string name(user);
        if (getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
            return std::string(path);
        home = found->pw_dir;
    }
    if (home.empty()) return std::string(path);
    return home + std::string(rest);
}

template <typename F>
void forEachComponent(std::string_view path, F&& visit) {
    size_t i = 0;
    while (i < path.size()) {
        size_t next = path.find('/', i);
        if (next == std::string_view::npos) next = path.size();
        if (next > i) visit(path.substr(i, next - i));
        i = next + 1;
    }
}

std::string joinComponents(const std::vector<std::string_view>& parts, bool absolute) {
    std::string out;
    if (absolute) out.push_back('/');
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out.push_back('/');
        out.append(parts[i]);
    }
    return out;
}

}  // namespace

std::string expandTilde(const std::string& path, const std::string& homePath) {
    if (path == "~") return homePath;
    if (path.size() >= 2 && path[0] == '~' && path[1] == '/') return homePath + path.substr(1);
    return path;
}

std::string standardizePath(std::string_view input, std::string_view homePath) {
    if (input.empty()) return {};
    std::string expanded = expandLeadingTilde(input, homePath);
    std::string_view path = expanded;
    bool absolute = path.front() == '/';
    std::vector<std::string_view> parts;
    forEachComponent(path, [&](std::string_view part) {
        if (part == ".") return;
        if (part == ".." && absolute) {
            if (!parts.empty()) parts.pop_back();
            return;
        }
        parts.push_back(part);
    });
    if (!absolute && parts.empty()) return ".";
    return joinComponents(parts, absolute);
}

std::string normalizeLexically(std::string_view path) {
    bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string_view> parts;
    forEachComponent(path, [&](std::string_view part) {
        if (part == ".") return;
        if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
                return;
            }
            if (absolute) return;
        }
        parts.push_back(part);
    });
    if (!absolute && parts.empty()) return path.empty() ? std::string() : std::string(".");
    return joinComponents(parts, absolute);
}

bool isContained(std::string_view target, std::string_view root) {
    if (target == root) return true;
    std::string prefix(root);
    if (prefix.empty() || prefix.back() != '/') prefix.push_back('/');
    return target.substr(0, prefix.size()) == prefix;
}

std::string_view parentPath(std::string_view path) {
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view{} : path.substr(0, slash);
}

std::string_view lastPathComponent(std::string_view path) {
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string appendPath(std::string_view root, std::string_view relative) {
    std::string out(root);
    if (relative.empty()) return out;
    if (out.empty() || out.back() != '/') out.push_back('/');
    out.append(relative);
    return out;
}

}  // namespace velko
