#include "files/ItemRename.h"

#include <fcntl.h>
#include <glib.h>
#include <stdio.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "core/Uuid.h"
#include "files/FileMessages.h"
#include "files/PathRules.h"

namespace velko {

namespace {

namespace msg = file_messages;

RenameError invalidDestination() { return {"rename_invalid_destination", std::string(msg::kRenameInvalidDestination)}; }

std::string describeErrno(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof buffer);
}

RenameError moveFailed(int error) { return {"rename_failed", std::string(msg::kRenameFailed) + describeErrno(error)}; }

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

struct FileIdentity {
    dev_t device;
    ino_t inode;
    bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> identity(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return std::nullopt;
    return FileIdentity{st.st_dev, st.st_ino};
}

// A move that refuses to replace what is at the destination: the checks
// before it cannot see an item another program creates in the meantime.
int moveNoReplace(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // File systems without RENAME_NOREPLACE: the best we can do is look first.
    if (exists(to)) return EEXIST;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

bool isNewline(gunichar c) { return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029; }

}  // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    if (!g_utf8_validate(a.data(), static_cast<gssize>(a.size()), nullptr) ||
        !g_utf8_validate(b.data(), static_cast<gssize>(b.size()), nullptr) ||
        a.find('\0') != std::string_view::npos || b.find('\0') != std::string_view::npos)
        return a == b;
    std::unique_ptr<gchar, decltype(&g_free)> foldedA(g_utf8_casefold(a.data(), static_cast<gssize>(a.size())), g_free);
    std::unique_ptr<gchar, decltype(&g_free)> foldedB(g_utf8_casefold(b.data(), static_cast<gssize>(b.size())), g_free);
    return std::strcmp(foldedA.get(), foldedB.get()) == 0;
}

std::string trimWhitespace(std::string_view text) {
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return std::string(text);
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    while (begin < end) {
        gunichar c = g_utf8_get_char(begin);
        if (!g_unichar_isspace(c) && !isNewline(c)) break;
        begin = g_utf8_next_char(begin);
    }
    while (end > begin) {
        const char* previous = g_utf8_find_prev_char(begin, end);
        if (!previous) break;
        gunichar c = g_utf8_get_char(previous);
        if (!g_unichar_isspace(c) && !isNewline(c)) break;
        end = previous;
    }
    return std::string(begin, static_cast<size_t>(end - begin));
}

Result<RenameOutcome, RenameError> renameProjectItem(std::string_view rootPath, std::string_view fromPath,
                                                     std::string_view toPath, EntityTypeHint,
                                                     std::string_view homePath) {
    auto from = sanitizeRelativePath(fromPath, homePath);
    if (!from || from->empty()) return fail(RenameError{"rename_invalid_path", std::string(msg::kRenameInvalidPath)});
    auto to = sanitizeRelativePath(toPath, homePath);
    if (!to || to->empty()) return fail(invalidDestination());

    std::string parent(parentPath(*from));
    if (parentPath(*to) != parent) return fail(invalidDestination());

    std::string name = trimWhitespace(lastPathComponent(*to));
    if (name.empty()) return fail(RenameError{"rename_invalid_name", std::string(msg::kRenameEmptyName)});
    if (name == "." || name == "..") return fail(RenameError{"rename_invalid_name", std::string(msg::kRenameReservedName)});
    bool forbidden = name.find_first_of("/\\:") != std::string::npos;
    if (!forbidden && g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr)) {
        for (const char* p = name.data(); p < name.data() + name.size(); p = g_utf8_next_char(p))
            if (isNewline(g_utf8_get_char(p))) forbidden = true;
    }
    if (forbidden) return fail(RenameError{"rename_invalid_name", std::string(msg::kRenameForbiddenCharacter)});

    auto destination = sanitizeRelativePath(parent.empty() ? name : parent + "/" + name, homePath);
    if (!destination || destination->empty()) return fail(invalidDestination());

    std::string source = appendPath(rootPath, *from);
    std::string target = appendPath(rootPath, *destination);
    struct stat sourceInfo {};
    if (lstat(source.c_str(), &sourceInfo) != 0) return fail(RenameError{"rename_not_found", std::string(msg::kRenameNotFound)});
    // A link to a folder counts as a folder, as the explorer shows its target.
    struct stat followed {};
    bool isFolder = stat(source.c_str(), &followed) == 0 ? S_ISDIR(followed.st_mode) : S_ISDIR(sourceInfo.st_mode);

    bool caseOnly = false;
    if (*from != *destination && equalIgnoringCase(*from, *destination)) {
        auto a = identity(source), b = identity(target);
        caseOnly = a && b && *a == *b;
    }
    if (!caseOnly && exists(target)) return fail(RenameError{"rename_conflict", std::string(msg::kRenameConflict)});

    RenameOutcome outcome{*from, *destination, isFolder, parent};
    if (*from == *destination) return outcome;

    if (!caseOnly) {
        if (int error = moveNoReplace(source, target)) return fail(moveFailed(error));
        return outcome;
    }

    std::string temporaryName = ".rename-" + Uuid::random().toString();
    auto temporary = sanitizeRelativePath(parent.empty() ? temporaryName : parent + "/" + temporaryName, homePath);
    if (!temporary || temporary->empty())
        return fail(RenameError{"rename_failed", std::string(msg::kRenameFailed) + std::string(msg::kRenameTemporaryName)});
    std::string temporaryPath = appendPath(rootPath, *temporary);
    if (int error = moveNoReplace(source, temporaryPath)) return fail(moveFailed(error));
    if (int error = moveNoReplace(temporaryPath, target)) {
        // Put the item back under its old name; the error told is the one that stopped us.
        (void)::rename(temporaryPath.c_str(), source.c_str());
        return fail(moveFailed(error));
    }
    return outcome;
}

}  // namespace velko
