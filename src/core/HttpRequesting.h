#pragma once
// One HTTP exchange, blocking on the caller's thread: the road by which the
// GitHub clients, the languages provider and the update check reach the
// network. The production implementation is libcurl (platform/http); tests of
// the clients above it implement this with a fake.
//
// A redirect is never followed: a 3xx comes back as a response, so a token in
// a header never travels to another host. Only https is spoken, and plain http
// only to the loopback addresses 127.0.0.1 and [::1].

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "core/Result.h"

namespace velko {

enum class HttpMethod { Get, Post };

struct HttpHeader {
    std::string name;
    std::string value;
};

struct HttpRequest {
    HttpMethod method = HttpMethod::Get;
    std::string url;
    std::vector<HttpHeader> headers = {};  // sent as given; no CR, LF or NUL
    std::string body = {};                 // Post only
    // Time to establish the connection (TLS included).
    std::chrono::milliseconds connectTimeout{10'000};
    // No byte received for this long ends the transfer. Counted in whole
    // seconds (rounded up, at least one).
    std::chrono::milliseconds idleTimeout{10'000};
    // The whole exchange, connection included.
    std::chrono::milliseconds totalTimeout{30'000};
    // The body is cut off, and the exchange fails, past this many bytes
    // (after any content decoding).
    size_t maxResponseBytes = 1024 * 1024;
};

struct HttpResponse {
    int status = 0;
    std::vector<HttpHeader> headers;  // names in lower case, in arrival order
    std::string body;

    // The first value of the header `lowerCaseName`, or nullptr.
    const std::string* header(std::string_view lowerCaseName) const {
        for (const auto& h : headers)
            if (h.name == lowerCaseName) return &h.value;
        return nullptr;
    }
};

struct HttpError {
    enum class Kind {
        UrlRefused,      // not https (or http to loopback), unparsable, or carrying user information
        InvalidRequest,  // a header that cannot be sent as it is
        CannotConnect,   // name not resolved, connection refused or unreachable
        TimedOut,        // connect, idle or total time limit
        TooLarge,        // the body passed maxResponseBytes
        Tls,             // handshake or certificate verification failed
        Transport,       // anything else between the two ends
        Cancelled,       // the client was shut down
    };
    Kind kind = Kind::Transport;
    // Short English text for logs: what failed and on which host. Never a
    // query string, a header value or a body.
    std::string detail;
};

// The kind as a machine token ("timedOut", "tooLarge", …).
inline std::string_view httpErrorKindName(HttpError::Kind kind) {
    switch (kind) {
        case HttpError::Kind::UrlRefused: return "urlRefused";
        case HttpError::Kind::InvalidRequest: return "invalidRequest";
        case HttpError::Kind::CannotConnect: return "cannotConnect";
        case HttpError::Kind::TimedOut: return "timedOut";
        case HttpError::Kind::TooLarge: return "tooLarge";
        case HttpError::Kind::Tls: return "tls";
        case HttpError::Kind::Transport: return "transport";
        case HttpError::Kind::Cancelled: return "cancelled";
    }
    return "transport";
}

// Any HTTP status, 3xx to 5xx included, is a response; only a failure to get
// one is an error.
using HttpResult = Result<HttpResponse, HttpError>;

class HttpRequesting {
public:
    virtual ~HttpRequesting() = default;
    // Blocks until the exchange ends or a time limit passes. Safe to call from
    // several threads at once.
    virtual HttpResult perform(const HttpRequest& request) = 0;
};

}  // namespace velko
