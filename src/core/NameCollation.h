#pragma once
// The order in which the program lists names to the user (the explorer, the
// git change tree): case-insensitive, by the user's collation. Compare keys
// with plain `<`. Thread-safe.

#include <string>
#include <string_view>

namespace velko {

// Names that are not UTF-8 (possible on Linux) get their ASCII-lowered bytes.
std::string caseInsensitiveSortKey(std::string_view name);

}  // namespace velko
