#pragma once
// The headless host: the whole program without a window. One JSON message per
// line on standard input goes to the bridge as the page's channel would hand
// it; every outbound event leaves as one envelope per line on standard output.
// Diagnostics go to standard error. At end of input it finishes work in flight,
// ends the terminal sessions and returns 0.

#include <string>
#include <vector>

namespace velko {

struct HeadlessOptions {
    std::vector<std::string> pickFolders;  // answers every "project/open"; empty = cancelled
};

// Parses "--headless" and "--pick-folder DIR" (repeatable). False with a message
// in `error` for anything else.
bool parseHeadlessArguments(const std::vector<std::string>& args, HeadlessOptions& options, std::string& error);

int runHeadless(const HeadlessOptions& options);

}  // namespace velko
