#include "platform/BrowserOAuthSessionFactory.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <optional>
#include <thread>

#include "core/Log.h"
#include "core/TaskQueue.h"

namespace velko {

namespace {

const Logger kLog("app.velko.github", "oauth-session");

std::string schemeOf(const std::string& uri) {
    size_t colon = uri.find(':');
    return colon == std::string::npos ? std::string() : uri.substr(0, colon);
}

bool defaultOpenURL(const std::string& url) {
    std::string scheme = schemeOf(url);
    GAppInfo* handler = g_app_info_get_default_for_uri_scheme(scheme.c_str());
    if (!handler) {
        kLog.error("no application opens " + scheme + " links");
        return false;
    }
    g_object_unref(handler);
    GError* error = nullptr;
    if (!g_app_info_launch_default_for_uri(url.c_str(), nullptr, &error)) {
        kLog.error(std::string("the browser could not be started: ") + (error ? error->message : "unknown error"));
        g_clear_error(&error);
        return false;
    }
    return true;
}

// Completes at most once, always by a post to the main thread: never from
// inside start(), where the owner could drop the session it is running.
struct OnceCompletion {
    explicit OnceCompletion(OAuthSessionFactory::Completion completion) : m_completion(std::move(completion)) {}
    void operator()(Result<std::string, OAuthError> result) {
        if (m_done.exchange(true)) return;
        auto completion = std::move(m_completion);
        mainQueue().post([completion = std::move(completion), result = std::move(result)]() mutable {
            completion(std::move(result));
        });
    }
    void disarm() { m_done = true; }

private:
    std::atomic<bool> m_done{false};
    OAuthSessionFactory::Completion m_completion;
};

// "http://127.0.0.1:8123/callback" → address, port, path.
struct LoopbackAddress {
    bool ipv6 = false;
    uint16_t port = 0;
    std::string path;
};

std::optional<LoopbackAddress> parseLoopback(const std::string& uri) {
    LoopbackAddress address;
    std::string_view rest(uri);
    if (rest.substr(0, 7) != "http://") return std::nullopt;
    rest.remove_prefix(7);
    if (rest.substr(0, 10) == "127.0.0.1:") {
        rest.remove_prefix(10);
    } else if (rest.substr(0, 6) == "[::1]:") {
        address.ipv6 = true;
        rest.remove_prefix(6);
    } else {
        return std::nullopt;
    }
    size_t slash = rest.find('/');
    std::string_view port = rest.substr(0, slash);
    unsigned value = 0;
    auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (ec != std::errc() || end != port.data() + port.size() || value == 0 || value > 65535) return std::nullopt;
    address.port = static_cast<uint16_t>(value);
    address.path = slash == std::string_view::npos ? "/" : std::string(rest.substr(slash));
    if (address.path.find_first_of("?#") != std::string::npos) return std::nullopt;
    return address;
}

const char* const kLandingPage =
    "<!doctype html><html lang=\"ja\"><meta charset=\"utf-8\"><title>velko</title>"
    "<body style=\"font-family:sans-serif;margin:3em\"><h1>velko</h1>"
    "<p>GitHub からの応答を受け取りました。velko に戻ってください。</p>"
    "<p>このタブは閉じてかまいません。</p></body></html>";

void sendAll(int fd, const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
        ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
    }
}

std::string httpAnswer(int status, const char* reason, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) + " " + reason +
           "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nCache-Control: no-store\r\nReferrer-Policy: no-referrer\r\nConnection: close\r\n\r\n" + body;
}

// A one-shot HTTP listener on the redirect's port.
class LoopbackSession final : public OAuthSession, public std::enable_shared_from_this<LoopbackSession> {
public:
    LoopbackSession(std::string authorizeURL, LoopbackAddress address, OAuthSessionFactory::Completion completion,
                    std::function<bool(const std::string&)> openURL)
        : m_authorizeURL(std::move(authorizeURL)),
          m_address(std::move(address)),
          m_completion(std::move(completion)),
          m_openURL(std::move(openURL)) {}
    ~LoopbackSession() override {
        stop();
        m_completion.disarm();
    }

    void start() override {
        if (!listen()) return m_completion(fail(OAuthError::invalidRedirect));
        if (pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
            stop();
            return m_completion(fail(OAuthError::invalidRedirect));
        }
        m_thread = std::thread([this] { serve(); });
        if (!m_openURL(m_authorizeURL)) {
            stop();
            m_completion(fail(OAuthError::invalidRedirect));
        }
    }
    void cancel() override {
        m_completion.disarm();
        stop();
    }

private:
    bool listen() {
        int family = m_address.ipv6 ? AF_INET6 : AF_INET;
        m_listener = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_listener < 0) return false;
        int yes = 1;
        setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        int bound;
        if (m_address.ipv6) {
            sockaddr_in6 a{};
            a.sin6_family = AF_INET6;
            a.sin6_port = htons(m_address.port);
            a.sin6_addr = in6addr_loopback;
            bound = ::bind(m_listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
        } else {
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(m_address.port);
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            bound = ::bind(m_listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
        }
        if (bound != 0 || ::listen(m_listener, 8) != 0) {
            kLog.error("the sign-in redirect port " + std::to_string(m_address.port) + " is not free");
            ::close(m_listener);
            m_listener = -1;
            return false;
        }
        return true;
    }

    void stop() {
        m_stopping = true;
        if (m_wake[1] >= 0) (void)!::write(m_wake[1], "x", 1);
        if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) m_thread.join();
        for (int* fd : {&m_listener, &m_wake[0], &m_wake[1]}) {
            if (*fd >= 0) ::close(*fd);
            *fd = -1;
        }
    }

    // Listener thread: one request per connection; the first one on the
    // redirect's path completes the session and ends the listener.
    void serve() {
        while (!m_stopping) {
            pollfd fds[2] = {{m_listener, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[1].revents || m_stopping) return;
            int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (client < 0) continue;
            bool done = answer(client);
            ::close(client);
            if (done) return;
        }
    }

    // Reads the request head (bounded in size and time) and answers it.
    bool answer(int client) {
        std::string head;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (head.find("\r\n\r\n") == std::string::npos && head.size() < 16384) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || m_stopping) return false;
            pollfd fds[2] = {{client, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
            if (::poll(fds, 2, static_cast<int>(left.count())) <= 0 || fds[1].revents) return false;
            char buffer[4096];
            ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (n <= 0) break;
            head.append(buffer, static_cast<size_t>(n));
        }
        // "GET /callback?code=…&state=… HTTP/1.1"
        size_t lineEnd = head.find("\r\n");
        std::string_view line(head.data(), lineEnd == std::string::npos ? head.size() : lineEnd);
        size_t firstSpace = line.find(' ');
        size_t lastSpace = line.rfind(' ');
        if (line.substr(0, 4) != "GET " || firstSpace == lastSpace) {
            sendAll(client, httpAnswer(400, "Bad Request", ""));
            return false;
        }
        std::string target(line.substr(firstSpace + 1, lastSpace - firstSpace - 1));
        if (target.substr(0, target.find('?')) != m_address.path) {
            sendAll(client, httpAnswer(404, "Not Found", ""));
            return false;
        }
        sendAll(client, httpAnswer(200, "OK", kLandingPage));
        std::string host = m_address.ipv6 ? "[::1]" : "127.0.0.1";
        m_completion("http://" + host + ":" + std::to_string(m_address.port) + target);
        return true;
    }

    std::string m_authorizeURL;
    LoopbackAddress m_address;
    OnceCompletion m_completion;
    std::function<bool(const std::string&)> m_openURL;
    int m_listener = -1;
    int m_wake[2] = {-1, -1};
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

// A session that opens the browser and fails at once.
class FailedSession final : public OAuthSession {
public:
    explicit FailedSession(OAuthSessionFactory::Completion completion) : m_completion(std::move(completion)) {}
    void start() override { m_completion(fail(OAuthError::invalidRedirect)); }
    void cancel() override { m_completion.disarm(); }

private:
    OnceCompletion m_completion;
};

}  // namespace

// Waits for the host to hand over the redirect link.
class BrowserOAuthSessionFactory::LinkSession final : public OAuthSession {
public:
    LinkSession(std::string authorizeURL, std::string redirectURI, Completion completion,
                std::function<bool(const std::string&)> openURL)
        : m_authorizeURL(std::move(authorizeURL)),
          m_redirectURI(std::move(redirectURI)),
          m_completion(std::move(completion)),
          m_openURL(std::move(openURL)) {}
    ~LinkSession() override { m_completion.disarm(); }

    void start() override {
        std::string scheme = schemeOf(m_redirectURI);
        GAppInfo* handler = g_app_info_get_default_for_uri_scheme(scheme.c_str());
        if (!handler) {
            kLog.error("no application is registered for " + scheme + " links (install velko with cmake --install)");
            return m_completion(fail(OAuthError::invalidRedirect));
        }
        g_object_unref(handler);
        m_waiting = true;
        if (!m_openURL(m_authorizeURL)) {
            m_waiting = false;
            m_completion(fail(OAuthError::invalidRedirect));
        }
    }
    void cancel() override {
        m_waiting = false;
        m_completion.disarm();
    }
    bool waits() const { return m_waiting; }
    const std::string& redirectURI() const { return m_redirectURI; }
    void complete(const std::string& url) {
        m_waiting = false;
        m_completion(url);
    }

private:
    std::string m_authorizeURL;
    std::string m_redirectURI;
    OnceCompletion m_completion;
    std::function<bool(const std::string&)> m_openURL;
    bool m_waiting = false;
};

BrowserOAuthSessionFactory::BrowserOAuthSessionFactory(Options options)
    : m_options(std::move(options)), m_lastRedirectURI("velko://oauth/callback") {
    if (!m_options.openURL) m_options.openURL = defaultOpenURL;
}

std::shared_ptr<OAuthSession> BrowserOAuthSessionFactory::makeSession(const std::string& authorizeURL,
                                                                      const std::string& redirectURI,
                                                                      Completion completion) {
    std::string scheme = schemeOf(redirectURI);
    if (scheme == "http") {
        if (auto address = parseLoopback(redirectURI))
            return std::make_shared<LoopbackSession>(authorizeURL, std::move(*address), std::move(completion),
                                                     m_options.openURL);
        kLog.error("an http redirect must name 127.0.0.1 or [::1] and a port");
        return std::make_shared<FailedSession>(std::move(completion));
    }
    if (scheme.empty() || scheme == "https" || !m_options.receivesLinks) {
        if (!m_options.receivesLinks) kLog.error("links cannot reach this program: use a loopback redirect");
        return std::make_shared<FailedSession>(std::move(completion));
    }
    auto session = std::make_shared<LinkSession>(authorizeURL, redirectURI, std::move(completion), m_options.openURL);
    m_waiting = session;
    m_lastRedirectURI = redirectURI;
    return session;
}

bool BrowserOAuthSessionFactory::isRedirectTo(const std::string& url, const std::string& redirectURI) {
    std::string_view base(url);
    base = base.substr(0, base.find_first_of("?#"));
    std::string_view expected(redirectURI);
    expected = expected.substr(0, expected.find_first_of("?#"));
    auto trimmed = [](std::string_view text) {
        while (!text.empty() && text.back() == '/') text.remove_suffix(1);
        return text;
    };
    return !expected.empty() && trimmed(base) == trimmed(expected);
}

bool BrowserOAuthSessionFactory::deliverRedirect(const std::string& url) {
    auto session = m_waiting.lock();
    if (session && session->waits() && isRedirectTo(url, session->redirectURI())) {
        session->complete(url);
        return true;
    }
    if (!isRedirectTo(url, m_lastRedirectURI)) return false;
    if (m_unclaimed) m_unclaimed(url);
    return true;
}

}  // namespace velko
