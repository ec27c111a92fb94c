#pragma once
// The "app" URL scheme of the web context: the page's files answered from the
// resources (secure and CORS-enabled, so module scripts and fetch() work).
// The scheme is registered once per web context; the handler set last answers.
//
// Main thread only.

#include <memory>

namespace velko {

class AppBundleSchemeHandler;

void registerAppScheme();
// The page's folder to answer from; null answers every request with 404.
void setAppSchemeHandler(std::shared_ptr<AppBundleSchemeHandler> handler);

}  // namespace velko
