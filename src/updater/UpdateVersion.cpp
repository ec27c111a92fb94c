#include "updater/UpdateVersion.h"

#include <algorithm>
#include <cctype>

#ifndef VELKO_VERSION
#define VELKO_VERSION "0.0.0"
#endif

namespace velko {

namespace {

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    for (size_t at; (at = text.find(separator, start)) != std::string_view::npos; start = at + 1)
        parts.push_back(text.substr(start, at - start));
    parts.push_back(text.substr(start));
    return parts;
}

bool allDigits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

}  // namespace

std::optional<Version> parseVersion(std::string_view text) {
    text = trim(text);
    if (!text.empty() && (text.front() == 'v' || text.front() == 'V')) text.remove_prefix(1);
    text = text.substr(0, text.find('+'));
    size_t hyphen = text.find('-');
    Version version;
    for (auto part : split(text.substr(0, hyphen), '.')) {
        // Eighteen digits always fit; longer numbers are no version we publish.
        if (!allDigits(part) || part.size() > 18) return std::nullopt;
        version.release.push_back(std::stoull(std::string(part)));
    }
    if (hyphen != std::string_view::npos) {
        for (auto part : split(text.substr(hyphen + 1), '.')) {
            if (part.empty() || !std::all_of(part.begin(), part.end(), [](char c) {
                    return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
                }))
                return std::nullopt;
            version.preRelease.emplace_back(part);
        }
    }
    return version;
}

int compareVersions(const Version& a, const Version& b) {
    size_t parts = std::max(a.release.size(), b.release.size());
    for (size_t i = 0; i < parts; ++i) {
        uint64_t x = i < a.release.size() ? a.release[i] : 0;
        uint64_t y = i < b.release.size() ? b.release[i] : 0;
        if (x != y) return x < y ? -1 : 1;
    }
    if (a.isPreRelease() != b.isPreRelease()) return a.isPreRelease() ? -1 : 1;
    for (size_t i = 0; i < std::min(a.preRelease.size(), b.preRelease.size()); ++i) {
        const auto &x = a.preRelease[i], &y = b.preRelease[i];
        bool xNumber = allDigits(x) && x.size() <= 18, yNumber = allDigits(y) && y.size() <= 18;
        if (xNumber && yNumber) {
            auto nx = std::stoull(x), ny = std::stoull(y);
            if (nx != ny) return nx < ny ? -1 : 1;
        } else if (xNumber != yNumber) {
            return xNumber ? -1 : 1;  // numbers sort before words
        } else if (int order = x.compare(y); order != 0) {
            return order < 0 ? -1 : 1;
        }
    }
    if (a.preRelease.size() != b.preRelease.size()) return a.preRelease.size() < b.preRelease.size() ? -1 : 1;
    return 0;
}

std::string_view velkoVersion() { return VELKO_VERSION; }

}  // namespace velko
