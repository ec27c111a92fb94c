#pragma once
// AppBundleSchemeHandler: serves the page's files for "app://bundle/..." out of
// one folder (the folder of index.html), without any toolkit type. The web
// view host turns each request URI into a call of respond() and hands the
// answer to the engine.
//
// Requests never leave the folder: the path is resolved lexically and must
// stay under it component by component; a path that does not resolve is tried
// once more by its last component (a page built with "./assets/x.js" still
// finds "x.js"). Missing files answer 404 "Not found"; a file that exists but
// cannot be read answers a read error, never a partial body.
//
// Main thread only (the files are small local resources). Owned by the web
// view host for as long as the view lives.

#include <optional>
#include <string>
#include <string_view>

#include "core/PathText.h"
#include <utility>
#include <vector>

namespace velko {

// The page shown when no built page exists among the resources.
extern const char* const kFallbackPageHtml;
// Shown when index.html exists but cannot be read.
extern const char* const kUnreadablePageText;
// Where the rewritten page is loaded from, so its relative references resolve.
extern const char* const kAppBundleBaseURI;

// Points the page's relative references ("./assets/", "./") at the app scheme.
std::string rewritePageHtml(std::string html);

// The MIME type for a file name by its extension (case-insensitive).
std::string mimeTypeForPath(std::string_view path);
// "utf-8" for text types, nothing for the rest.
std::optional<std::string> textEncodingForMimeType(std::string_view mimeType);

struct SchemeResponse {
    enum class Kind { File, NotFound, ReadFailed, BadRequest };
    Kind kind = Kind::NotFound;
    int status = 404;
    std::string mimeType;                     // the Content-Type without parameters
    std::optional<std::string> textEncoding;  // "utf-8" for text/*
    std::string body;
    std::string error;  // ReadFailed / BadRequest: what went wrong
    // The full Content-Type header value ("text/css; charset=utf-8").
    std::string contentType() const;
};

class AppBundleSchemeHandler {
public:
    // `baseDirectory`: an absolute path to the page's folder.
    explicit AppBundleSchemeHandler(std::string baseDirectory);

    // The file a request URI names, or nullopt when it names none inside the folder.
    std::optional<std::string> resolvedFilePath(std::string_view uri) const;
    SchemeResponse respond(std::string_view uri) const;

    const std::string& baseDirectory() const { return m_base; }

private:
    std::optional<std::string> candidateInside(std::string_view relative) const;
    std::string m_base;  // standardised
};

// The program's resource folder: "resources" beside the executable (build
// tree), else "../share/velko" from the executable's folder (installed).
// nullopt when neither exists.
std::optional<std::string> locateResourceDirectory(const std::string& executablePath);
// The page inside the resources: "web/index.html", else "index.html".
std::optional<std::string> locatePageFile(const std::string& resourceDirectory);

}  // namespace velko
