#pragma once
// The process environment, read in one place. Values are read each time (tests
// point HOME and the XDG variables at temporary folders between cases).

#include <map>
#include <optional>
#include <string>

namespace velko {

// The variable's value; nothing when it is unset or empty (an empty value
// means "not configured" everywhere velko reads one).
std::optional<std::string> environmentValue(const char* name);

// Every variable of the process, by name (a child's starting environment).
std::map<std::string, std::string> processEnvironment();

}  // namespace velko
