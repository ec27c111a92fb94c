// velko's entry: the desktop window, or the headless stdio host.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "github/GitHubOAuthEnvironment.h"
#include "platform/HeadlessHost.h"

#ifdef VELKO_HAS_GUI
#include "platform/gtk/DesktopHost.h"
#endif

int main(int argc, char** argv) {
    // A closed pipe (a terminal master, a git pipe, stdout of the headless host)
    // must fail a write, not end the program.
    std::signal(SIGPIPE, SIG_IGN);
    // Before any thread starts: the OAuth client secret stays with velko and
    // no shell, git or browser it starts inherits it.
    velko::GitHubOAuthEnvironment::withholdSecretsFromChildren();

    std::vector<std::string> args(argv + 1, argv + argc);
    bool headless = false;
    for (const auto& arg : args)
        if (arg == "--headless") headless = true;

    if (headless) {
        velko::HeadlessOptions options;
        std::string error;
        if (!velko::parseHeadlessArguments(args, options, error)) {
            std::fprintf(stderr, "velko: %s\n", error.c_str());
            return 2;
        }
        return velko::runHeadless(options);
    }
#ifdef VELKO_HAS_GUI
    return velko::runDesktop(argc, argv);
#else
    std::fprintf(stderr, "velko: built without the desktop host; use --headless\n");
    return 2;
#endif
}
