#include "core/Environment.h"

#include <cstdlib>
#include <cstring>

extern char** environ;

namespace velko {

std::optional<std::string> environmentValue(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::string(value);
}

std::map<std::string, std::string> processEnvironment() {
    std::map<std::string, std::string> env;
    for (char** entry = environ; entry && *entry; ++entry) {
        const char* eq = std::strchr(*entry, '=');
        if (!eq) continue;
        env.emplace(std::string(*entry, static_cast<size_t>(eq - *entry)), std::string(eq + 1));
    }
    return env;
}

}  // namespace velko
