#include "git/GitCredentialBroker.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/Paths.h"
#include "core/Uuid.h"

namespace velko {

const char* const kAskpassScript =
    "#!/bin/bash\n"
    "prompt=\"$1\"\n"
    "case \"$prompt\" in\n"
    "  *\"Username for \"*)\n"
    "    echo \"x-access-token\"\n"
    "    ;;\n"
    "  *)\n"
    "    if [[ -n \"$VELKO_GITHUB_TOKEN\" ]]; then\n"
    "      echo \"$VELKO_GITHUB_TOKEN\"\n"
    "    else\n"
    "      echo \"\"\n"
    "    fi\n"
    "    ;;\n"
    "esac";

GitCredentialBroker::GitCredentialBroker(std::string tempDirectory)
    : m_tempDirectory(tempDirectory.empty() ? temporaryDirectory() + "/velko-git-credentials"
                                            : std::move(tempDirectory)) {}

std::optional<std::string> GitCredentialBroker::scriptPath() const {
    std::lock_guard lock(m_lock);
    return m_scriptPath;
}

void GitCredentialBroker::removeExistingScript() {
    if (!m_scriptPath) return;
    struct stat info;
    if (lstat(m_scriptPath->c_str(), &info) == 0) unlink(m_scriptPath->c_str());
    m_scriptPath.reset();
}

std::optional<GitCredentialError> GitCredentialBroker::ensurePrivateFolder() {
    auto refuse = [&](std::string why) {
        return GitCredentialError{GitCredentialError::Kind::UnsafeFolder, std::move(why), m_tempDirectory};
    };
    auto fileSystem = [&](int error) {
        return GitCredentialError{GitCredentialError::Kind::FileSystem, std::strerror(error), m_tempDirectory};
    };
    struct stat folder;
    if (lstat(m_tempDirectory.c_str(), &folder) == 0 && S_ISREG(folder.st_mode) && folder.st_uid == geteuid()) {
        // A stray file of ours in the way is replaced by the folder.
        if (unlink(m_tempDirectory.c_str()) != 0) return fileSystem(errno);
    }
    if (lstat(m_tempDirectory.c_str(), &folder) != 0) {
        if (errno != ENOENT) return fileSystem(errno);
        size_t slash = m_tempDirectory.find_last_of('/');
        if (slash != std::string::npos && slash > 0 && !createDirectories(m_tempDirectory.substr(0, slash))) {
            return fileSystem(errno);
        }
        if (mkdir(m_tempDirectory.c_str(), 0700) != 0) return fileSystem(errno);
        // Ours, just made: only the umask may have taken bits away.
        if (chmod(m_tempDirectory.c_str(), 0700) != 0) return fileSystem(errno);
        if (lstat(m_tempDirectory.c_str(), &folder) != 0) return fileSystem(errno);
    }
    if (S_ISLNK(folder.st_mode)) return refuse("it is a symbolic link");
    if (!S_ISDIR(folder.st_mode)) return refuse("it is not a directory");
    if (folder.st_uid != geteuid()) return refuse("it belongs to user " + std::to_string(folder.st_uid));
    if ((folder.st_mode & 07777) != 0700) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(folder.st_mode & 07777));
        return refuse(std::string("its mode is ") + mode + ", not 0700");
    }
    return std::nullopt;
}

Result<GitEnvironment, GitCredentialError> GitCredentialBroker::prepareEnvironment(const std::string& token) {
    std::lock_guard lock(m_lock);
    if (auto problem = ensurePrivateFolder()) return fail(std::move(*problem));
    auto fileSystem = [&](int error) {
        return GitCredentialError{GitCredentialError::Kind::FileSystem, std::strerror(error), m_tempDirectory};
    };

    removeExistingScript();
    std::string path = m_tempDirectory + "/velko-askpass-" + Uuid::random().toString();
    if (!writeFileAtomically(path, kAskpassScript, 0600)) return fail(fileSystem(errno));
    if (chmod(path.c_str(), 0700) != 0) {
        // The file stays; the next call removes it through m_scriptPath.
        int error = errno;
        m_scriptPath = path;
        return fail(fileSystem(error));
    }
    m_scriptPath = path;
    return GitEnvironment{
        {"GIT_ASKPASS", path},
        {"GIT_ASKPASS_REQUIRE", "force"},
        {"VELKO_GITHUB_TOKEN", token},
    };
}

void GitCredentialBroker::cleanup() {
    std::lock_guard lock(m_lock);
    removeExistingScript();
}

}  // namespace velko
