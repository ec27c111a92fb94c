#include "git/GitWorkingTreeParser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <type_traits>

#include "git/GitJsonWriter.h"
#include "git/GitText.h"

namespace velko {

namespace {

// Splits at `separator` into at most `limit` pieces, keeping empty ones; the
// last piece keeps the rest of the text, separators included.
struct Pieces {
    std::array<std::string_view, 11> at;
    size_t count = 0;
};

Pieces splitPieces(std::string_view text, char separator, size_t limit) {
    Pieces pieces;
    size_t start = 0;
    while (pieces.count + 1 < limit) {
        size_t found = text.find(separator, start);
        if (found == std::string_view::npos) break;
        pieces.at[pieces.count++] = text.substr(start, found - start);
        start = found + 1;
    }
    pieces.at[pieces.count++] = text.substr(start);
    return pieces;
}

size_t utf8SequenceLength(unsigned char lead) {
    if (lead >= 0xF0 && lead <= 0xF7) return 4;
    if (lead >= 0xE0) return lead <= 0xEF ? 3 : 1;
    if (lead >= 0xC0) return 2;
    return 1;
}

bool hasLetter(std::string_view xy, char letter) { return xy[0] == letter || xy[1] == letter; }

bool parseRegular(std::string_view line, GitWorkingTreeEntry& entry) {
    auto split = splitPieces(line, ' ', 9);
    const auto& pieces = split.at;
    if (split.count < 9 || pieces[1].size() != 2) return false;
    entry.path = GitWorkingTreeParser::decodePath(pieces[8]);
    entry.stagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][0]);
    entry.unstagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][1]);
    entry.intentToAdd = hasLetter(pieces[1], 'I');
    entry.isConflicted = hasLetter(pieces[1], 'U');
    return true;
}

bool parseRename(std::string_view line, GitWorkingTreeEntry& entry) {
    auto halves = splitPieces(line, '\t', 2);
    auto split = splitPieces(halves.at[0], ' ', 10);
    const auto& pieces = split.at;
    if (split.count < 10 || pieces[1].size() != 2) return false;
    std::string digits;
    for (char c : pieces[8]) {
        if (c >= '0' && c <= '9') digits.push_back(c);
    }
    int64_t score = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), score);
    if (!digits.empty() && ec == std::errc() && end == digits.data() + digits.size()) entry.renameScore = score;
    entry.path = GitWorkingTreeParser::decodePath(pieces[9]);
    entry.oldPath = GitWorkingTreeParser::decodePath(halves.count > 1 ? halves.at[1] : std::string_view());
    entry.stagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][0]);
    entry.unstagedStatus = GitWorkingTreeParser::describeStatus(pieces[1][1]);
    entry.isConflicted = hasLetter(pieces[1], 'U');
    return true;
}

bool parseConflict(std::string_view line, GitWorkingTreeEntry& entry) {
    auto split = splitPieces(line, ' ', 11);
    const auto& pieces = split.at;
    if (split.count != 11) return false;
    entry.path = GitWorkingTreeParser::decodePath(pieces[10]);
    entry.stagedStatus = "conflicted";
    entry.unstagedStatus = "conflicted";
    entry.isConflicted = true;
    return true;
}

// Fills a fresh entry from one line; false for a line of no known shape.
bool parseLineInto(std::string_view line, GitWorkingTreeEntry& entry) {
    if (line.empty()) return false;
    switch (line[0]) {
    case '1': return parseRegular(line, entry);
    case '2': return parseRename(line, entry);
    case 'u': return parseConflict(line, entry);
    case '?':
        if (line.size() < 3) return false;
        entry.path = GitWorkingTreeParser::decodePath(line.substr(2));
        entry.isUntracked = true;
        return true;
    default: return false;
    }
}

}  // namespace

std::optional<std::string_view> GitWorkingTreeParser::describeStatus(char code) {
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
    // Most paths carry no escape at all.
    if (text.find('\\') == std::string_view::npos) return std::string(text);
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
            // Two further characters, not bytes: a failed escape must not leave
            // half a character behind.
            size_t stop = i + 1;
            for (int taken = 0; taken < 2 && stop < text.size(); ++taken) {
                stop = std::min(text.size(), stop + utf8SequenceLength(static_cast<unsigned char>(text[stop])));
            }
            std::string_view digits = text.substr(i, stop - i);
            i = stop - 1;
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
    GitWorkingTreeEntry entry;
    if (!parseLineInto(line, entry)) return std::nullopt;
    return entry;
}

std::vector<GitWorkingTreeEntry> GitWorkingTreeParser::parse(std::string_view output) {
    static_assert(std::is_nothrow_move_constructible_v<GitWorkingTreeEntry>);
    std::vector<GitWorkingTreeEntry> entries;
    entries.reserve(static_cast<size_t>(std::count(output.begin(), output.end(), '\n')) + 1);
    size_t start = 0;
    while (start < output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string_view::npos) end = output.size();
        // Built in place: a large tree is mostly memory traffic.
        if (!parseLineInto(output.substr(start, end - start), entries.emplace_back())) entries.pop_back();
        start = end + 1;
    }
    return entries;
}

std::string encodeWorkingTreePayload(const std::vector<GitWorkingTreeEntry>& entries, const std::string& projectId) {
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
    size_t textBytes = 0;
    for (const auto& entry : entries) textBytes += entry.path.size() + (entry.oldPath ? entry.oldPath->size() : 0);
    std::string out;
    out.reserve(256 + textBytes + textBytes / 8 + entries.size() * 2 * 120);
    out.append("{\"projectId\":");
    appendJsonString(out, projectId);
    out.append(",\"sections\":[");
    for (int i = 0; i < 4; ++i) {
        auto& list = sections[i];
        auto byPath = [](const auto* a, const auto* b) { return a->path < b->path; };
        // git lists paths in this order already; check before paying for a sort.
        if (!std::is_sorted(list.begin(), list.end(), byPath)) std::stable_sort(list.begin(), list.end(), byPath);
        if (i > 0) out.push_back(',');
        out.append("{\"id\":\"").append(kIds[i]).append("\",\"entries\":[");
        bool first = true;
        for (const auto* entry : list) {
            if (!first) out.push_back(',');
            first = false;
            out.append("{\"path\":");
            appendJsonString(out, entry->path);
            if (entry->oldPath) {
                out.append(",\"oldPath\":");
                appendJsonString(out, *entry->oldPath);
            }
            if (entry->stagedStatus) {
                out.append(",\"staged\":{\"status\":");
                appendJsonString(out, *entry->stagedStatus);
                out.push_back('}');
            }
            if (entry->unstagedStatus) {
                out.append(",\"unstaged\":{\"status\":");
                appendJsonString(out, *entry->unstagedStatus);
                out.push_back('}');
            }
            out.append(",\"isUntracked\":");
            appendJsonBool(out, entry->isUntracked);
            out.append(",\"intentToAdd\":");
            appendJsonBool(out, entry->intentToAdd);
            if (entry->renameScore) {
                out.append(",\"renameScore\":");
                appendJsonInteger(out, *entry->renameScore);
            }
            out.push_back('}');
        }
        out.append("]}");
    }
    size_t total = sections[0].size() + sections[1].size() + sections[2].size() + sections[3].size();
    out.append("],\"summary\":{\"total\":");
    appendJsonInteger(out, static_cast<int64_t>(total));
    out.append(",\"staged\":");
    appendJsonInteger(out, static_cast<int64_t>(sections[0].size()));
    out.append(",\"unstaged\":");
    appendJsonInteger(out, static_cast<int64_t>(sections[1].size()));
    out.append(",\"untracked\":");
    appendJsonInteger(out, static_cast<int64_t>(sections[2].size()));
    out.append("}}");
    return out;
}

}  // namespace velko
