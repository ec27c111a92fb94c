// The whole program driven as a user's script would drive it: a real
// `velko --headless` process, JSON lines in, event lines out.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "core/Base64.h"
#include "support/ChildProcesses.h"
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

// What one run did to the workspace is on disk before it exits: the next run
// starts from it with its preview tabs (the file deleted in between flagged),
// and resume brings back what was closed. A tab snapshot that is not valid, or
// not of a known project, changes nothing.
TEST_F(HeadlessFixture, ProjectsAndPreviewTabsPersistAcrossRuns) {
    const std::string beta = folder("beta");
    std::filesystem::create_directories(beta + "/src");
    std::ofstream(beta + "/README.md") << "# hello";
    std::ofstream(beta + "/src/main.c") << "int main(void) { return 0; }";
    const OrderedJson tabs = OrderedJson::parse(
        R"({"activeTabId":"t1","tabs":[)"
        R"({"id":"t1","path":"README.md","title":"README.md","isDirty":false,"viewMode":"markdown","lastOpenedAt":1},)"
        R"({"id":"t2","path":"src/main.c","title":"main.c","isDirty":false,"viewMode":"source","lastOpenedAt":2}],)"
        R"("version":1})");
    std::string betaId;
    {
        // Info logging on, and the folders are no repositories, so git's
        // failures get logged: those lines belong on standard error.
        test::ScopedEnv infoLogs("G_MESSAGES_DEBUG", "all");
        HeadlessProcess velko({"--pick-folder", folder("alpha"), "--pick-folder", beta});
        // Metrics come at start, before anything is asked.
        EXPECT_TRUE(velko.waitForType("system/metrics"));
        velko.send(R"({"type":"project/open"})");
        ASSERT_TRUE(velko.waitForType("project/activate"));
        auto hydrate = velko.waitForType("previewTab:hydrate");
        ASSERT_TRUE(hydrate);
        EXPECT_EQ((*hydrate)["payload"]["snapshot"], Json::parse(R"({"tabs":[],"version":1})"));
        Json config = lastConfig(velko);
        ASSERT_EQ(config["projects"].size(), 2u);
        betaId = config["projects"][1]["id"];
        velko.send("previewTabs/persist", OrderedJson{{"projectId", betaId}, {"snapshot", tabs}});
        OrderedJson unknownMode = tabs;
        unknownMode["tabs"][0]["viewMode"] = "preview";
        for (const auto& dropped : {OrderedJson{{"projectId", betaId}, {"snapshot", unknownMode}},
                                    OrderedJson{{"projectId", betaId}, {"snapshot", OrderedJson::array()}},
                                    OrderedJson{{"projectId", betaId}},
                                    OrderedJson{{"projectId", "EEEEEEEE-0000-4000-8000-000000000005"},
                                                {"snapshot", OrderedJson::parse(R"({"tabs":[],"version":1})")}}})
            velko.send("previewTabs/persist", dropped);
        velko.send("project/close", {{"projectId", config["projects"][0]["id"]}});
        EXPECT_EQ(velko.finish(), 0);
        EXPECT_TRUE(velko.strayLines().empty()) << velko.strayLines().front();
    }
    std::filesystem::remove(beta + "/src/main.c");
    HeadlessProcess velko;
    auto hydrate = velko.waitForType("previewTab:hydrate");
    ASSERT_TRUE(hydrate);
    EXPECT_EQ((*hydrate)["payload"]["projectId"], betaId);
    EXPECT_EQ(dumpJson((*hydrate)["payload"]["snapshot"]), dumpJson(Json(tabs)));
    // Read on from the hydrate event: the warning comes after it.
    auto warning = velko.waitForType("previewTab:warning");
    ASSERT_TRUE(warning);
    EXPECT_EQ((*warning)["payload"], Json::parse(R"({"projectId":")" + betaId + R"(","tabs":[{"tabId":"t2",)"
                                                 R"("path":"src/main.c","code":"file_missing",)"
                                                 R"("message":"ファイルが見つかりません"}]})"));
    velko.send(R"({"type":"app/config/request"})");
    auto first = velko.take([](const Json& e) { return isType(e, "app/config"); });
    ASSERT_TRUE(first);
    ASSERT_EQ((*first)["payload"]["projects"].size(), 1u);
    EXPECT_EQ((*first)["payload"]["projects"][0]["id"], betaId);
    velko.send("project/close", {{"projectId", betaId}});
    velko.send(R"({"type":"project/resume"})");
    EXPECT_EQ(velko.finish(), 0);
    Json last = lastConfig(velko);
    ASSERT_EQ(last["projects"].size(), 1u);
    EXPECT_EQ(last["activeProjectId"], betaId);
    EXPECT_EQ(last["hasSavedWorkspace"], true);
}

TEST_F(HeadlessFixture, HostileInputNeverStopsTheProgram) {
    HeadlessProcess velko;
    // Bytes no encoder writes: invalid UTF-8, NUL and control characters, a lone brace.
    velko.sendRaw(std::string("\xff\xfe\x00\x01{\x1b[31m\n\x80\n{\n\"\n", 17));
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

// A terminal as a user scripts one: created in the project, typed into and
// closed. Quitting never waits on a shell that will not leave: the project's
// first login zsh, whose start-up file ignores the hang-up and SIGTERM and then
// waits forever (with a builtin: zsh leaves when a command it starts finds the
// terminal gone), is killed, and the program exits soon after the end of its input.
TEST_F(HeadlessFixture, TerminalsRunWhatIsTypedAndEndOfInputEndsEvenAShellThatIgnoresTheHangUp) {
    const std::string zdotdir = folder("zdot"), project = folder("project"), flag = home.home() + "/stubborn";
    std::ofstream(zdotdir + "/.zshrc") << "PROMPT='velko%% '\nif [[ -e ~/stubborn ]]; then\n"
                                          "trap '' HUP TERM; zmodload zsh/zselect; echo stubborn-ready\n"
                                          "while :; do zselect -t 100; done\nfi\n";
    std::ofstream(flag) << "";
    test::ScopedEnv zdotdirEnv("ZDOTDIR", zdotdir);
    HeadlessProcess velko({"--pick-folder", project});
    velko.send(R"({"type":"project/open"})");
    std::string projectId, stubbornId;
    int stubborn = -1;
    ASSERT_TRUE(velko.waitFor([&](const Json& e) {
        if (isType(e, "app/config") && !e["payload"].value("projects", Json::array()).empty())
            projectId = e["payload"]["projects"][0]["id"];
        if (isType(e, "terminal/created")) {
            stubbornId = e["payload"]["sessionId"];
            stubborn = e["payload"]["pid"];
        }
        return !projectId.empty() && stubborn > 0;
    }));
    std::map<std::string, std::string> output;  // by session
    auto outputHolds = [&](const std::string& session, const std::string& needle) {
        return [&, session, needle](const Json& e) {
            if (isType(e, "terminal/output")) {
                EXPECT_EQ(e["payload"]["encoding"], "base64");
                output[e["payload"]["sessionId"]] += base64Decode(e["payload"]["chunk"].get<std::string>()).value_or("");
            }
            return output[session].find(needle) != std::string::npos;
        };
    };
    ASSERT_TRUE(velko.waitFor(outputHolds(stubbornId, "stubborn-ready"))) << output[stubbornId];
    std::filesystem::remove(flag);

    velko.send("terminal/create", {{"title", "typed"}, {"projectId", projectId}});
    auto created = velko.waitFor(
        [](const Json& e) { return isType(e, "terminal/created") && e["payload"]["title"] == "typed"; });
    ASSERT_TRUE(created);
    const std::string session = (*created)["payload"]["sessionId"];
    const int shell = (*created)["payload"]["pid"];
    EXPECT_EQ((*created)["payload"]["workingDirectory"], project);
    ASSERT_TRUE(velko.waitFor(outputHolds(session, "velko% "))) << output[session];
    velko.send("terminal/input", {{"sessionId", session}, {"data", "echo hel''lo\r"}});
    ASSERT_TRUE(velko.waitFor(outputHolds(session, "hello\r\n"))) << output[session];
    velko.send("terminal/close", {{"sessionId", session}});
    auto snapshot = velko.waitForType("terminal/snapshot");
    ASSERT_TRUE(snapshot);
    for (const auto& entry : (*snapshot)["payload"]["sessions"]) EXPECT_NE(entry["id"], session);

    // A generous bound: the program ends the shells and exits within a few seconds.
    EXPECT_EQ(velko.finish(std::chrono::seconds(12)), 0) << "velko did not exit after the end of its input";
    for (int pid : {stubborn, shell}) EXPECT_FALSE(test::processExists(pid)) << "zsh " << pid << " outlived velko";
}
