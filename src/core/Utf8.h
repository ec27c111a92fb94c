#pragma once
// UTF-8 validation shared by everything that must tell text from bytes
// (file contents, git output, PTY names).

#include <string_view>

namespace velko {

// True when `bytes` is well-formed UTF-8: no overlongs, no surrogates, nothing
// above U+10FFFF, no truncated sequence at the end.
bool isValidUtf8(std::string_view bytes);

}  // namespace velko
