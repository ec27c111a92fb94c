#include "preview/PreviewTabsState.h"

namespace velko {

namespace {

const char* viewModeText(PreviewTabViewMode mode) {
    switch (mode) {
        case PreviewTabViewMode::Markdown: return "markdown";
        case PreviewTabViewMode::Rendered: return "rendered";
        case PreviewTabViewMode::Source: return "source";
    }
    return "source";
}

std::optional<PreviewTabViewMode> viewModeFromText(const std::string& text) {
    if (text == "markdown") return PreviewTabViewMode::Markdown;
    if (text == "rendered") return PreviewTabViewMode::Rendered;
    if (text == "source") return PreviewTabViewMode::Source;
    return std::nullopt;
}

std::optional<PreviewTabSnapshot> decodeTab(const Json& value) {
    if (!value.is_object()) return std::nullopt;
    auto id = json::string(&value, "id");
    auto path = json::string(&value, "path");
    auto title = json::string(&value, "title");
    auto isDirty = json::boolean(&value, "isDirty");
    auto viewModeName = json::string(&value, "viewMode");
    auto lastOpenedAt = json::integer(&value, "lastOpenedAt");
    if (!id || !path || !title || !isDirty || !viewModeName || !lastOpenedAt) return std::nullopt;
    auto viewMode = viewModeFromText(*viewModeName);
    if (!viewMode) return std::nullopt;
    return PreviewTabSnapshot{std::move(*id), std::move(*path), std::move(*title), *isDirty, *viewMode, *lastOpenedAt};
}

}  // namespace

OrderedJson encodePreviewTabsState(const PreviewTabsState& state) {
    OrderedJson out;
    if (state.activeTabId) out["activeTabId"] = *state.activeTabId;
    OrderedJson tabs = OrderedJson::array();
    for (const auto& tab : state.tabs) {
        tabs.push_back(OrderedJson{{"id", tab.id},
                                   {"path", tab.path},
                                   {"title", tab.title},
                                   {"isDirty", tab.isDirty},
                                   {"viewMode", viewModeText(tab.viewMode)},
                                   {"lastOpenedAt", tab.lastOpenedAt}});
    }
    out["tabs"] = std::move(tabs);
    out["version"] = state.version;
    return out;
}

std::optional<PreviewTabsState> decodePreviewTabsState(const Json& value) {
    if (!value.is_object()) return std::nullopt;
    PreviewTabsState state;
    // An absent active tab may also be written as null.
    if (const Json* active = json::member(&value, "activeTabId"); active && !active->is_null()) {
        if (!active->is_string()) return std::nullopt;
        state.activeTabId = active->get<std::string>();
    }
    const Json* tabs = json::array(&value, "tabs");
    auto version = json::integer(&value, "version");
    if (!tabs || !version) return std::nullopt;
    state.version = *version;
    state.tabs.reserve(tabs->size());
    for (const auto& item : *tabs) {
        auto tab = decodeTab(item);
        if (!tab) return std::nullopt;
        state.tabs.push_back(std::move(*tab));
    }
    return state;
}

OrderedJson encodePreviewTabWarning(const PreviewTabWarning& warning) {
    return OrderedJson{
        {"tabId", warning.tabId}, {"path", warning.path}, {"code", warning.code}, {"message", warning.message}};
}

}  // namespace velko
