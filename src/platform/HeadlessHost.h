#pragma once
// The headless host: the whole program without a window. One JSON message per
// line on standard input goes to the bridge as the page's channel would hand
// it; every outbound event leaves as one envelope per line on standard output.
// Diagnostics go to standard error. At end of input it finishes work in flight,
// ends the terminal sessions and returns 0.

#include <optional>
#include <string>
#include <vector>

namespace velko {

struct HeadlessOptions {
    std::vector<std::string> pickFolders;  // answers every "project/open"; empty = cancelled
    // A GitHub token for this run instead of the keyring (tests, scripts).
    std::optional<std::string> gitHubTokenFile;
};

// Parses "--headless", "--pick-folder DIR" (repeatable) and
// "--github-token-file FILE". False with a message in `error` for anything else.
bool parseHeadlessArguments(const std::vector<std::string>& args, HeadlessOptions& options, std::string& error);

// Runs until the end of input. 2, with a message on standard error, when the
// token file cannot be used (not owner-only, unreadable, empty).
int runHeadless(const HeadlessOptions& options);

}  // namespace velko
