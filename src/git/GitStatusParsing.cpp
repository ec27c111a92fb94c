#include "git/GitStatusParsing.h"

#include <algorithm>
#include <charconv>

#include "core/NameCollation.h"
#include "git/GitText.h"

namespace velko {

namespace {

std::optional<int64_t> parseSignedDecimal(std::string_view text) {
    // One sign at most: "+5" and "-5" count, "+-5" does not.
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && (text.front() == '+' || text.front() == '-')) return std::nullopt;
    }
    if (text.empty()) return std::nullopt;
    int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string_view cutAtEllipsis(std::string_view text) {
    size_t dots = text.find("...");
    return dots == std::string_view::npos ? text : text.substr(0, dots);
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

int64_t extractStatusCount(std::string_view prefix, std::string_view text) {
    std::string needle = std::string(prefix) + " ";
    size_t at = text.find(needle);
    if (at == std::string_view::npos) return 0;
    size_t from = at + needle.size();
    size_t end = text.find(',', from);
    if (end == std::string_view::npos) end = text.find(']', from);
    if (end == std::string_view::npos) return 0;
    return parseSignedDecimal(trimWhitespace(text.substr(from, end - from))).value_or(0);
}

GitStatusSummary parseGitStatus(std::string_view output) {
    GitStatusSummary summary;
    for (std::string_view line : splitLines(output, false)) {
        if (startsWith(line, "## ")) {
            std::string_view rest = line.substr(3);
            size_t bracket = rest.find('[');
            if (bracket != std::string_view::npos) {
                summary.branch = std::string(cutAtEllipsis(trimWhitespace(rest.substr(0, bracket))));
                std::string_view counts = rest.substr(bracket);
                summary.ahead = extractStatusCount("ahead", counts);
                summary.behind = extractStatusCount("behind", counts);
            } else {
                summary.branch = std::string(cutAtEllipsis(rest));
            }
            continue;
        }
        if (startsWith(line, "?? ")) {
            summary.untracked.push_back({std::string(line.substr(3)), "?"});
            continue;
        }
        if (line.size() < 3) continue;
        char x = line[0], y = line[1];
        std::string_view pathText = line.substr(3);
        size_t arrow = pathText.rfind(" -> ");
        std::string path(arrow == std::string_view::npos ? pathText : pathText.substr(arrow + 4));
        std::string status{x, y};
        if (x != ' ') summary.staged.push_back({path, status});
        if (y != ' ') summary.unstaged.push_back({path, status});
    }
    return summary;
}

std::string GitStatusDetailMapper::describeStatus(char letter) {
    switch (letter) {
    case 'A': return "added";
    case 'M': return "modified";
    case 'D': return "deleted";
    case 'R': return "renamed";
    case 'C': return "copied";
    case '?': return "untracked";
    default: return "modified";
    }
}

GitStatusDetailComponents GitStatusDetailMapper::parse(std::string_view statusOutput) {
    GitStatusDetailComponents result;
    for (std::string_view line : splitLines(statusOutput, true)) {
        if (startsWith(line, "## ")) {
            std::string_view text = line.substr(3);
            size_t bracket = text.find('[');
            if (bracket != std::string_view::npos) {
                std::string_view counts = text.substr(bracket);
                result.ahead = extractStatusCount("ahead", counts);
                result.behind = extractStatusCount("behind", counts);
                text = trimBlanks(text.substr(0, bracket));
            }
            size_t dots = text.find("...");
            if (dots != std::string_view::npos) {
                result.branch = std::string(text.substr(0, dots));
                std::string_view remote = trimWhitespace(text.substr(dots + 3));
                result.remote = remote.empty() ? std::nullopt : std::optional<std::string>(remote);
            } else {
                result.branch = std::string(text);
                result.remote.reset();
            }
            continue;
        }
        if (startsWith(line, "?? ")) {
            result.untracked.push_back({std::string(line.substr(3)), "untracked"});
            continue;
        }
        if (line.size() < 3) continue;
        char x = line[0], y = line[1];
        std::string_view text = line.substr(3);
        std::string path(text);
        size_t arrow = text.find(" -> ");
        // Exactly two parts only: a second arrow leaves the text whole.
        if (arrow != std::string_view::npos && text.find(" -> ", arrow + 4) == std::string_view::npos) {
            path = std::string(text.substr(arrow + 4));
        }
        if (x != ' ') result.staged.push_back({path, describeStatus(x)});
        if (y != ' ') result.unstaged.push_back({path, describeStatus(y)});
    }
    return result;
}

namespace {

struct TreeBuilder {
    std::optional<std::string> status;
    std::map<std::string, std::unique_ptr<TreeBuilder>> children;
};

std::vector<GitChangeTreeNode> makeNodes(const TreeBuilder& builder) {
    struct Entry {
        const std::string* name;
        const TreeBuilder* builder;
        std::string key;
    };
    std::vector<Entry> entries;
    entries.reserve(builder.children.size());
    for (const auto& [name, child] : builder.children) entries.push_back({&name, child.get(), caseInsensitiveSortKey(name)});
    // Directories first, then files; each group in the explorer's order.
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        bool aDir = !a.builder->children.empty();
        bool bDir = !b.builder->children.empty();
        if (aDir != bDir) return aDir;
        return a.key < b.key;
    });
    std::vector<GitChangeTreeNode> nodes;
    nodes.reserve(entries.size());
    for (const auto& entry : entries) {
        auto children = makeNodes(*entry.builder);
        GitChangeTreeNode node;
        node.path = *entry.name;
        if (!children.empty()) {
            node.status = entry.builder->status.value_or("directory");
            node.children = std::move(children);
        } else {
            node.status = entry.builder->status.value_or("modified");
        }
        nodes.push_back(std::move(node));
    }
    return nodes;
}

}  // namespace

std::vector<GitChangeTreeNode> GitStatusDetailMapper::buildTree(
    const std::vector<GitStatusDetailComponents::Change>& changes) {
    TreeBuilder root;
    for (const auto& change : changes) {
        TreeBuilder* node = &root;
        bool any = false;
        std::string_view path = change.path;
        size_t start = 0;
        while (start <= path.size()) {
            size_t slash = path.find('/', start);
            if (slash == std::string_view::npos) slash = path.size();
            if (slash > start) {
                auto& child = node->children[std::string(path.substr(start, slash - start))];
                if (!child) child = std::make_unique<TreeBuilder>();
                node = child.get();
                any = true;
            }
            start = slash + 1;
        }
        if (any) node->status = change.status;
    }
    return makeNodes(root);
}

}  // namespace velko
