// What the user typed and what programs printed is kept in files only the
// user can read: the terminal log, the debug dumps and the page's log, each
// in a folder of mode 0700, whether velko creates them or finds them looser.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "core/Paths.h"
#include "shell/WebViewLogger.h"
#include "support/TestSupport.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalLogger.h"

using namespace velko;

namespace {

unsigned modeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<unsigned>(info.st_mode & 07777) : 0xFFFF;
}

}  // namespace

TEST(TerminalPrivateFiles, AreTheUsersAloneWhetherNewOrFoundLooser) {
    const Uuid session = Uuid::random();
    struct Case {
        std::string name;
        std::string folder;  // relative to the cache directory
        std::string file;
        std::function<void()> write;
    } cases[] = {
        {"terminal log", "", "velko-terminal.log",
         [&] {
             auto logger = TerminalLogger::create();
             logger->record({session, TerminalLogEvent::Event::Input, std::string("secret\r"), {}, {}});
             logger->drainForTesting();
         }},
        {"debug dump", "/terminal-dumps", session.toString() + ".jsonl",
         [&] {
             auto store = TerminalDebugDumpStore::create();
             ASSERT_TRUE(store->prepareForWriting());
             store->record(session, "secret\r\r\n", "secret\r\n");
             store->drainForTesting();
         }},
        {"page log", "", "velko-webview.log", [] { appendWebViewLogLine(webViewLogPath(), "[web] [info] secret"); }},
    };
    for (bool foundLooser : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name + (foundLooser ? ", found looser" : ", new"));
            test::IsolatedHome home;
            const std::string folder = home.cacheDir() + c.folder, file = folder + "/" + c.file;
            if (foundLooser) {
                ASSERT_TRUE(createDirectories(folder));
                ASSERT_EQ(::chmod(folder.c_str(), 0777), 0);
                std::ofstream(file) << "";
                ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
            }
            c.write();
            EXPECT_EQ(modeOf(folder), 0700u);
            EXPECT_EQ(modeOf(file), 0600u);
            EXPECT_FALSE(test::readFile(file).empty()) << "nothing was written";
        }
    }
}
