#include "git/GitCredentialBroker.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

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

Result<GitEnvironment, std::string> GitCredentialBroker::prepareEnvironment(const std::string& token) {
    std::lock_guard lock(m_lock);
    namespace fs = std::filesystem;
    std::error_code ec;
    auto status = fs::symlink_status(m_tempDirectory, ec);
    if (!ec && fs::exists(status) && !fs::is_directory(status)) fs::remove(m_tempDirectory, ec);
    if (!createDirectories(m_tempDirectory)) return fail(std::string(std::strerror(errno)));
    // The temporary directory is usually shared by every user of the machine.
    // Whoever owns this folder could swap the script for their own, which git
    // would run with the token in its environment: only a folder of ours that
    // nobody else may write to will do.
    struct stat folder;
    if (lstat(m_tempDirectory.c_str(), &folder) != 0) return fail(std::string(std::strerror(errno)));
    if (!S_ISDIR(folder.st_mode) || folder.st_uid != geteuid()) {
        return fail(m_tempDirectory + " belongs to another user");
    }
    if ((folder.st_mode & 0077) != 0 && chmod(m_tempDirectory.c_str(), 0700) != 0) {
        return fail(std::string(std::strerror(errno)));
    }

    removeExistingScript();
    std::string path = m_tempDirectory + "/velko-askpass-" + Uuid::random().toString();
    if (!writeFileAtomically(path, kAskpassScript, 0600)) return fail(std::string(std::strerror(errno)));
    if (chmod(path.c_str(), 0700) != 0) {
        // The file stays; the next call removes it through m_scriptPath.
        int error = errno;
        m_scriptPath = path;
        return fail(std::string(std::strerror(error)));
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
