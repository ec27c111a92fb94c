#pragma once
// The two platform facilities the bridge needs, kept free of toolkit types:
// the web view (script evaluation; its navigation callbacks call the bridge)
// and the folder picker. Both are used on the main thread only.

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace velko {

class WebViewHosting {
public:
    virtual ~WebViewHosting() = default;
    // Fire and forget: a failure inside the page is not seen.
    virtual void evaluateScript(const std::string& script) = 0;
};

class FolderPicking {
public:
    virtual ~FolderPicking() = default;
    // Shows the picker ("Open", multiple folders). The completion gets the chosen
    // absolute paths, or an empty list when the user cancelled.
    virtual void pickFolders(std::function<void(std::vector<std::string>)> completion) = 0;
};

// A picker that answers every request with the same folders, for scripted runs
// (`--pick-folder DIR`); relative folders are taken against the working
// directory at the time of the request.
std::shared_ptr<FolderPicking> makeFixedFolderPicker(std::vector<std::string> folders);

}  // namespace velko
