#pragma once
// The preview tabs of one project as the page hands them over and gets them
// back: plain records with their strict JSON form. The page owns the tab
// logic; velko stores the state, checks it and has no opinion on its content.
//
// Decoding is strict: a missing key, a value of the wrong type or an unknown
// view mode rejects the whole state. Keys the records do not know are
// ignored. Encoding writes the keys in field order and leaves out an absent
// active tab.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Json.h"

namespace velko {

enum class PreviewTabViewMode { Markdown, Rendered, Source };

struct PreviewTabSnapshot {
    std::string id;  // chosen by the page
    std::string path;  // relative to the project's folder
    std::string title;
    bool isDirty = false;
    PreviewTabViewMode viewMode = PreviewTabViewMode::Source;
    int64_t lastOpenedAt = 0;  // as the page sent it

    friend bool operator==(const PreviewTabSnapshot&, const PreviewTabSnapshot&) = default;
};

struct PreviewTabsState {
    static constexpr int64_t kVersion = 1;

    std::optional<std::string> activeTabId;
    std::vector<PreviewTabSnapshot> tabs;  // in the page's order
    int64_t version = kVersion;

    friend bool operator==(const PreviewTabsState&, const PreviewTabsState&) = default;
};

struct PreviewTabWarning {
    std::string tabId;
    std::string path;
    std::string code;     // "file_missing"
    std::string message;  // for the user
};

OrderedJson encodePreviewTabsState(const PreviewTabsState& state);
std::optional<PreviewTabsState> decodePreviewTabsState(const Json& value);

OrderedJson encodePreviewTabWarning(const PreviewTabWarning& warning);

}  // namespace velko
