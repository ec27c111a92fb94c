#include "platform/http/CurlHttpClient.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <mutex>

#include "core/Log.h"

namespace velko {
namespace {

bool initialiseCurl() {
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] {
        ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
        if (!ready) Logger("app.velko.http", "client").error("libcurl could not be initialised");
    });
    return ready;
}

HttpError error(HttpError::Kind kind, std::string detail) { return {kind, std::move(detail)}; }

struct UrlFree {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct EasyFree {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

std::string urlPart(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK || !text) return {};
    std::string value(text);
    curl_free(text);
    return value;
}

// What the URL says about where the request goes; the parsed form is what
// curl is given, so the check and the connection cannot disagree.
struct Destination {
    std::unique_ptr<CURLU, UrlFree> url;
    std::string scheme;
    std::string where;  // host[:port], for error details
    bool loopback = false;
};

Result<Destination, HttpError> checkUrl(const std::string& text) {
    Destination d;
    d.url.reset(curl_url());
    if (!d.url || curl_url_set(d.url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK)
        return fail(error(HttpError::Kind::UrlRefused, "not an absolute URL"));
    d.scheme = urlPart(d.url.get(), CURLUPART_SCHEME);
    std::string host = urlPart(d.url.get(), CURLUPART_HOST);
    std::string port = urlPart(d.url.get(), CURLUPART_PORT);
    d.where = port.empty() ? host : host + ":" + port;
    if (d.scheme != "https" && d.scheme != "http")
        return fail(error(HttpError::Kind::UrlRefused, "scheme not allowed"));
    if (host.empty()) return fail(error(HttpError::Kind::UrlRefused, "URL without a host"));
    // Credentials in a URL end up in logs and histories; tokens go in headers.
    if (!urlPart(d.url.get(), CURLUPART_USER).empty() || !urlPart(d.url.get(), CURLUPART_PASSWORD).empty())
        return fail(error(HttpError::Kind::UrlRefused, "URL with user information (" + d.where + ")"));
    d.loopback = host == "127.0.0.1" || host == "[::1]";
    if (d.scheme == "http" && !d.loopback)
        return fail(error(HttpError::Kind::UrlRefused, "plain http to a host other than loopback (" + d.where + ")"));
    return d;
}

bool sendable(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

std::string trim(std::string_view text) {
    size_t begin = 0, end = text.size();
    while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t' || text[end - 1] == '\r' ||
                           text[end - 1] == '\n'))
        --end;
    return std::string(text.substr(begin, end - begin));
}

struct Transfer {
    const std::atomic<bool>* cancelled = nullptr;
    size_t maxBytes = 0;
    bool tooLarge = false;
    HttpResponse response;
};

size_t onBody(char* data, size_t size, size_t count, void* context) {
    auto* t = static_cast<Transfer*>(context);
    size_t n = size * count;
    if (t->cancelled->load(std::memory_order_relaxed)) return 0;
    if (n > t->maxBytes - std::min(t->maxBytes, t->response.body.size())) {
        t->tooLarge = true;
        return 0;
    }
    t->response.body.append(data, n);
    return n;
}

size_t onHeader(char* data, size_t size, size_t count, void* context) {
    auto* t = static_cast<Transfer*>(context);
    size_t n = size * count;
    std::string_view line(data, n);
    auto& headers = t->response.headers;
    if (line.substr(0, 5) == "HTTP/") {
        // A new response begins (after a 1xx); only the final one's headers count.
        headers.clear();
    } else if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) {
        if (!headers.empty()) headers.back().value += " " + trim(line);
    } else if (size_t colon = line.find(':'); colon != std::string_view::npos && colon > 0) {
        std::string name(line.substr(0, colon));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        headers.push_back({std::move(name), trim(line.substr(colon + 1))});
    }
    return n;
}

int onProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<Transfer*>(context)->cancelled->load(std::memory_order_relaxed) ? 1 : 0;
}

long wholeSeconds(std::chrono::milliseconds duration) {
    return std::max<long>(1, static_cast<long>((duration.count() + 999) / 1000));
}

HttpError classify(CURLcode code, CURL* easy, const Transfer& t, const HttpRequest& request,
                   const std::string& where) {
    std::string reason = curl_easy_strerror(code);
    std::string at = " (" + where + ")";
    if (t.cancelled->load()) return error(HttpError::Kind::Cancelled, "cancelled" + at);
    if (t.tooLarge || code == CURLE_FILESIZE_EXCEEDED)
        return error(HttpError::Kind::TooLarge, "response over " + std::to_string(t.maxBytes) + " bytes" + at);
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT: {
            curl_off_t connected = 0, elapsed = 0;
            curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connected);
            curl_easy_getinfo(easy, CURLINFO_TOTAL_TIME_T, &elapsed);
            std::string what;
            if (connected == 0)
                what = "no connection within " + std::to_string(request.connectTimeout.count()) + " ms";
            else if (elapsed / 1000 >= request.totalTimeout.count())
                what = "not finished within " + std::to_string(request.totalTimeout.count()) + " ms";
            else
                what = "no data for " + std::to_string(wholeSeconds(request.idleTimeout)) + " s";
            return error(HttpError::Kind::TimedOut, what + at);
        }
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_CONNECT:
            return error(HttpError::Kind::CannotConnect, reason + at);
        case CURLE_PEER_FAILED_VERIFICATION: {
            long verify = 0;
            curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verify);
            return error(HttpError::Kind::Tls, reason + " (verify result " + std::to_string(verify) + ")" + at);
        }
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
            return error(HttpError::Kind::Tls, reason + at);
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
            return error(HttpError::Kind::UrlRefused, reason + at);
        default:
            return error(HttpError::Kind::Transport, reason + at);
    }
}

}  // namespace

CurlHttpClient::CurlHttpClient() { initialiseCurl(); }

void CurlHttpClient::cancelAll() { m_cancelled.store(true); }

HttpResult CurlHttpClient::perform(const HttpRequest& request) {
    auto destination = checkUrl(request.url);
    if (!destination) return fail(destination.error());
    Destination& d = destination.value();
    const std::string at = " (" + d.where + ")";
    if (m_cancelled.load()) return fail(error(HttpError::Kind::Cancelled, "client shut down" + at));
    if (!initialiseCurl()) return fail(error(HttpError::Kind::Transport, "libcurl unavailable"));

    std::unique_ptr<curl_slist, ListFree> headerList;
    bool hasUserAgent = false;
    for (const auto& h : request.headers) {
        if (h.name.empty() || h.name.find(':') != std::string::npos || !sendable(h.name) || !sendable(h.value))
            return fail(error(HttpError::Kind::InvalidRequest, "header that cannot be sent" + at));
        std::string lower = h.name;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        hasUserAgent = hasUserAgent || lower == "user-agent";
        // "Name:" alone would tell curl to drop the header; "Name;" sends it empty.
        std::string line = h.value.empty() ? h.name + ";" : h.name + ": " + h.value;
        curl_slist* next = curl_slist_append(headerList.get(), line.c_str());
        if (!next) return fail(error(HttpError::Kind::Transport, "out of memory" + at));
        headerList.release();
        headerList.reset(next);
    }
    // A body waits for no "100 Continue": it would cost a round trip or a second.
    if (curl_slist* next = curl_slist_append(headerList.get(), "Expect:")) {
        headerList.release();
        headerList.reset(next);
    }

    std::unique_ptr<CURL, EasyFree> handle(curl_easy_init());
    if (!handle) return fail(error(HttpError::Kind::Transport, "libcurl handle unavailable" + at));
    CURL* easy = handle.get();
    Transfer t;
    t.cancelled = &m_cancelled;
    t.maxBytes = request.maxResponseBytes;

    const char* protocols = d.loopback ? "https,http" : "https";
    curl_easy_setopt(easy, CURLOPT_CURLU, d.url.get());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, protocols);
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, protocols);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    // The loopback is never reached through a proxy from the environment.
    if (d.loopback) curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectTimeout.count()));
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(request.totalTimeout.count()));
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, wholeSeconds(request.idleTimeout));
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request.maxResponseBytes));
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    if (!hasUserAgent) curl_easy_setopt(easy, CURLOPT_USERAGENT, "velko/" VELKO_VERSION);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList.get());
    if (request.method == HttpMethod::Post) {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
    } else {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    }
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &t);

    CURLcode code = curl_easy_perform(easy);
    if (code != CURLE_OK) return fail(classify(code, easy, t, request, d.where));
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    t.response.status = static_cast<int>(status);
    return std::move(t.response);
}

}  // namespace velko
