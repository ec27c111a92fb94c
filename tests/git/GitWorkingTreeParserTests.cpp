#include <gtest/gtest.h>

#include "core/Json.h"
#include "git/GitJsonWriter.h"
#include "git/GitWorkingTreeParser.h"

using namespace velko;

namespace {

// `git status --porcelain=v2 --branch --untracked-files=all` of the same
// repository as the porcelain v1 fixture (captured, git 2.39).
const char* const kPorcelainV2 =
    "# branch.oid 9bf13c85fe49f807dae20c0dac1df8ff3f0cb9fc\n"
    "# branch.head main\n"
    "1 .M N... 100644 100644 100644 88768efdf77ec78c9a995f94881793be6a41752b "
    "88768efdf77ec78c9a995f94881793be6a41752b bin.dat\n"
    "1 .D N... 100644 100644 000000 4bcfe98e640c8284511312660fb8709b0afa888e "
    "4bcfe98e640c8284511312660fb8709b0afa888e del.txt\n"
    "1 .A N... 000000 000000 100644 0000000000000000000000000000000000000000 "
    "0000000000000000000000000000000000000000 ita.txt\n"
    "1 MM N... 100644 100644 100644 28ce6a8b26aa170e1de65536fe8abe1832bd3242 "
    "4e8f720eea0da98fc351be47bdf951c9395f7589 mod.txt\n"
    "2 R. N... 100644 100644 100644 587be6b4c3f93f93c489c0111bba5596147a26cb "
    "587be6b4c3f93f93c489c0111bba5596147a26cb R100 src/a/new.txt\tsrc/a/old.txt\n"
    "u UU N... 100644 100644 100644 100644 f2ad6c76f0115a6ba5b00456a849810e7ec0af20 "
    "351be5bf6e17c59ea560546d69654115ecb2fd8d e45c9c2666d44e0327c1f9c239a74c508336053e conf.txt\n"
    "? \"caf\\303\\251.txt\"\n"
    "? \"new\\nline.txt\"\n"
    "? \"quo\\\"te.txt\"\n"
    "? \"tab\\there.txt\"\n"
    "? with space.txt\n";

std::string opt(const std::optional<std::string>& v) { return v ? *v : "-"; }
std::string opt(const std::optional<std::string_view>& v) { return v ? std::string(*v) : "-"; }

}  // namespace

TEST(GitWorkingTreeParser, ReadsEachLineShape) {
    struct Case {
        const char* name;
        std::string line;
        bool parsed;
        std::string path = "", oldPath = "-", staged = "-", unstaged = "-";
        bool untracked = false, intentToAdd = false, conflicted = false;
        std::optional<int64_t> score = std::nullopt;
    };
    const std::string h = "100644 100644 100644 aaaa bbbb";
    const Case cases[] = {
        {"work tree only", "1 .M N... " + h + " a.txt", true, "a.txt", "-", "-", "modified"},
        {"blanks in path kept", "1 M. N... " + h + " dir/a b  c.txt", true, "dir/a b  c.txt", "-", "modified"},
        {"intent to add letter", "1 .I N... " + h + " ita.txt", true, "ita.txt", "-", "-", "-", false, true},
        {"type change", "1 T. N... " + h + " link", true, "link", "-", "typechange"},
        {"unmerged letter in regular line", "1 UU N... " + h + " c.txt", true, "c.txt", "-", "updated", "updated",
         false, false, true},
        {"rename with score", "2 R. N... " + h + " R87 new.txt\told.txt", true, "new.txt", "old.txt", "renamed", "-",
         false, false, false, 87},
        {"copy", "2 C. N... " + h + " C50 b.txt\ta.txt", true, "b.txt", "a.txt", "copied", "-", false, false, false,
         50},
        {"rename without digits", "2 R. N... " + h + " R new.txt\told.txt", true, "new.txt", "old.txt", "renamed"},
        {"rename without tab", "2 R. N... " + h + " R10 new.txt", true, "new.txt", "", "renamed", "-", false, false,
         false, 10},
        {"conflict with blanks in path", "u AA N... 1 2 3 4 h1 h2 h3 x y.txt", true, "x y.txt", "-", "conflicted",
         "conflicted", false, false, true},
        {"untracked too short", "? ", false},
        {"header", "# branch.head main", false},
        {"ignored", "! build/", false},
        {"regular truncated", "1 .M N... 100644", false},
        {"regular with long XY", "1 .MM N... " + h + " a", false},
        {"rename truncated", "2 R. N... 100644 100644", false},
        {"conflict truncated", "u UU N... 1 2 3 h1 c.txt", false},
        {"empty", "", false},
        {"binary garbage", "\xff\xfe\x01", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto entry = GitWorkingTreeParser::parseLine(c.line);
        ASSERT_EQ(entry.has_value(), c.parsed);
        if (!entry) continue;
        EXPECT_EQ(entry->path, c.path);
        EXPECT_EQ(opt(entry->oldPath), c.oldPath);
        EXPECT_EQ(opt(entry->stagedStatus), c.staged);
        EXPECT_EQ(opt(entry->unstagedStatus), c.unstaged);
        EXPECT_EQ(entry->isUntracked, c.untracked);
        EXPECT_EQ(entry->intentToAdd, c.intentToAdd);
        EXPECT_EQ(entry->isConflicted, c.conflicted);
        EXPECT_EQ(entry->renameScore, c.score);
    }
}

TEST(GitWorkingTreeParser, DecodesQuotedPathsTheWayGitWritesThem) {
    struct Case {
        const char* input;
        std::string decoded;
    };
    const Case cases[] = {
        {"plain.txt", "plain.txt"},
        {"  padded.txt \n", "padded.txt"},
        {"\"with\\ttab\"", "with\ttab"},
        {"\"new\\nline\"", "new\nline"},
        {"\"cr\\r\"", "cr\r"},
        {"\"quo\\\"te\"", "quo\"te"},
        {"\"back\\\\slash\"", "back\\slash"},
        {"\"\\011tab\"", "\ttab"},
        {"\"\\0\"", std::string(1, '\0')},
        {"\"a\\09xb\"", "ab"},                // 9 is no octal digit: the escape and its two characters give nothing
        // Two characters, not two bytes: a failed escape must not cut a character in half.
        {"\"a\\0\xe6\x97\xa5" "bc\"", "ac"},
        {"\"a\\0\xc3\xa9\"", "a"},
        {"\"\\0\xf0\x9f\x98\x80\"", "\\0\xf0\x9f\x98\x80"},  // nothing left: the text as it stands
        {"\"caf\\303\\251.txt\"", "caf303251.txt"},  // bytes above 127 keep their digits
        {"\"\\q\"", "q"},
        {"\"end\\\"", "end"},                // the closing quote goes first, then the lone backslash
        {"\"trailing\\", "\"trailing"},
        {"\"\"", ""},
        {"\"", ""},
        {"\"\\\"", "\\"},                      // only a lone backslash: the text is kept
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        EXPECT_EQ(GitWorkingTreeParser::decodePath(c.input), c.decoded);
    }
}

TEST(GitWorkingTreeParser, PayloadSortsEntriesIntoFourSectionsWithSummary) {
    auto entries = GitWorkingTreeParser::parse(kPorcelainV2);
    ASSERT_EQ(entries.size(), 11u);
    Json payload = Json::parse(encodeWorkingTreePayload(entries, "P"));
    struct Case {
        const char* id;
        std::vector<std::string> paths;
    };
    const Case cases[] = {
        {"staged", {"mod.txt", "src/a/new.txt"}},
        {"unstaged", {"bin.dat", "del.txt", "ita.txt", "mod.txt"}},
        {"untracked", {"caf303251.txt", "new\nline.txt", "quo\"te.txt", "tab\there.txt", "with space.txt"}},
        {"conflicted", {"conf.txt"}},
    };
    ASSERT_EQ(payload["sections"].size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(cases[i].id);
        const Json& section = payload["sections"][i];
        EXPECT_EQ(section["id"], cases[i].id);
        std::vector<std::string> paths;
        for (const auto& e : section["entries"]) paths.push_back(e["path"]);
        EXPECT_EQ(paths, cases[i].paths);
    }
    const Json& rename = payload["sections"][0]["entries"][1];
    EXPECT_EQ(rename["oldPath"], "src/a/old.txt");
    EXPECT_EQ(rename["renameScore"], 100);
    EXPECT_EQ(rename["staged"]["status"], "renamed");
    EXPECT_FALSE(rename.contains("unstaged"));
    const Json& untracked = payload["sections"][2]["entries"][0];
    EXPECT_FALSE(untracked.contains("staged"));
    EXPECT_EQ(untracked["isUntracked"], true);
    EXPECT_EQ(payload["summary"], (Json{{"total", 12}, {"staged", 2}, {"unstaged", 4}, {"untracked", 5}}));
}

TEST(GitJsonWriter, WorkingTreePayloadIsByteForByteTheGenericEncoding) {
    auto entries = GitWorkingTreeParser::parse(kPorcelainV2);
    ASSERT_EQ(entries.size(), 11u);
    // Every character below 128 and some above in one path too.
    GitWorkingTreeEntry every = entries.back();
    every.path.clear();
    for (int c = 1; c < 128; ++c) every.path.push_back(static_cast<char>(c));
    every.path += std::string("nul\0x", 5) + "caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80";
    every.oldPath = every.path;
    entries.push_back(every);
    // What the generic encoder writes for the same value: a round trip through
    // it must give the very same bytes.
    for (const std::vector<GitWorkingTreeEntry>& list : {entries, std::vector<GitWorkingTreeEntry>{}}) {
        std::string text = encodeWorkingTreePayload(list, "0F8FAD5B-D9CB-469F-A165-70867728950E");
        EXPECT_EQ(dumpJson(OrderedJson::parse(text)), text);
    }
    for (int64_t value : {int64_t{0}, int64_t{-7}, int64_t{1} << 40, INT64_MIN}) {
        std::string out;
        appendJsonInteger(out, value);
        EXPECT_EQ(out, dumpJson(OrderedJson(value)));
    }
}
