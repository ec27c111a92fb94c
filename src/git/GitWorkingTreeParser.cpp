#include "git/GitWorkingTreeParser.h"

#include <algorithm>
#include <charconv>

#include "git/GitErrors.h"
#include "git/GitStatusParsing.h"

namespace velko {

namespace {

// Splits at single blanks into at most `limit` pieces, keeping empty ones; the
// last piece keeps the rest of the text, blanks included.
std::vector<std::string_view> splitPieces(std::string_view text, char separator, size_t limit) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (pieces.size() + 1 < limit) {
        size_t at = text.find(separator, start);
        if (at == std::string_view::npos) break;
        pieces.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

bool hasLetter(std::string_view xy, char letter) { return xy[0] == letter || xy[1] == letter; }

std::optional<GitWorkingTreeEntry> parseRegular(std::string_view line) {
    auto pieces = splitPieces(line, ' ', 9);
    if (pieces.size() < 9 || pieces[1].size() != 2) return std::nullopt;
    GitWorkingTreeEntry entry;
    entry.path = GitWorkingTreeParser::decodePath(pieces[8]);
    entry.stagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][0]);
    entry.unstagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][1]);
    entry.intentToAdd = hasLetter(pieces[1], 'I');
    entry.isConflicted = hasLetter(pieces[1], 'U');
    return entry;
}

std::optional<GitWorkingTreeEntry> parseRename(std::string_view line) {
    auto halves = splitPieces(line, '\t', 2);
    auto pieces = splitPieces(halves[0], ' ', 10);
    if (pieces.size() < 10 || pieces[1].size() != 2) return std::nullopt;
    GitWorkingTreeEntry entry;
    std::string digits;
    for (char c : pieces[8]) {
        if (c >= '0' && c <= '9') digits.push_back(c);
    }
    int64_t score = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), score);
    if (!digits.empty() && ec == std::errc() && end == digits.data() + digits.size()) entry.renameScore = score;
    entry.path = GitWorkingTreeParser::decodePath(pieces[9]);
    entry.oldPath = GitWorkingTreeParser::decodePath(halves.size() > 1 ? halves[1] : std::string_view());
    entry.stagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][0]);
    entry.unstagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][1]);
    entry.isConflicted = hasLetter(pieces[1], 'U');
    return entry;
}

std::optional<GitWorkingTreeEntry> parseConflict(std::string_view line) {
    auto pieces = splitPieces(line, ' ', 11);
    if (pieces.size() != 11) return std::nullopt;
    GitWorkingTreeEntry entry;
    entry.path = GitWorkingTreeParser::decodePath(pieces[10]);
    entry.stagedStatus = "conflicted";
    entry.unstagedStatus = "conflicted";
    entry.isConflicted = true;
    return entry;
}

}  // namespace

std::optional<std::string> GitWorkingTreeParser::describeStatus(char code) {
    switch (code) {
    case 'A': return "added";
    case 'M': return "modified";
    case 'D': return "deleted";
    case 'R': return "renamed";
    case 'C': return "copied";
    case 'U': return "updated";
    case 'T': return "typechange";
    case '?': return "untracked";
    case '!': return "ignored";
    default: return std::nullopt;
    }
}

std::string GitWorkingTreeParser::decodePath(std::string_view text) {
    text = trimWhitespace(text);
    if (!text.empty() && text.front() == '"' && text.back() == '"') {
        text = text.size() >= 2 ? text.substr(1, text.size() - 2) : std::string_view();
    }
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        if (++i >= text.size()) break;
        char next = text[i];
        switch (next) {
        case 'n': out.push_back('\n'); break;
        case 't': out.push_back('\t'); break;
        case 'r': out.push_back('\r'); break;
        case '\\': out.push_back('\\'); break;
        case '"': out.push_back('"'); break;
        case '0': {
            // Only a leading "0" makes a numeric escape; git's escapes of bytes
            // above 127 start with 2 or 3 and stay digits without their backslash.
            size_t take = std::min<size_t>(2, text.size() - i - 1);
            std::string_view digits = text.substr(i, take + 1);
            i += take;
            unsigned value = 0;
            auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 8);
            if (ec == std::errc() && end == digits.data() + digits.size() && value <= 0xFF) {
                if (value < 0x80) {
                    out.push_back(static_cast<char>(value));
                } else {
                    out.push_back(static_cast<char>(0xC0 | (value >> 6)));
                    out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
                }
            }
            break;
        }
        default: out.push_back(next); break;
        }
    }
    if (out.empty() && !text.empty()) return std::string(text);
    return out;
}

std::optional<GitWorkingTreeEntry> GitWorkingTreeParser::parseLine(std::string_view line) {
    if (line.empty()) return std::nullopt;
    switch (line[0]) {
    case '1': return parseRegular(line);
    case '2': return parseRename(line);
    case 'u': return parseConflict(line);
    case '?': {
        if (line.size() < 3) return std::nullopt;
        GitWorkingTreeEntry entry;
        entry.path = decodePath(line.substr(2));
        entry.isUntracked = true;
        return entry;
    }
    default: return std::nullopt;
    }
}

std::vector<GitWorkingTreeEntry> GitWorkingTreeParser::parse(std::string_view output) {
    std::vector<GitWorkingTreeEntry> entries;
    for (std::string_view line : splitLines(output, false)) {
        if (auto entry = parseLine(line)) entries.push_back(std::move(*entry));
    }
    return entries;
}

OrderedJson makeWorkingTreePayload(const std::vector<GitWorkingTreeEntry>& entries, const std::string& projectId) {
    std::vector<const GitWorkingTreeEntry*> sections[4];  // staged, unstaged, untracked, conflicted
    for (const auto& entry : entries) {
        if (entry.isConflicted) {
            sections[3].push_back(&entry);
            continue;
        }
        if (entry.isUntracked) sections[2].push_back(&entry);
        if (entry.stagedStatus) sections[0].push_back(&entry);
        if (entry.unstagedStatus && !entry.isUntracked) sections[1].push_back(&entry);
    }
    static constexpr const char* kIds[4] = {"staged", "unstaged", "untracked", "conflicted"};
    OrderedJson sectionList = OrderedJson::array();
    for (int i = 0; i < 4; ++i) {
        auto& list = sections[i];
        std::stable_sort(list.begin(), list.end(), [](const auto* a, const auto* b) { return a->path < b->path; });
        OrderedJson items = OrderedJson::array();
        for (const auto* entry : list) {
            OrderedJson item;
            item["path"] = entry->path;
            if (entry->oldPath) item["oldPath"] = *entry->oldPath;
            if (entry->stagedStatus) item["staged"] = {{"status", *entry->stagedStatus}};
            if (entry->unstagedStatus) item["unstaged"] = {{"status", *entry->unstagedStatus}};
            item["isUntracked"] = entry->isUntracked;
            item["intentToAdd"] = entry->intentToAdd;
            if (entry->renameScore) item["renameScore"] = *entry->renameScore;
            items.push_back(std::move(item));
        }
        sectionList.push_back(OrderedJson{{"id", kIds[i]}, {"entries", std::move(items)}});
    }
    OrderedJson payload;
    payload["projectId"] = projectId;
    payload["sections"] = std::move(sectionList);
    OrderedJson summary;
    summary["total"] = sections[0].size() + sections[1].size() + sections[2].size() + sections[3].size();
    summary["staged"] = sections[0].size();
    summary["unstaged"] = sections[1].size();
    summary["untracked"] = sections[2].size();
    payload["summary"] = std::move(summary);
    return payload;
}

}  // namespace velko
