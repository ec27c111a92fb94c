#include "git/GitDiffParsing.h"

#include "git/GitText.h"

namespace velko {

const char* toString(GitDiffStage stage) {
    switch (stage) {
    case GitDiffStage::Staged: return "staged";
    case GitDiffStage::Unstaged: return "unstaged";
    case GitDiffStage::Head: return "head";
    }
    return "unstaged";
}

GitDiffStage diffStageFromString(std::string_view text) {
    if (text == "staged") return GitDiffStage::Staged;
    if (text == "head") return GitDiffStage::Head;
    return GitDiffStage::Unstaged;
}

GitNumstat parseNumstat(std::string_view text) {
    GitNumstat sum;
    for (std::string_view line : splitLines(text, false)) {
        size_t firstTab = line.find('\t');
        if (firstTab == std::string_view::npos) continue;
        size_t secondTab = line.find('\t', firstTab + 1);
        if (secondTab == std::string_view::npos) continue;
        std::string_view added = line.substr(0, firstTab);
        std::string_view deleted = line.substr(firstTab + 1, secondTab - firstTab - 1);
        if (added == "-" || deleted == "-") {
            sum.isBinary = true;
            continue;
        }
        sum.additions += decimalOrZero(added);
        sum.deletions += decimalOrZero(deleted);
    }
    return sum;
}

std::string normalizeRenamedPath(std::string_view input) {
    std::string text(input);
    if (text.find("=>") == std::string::npos) return text;
    for (;;) {
        size_t open = text.find('{');
        if (open == std::string::npos) break;
        size_t close = text.find('}', open + 1);
        if (close == std::string::npos) break;
        std::string_view inner = std::string_view(text).substr(open + 1, close - open - 1);
        std::string replacement;
        if (size_t arrow = inner.find("=>"); arrow != std::string_view::npos) {
            replacement = std::string(trimBlanks(inner.substr(arrow + 2)));
        } else {
            replacement = std::string(trimBlanks(inner));
        }
        text = text.substr(0, open) + replacement + text.substr(close + 1);
    }
    if (size_t arrow = text.find("=>"); arrow != std::string::npos) {
        return std::string(trimBlanks(std::string_view(text).substr(arrow + 2)));
    }
    return std::string(trimBlanks(text));
}

std::vector<std::string> diffArguments(const GitDiffTarget& target, GitDiffMode mode) {
    std::vector<std::string> args{"diff"};
    if (target.stage == GitDiffStage::Staged) args.emplace_back("--cached");
    if (target.stage == GitDiffStage::Head) args.emplace_back("HEAD");
    if (mode == GitDiffMode::Numstat) {
        args.emplace_back("--numstat");
    } else {
        args.emplace_back("--patch");
        args.emplace_back("--text");
    }
    if (!target.path.empty()) {
        args.emplace_back("--");
        args.push_back(target.path);
    }
    return args;
}

std::vector<std::string> commitDiffArguments(const std::string& commit, GitDiffMode mode,
                                             const std::optional<std::string>& path, int parentCount) {
    std::vector<std::string> args;
    if (mode == GitDiffMode::Numstat) {
        if (parentCount != 0) args = {"diff", commit + "^!", "--numstat", "--find-renames"};
        else args = {"diff-tree", "--no-commit-id", "--root", "--numstat", "-r", "-M", commit};
    } else {
        if (parentCount != 0) args = {"diff", commit + "^!", "--patch", "--text", "--find-renames"};
        else args = {"show", commit, "--pretty=format:", "--patch", "--text", "--find-renames"};
    }
    if (path && !path->empty()) {
        args.emplace_back("--");
        args.push_back(*path);
    }
    return args;
}

std::vector<std::string> mergeCommitPatchArguments(const std::string& commit, const std::optional<std::string>& path) {
    std::vector<std::string> args{"show", "-m", commit, "--pretty=format:", "--patch", "--text", "--find-renames"};
    if (path && !path->empty()) {
        args.emplace_back("--");
        args.push_back(*path);
    }
    return args;
}

}  // namespace velko
