#pragma once
// Small text helpers shared by the git output parsers. ASCII rules only: git's
// own words are ASCII, and names pass through untouched. Pure functions.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velko {

std::string toLower(std::string_view text);
// Trims blanks, tabs, carriage returns and line feeds (and the other ASCII spaces).
std::string_view trimWhitespace(std::string_view text);
// Trims blanks and tabs only.
std::string_view trimBlanks(std::string_view text);
// Splits at line feeds; with `keepEmpty` false, empty lines are left out.
std::vector<std::string_view> splitLines(std::string_view text, bool keepEmpty);
// Splits at runs of blanks, tabs and line ends; no empty pieces.
std::vector<std::string_view> splitOnBlanks(std::string_view text);
// The whole text as a decimal integer, else 0.
int64_t decimalOrZero(std::string_view text);

}  // namespace velko
