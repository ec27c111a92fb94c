#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "support/TestSupport.h"
#include "terminal/TerminalLogger.h"

using namespace velko;
namespace fs = std::filesystem;

namespace {

std::vector<std::string> lines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(file, line);) out.push_back(line);
    return out;
}

TerminalLogEvent event(TerminalLogEvent::Event kind, std::optional<std::string> chunk = std::nullopt) {
    return {Uuid::random(), kind, std::move(chunk), std::nullopt, std::nullopt};
}

}  // namespace

TEST(TerminalLogger, EncodesEachEventWithOnlyItsOwnKeys) {
    const Uuid id = *Uuid::parse("0F8FAD5B-D9CB-469F-A165-70867728950E");
    struct Case {
        const char* name;
        TerminalLogEvent event;
        std::string expected;
    } cases[] = {
        {"output carries base64 bytes",
         {id, TerminalLogEvent::Event::Output, std::string("\x1b[1mhi\0", 7), std::nullopt, std::nullopt},
         R"({"ts":"T","session":"0F8FAD5B-D9CB-469F-A165-70867728950E","event":"output","chunkBase64":"G1sxbWhpAA=="})"},
        {"spawn carries metadata",
         {id, TerminalLogEvent::Event::Spawn, std::nullopt, std::nullopt,
          std::map<std::string, std::string>{{"shell", "/bin/zsh"}, {"cols", "120"}}},
         R"({"ts":"T","session":"0F8FAD5B-D9CB-469F-A165-70867728950E","event":"spawn","metadata":{"cols":"120","shell":"/bin/zsh"}})"},
        {"error carries a message with quotes escaped",
         {id, TerminalLogEvent::Event::Error, std::nullopt, std::string("bad \"x\"\n"), std::nullopt},
         R"({"ts":"T","session":"0F8FAD5B-D9CB-469F-A165-70867728950E","event":"error","message":"bad \"x\"\n"})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(TerminalLogger::encodeLine(c.event, "T"), c.expected);
    }
}

// The size check runs before each line: a file at the limit is kept, one
// byte more moves it to ".1" and the next line starts a new file.
TEST(TerminalLogger, RotatesToOneOlderCopyOnlyPastTheLimit) {
    struct Case {
        const char* name;
        int64_t sizeBeyondLimit;
        bool rotates;
    } cases[] = {{"below", -1, false}, {"exactly at the limit", 0, false}, {"one byte past", 1, true}};
    constexpr uint64_t kLimit = 4096;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::TempDir dir;
        const std::string path = dir.file("velko-terminal.log");
        const std::string previous = std::string(static_cast<size_t>(kLimit + c.sizeBeyondLimit) - 1, 'x') + "\n";
        dir.write("velko-terminal.log", previous);
        dir.write("velko-terminal.log.1", "older generation");
        auto logger = TerminalLogger::create(path, kLimit);
        logger->record(event(TerminalLogEvent::Event::Input, "ls\r"));
        logger->drainForTesting();
        auto current = lines(path);
        ASSERT_EQ(current.size(), c.rotates ? 1u : 2u);
        EXPECT_NE(current.back().find("\"chunkBase64\":\"bHMN\""), std::string::npos);
        // Rotated, the old text replaces the older copy; kept, it stays in front of the new line.
        EXPECT_EQ(test::readFile(path + ".1"), c.rotates ? previous : "older generation");
        EXPECT_EQ(test::readFile(path).starts_with(previous), !c.rotates);
    }
}

TEST(TerminalLogger, SessionsWritingAtOnceProduceWholeLinesAcrossRotations) {
    test::TempDir dir;
    const std::string path = dir.file("velko-terminal.log");
    auto logger = TerminalLogger::create(path, 64 * 1024);
    constexpr int kThreads = 6, kLines = 400;
    std::vector<std::thread> writers;
    std::vector<Uuid> sessions;
    for (int t = 0; t < kThreads; ++t) sessions.push_back(Uuid::random());
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i)
                logger->record({sessions[t], TerminalLogEvent::Event::Output,
                                std::to_string(i) + std::string(static_cast<size_t>(i % 97), 'y'), std::nullopt,
                                std::nullopt});
        });
    }
    for (auto& w : writers) w.join();
    logger->drainForTesting();
    ASSERT_TRUE(fs::exists(path + ".1")) << "the test must cross the limit";
    EXPECT_LE(fs::file_size(path + ".1"), 64 * 1024 + 512);  // at most one line past the limit
    // Every line in both files parses; each session's lines keep their order.
    std::map<std::string, int> next;
    for (const auto& file : {path + ".1", path}) {
        for (const auto& line : lines(file)) {
            auto json = parseJson(line);
            ASSERT_TRUE(json) << line;
            auto chunk = base64Decode((*json)["chunkBase64"].get<std::string>());
            ASSERT_TRUE(chunk);
            const int index = std::stoi(*chunk);
            // A session's first line here may follow lines lost to an older rotation.
            auto [it, first] = next.try_emplace((*json)["session"].get<std::string>(), index);
            EXPECT_EQ(index, it->second) << (first ? "first" : "later");
            it->second = index + 1;
        }
    }
}

TEST(TerminalLogger, RecreatesADeletedFileAndSurvivesAnUnwritableOne) {
    test::TempDir dir;
    const std::string path = dir.file("velko-terminal.log");
    auto logger = TerminalLogger::create(path);
    logger->record(event(TerminalLogEvent::Event::Spawn));
    logger->drainForTesting();
    ASSERT_EQ(lines(path).size(), 1u);
    ::unlink(path.c_str());
    logger->record(event(TerminalLogEvent::Event::Exit));
    logger->drainForTesting();
    EXPECT_EQ(lines(path).size(), 1u);

    // A directory where the file should be: lines are dropped, nothing fails.
    auto blocked = TerminalLogger::create(dir.path());
    blocked->record(event(TerminalLogEvent::Event::Output, "x"));
    blocked->drainForTesting();
    EXPECT_EQ(blocked->pendingBytes(), 0u);
}
