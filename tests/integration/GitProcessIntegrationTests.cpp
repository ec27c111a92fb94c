// The git runner and the credential broker with real processes and files.
#include <gtest/gtest.h>
#include <glib.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "core/Paths.h"
#include "git/GitCredentialBroker.h"
#include "git/GitMessages.h"
#include "git/GitProcessRunner.h"
#include "git/GitTestSupport.h"
#include "integration/GitTestRepos.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace velko::test;

namespace {

GitEnvironment plainEnvironment() { return {{"PATH", "/usr/bin:/bin"}, {"LC_ALL", "C"}}; }

}  // namespace

TEST(GitProcessRunner, DrainsBothPipesAndReportsHowTheChildEnded) {
    TempDir dir;
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        std::string directory;
        int status;
        size_t stdoutSize;
        std::string stdoutText;  // checked when stdoutSize is 0
        std::string stderrText;
    };
    const std::string both =
        // 2 MiB on each pipe, interleaved: a runner that reads one pipe to its end
        // first deadlocks here once the other pipe's buffer is full.
        "i=0; while [ $i -lt 4 ]; do head -c 524288 /dev/zero | tr '\\0' a; head -c 524288 /dev/zero | tr '\\0' b >&2; "
        "i=$((i+1)); done";
    const Case cases[] = {
        {"both pipes full", {"sh", "-c", both + " 2>/dev/null; " + both + " >/dev/null; " + both}, dir.path(), 0,
         4u << 20, "", ""},
        {"exit status", {"sh", "-c", "echo out; echo err >&2; exit 3"}, dir.path(), 3, 0, "out\n", "err\n"},
        {"invalid UTF-8 gives empty text", {"sh", "-c", "printf 'a\\377b'; printf 'caf\\303\\251' >&2"}, dir.path(),
         0, 0, "", "caf\xc3\xa9"},
        {"standard input is the null device", {"sh", "-c", "cat; readlink /proc/self/fd/0"}, dir.path(), 0, 0,
         "/dev/null\n", ""},
        {"no controlling terminal", {"sh", "-c", "(exec 3</dev/tty) 2>/dev/null && echo tty || echo none"},
         dir.path(), 0, 0, "none\n", ""},
        // Builtins only: a pipeline would show the shell's own pipe for a moment.
        {"no inherited descriptors",
         {"sh", "-c", "for n in 3 4 5 6 7 8 9 10 11 12; do [ -e /proc/$$/fd/$n ] && echo $n; done; true"}, dir.path(),
         0, 0, "", ""},
        {"broken pipes end the writer quietly", {"sh", "-c", "yes | head -n 1"}, dir.path(), 0, 0, "y\n", ""},
        {"working directory", {"pwd"}, dir.path(), 0, 0, std::filesystem::canonical(dir.path()).string() + "\n", ""},
        {"environment is exactly the given one", {"env"}, dir.path(), 0, 0, "LC_ALL=C\nPATH=/usr/bin:/bin\n", ""},
        {"missing program", {"velko-no-such-program"}, dir.path(), 127, 0, "", ""},
        {"missing directory", {"git", "status"}, "/nonexistent/velko-test", -1, 0, "", "No such file or directory"},
    };
    ProcessGitProcessRunner runner;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto result = runner.run(c.arguments, c.directory, plainEnvironment());
        EXPECT_EQ(result.status, c.status) << result.stderr;
        if (c.stdoutSize) {
            EXPECT_EQ(result.stdout.size(), c.stdoutSize);
            continue;
        }
        EXPECT_EQ(result.stdout, c.stdoutText);
        if (c.status != 127) {
            EXPECT_EQ(result.stderr, c.stderrText);
        }
    }
}

TEST(GitProcessRunner, StopEndsTheChildAndRefusesLaterRuns) {
    struct Case {
        const char* name;
        std::string script;  // writes "started" first
        int status;
    };
    const Case cases[] = {
        {"a child that dies on TERM", "touch started; exec sleep 60", 128 + SIGTERM},
        // The helper in the background holds the pipes open too: the whole group goes.
        {"a child that ignores TERM", "trap '' TERM; sleep 60 & touch started; wait", 128 + SIGKILL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        ProcessGitProcessRunner runner;
        GitProcessExecutionResult result;
        std::thread worker([&] { result = runner.run({"sh", "-c", c.script}, dir.path(), plainEnvironment()); });
        EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(dir.file("started")); }));
        runner.stopAll(std::chrono::milliseconds(300));
        worker.join();
        EXPECT_EQ(result.status, c.status);
        auto later = runner.run({"true"}, dir.path(), plainEnvironment());
        EXPECT_EQ(later.status, -1);
        EXPECT_EQ(later.stderr, std::strerror(ECANCELED));
    }
}

TEST(GitEnvironment, PromptsOffEnglishMessagesAndTheUsersCharacterSet) {
    using E = GitEnvironment;
    struct Case {
        const char* name;
        E given;
        E expected;  // the variables below as they must come out; "-" for absent
    };
    const Case cases[] = {
        {"prompts off", {{"GIT_TERMINAL_PROMPT", "1"}},
         {{"GIT_TERMINAL_PROMPT", "0"}, {"SSH_ASKPASS_REQUIRE", "never"}, {"LC_MESSAGES", "C"}}},
        {"the user's askpass choice kept", {{"SSH_ASKPASS_REQUIRE", "force"}}, {{"SSH_ASKPASS_REQUIRE", "force"}}},
        {"LANG keeps everything but messages", {{"LANG", "de_DE.UTF-8"}, {"LANGUAGE", "de:en"}},
         {{"LANG", "de_DE.UTF-8"}, {"LANGUAGE", "-"}, {"LC_MESSAGES", "C"}, {"LC_CTYPE", "-"}}},
        {"LC_ALL moves to every other category", {{"LC_ALL", "de_DE.UTF-8"}, {"LC_MESSAGES", "de_DE.UTF-8"}},
         {{"LC_ALL", "-"}, {"LC_CTYPE", "de_DE.UTF-8"}, {"LC_COLLATE", "de_DE.UTF-8"}, {"LC_MESSAGES", "C"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        E env = gitEnvironment(c.given);
        for (const auto& [key, value] : c.expected) {
            auto it = env.find(key);
            EXPECT_EQ(it == env.end() ? std::string("-") : it->second, value) << key;
        }
    }
}

TEST(GitCredentialBroker, WritesOneScriptThatAnswersFromTheEnvironment) {
    IsolatedHome home;
    GitCredentialBroker broker;
    const std::string dir = home.home() + "/tmp/velko-git-credentials";
    EXPECT_EQ(broker.tempDirectory(), dir);
    // Something in the way of the directory is replaced.
    std::filesystem::create_directories(home.home() + "/tmp");
    writeFileAtomically(dir, "not a directory");

    auto first = broker.prepareEnvironment("tok-1");
    ASSERT_TRUE(first.ok()) << first.error().text;
    auto second = broker.prepareEnvironment("tok-2");
    ASSERT_TRUE(second.ok());
    EXPECT_FALSE(std::filesystem::exists(first->at("GIT_ASKPASS")));
    const std::string script = second->at("GIT_ASKPASS");
    EXPECT_EQ(std::filesystem::path(script).parent_path(), dir);
    EXPECT_EQ(std::filesystem::path(script).filename().string().rfind("velko-askpass-", 0), 0u);
    EXPECT_EQ(*second, (GitEnvironment{{"GIT_ASKPASS", script}, {"GIT_ASKPASS_REQUIRE", "force"},
                                       {"VELKO_GITHUB_TOKEN", "tok-2"}}));

    struct stat info;
    ASSERT_EQ(stat(script.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(readFile(script).find("tok-2"), std::string::npos);

    struct Case {
        const char* prompt;
        std::optional<std::string> token;
        std::string answer;
    };
    const Case cases[] = {
        {"Username for 'https://github.com': ", "secret", "x-access-token\n"},
        {"Password for 'https://x-access-token@github.com': ", "secret", "secret\n"},
        {"anything else", "secret", "secret\n"},
        {"Password for 'https://github.com': ", std::nullopt, "\n"},
    };
    ProcessGitProcessRunner runner;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.prompt);
        GitEnvironment env = plainEnvironment();
        if (c.token) env["VELKO_GITHUB_TOKEN"] = *c.token;
        auto result = runner.run({script, c.prompt}, home.home(), env);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.stdout, c.answer);
    }

    broker.cleanup();
    EXPECT_FALSE(std::filesystem::exists(script));
    EXPECT_TRUE(std::filesystem::is_empty(dir));
    broker.cleanup();  // nothing left: still fine
}

TEST(GitCredentialBroker, TokenGoesOnlyIntoAPrivateFolderOfOurs) {
    struct Case {
        const char* name;
        // False when this machine cannot set the case up (chown needs root).
        std::function<bool(const std::string& dir, const std::string& elsewhere)> arrange;
        std::string refusal;  // in the log line; empty: the push runs
    };
    const Case cases[] = {
        {"missing", [](auto&, auto&) { return true; }, ""},
        {"ours with mode 0700", [](auto& dir, auto&) { return mkdir(dir.c_str(), 0700) == 0; }, ""},
        {"readable by the group",
         [](auto& dir, auto&) { return mkdir(dir.c_str(), 0700) == 0 && chmod(dir.c_str(), 0750) == 0; },
         "its mode is 0750, not 0700"},
        {"a link to a private folder elsewhere",
         [](auto& dir, auto& elsewhere) { return symlink(elsewhere.c_str(), dir.c_str()) == 0; },
         "it is a symbolic link"},
        {"owned by another user",
         [](auto& dir, auto&) { return geteuid() == 0 && mkdir(dir.c_str(), 0700) == 0 && chown(dir.c_str(), 65534, 65534) == 0; },
         "it belongs to user 65534"},
    };
    ScopedEnv verboseLog("G_MESSAGES_DEBUG", "all");
    g_log_writer_default_set_use_stderr(TRUE);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        IsolatedHome home;
        std::filesystem::create_directories(home.home() + "/tmp");
        const std::string dir = home.home() + "/tmp/velko-git-credentials";
        const std::string elsewhere = home.home() + "/elsewhere";
        std::filesystem::create_directories(elsewhere);
        std::filesystem::permissions(elsewhere, std::filesystem::perms::owner_all);
        if (!c.arrange(dir, elsewhere)) continue;
        ServiceRig rig;
        TempDir repo;
        repo.write(".git/config", "[remote \"origin\"]\n\turl = https://github.com/o/r.git\n");
        Uuid id = rig.projects->add(repo.path());
        rig.auth->token = GitAuthToken{"tok", std::nullopt, std::nullopt};
        auto runner = std::make_shared<FakeGitRunner>();
        rig.deps.credentialBroker = std::make_shared<GitCredentialBroker>();
        rig.deps.processRunner = runner;
        rig.deps.environment = GitEnvironment{};
        rig.start();
        std::string logPath = home.home() + "/velko.log";
        {
            CapturedStderr capture(logPath);
            rig.service->push(id);
            rig.settle();
        }
        auto results = rig.events->eventsOfType("git/result");
        ASSERT_EQ(results.size(), 1u);
        EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
        auto commands = runner->commands();
        bool pushed = std::find(commands.begin(), commands.end(), "push") != commands.end();
        if (c.refusal.empty()) {
            EXPECT_TRUE(pushed);
            EXPECT_EQ(results[0].payload["message"], "Push が完了しました");
            struct stat info;
            ASSERT_EQ(lstat(dir.c_str(), &info), 0);
            EXPECT_EQ(info.st_mode & 07777, 0700u);
            continue;
        }
        EXPECT_FALSE(pushed);
        EXPECT_EQ(results[0].payload["message"], "git push の起動に失敗: " + gitmsg::unsafeCredentialFolder(dir));
        EXPECT_NE(readFile(logPath).find("askpass script not written into " + dir + ": " + c.refusal),
                  std::string::npos)
            << readFile(logPath);
        // Refused folders are left as they were: nothing written into them.
        std::error_code ec;
        EXPECT_TRUE(std::filesystem::is_symlink(dir) || std::filesystem::is_empty(dir, ec));
    }
}
