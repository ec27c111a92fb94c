#pragma once
// Hands a URL to the user's default application for its scheme (for http and
// https, their browser) without waiting for it to start. A failure is logged;
// there is nobody to tell.
//
// Main thread (the launch completes on the GLib main context).

#include <string>

namespace velko {

void openInDefaultBrowser(const std::string& uri);

}  // namespace velko
