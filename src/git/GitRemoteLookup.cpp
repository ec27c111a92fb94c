#include "git/GitRemoteLookup.h"

#include <map>

#include "core/Paths.h"
#include "git/GitRemoteParsing.h"
#include "git/GitText.h"

namespace velko {

namespace {

std::optional<std::string> trimmedOutput(GitCommandContext& commands, const std::vector<std::string>& arguments,
                                         const GitProject& project) {
    auto output = commands.run(arguments, project);
    if (!output) return std::nullopt;
    std::string_view text = trimWhitespace(*output);
    if (text.empty()) return std::nullopt;
    return std::string(text);
}

}  // namespace

std::optional<std::string> lookUpRemoteURL(GitCommandContext& commands, const GitProject& project,
                                           const std::optional<std::string>& preferredRemote) {
    // The file is read as it is, without git: a linked worktree, whose ".git"
    // is a file, has no remotes here.
    std::string configText;
    std::map<std::string, std::string> remotes;
    if (readWholeFile(project.directory + "/.git/config", configText)) {
        remotes = parseRemoteURLsFromConfig(configText);
    }
    auto inConfig = [&](const std::string& name) -> std::optional<std::string> {
        auto it = remotes.find(name);
        if (it == remotes.end() || it->second.empty()) return std::nullopt;
        return it->second;
    };
    auto fromGit = [&](const std::string& name) -> std::optional<std::string> {
        if (name.empty() || !commands.runsRealGit()) return std::nullopt;
        return trimmedOutput(commands, {"config", "--get", "remote." + name + ".url"}, project);
    };
    auto byName = [&](const std::optional<std::string>& name) -> std::optional<std::string> {
        if (!name) return std::nullopt;
        if (auto url = inConfig(*name)) return url;
        return fromGit(*name);
    };

    if (preferredRemote) {
        if (auto url = inConfig(*preferredRemote)) return url;
    }
    if (auto url = inConfig("origin")) return url;
    if (remotes.empty()) return std::nullopt;
    std::optional<std::string> upstream;
    if (auto output = commands.run({"rev-parse", "--abbrev-ref", "--symbolic-full-name", "@{u}"}, project)) {
        upstream = parseUpstreamRemoteName(*output);
    }
    if (auto url = byName(upstream)) return url;
    if (auto url = byName(trimmedOutput(commands, {"config", "--get", "remote.pushDefault"}, project))) return url;
    return fromGit("origin");
}

}  // namespace velko
