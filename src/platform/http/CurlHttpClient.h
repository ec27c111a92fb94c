#pragma once
// HttpRequesting over libcurl: one easy handle per request, on the caller's
// thread, so any number of threads may perform at once. Shared by every
// feature that talks to GitHub or fetches the update feed; owned by the
// composition root, which calls cancelAll() when the program ends.
//
// Peer and host verification are always on; a redirect is returned, never
// followed; nothing about a request (headers, bodies, query strings) is
// logged or put into an error's detail.

#include <atomic>

#include "core/HttpRequesting.h"

namespace velko {

class CurlHttpClient final : public HttpRequesting {
public:
    CurlHttpClient();
    HttpResult perform(const HttpRequest& request) override;

    // Ends every transfer in flight (within about a second: libcurl asks its
    // progress callback at least that often) and refuses new ones, all with
    // HttpError::Kind::Cancelled. For shutdown; there is no undo.
    void cancelAll();

private:
    std::atomic<bool> m_cancelled{false};
};

}  // namespace velko
