#include "git/GitLocalHistoryProvider.h"

#include <algorithm>

#include "git/GitText.h"

namespace velko {

namespace {

constexpr char kRecordSeparator = '\x1e';
constexpr char kHeaderSeparator = '\x1f';

// Line breaks that may stand between two records: LF, VT, FF, CR, and the
// UTF-8 forms of NEL, LINE SEPARATOR and PARAGRAPH SEPARATOR.
std::string_view dropLeadingNewlines(std::string_view text) {
    for (;;) {
        if (text.empty()) return text;
        unsigned char c = static_cast<unsigned char>(text.front());
        if (c == '\n' || c == '\v' || c == '\f' || c == '\r') {
            text.remove_prefix(1);
        } else if (text.substr(0, 2) == "\xC2\x85") {
            text.remove_prefix(2);
        } else if (text.substr(0, 3) == "\xE2\x80\xA8" || text.substr(0, 3) == "\xE2\x80\xA9") {
            text.remove_prefix(3);
        } else {
            return text;
        }
    }
}

std::optional<GitCommitEdge> parseLogRecord(std::string_view piece) {
    std::string_view rest = dropLeadingNewlines(piece);
    if (rest.empty()) return std::nullopt;
    std::vector<std::string_view> lines = splitLines(rest, true);
    if (lines.empty()) return std::nullopt;

    // Hash, author, date, subject: the subject keeps any further separator.
    std::string_view header = lines.front();
    std::string_view fields[4];
    for (int i = 0; i < 3; ++i) {
        size_t cut = header.find(kHeaderSeparator);
        if (cut == std::string_view::npos) return std::nullopt;
        fields[i] = header.substr(0, cut);
        header.remove_prefix(cut + 1);
    }
    fields[3] = header;

    GitCommitEdge edge;
    edge.oid = std::string(fields[0]);
    edge.authorName = std::string(fields[1]);
    edge.committedDate = std::string(fields[2]);
    edge.messageHeadline = std::string(fields[3]);
    edge.origin = GitCommitOrigin::Local;
    for (size_t i = 1; i < lines.size(); ++i) {
        std::string_view line = lines[i];
        if (line.empty()) continue;
        size_t first = line.find('\t');
        if (first == std::string_view::npos) continue;
        size_t second = line.find('\t', first + 1);
        if (second == std::string_view::npos) continue;
        // Binary files count "-": zero here.
        GitCommitFileSummary file;
        file.additions = decimalOrZero(line.substr(0, first));
        file.deletions = decimalOrZero(line.substr(first + 1, second - first - 1));
        file.path = std::string(line.substr(second + 1));
        edge.files.push_back(std::move(file));
    }
    return edge;
}

}  // namespace

std::vector<GitCommitEdge> parseLogRecords(std::string_view text) {
    std::vector<GitCommitEdge> edges;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(kRecordSeparator, start);
        if (end == std::string_view::npos) end = text.size();
        if (end > start) {
            if (auto edge = parseLogRecord(text.substr(start, end - start))) edges.push_back(std::move(*edge));
        }
        start = end + 1;
    }
    return edges;
}

std::optional<std::string> GitLocalHistoryProvider::resolveRevision(const std::string& revision,
                                                                    const GitProject& project) {
    auto output = m_commands.run({"rev-parse", revision}, project);
    if (!output || trimWhitespace(*output).empty()) {
        m_logger.debug("Failed to resolve revision " + revision + ": " + (output ? "" : output.error().text));
        return std::nullopt;
    }
    return std::string(trimWhitespace(*output));
}

GitLocalHistoryPage GitLocalHistoryProvider::loadHistory(const GitProject& project, int64_t offset, int64_t limit,
                                                         GitHistoryScope scope) {
    GitLocalHistoryPage page;
    if (auto head = m_commands.run({"rev-parse", "--abbrev-ref", "HEAD"}, project)) {
        std::string_view name = trimWhitespace(*head);
        if (name != "HEAD") page.branch = std::string(name);
    }
    auto upstream = m_commands.run({"rev-parse", "--abbrev-ref", "--symbolic-full-name", "@{u}"}, project);
    if (upstream) {
        page.upstream = std::string(trimWhitespace(*upstream));
    } else {
        m_logger.debug("No upstream detected: " + upstream.error().text);
    }

    auto headRevision = resolveRevision("HEAD", project);
    if (!headRevision) return page;
    std::vector<std::string> revisions{*headRevision};
    if (page.upstream && scope == GitHistoryScope::NotOnUpstream) {
        auto upstreamRevision = resolveRevision(*page.upstream, project);
        if (!upstreamRevision) return page;
        revisions.push_back("--not");
        revisions.push_back(*upstreamRevision);
    }

    std::vector<std::string> count{"rev-list", "--count"};
    count.insert(count.end(), revisions.begin(), revisions.end());
    auto counted = m_commands.run(count, project);
    if (!counted) {
        m_logger.error("Failed to count local commits: " + counted.error().text);
        return page;
    }
    page.totalCount = std::max<int64_t>(0, decimalOrZero(trimWhitespace(*counted)));
    if (page.totalCount == 0 || limit <= 0) return page;

    int64_t start = std::max<int64_t>(0, std::min(offset, page.totalCount));
    int64_t remaining = page.totalCount - start;
    if (remaining <= 0) return page;

    std::vector<std::string> log{"log",
                                 "--skip=" + std::to_string(start),
                                 "--max-count=" + std::to_string(limit),
                                 std::string(kLocalHistoryLogFormat),
                                 "--numstat",
                                 "--no-color"};
    log.insert(log.end(), revisions.begin(), revisions.end());
    auto output = m_commands.run(log, project);
    if (!output) {
        m_logger.error("Failed to read local commit page: " + output.error().text);
        return page;
    }
    page.edges = parseLogRecords(*output);
    if (static_cast<int64_t>(page.edges.size()) < std::min(remaining, limit)) {
        m_logger.error("Parsed fewer local commits than requested: " + std::to_string(page.edges.size()));
    }
    return page;
}

}  // namespace velko
