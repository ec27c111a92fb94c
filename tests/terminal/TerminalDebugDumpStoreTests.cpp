#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <filesystem>
#include <fstream>

#include "core/Base64.h"
#include "core/Json.h"
#include "support/TestSupport.h"
#include "terminal/TerminalDebugDumpStore.h"

using namespace velko;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::vector<Json> entries(const std::string& path) {
    std::ifstream file(path);
    std::vector<Json> out;
    for (std::string line; std::getline(file, line);) {
        auto json = parseJson(line);
        EXPECT_TRUE(json) << line;
        if (json) out.push_back(*json);
    }
    return out;
}

void setAge(const std::string& path, SystemTime when) {
    const time_t t = std::chrono::system_clock::to_time_t(when);
    const utimbuf times{t, t};
    ASSERT_EQ(::utime(path.c_str(), &times), 0) << path;
}

// The store's clock stands still at the start of the run; files it writes are
// dated by the file system, so the clock must not be far from the real time.
const SystemTime kNow = std::chrono::system_clock::now();

struct Fixture {
    test::TempDir dir;
    std::string directory = dir.path() + "/terminal-dumps";
    std::shared_ptr<TerminalDebugDumpStore> store;
    explicit Fixture(TerminalDebugDumpPolicy policy = {}) {
        store = TerminalDebugDumpStore::create(directory, policy, [] { return kNow; });
    }
    std::string file(const Uuid& id, int generation = 0) const {
        return directory + "/" + id.toString() + (generation ? "." + std::to_string(generation) : "") + ".jsonl";
    }
};

}  // namespace

TEST(TerminalDebugDumpStore, WritesEachChunkBeforeAndAfterNormalising) {
    Fixture f;
    ASSERT_TRUE(f.store->prepareForWriting());
    const Uuid id = Uuid::random();
    const std::string cut = std::string(119, 'a') + "\xc3\xa9";  // é split at byte 120
    f.store->record(id, "a\r\r", "a\r");
    f.store->record(id, "\x1b]0;t", "");
    f.store->record(id, cut, cut);
    f.store->drainForTesting();
    auto lines = entries(f.file(id));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0]["ts"], formatIso8601(kNow));
    struct Case {
        int sequence;
        std::string raw, normalized;
        bool rawPreview, normalizedPreview;
    } cases[] = {{0, "a\r\r", "a\r", true, true}, {1, "\x1b]0;t", "", true, false}, {2, cut, cut, false, false}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto& c = cases[i];
        EXPECT_EQ(lines[i]["sequence"], c.sequence);
        EXPECT_EQ(*base64Decode(lines[i]["rawBase64"].get<std::string>()), c.raw);
        EXPECT_EQ(*base64Decode(lines[i]["normalizedBase64"].get<std::string>()), c.normalized);
        EXPECT_EQ(lines[i]["rawCount"], c.raw.size());
        EXPECT_EQ(lines[i]["normalizedCount"], c.normalized.size());
        EXPECT_EQ(lines[i].contains("rawPreviewUTF8"), c.rawPreview);
        EXPECT_EQ(lines[i].contains("normalizedPreviewUTF8"), c.normalizedPreview);
    }
    EXPECT_EQ(lines[0]["rawPreviewUTF8"], "a\r\r");

    // A new run starts counting again in the same file.
    auto restarted = TerminalDebugDumpStore::create(f.directory, {}, [] { return kNow; });
    ASSERT_TRUE(restarted->prepareForWriting());
    restarted->record(id, "x", "x");
    restarted->drainForTesting();
    EXPECT_EQ(entries(f.file(id)).back()["sequence"], 0);
}

// A full file continues in a fresh one; at most three generations exist.
TEST(TerminalDebugDumpStore, RotatesFullFilesAndKeepsThreeGenerations) {
    TerminalDebugDumpPolicy policy;
    policy.maxFileSizeBytes = 1024;
    Fixture f(policy);
    ASSERT_TRUE(f.store->prepareForWriting());
    const Uuid id = Uuid::random();
    for (int i = 0; i < 60; ++i) f.store->record(id, std::string(100, 'a' + i % 26), std::string(100, 'b'));
    // One line longer than a whole file is dropped, but uses up its number.
    f.store->record(id, std::string(2000, 'z'), "");
    f.store->record(id, "last", "last");
    f.store->drainForTesting();
    for (int generation : {0, 1, 2}) {
        SCOPED_TRACE(generation);
        EXPECT_TRUE(fs::exists(f.file(id, generation)));
        EXPECT_LE(fs::file_size(f.file(id, generation)), policy.maxFileSizeBytes);
    }
    EXPECT_FALSE(fs::exists(f.file(id, 3)));
    auto current = entries(f.file(id));
    ASSERT_FALSE(current.empty());
    EXPECT_EQ(current.back()["sequence"], 61);
    EXPECT_EQ(current.back()["rawCount"], 4);
    // Generations hold consecutive entries: the newest of .1 directly precedes the oldest of the current file.
    auto previous = entries(f.file(id, 1));
    ASSERT_FALSE(previous.empty());
    EXPECT_EQ(previous.back()["sequence"].get<int>() + 1, current.front()["sequence"].get<int>());
}

TEST(TerminalDebugDumpStore, MakesRoomByRemovingTheOldestFilesButNeverTheCurrentTarget) {
    TerminalDebugDumpPolicy policy;
    policy.maxDirectorySizeBytes = 4096;
    Fixture f(policy);
    ASSERT_TRUE(f.store->prepareForWriting());
    const Uuid old = Uuid::random(), newer = Uuid::random(), writing = Uuid::random();
    std::ofstream(f.file(old)) << std::string(1500, 'o') << "\n";
    std::ofstream(f.file(newer)) << std::string(1500, 'n') << "\n";
    std::ofstream(f.file(writing)) << std::string(900, 'w') << "\n";
    setAge(f.file(old), kNow - 3h);
    setAge(f.file(newer), kNow - 2h);
    setAge(f.file(writing), kNow - 5h);  // the oldest, but the target of the entry
    ASSERT_TRUE(f.store->prepareForWriting());
    f.store->record(writing, std::string(300, 'x'), std::string(300, 'x'));
    f.store->drainForTesting();
    EXPECT_FALSE(fs::exists(f.file(old)));
    EXPECT_TRUE(fs::exists(f.file(newer)));
    const std::string written = test::readFile(f.file(writing));
    ASSERT_EQ(written.substr(0, 901), std::string(900, 'w') + "\n");
    EXPECT_TRUE(parseJson(written.substr(901))) << "one entry after the old line";
}

TEST(TerminalDebugDumpStore, StartupMaintenanceEnforcesThePolicy) {
    TerminalDebugDumpPolicy policy;
    policy.maxFileSizeBytes = 1000;
    Fixture f(policy);
    const std::string id = Uuid::random().toString();
    struct Case {
        std::string name;
        size_t size;
        std::chrono::hours age;
        bool kept;
    } cases[] = {
        {id + ".jsonl", 10, 1h, true},
        {id + ".2.jsonl", 10, 1h, true},
        {id + ".3.jsonl", 10, 1h, false},           // a fourth generation
        {id + ".1.jsonl", 1000, 1h, true},          // exactly the limit is not oversized
        {"big.jsonl", 1001, 1h, false},             // oversized
        {"notes.jsonl", 10, 24h * 6, true},         // not a generation, still young
        {"stale.jsonl", 10, 24h * 8, false},        // past the retention
        {"other.txt", 5000, 24h * 30, true},        // not a dump file at all
    };
    // Without a directory nothing is created.
    f.store->performStartupMaintenance();
    f.store->drainForTesting();
    EXPECT_FALSE(fs::exists(f.directory));
    ASSERT_EQ(::mkdir(f.directory.c_str(), 0700), 0);
    for (const auto& c : cases) {
        std::ofstream(f.directory + "/" + c.name) << std::string(c.size, 'x');
        setAge(f.directory + "/" + c.name, kNow - c.age);
    }
    f.store->performStartupMaintenance();
    f.store->drainForTesting();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(fs::exists(f.directory + "/" + c.name), c.kept);
    }
}

TEST(TerminalDebugDumpStore, RefusesADirectoryThatIsALinkOrAFile) {
    struct Case {
        const char* name;
        bool link;
    } cases[] = {{"symbolic link", true}, {"plain file", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Fixture f;
        test::TempDir elsewhere;
        if (c.link) {
            ASSERT_EQ(::symlink(elsewhere.path().c_str(), f.directory.c_str()), 0);
        } else {
            std::ofstream(f.directory) << "x";
        }
        EXPECT_FALSE(f.store->prepareForWriting());
        EXPECT_FALSE(TerminalDebugDumpWriter::create(f.store, Uuid::random()));
        f.store->record(Uuid::random(), "x", "x");
        f.store->drainForTesting();
        // Nothing was written through the link, and the link or file is left as it was.
        EXPECT_EQ(fs::directory_iterator(elsewhere.path()), fs::directory_iterator());
        EXPECT_EQ(fs::is_symlink(f.directory) ? "link" : test::readFile(f.directory), c.link ? "link" : "x");
    }
}
