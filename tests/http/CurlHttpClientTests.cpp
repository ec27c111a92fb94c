// The libcurl client against a loopback server of Python's standard library
// that scripts what a misbehaving or hostile server does: every exchange ends
// in a response or a typed error within its limits, never in a hang, and a
// request goes nowhere it was not sent. (A declared oversize body and a
// certificate nobody vouches for are met through the sign-in client's tests.)
#include <gtest/gtest.h>

#include <future>
#include <optional>

#include "platform/http/CurlHttpClient.h"
#include "support/ChildProcesses.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace std::chrono_literals;

namespace {

const char* const kServer = R"PY(
import http.server, sys, time
log = open(sys.argv[1], "a")

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *args):
        pass
    def reply(self, status, body, *headers):
        self.send_response(status)
        for name, value in headers + (("Content-Length", str(len(body))),):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)
    def do_GET(self):
        log.write(self.path + "\n"); log.flush()
        body, path = self.rfile.read(int(self.headers.get("Content-Length") or 0)), self.path
        if path == "/ok" and self.headers["Authorization"] == "Bearer velko-test-token" \
                and body == b'{"query":"x"}' and self.headers["User-Agent"]:
            self.reply(200, b"hello", ("X-Reply", "Yes"))
        elif path == "/ok":
            self.reply(401, b"no")
        elif path == "/redirect":
            self.reply(302, b"", ("Location", "http://localhost:%d/followed" % self.server.server_address[1]))
        elif path.startswith("/silent"):
            time.sleep(60)
        else:  # a body that never ends: a byte now and then, or too much at once
            trickle = path == "/trickle"
            self.send_response(200)
            self.send_header(*(("Content-Length", "1000") if trickle else ("Connection", "close")))
            self.end_headers()
            for _ in range(240 if trickle else 64):
                self.wfile.write(b"x" if trickle else b"y" * 65536)
                time.sleep(0.25 if trickle else 0)
    do_POST = do_GET
)PY";

// The server as a child of the test, and whether a path reached it.
struct Server : test::LoopbackServer {
    explicit Server(const test::TempDir& dir)
        : LoopbackServer(dir.write("server.py", std::string(kServer) + test::kServeHandler),
                         {dir.file("requests.log")}),
          log(dir.file("requests.log")) {}
    bool saw(const std::string& path) const { return test::readFile(log).find(path + "\n") != std::string::npos; }
    std::string log;
};

// The call on a thread of its own; still running long after every limit in
// these tests, it is a hang, reported as nothing.
std::optional<HttpResult> performGuarded(CurlHttpClient& client, const HttpRequest& request) {
    auto call = std::async(std::launch::async, [&] { return client.perform(request); });
    if (call.wait_for(30s) == std::future_status::ready) return call.get();
    client.cancelAll();
    call.wait();
    return std::nullopt;
}

}  // namespace

TEST(CurlHttpClient, EveryExchangeEndsInItsResponseOrErrorAndCancelAllEndsTheOneInFlight) {
    test::TempDir dir;
    Server server(dir);
    ASSERT_GT(server.port, 0);
    const std::string http = server.url();

    using Kind = HttpError::Kind;
    struct Case {
        const char* name;
        std::string url;
        bool post = false;  // with a JSON body
        bool token = true;
        int idle = 2, total = 30;
        size_t cap = 1 << 20;
        std::vector<HttpHeader> headers = {};
        int status = 0;                  // a response with this status…
        std::optional<Kind> error = {};  // …or this failure
        std::string body = {}, location = {};
        std::string neverReached = {};   // a path the server must not see
    };
    const Case cases[] = {
        {.name = "authorised post", .url = http + "/ok", .post = true, .status = 200, .body = "hello"},
        {.name = "the server's check", .url = http + "/ok", .post = true, .token = false, .status = 401, .body = "no"},
        {.name = "redirect to another host", .url = http + "/redirect", .status = 302,
         .location = "http://localhost:" + std::to_string(server.port) + "/followed", .neverReached = "/followed"},
        {.name = "silence", .url = http + "/silent", .idle = 1, .total = 60, .error = Kind::TimedOut},
        {.name = "a byte now and then", .url = http + "/trickle", .idle = 1, .total = 2, .error = Kind::TimedOut},
        {.name = "streamed body over the cap", .url = http + "/big-streamed", .cap = 100'000, .error = Kind::TooLarge},
        {.name = "plain http to a name, even localhost", .url = "http://localhost:" +
         std::to_string(server.port) + "/by-name", .error = Kind::UrlRefused, .neverReached = "/by-name"},
        {.name = "credentials in the URL", .url = "http://u:p@127.0.0.1:" + std::to_string(server.port) +
         "/creds", .error = Kind::UrlRefused, .neverReached = "/creds"},
        {.name = "another scheme", .url = "file:///etc/passwd", .error = Kind::UrlRefused},
        {.name = "not a URL", .url = "127.0.0.1/ok", .error = Kind::UrlRefused},
        {.name = "a header smuggling another", .url = http + "/smuggled",
         .headers = {{"X-Note", "a\r\nAuthorization: Bearer x"}}, .error = Kind::InvalidRequest,
         .neverReached = "/smuggled"},
        {.name = "nothing listening", .url = "http://127.0.0.1:1/", .error = Kind::CannotConnect},
        {.name = "IPv6 loopback passes the check", .url = "http://[::1]:1/", .error = Kind::CannotConnect},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CurlHttpClient client;
        HttpRequest request{.method = c.post ? HttpMethod::Post : HttpMethod::Get, .url = c.url};
        request.headers = c.headers;
        if (c.token) request.headers.push_back({"Authorization", "Bearer velko-test-token"});
        if (c.post) request.body = R"({"query":"x"})";
        request.connectTimeout = 2s;
        request.idleTimeout = std::chrono::seconds(c.idle);
        request.totalTimeout = std::chrono::seconds(c.total);
        request.maxResponseBytes = c.cap;

        auto result = performGuarded(client, request);
        ASSERT_TRUE(result.has_value()) << "the call did not return";
        if (c.error) {
            ASSERT_FALSE(result->ok()) << "status " << result->value().status;
            EXPECT_EQ(httpErrorKindName(result->error().kind), httpErrorKindName(*c.error)) << result->error().detail;
        } else {
            ASSERT_TRUE(result->ok()) << result->error().detail;
            EXPECT_EQ(result->value().status, c.status);
            EXPECT_EQ(result->value().body, c.body);
            const std::string* reply = result->value().header("x-reply");
            EXPECT_EQ(reply ? *reply : "", c.status == 200 ? "Yes" : "");
            const std::string* location = result->value().header("location");
            EXPECT_EQ(location ? *location : "", c.location);
        }
        EXPECT_FALSE(!c.neverReached.empty() && server.saw(c.neverReached)) << c.neverReached;
    }

    // Quitting: cancelAll ends a transfer in flight and refuses new ones.
    CurlHttpClient client;
    HttpRequest silent{.url = http + "/silent-cancel", .idleTimeout = 60s, .totalTimeout = 120s};
    auto call = std::async(std::launch::async, [&] { return client.perform(silent); });
    // Waits for the server to hold the request, so the transfer is in flight.
    test::waitUntil([&] { return server.saw("/silent-cancel"); });
    client.cancelAll();
    ASSERT_EQ(call.wait_for(30s), std::future_status::ready) << "cancelAll left the transfer running";
    HttpResult ended = call.get();
    ASSERT_FALSE(ended.ok());
    EXPECT_EQ(httpErrorKindName(ended.error().kind), "cancelled");

    HttpResult refused = client.perform({.url = http + "/after-cancel"});
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(httpErrorKindName(refused.error().kind), "cancelled");
    EXPECT_FALSE(server.saw("/after-cancel"));
}
