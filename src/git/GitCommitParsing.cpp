#include "git/GitCommitParsing.h"

#include "git/GitDiffParsing.h"
#include "git/GitText.h"

namespace velko {

std::vector<GitCommitFileCount> parseCommitFileCounts(std::string_view output) {
    std::vector<GitCommitFileCount> files;
    for (std::string_view rawLine : splitLines(output, false)) {
        std::string_view line = trimWhitespace(rawLine);
        size_t firstTab = line.find('\t');
        if (firstTab == std::string_view::npos) continue;
        size_t secondTab = line.find('\t', firstTab + 1);
        if (secondTab == std::string_view::npos) continue;
        std::string_view added = line.substr(0, firstTab);
        std::string_view deleted = line.substr(firstTab + 1, secondTab - firstTab - 1);
        GitCommitFileCount file;
        if (added == "-" || deleted == "-") {
            file.isBinary = true;
        } else {
            file.additions = decimalOrZero(added);
            file.deletions = decimalOrZero(deleted);
        }
        file.path = normalizeRenamedPath(line.substr(secondTab + 1));
        files.push_back(std::move(file));
    }
    return files;
}

int parseParentCount(std::string_view output) {
    auto pieces = splitOnBlanks(output);
    return pieces.empty() ? 0 : static_cast<int>(pieces.size()) - 1;
}

std::optional<GitLeftRightCounts> parseLeftRightCounts(std::string_view output) {
    std::string_view text = trimWhitespace(output);
    std::vector<std::string_view> pieces;
    size_t tab = text.find('\t');
    if (tab != std::string_view::npos && text.find('\t', tab + 1) == std::string_view::npos) {
        pieces = {text.substr(0, tab), text.substr(tab + 1)};
    } else {
        pieces = splitOnBlanks(text);
    }
    if (pieces.size() != 2) return std::nullopt;
    return GitLeftRightCounts{decimalOrZero(pieces[0]), decimalOrZero(pieces[1])};
}

}  // namespace velko
