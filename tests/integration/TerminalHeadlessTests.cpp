// The whole program as a user scripts it: `velko --headless` with a project
// picked, a terminal created, typed into and closed, then end of input.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "support/HeadlessProcess.h"
#include "support/TestSupport.h"

using namespace velko;

namespace {

bool processExists(int pid) {
    struct stat info {};
    return ::stat(("/proc/" + std::to_string(pid)).c_str(), &info) == 0;
}

}  // namespace

TEST(TerminalHeadless, CreatesTypesIntoAndClosesATerminal) {
    test::IsolatedHome home;
    const std::string zdotdir = home.home() + "/zdot", project = home.home() + "/project";
    ASSERT_TRUE(createDirectories(zdotdir));
    ASSERT_TRUE(createDirectories(project));
    std::ofstream(zdotdir + "/.zshrc") << "PROMPT='velko%% '\n";
    test::ScopedEnv zdotdirEnv("ZDOTDIR", zdotdir);

    test::HeadlessProcess velko({"--pick-folder", project});
    velko.send("app/config/request", OrderedJson::object());
    velko.send("project/open", OrderedJson::object());
    auto config = velko.waitFor([](const Json& e) {
        return e["type"] == "app/config" && !e["payload"].value("projects", Json::array()).empty();
    });
    ASSERT_TRUE(config);
    const std::string projectId = (*config)["payload"]["projects"][0]["id"];

    velko.send("terminal/create", {{"title", "acceptance"}, {"projectId", projectId}});
    auto created = velko.waitFor(
        [](const Json& e) { return e["type"] == "terminal/created" && e["payload"]["title"] == "acceptance"; });
    ASSERT_TRUE(created);
    const std::string sessionId = (*created)["payload"]["sessionId"];
    const int shell = (*created)["payload"]["pid"];
    EXPECT_EQ((*created)["payload"]["workingDirectory"], project);

    std::string bytes;
    auto outputContains = [&](const std::string& needle) {
        return [&, needle](const Json& e) {
            if (e["type"] == "terminal/output" && e["payload"]["sessionId"] == sessionId) {
                EXPECT_EQ(e["payload"]["encoding"], "base64");
                bytes += base64Decode(e["payload"]["chunk"].get<std::string>()).value_or("");
            }
            return bytes.find(needle) != std::string::npos;
        };
    };
    ASSERT_TRUE(velko.waitFor(outputContains("velko% "))) << bytes;
    velko.send("terminal/input", {{"sessionId", sessionId}, {"data", "echo hello\r"}});
    ASSERT_TRUE(velko.waitFor(outputContains("hello\r\n"))) << bytes;

    velko.send("terminal/close", {{"sessionId", sessionId}});
    auto snapshot = velko.waitFor([](const Json& e) { return e["type"] == "terminal/snapshot"; });
    ASSERT_TRUE(snapshot);
    for (const auto& entry : (*snapshot)["payload"]["sessions"]) EXPECT_NE(entry["id"], sessionId);

    // Every other session (the project's first) ends with the program; no zsh is left.
    std::vector<int> shells;
    for (const auto& e : velko.events())
        if (e["type"] == "terminal/created") shells.push_back(e["payload"]["pid"]);
    EXPECT_EQ(velko.finish(), 0);
    for (int pid : shells) EXPECT_FALSE(processExists(pid)) << "zsh " << pid << " outlived velko";
    EXPECT_FALSE(processExists(shell));
}
