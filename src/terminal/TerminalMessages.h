#pragma once
// Every Japanese text the terminal subsystem shows the user, in one place, so
// the wording can be reviewed and kept consistent without hunting through
// the code.
#include <string_view>

namespace velko::terminal_messages {

// Printed into a session's view when terminals are switched off; the
// session's title (or its id) follows.
inline constexpr std::string_view kUnavailableLead = "[velko] Terminal2 準備中: ";

}  // namespace velko::terminal_messages
