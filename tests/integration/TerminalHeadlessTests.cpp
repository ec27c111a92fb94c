// The whole program as a user scripts it: `velko --headless` with a project
// picked, a terminal created, typed into and closed, then end of input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/Paths.h"
#include "support/TestSupport.h"

extern char** environ;

using namespace velko;
using namespace std::chrono_literals;

namespace {

class HeadlessVelko {
public:
    HeadlessVelko(const std::string& binary, const std::string& folder) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        std::vector<std::string> args = {binary, "--headless", "--pick-folder", folder};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, binary.c_str(), &actions, nullptr, argv.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        m_in = in[1];
        m_out = out[0];
    }
    ~HeadlessVelko() {
        if (m_in >= 0) ::close(m_in);
        if (m_pid > 0 && ::waitpid(m_pid, nullptr, WNOHANG) == 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_out >= 0) ::close(m_out);
    }
    bool running() const { return m_pid > 0; }

    void send(const std::string& type, const OrderedJson& payload) {
        std::string line = OrderedJson{{"type", type}, {"payload", payload}}.dump() + "\n";
        ASSERT_EQ(::write(m_in, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    // Reads events until one satisfies `match`; every event read is kept.
    std::optional<Json> waitFor(const std::function<bool(const Json&)>& match, std::chrono::seconds limit = 15s) {
        const auto end = std::chrono::steady_clock::now() + limit;
        for (;;) {
            size_t newline;
            while ((newline = m_buffer.find('\n')) != std::string::npos) {
                auto event = parseJson(m_buffer.substr(0, newline));
                m_buffer.erase(0, newline + 1);
                if (!event) continue;
                events.push_back(*event);
                if (match(*event)) return event;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd pfd{m_out, POLLIN, 0};
            if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[65536];
            ssize_t n = ::read(m_out, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            m_buffer.append(chunk, static_cast<size_t>(n));
        }
    }
    // Closes standard input and waits for the exit status.
    std::optional<int> finish(std::chrono::seconds limit = 20s) {
        ::close(m_in);
        m_in = -1;
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            (void)waitFor([](const Json&) { return false; }, 1s);  // keep its output flowing
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
        }
        return std::nullopt;
    }

    std::vector<Json> events;

private:
    pid_t m_pid = -1;
    int m_in = -1, m_out = -1;
    std::string m_buffer;
};

bool processExists(int pid) {
    struct stat info {};
    return ::stat(("/proc/" + std::to_string(pid)).c_str(), &info) == 0;
}

}  // namespace

TEST(TerminalHeadless, CreatesTypesIntoAndClosesATerminal) {
    const char* binaryDir = std::getenv("VELKO_BINARY_DIR");
    ASSERT_TRUE(binaryDir);
    test::IsolatedHome home;
    const std::string zdotdir = home.home() + "/zdot", project = home.home() + "/project";
    ASSERT_TRUE(createDirectories(zdotdir));
    ASSERT_TRUE(createDirectories(project));
    std::ofstream(zdotdir + "/.zshrc") << "PROMPT='velko%% '\n";
    test::ScopedEnv zdotdirEnv("ZDOTDIR", zdotdir);

    HeadlessVelko velko(std::string(binaryDir) + "/velko", project);
    ASSERT_TRUE(velko.running());
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
    for (const auto& e : velko.events)
        if (e["type"] == "terminal/created") shells.push_back(e["payload"]["pid"]);
    EXPECT_EQ(velko.finish(), 0);
    for (int pid : shells) EXPECT_FALSE(processExists(pid)) << "zsh " << pid << " outlived velko";
    EXPECT_FALSE(processExists(shell));
}
