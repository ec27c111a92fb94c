#include "shell/AppBundleSchemeHandler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace velko {

const char* const kFallbackPageHtml =
    "<html>\n"
    "  <head><meta charset=\"utf-8\"><title>velko</title></head>\n"
    "  <body style=\"background:#05060A;color:#fff;font-family:-apple-system\">\n"
    "    <h2 style=\"padding:24px\">Vite ビルド成果物が見つかりませんでした。</h2>\n"
    "    <p style=\"padding:24px\">`web` ディレクトリで `pnpm build` を実行し、成果物を Resources/web "
    "に配置してください。</p>\n"
    "  </body>\n"
    "</html>";

const char* const kUnreadablePageText = "Failed to read index.html";
const char* const kAppBundleBaseURI = "app://bundle/";

namespace {

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    std::string out;
    out.reserve(text.size());
    size_t start = 0;
    for (size_t at; (at = text.find(from, start)) != std::string::npos; start = at + from.size()) {
        out.append(text, start, at - start);
        out.append(to);
    }
    out.append(text, start, std::string::npos);
    text.swap(out);
}

bool isRegularFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The percent-encoded path of "scheme://authority/path?query#fragment".
std::optional<std::string_view> uriPath(std::string_view uri) {
    size_t schemeEnd = uri.find("://");
    if (schemeEnd == std::string_view::npos || schemeEnd == 0) return std::nullopt;
    std::string_view rest = uri.substr(schemeEnd + 3);
    size_t pathStart = rest.find_first_of("/?#");
    if (pathStart == std::string_view::npos) return std::string_view{};
    rest = rest.substr(pathStart);
    size_t pathEnd = rest.find_first_of("?#");
    return rest.substr(0, pathEnd);
}

std::string_view trimSlashes(std::string_view text) {
    while (!text.empty() && text.front() == '/') text.remove_prefix(1);
    while (!text.empty() && text.back() == '/') text.remove_suffix(1);
    return text;
}

bool readFile(const std::string& path, std::string& out, std::string& error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    out.clear();
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = std::strerror(errno);
            ::close(fd);
            return false;
        }
        if (n == 0) break;
        out.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return true;
}

}  // namespace

std::string rewritePageHtml(std::string html) {
    // The long prefixes go first so "./assets/x.js" becomes "app://bundle/x.js";
    // the resolver's last-component fallback keeps the other order working too.
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kPairs = {{
        {"src=\"./assets/", "src=\"app://bundle/"},
        {"href=\"./assets/", "href=\"app://bundle/"},
        {"src=\"./", "src=\"app://bundle/"},
        {"href=\"./", "href=\"app://bundle/"},
    }};
    for (const auto& [from, to] : kPairs) replaceAll(html, from, to);
    return html;
}

std::string mimeTypeForPath(std::string_view path) {
    size_t slash = path.rfind('/');
    std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos) return "application/octet-stream";
    std::string ext(name.substr(dot + 1));
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 10> kTypes = {{
        {"html", "text/html"},
        {"js", "application/javascript"},
        {"css", "text/css"},
        {"svg", "image/svg+xml"},
        {"json", "application/json"},
        {"png", "image/png"},
        {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},
        {"woff", "font/woff"},
        {"woff2", "font/woff2"},
    }};
    for (const auto& [extension, type] : kTypes)
        if (ext == extension) return std::string(type);
    return "application/octet-stream";
}

std::optional<std::string> textEncodingForMimeType(std::string_view mimeType) {
    if (mimeType.substr(0, 4) == "text") return std::string("utf-8");
    return std::nullopt;
}

std::string SchemeResponse::contentType() const {
    if (textEncoding) return mimeType + "; charset=" + *textEncoding;
    return mimeType;
}

AppBundleSchemeHandler::AppBundleSchemeHandler(std::string baseDirectory)
    : m_base(standardizePath(baseDirectory, {})) {}

std::optional<std::string> AppBundleSchemeHandler::candidateInside(std::string_view relative) const {
    std::string candidate = standardizePath(m_base + "/" + std::string(relative), {});
    // A component-wise prefix: "/res/web-private" is not inside "/res/web".
    std::string prefix = m_base == "/" ? "/" : m_base + "/";
    if (candidate.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    return candidate;
}

std::optional<std::string> AppBundleSchemeHandler::resolvedFilePath(std::string_view uri) const {
    auto path = uriPath(uri);
    if (!path) return std::nullopt;
    // Deliberately not percent-decoded: names are looked up as the page wrote them.
    std::string_view relative = trimSlashes(*path);
    if (relative.empty()) relative = "index.html";

    if (auto candidate = candidateInside(relative); candidate && isRegularFile(*candidate)) return candidate;

    size_t slash = relative.rfind('/');
    std::string_view last = slash == std::string_view::npos ? relative : relative.substr(slash + 1);
    return candidateInside(last);
}

SchemeResponse AppBundleSchemeHandler::respond(std::string_view uri) const {
    SchemeResponse response;
    if (uri.empty()) {
        response.kind = SchemeResponse::Kind::BadRequest;
        response.status = 400;
        response.error = "bad URL";
        return response;
    }
    auto path = resolvedFilePath(uri);
    if (path && isRegularFile(*path)) {
        std::string error;
        if (!readFile(*path, response.body, error)) {
            response.kind = SchemeResponse::Kind::ReadFailed;
            response.status = 500;
            response.body.clear();
            response.error = error;
            return response;
        }
        response.kind = SchemeResponse::Kind::File;
        response.status = 200;
        response.mimeType = mimeTypeForPath(*path);
        response.textEncoding = textEncodingForMimeType(response.mimeType);
        return response;
    }
    response.kind = SchemeResponse::Kind::NotFound;
    response.status = 404;
    response.mimeType = "text/plain";
    response.textEncoding = "utf-8";
    response.body = "Not found";
    return response;
}

std::optional<std::string> locateResourceDirectory(const std::string& executablePath) {
    size_t slash = executablePath.rfind('/');
    if (slash == std::string::npos) return std::nullopt;
    std::string folder = executablePath.substr(0, slash);
    if (folder.empty()) folder = "/";
    for (const std::string& candidate : {folder + "/resources", folder + "/../share/velko"}) {
        if (isDirectory(candidate)) return standardizePath(candidate, {});
    }
    return std::nullopt;
}

std::optional<std::string> locatePageFile(const std::string& resourceDirectory) {
    for (const std::string& candidate : {resourceDirectory + "/web/index.html", resourceDirectory + "/index.html"}) {
        if (isRegularFile(candidate)) return candidate;
    }
    return std::nullopt;
}

}  // namespace velko
