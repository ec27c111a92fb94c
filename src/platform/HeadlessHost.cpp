#include "platform/HeadlessHost.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "core/MainQueue.h"
#include "core/Paths.h"
#include "github/GitAuthManager.h"
#include "platform/BrowserOAuthSessionFactory.h"
#include "platform/SecretServiceKeychainStore.h"
#include "shell/AppBundleSchemeHandler.h"
#include "shell/VelkoApp.h"
#include "shell/WebBridge.h"

namespace velko {

namespace {

using Clock = std::chrono::steady_clock;

// After end of input: quit once no event went out for this long and the
// shutdown finished, and at the latest after the deadline.
constexpr auto kQuietPeriod = std::chrono::milliseconds(300);
constexpr auto kExitDeadline = std::chrono::seconds(5);

// Writes each event's envelope as one line on standard output. A reader that
// is slow holds the main thread back, just as a busy page would.
class StdoutWebView final : public WebViewHosting {
public:
    void evaluateScript(const std::string& script) override {
        auto envelope = envelopeFromEventScript(script);
        if (!envelope) return;
        envelope->push_back('\n');
        writeAll(*envelope);
        lastEvent = Clock::now();
    }
    Clock::time_point lastEvent = Clock::now();

private:
    void writeAll(const std::string& text) {
        if (m_broken) return;
        const char* data = text.data();
        size_t left = text.size();
        while (left > 0) {
            ssize_t n = write(STDOUT_FILENO, data, left);
            if (n < 0) {
                if (errno == EINTR) continue;
                m_broken = true;  // the reader went away; keep running until end of input
                return;
            }
            data += n;
            left -= static_cast<size_t>(n);
        }
    }
    bool m_broken = false;
};

}  // namespace

bool parseHeadlessArguments(const std::vector<std::string>& args, HeadlessOptions& options, std::string& error) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--headless") continue;
        if (args[i] == "--github-token-file") {
            if (i + 1 >= args.size()) {
                error = "--github-token-file needs a file";
                return false;
            }
            options.gitHubTokenFile = args[++i];
            continue;
        }
        if (args[i] == "--pick-folder") {
            if (i + 1 >= args.size()) {
                error = "--pick-folder needs a directory";
                return false;
            }
            options.pickFolders.push_back(args[++i]);
            continue;
        }
        error = "unknown argument: " + args[i];
        return false;
    }
    return true;
}

namespace {

// The token of --github-token-file, as the store for this run. The file must
// be a regular file that only its owner can read or write: a token others can
// read is refused, not used.
std::shared_ptr<KeychainStore> tokenFileStore(const std::string& path, std::string& error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (fd >= 0) ::close(fd);
        error = "--github-token-file " + path + ": not a readable regular file";
        return nullptr;
    }
    if ((st.st_mode & 077) != 0) {
        ::close(fd);
        error = "--github-token-file " + path + ": readable by others; allow its owner only (chmod 600)";
        return nullptr;
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || text.size() > 65536) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    explicit_bzero(buffer, sizeof buffer);
    ::close(fd);
    size_t begin = text.find_first_not_of(" \t\r\n");
    size_t end = text.find_last_not_of(" \t\r\n");
    OAuthTokenRecord record;
    if (begin != std::string::npos) record.accessToken = SecretText(text.substr(begin, end - begin + 1));
    wipe(text);
    if (record.accessToken.empty()) {
        error = "--github-token-file " + path + ": no token in it";
        return nullptr;
    }
    // A token without refresh and without expiry: it stays until the server
    // refuses it, and then only for this run.
    record.expiresAt = kDistantFuture;
    record.tokenType = "bearer";
    auto store = std::make_shared<MemoryKeychainStore>();
    (void)store->save(SecretText(record.encode()), GitAuthManager::kService, GitAuthManager::kAccount);
    return store;
}

}  // namespace

int runHeadless(const HeadlessOptions& options) {
    VelkoApp::Options appOptions;
    if (options.gitHubTokenFile) {
        std::string error;
        appOptions.keychain = tokenFileStore(*options.gitHubTokenFile, error);
        if (!appOptions.keychain) {
            std::fprintf(stderr, "velko: %s\n", error.c_str());
            return 2;
        }
    } else {
        appOptions.keychain = std::make_shared<SecretServiceKeychainStore>();
    }
    // No links reach a headless program: sign-in needs a loopback redirect.
    appOptions.oauthSessions = std::make_shared<BrowserOAuthSessionFactory>(BrowserOAuthSessionFactory::Options{});
    if (auto exe = executablePath()) appOptions.resourceDirectory = locateResourceDirectory(*exe);

    // Standard output is the event stream: GLib's default writer sends info
    // and debug lines there (G_MESSAGES_DEBUG), which would corrupt it.
    g_log_writer_default_set_use_stderr(TRUE);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    setMainQueue(std::make_shared<GlibMainQueue>());

    auto app = std::make_unique<VelkoApp>(std::move(appOptions));
    auto webView = std::make_shared<StdoutWebView>();
    app->bridge().setFolderPicker(makeFixedFolderPicker(options.pickFolders));
    app->bridge().setWebView(webView);
    app->bridge().notifyWebViewDidFinishNavigation();
    app->contentDidAppear();

    // At end of input: end the sessions and let queued work finish, then wait
    // for the events to go quiet (work in flight answers). Nothing is polled
    // before that: a program that runs for hours has no timer of ours.
    bool drained = false;
    Clock::time_point endOfInput{};
    std::function<void()> quitWhenQuiet = [&] {
        const auto now = Clock::now();
        const bool quiet = now - webView->lastEvent > kQuietPeriod;
        if ((drained && quiet) || now - endOfInput > kExitDeadline) {
            g_main_loop_quit(loop);
            return;
        }
        mainQueue().postDelayed(std::chrono::milliseconds(50), quitWhenQuiet);
    };
    auto endOfInputReached = [&] {
        endOfInput = Clock::now();
        app->shutdown([&drained] { drained = true; });
        quitWhenQuiet();
    };

    std::weak_ptr<WebBridge> weakBridge = app->bridgePtr();
    std::thread reader([weakBridge, &endOfInputReached] {
        std::string buffer;
        char chunk[65536];
        for (;;) {
            ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            // Only the new bytes can hold a line end: a long message costs one
            // pass, not one pass per chunk.
            size_t searchFrom = buffer.size();
            buffer.append(chunk, static_cast<size_t>(n));
            size_t start = 0;
            for (size_t nl; (nl = buffer.find('\n', searchFrom)) != std::string::npos; start = searchFrom = nl + 1) {
                std::string line = buffer.substr(start, nl - start);
                mainQueue().post([weakBridge, line = std::move(line)] {
                    if (auto bridge = weakBridge.lock()) bridge->handleMessageText(line);
                });
            }
            buffer.erase(0, start);
        }
        if (!buffer.empty()) {
            mainQueue().post([weakBridge, line = std::move(buffer)] {
                if (auto bridge = weakBridge.lock()) bridge->handleMessageText(line);
            });
        }
        // The main loop runs until this task has run, so the reference stays good.
        mainQueue().post([&endOfInputReached] { endOfInputReached(); });
    });

    g_main_loop_run(loop);
    reader.join();
    app.reset();
    g_main_loop_unref(loop);
    return 0;
}

}  // namespace velko
