#pragma once
// Where the web view may go. The bridge belongs to our own page only, so the
// view's frames load nothing but the page (app://bundle/…) and the empty
// documents frames start with; an http or https link the user followed opens
// in the default browser instead; every other navigation is ignored. The same
// holds for requests to open a new window, except that nothing ever loads in
// one.
//
// Pure functions; any thread.

#include <string_view>

namespace velko {

enum class NavigationDecision { LoadInView, OpenInBrowser, Ignore };
enum class NavigationTarget { View, NewWindow };
enum class UserGesture { Absent, Present };

NavigationDecision decideNavigation(std::string_view uri, NavigationTarget target, UserGesture gesture);

// True for our own page's URLs: scheme "app", host "bundle", no user, no port.
bool isOwnPageURI(std::string_view uri);

}  // namespace velko
