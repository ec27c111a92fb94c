// The whole program driven as a user's script would drive it: a real
// `velko --headless` process, JSON lines in, event lines out.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "core/Base64.h"
#include "support/HeadlessProcess.h"
#include "support/TestSupport.h"

using namespace velko;
using test::HeadlessProcess;

namespace {

bool isType(const Json& e, const char* type) { return e.value("type", "") == type; }

struct HeadlessFixture : ::testing::Test {
    test::IsolatedHome home;
    std::string folder(const std::string& name) {
        std::string path = home.home() + "/" + name;
        std::filesystem::create_directories(path);
        return path;
    }
    Json lastConfig(HeadlessProcess& velko) {
        Json last;
        for (const auto& e : velko.events())
            if (isType(e, "app/config")) last = e["payload"];
        return last;
    }
};

}  // namespace

TEST_F(HeadlessFixture, FirstStartAnswersTheConfigurationRequestAndWritesAnEmptyWorkspace) {
    HeadlessProcess velko;
    velko.send(R"({"type":"app/config/request"})");
    EXPECT_EQ(velko.finish(), 0);
    EXPECT_TRUE(velko.strayLines().empty()) << "standard output carries events only";
    bool sawConfig = false, sawStatus = false;
    for (const auto& e : velko.events()) {
        sawConfig |= isType(e, "app/config");
        sawStatus |= isType(e, "github/oauth/status");
    }
    EXPECT_TRUE(sawConfig);
    EXPECT_TRUE(sawStatus);
    EXPECT_EQ(lastConfig(velko)["projects"], Json::array());
    auto file = parseJson(test::readFile(home.dataDir() + "/config.json"));
    ASSERT_TRUE(file);
    EXPECT_EQ((*file)["projects"], Json::array());
}

TEST_F(HeadlessFixture, ProjectOperationsPersistAcrossRuns) {
    std::string a = folder("alpha"), b = folder("beta");
    std::string alphaId, betaId;
    {
        // Info logging on, and the folders are no repositories, so git's
        // failures get logged: those lines belong on standard error.
        test::ScopedEnv infoLogs("G_MESSAGES_DEBUG", "all");
        HeadlessProcess velko({"--pick-folder", a, "--pick-folder", b});
        velko.send(R"({"type":"project/open"})");
        auto activation = velko.waitForType("project/activate");
        ASSERT_TRUE(activation);
        EXPECT_EQ((*activation)["payload"]["name"], "alpha");
        Json config = lastConfig(velko);
        ASSERT_EQ(config["projects"].size(), 2u);
        alphaId = config["projects"][0]["id"];
        betaId = config["projects"][1]["id"];

        velko.send(R"({"type":"project/reorder","payload":{"order":[")" + betaId + R"("]}})");
        velko.send(R"({"type":"project/activate","payload":{"id":")" + betaId + R"("}})");
        auto second = velko.waitFor([](const Json& e) {
            return isType(e, "project/activate") && e["payload"]["name"] == "beta";
        });
        ASSERT_TRUE(second);
        velko.send(R"({"type":"project/close","payload":{"projectId":")" + alphaId + R"("}})");
        EXPECT_EQ(velko.finish(), 0);
        EXPECT_TRUE(velko.strayLines().empty()) << velko.strayLines().front();
        Json last = lastConfig(velko);
        ASSERT_EQ(last["projects"].size(), 1u);
        EXPECT_EQ(last["projects"][0]["name"], "beta");
    }
    {
        HeadlessProcess velko;
        velko.send(R"({"type":"project/close","payload":{"projectId":")" + betaId + R"("}})");
        velko.send(R"({"type":"project/resume"})");
        EXPECT_EQ(velko.finish(), 0);
        Json last = lastConfig(velko);
        ASSERT_EQ(last["projects"].size(), 1u);
        EXPECT_EQ(last["projects"][0]["id"], betaId);
        EXPECT_EQ(last["activeProjectId"], betaId);
        EXPECT_EQ(last["hasSavedWorkspace"], true);
    }
}

TEST_F(HeadlessFixture, HostileInputNeverStopsTheProgram) {
    HeadlessProcess velko;
    std::mt19937 random(20261123);
    std::string garbage;
    for (int line = 0; line < 200; ++line) {
        size_t length = random() % 300;
        for (size_t i = 0; i < length; ++i) {
            char c = static_cast<char>(random() % 256);
            garbage.push_back(c == '\n' ? ' ' : c);
        }
        garbage.push_back('\n');
    }
    velko.sendRaw(garbage);
    const std::string hostile[] = {
        std::string(200000, '['),
        "{\"type\":\"project/open\",\"payload\":" + std::string(5000, '{'),
        "{\"type\":\"app/config\",\"payload\":{}}",
        "{\"type\":\"project/reorder\",\"payload\":{\"order\":[" + std::string(20000, '[') + "]}}",
        "{\"type\":\"project/close\",\"payload\":{\"projectId\":\"\xff\xfe\"}}",
        std::string("{\"type\":\"app/config/request\0\"}", 31),
        "{\"type\":\"project/activate\",\"payload\":{\"id\":1e999}}",
        "{\"type\":\"terminal/input\",\"payload\":{\"sessionId\":null,\"data\":[]}}",
        "{\"type\":\"git/status\",\"payload\":\"x\"}",
        "{\"type\":\"project/file/open\",\"payload\":{\"projectId\":{},\"path\":7}}",
        std::string(4 << 20, 'x'),
    };
    for (const auto& line : hostile) velko.send(line);
    // Only an answer to this message can produce this event, so it proves the
    // program is still reading and routing after the garbage.
    velko.send(R"({"type":"project/resume"})");
    auto answer = velko.waitForType("project/resume/error");
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["payload"]["reason"], "no-projects");
    EXPECT_EQ(velko.finish(), 0);
    EXPECT_TRUE(velko.strayLines().empty());
}

// Quitting never waits on a shell that will not leave: a login zsh whose
// start-up file ignores the hang-up and SIGTERM and then waits forever (with
// a builtin: zsh leaves when a command it starts finds the terminal gone) is
// killed, and the program exits soon after the end of its input.
TEST_F(HeadlessFixture, EndOfInputEndsAShellThatIgnoresTheHangUp) {
    const std::string zdotdir = folder("zdot"), project = folder("project");
    std::ofstream(zdotdir + "/.zshrc") << "trap '' HUP TERM\nzmodload zsh/zselect\necho stubborn-ready\n"
                                       "while :; do zselect -t 100; done\n";
    test::ScopedEnv zdotdirEnv("ZDOTDIR", zdotdir);
    HeadlessProcess velko({"--pick-folder", project});
    velko.send(R"({"type":"project/open"})");
    auto created = velko.waitForType("terminal/created");
    ASSERT_TRUE(created);
    const int shell = (*created)["payload"]["pid"];
    std::string output;
    ASSERT_TRUE(velko.waitFor([&](const Json& e) {
        if (isType(e, "terminal/output"))
            output += base64Decode(e["payload"]["chunk"].get<std::string>()).value_or("");
        return output.find("stubborn-ready") != std::string::npos;
    }));
    // A generous bound: the program ends the shell and exits within a few seconds.
    EXPECT_EQ(velko.finish(std::chrono::seconds(12)), 0) << "velko did not exit after the end of its input";
    struct stat info {};
    EXPECT_NE(::stat(("/proc/" + std::to_string(shell)).c_str(), &info), 0) << "zsh " << shell << " outlived velko";
}
