#include "git/GitText.h"

#include <charconv>

namespace velko {

std::string toLower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string_view trimWhitespace(std::string_view text) {
    constexpr std::string_view kSpace = " \t\n\r\v\f";
    size_t start = text.find_first_not_of(kSpace);
    if (start == std::string_view::npos) return {};
    size_t end = text.find_last_not_of(kSpace);
    return text.substr(start, end - start + 1);
}

std::string_view trimBlanks(std::string_view text) {
    constexpr std::string_view kBlank = " \t";
    size_t start = text.find_first_not_of(kBlank);
    if (start == std::string_view::npos) return {};
    size_t end = text.find_last_not_of(kBlank);
    return text.substr(start, end - start + 1);
}

std::vector<std::string_view> splitLines(std::string_view text, bool keepEmpty) {
    std::vector<std::string_view> lines;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(start, end - start);
        if (keepEmpty || !line.empty()) lines.push_back(line);
        if (end == text.size()) break;
        start = end + 1;
    }
    return lines;
}

std::vector<std::string_view> splitOnBlanks(std::string_view text) {
    constexpr std::string_view kBlank = " \t\n\r";
    std::vector<std::string_view> pieces;
    size_t i = text.find_first_not_of(kBlank);
    while (i != std::string_view::npos) {
        size_t end = text.find_first_of(kBlank, i);
        if (end == std::string_view::npos) end = text.size();
        pieces.push_back(text.substr(i, end - i));
        i = text.find_first_not_of(kBlank, end);
    }
    return pieces;
}

int64_t decimalOrZero(std::string_view text) {
    int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() ? value : 0;
}

}  // namespace velko
