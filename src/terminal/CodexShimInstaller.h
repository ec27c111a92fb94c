#pragma once
// CodexShimInstaller: puts a `codex` wrapper ahead of the real tool on the
// PATH of every session, so the page learns when the tool starts and ends
// (two private OSC 633 markers around it), and a set of zsh start-up files
// that keep the wrapper first even when the user's own files reset PATH,
// then hand ZDOTDIR back to the user's directory.
//
// Files live in the cache directory ("codex-shims", "zsh-bootstrap") and are
// rewritten only when their text changed. Main thread; the work runs once
// per process: on a thread of its own from installInBackground() (joined by
// the first environmentOverrides() call, or by the destructor), else on the
// first environmentOverrides() call. Failures are not reported: no shim
// means no overrides, no start-up files means PATH alone.

#include <future>
#include <map>
#include <optional>
#include <string>

namespace velko {

class CodexShimInstaller {
public:
    // Reads HOME, XDG_CACHE_HOME, ZDOTDIR and PATH from the environment now.
    CodexShimInstaller();

    // Starts writing the files on a thread of its own, so that the caller
    // does not wait on the disk; environmentOverrides() takes the result.
    void installInBackground();
    std::map<std::string, std::string> environmentOverrides();

    const std::string& shimDirectory() const { return m_shimDirectory; }
    const std::string& zshBootstrapDirectory() const { return m_zshBootstrapDirectory; }
    const std::string& originalZdotdir() const { return m_originalZdotdir; }

    // Backslashes doubled, then double quotes escaped: safe inside "...".
    static std::string escapeForDoubleQuotes(const std::string& path);
    // The cache directory as the scripts name it: "$HOME/…" under the home
    // directory, else its escaped absolute path.
    static std::string scriptCacheDirectory(const std::string& cacheDirectory, const std::string& home);

    std::string codexShimText() const;
    std::string zshBootstrapText(const std::string& fileName, bool restoreZdotdir) const;

private:
    std::map<std::string, std::string> install() const;
    bool installCodexShim() const;
    bool prepareZshBootstrap() const;

    std::string m_cacheDirectory;
    std::string m_scriptCacheDirectory;
    std::string m_shimDirectory;
    std::string m_zshBootstrapDirectory;
    std::string m_originalZdotdir;
    std::optional<std::string> m_inheritedPath;
    std::optional<std::map<std::string, std::string>> m_cachedOverrides;
    std::future<std::map<std::string, std::string>> m_installation;  // joined when taken or destroyed
};

}  // namespace velko
