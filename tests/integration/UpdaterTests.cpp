// The updater against a loopback feed server and a key pair made here: only a
// feed signed with the shipped key, newer than this build and pointing at an
// https page, becomes an offer; a probe that finds one leads to exactly one
// visible check. Both queues are run by hand, so every check is complete when
// the test looks.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>

#include <cstdio>
#include <memory>

#include "core/Base64.h"
#include "core/MainQueue.h"
#include "platform/http/CurlHttpClient.h"
#include "support/TestSupport.h"
#include "updater/Updater.h"

using namespace velko;

namespace {

const char* const kServer = R"PY(
import functools, http.server, os, sys
folder, log = sys.argv[1], open(sys.argv[2], "a")
class Handler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass
    def do_GET(self):
        log.write(self.path + "\n"); log.flush()
        super().do_GET()
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Handler, directory=folder))
print(os.getpid(), server.server_address[1], flush=True)
server.serve_forever()
)PY";

struct FeedServer {
    explicit FeedServer(const test::TempDir& dir) : log(dir.file("requests.log")) {
        std::filesystem::create_directories(dir.file("www"));
        std::string command = "exec python3 '" + dir.write("server.py", kServer) + "' '" + dir.file("www") + "' '" +
                              log + "' </dev/null";
        pipe = popen(command.c_str(), "re");
        if (pipe && std::fscanf(pipe, "%d %d", &pid, &port) != 2) port = 0;
    }
    ~FeedServer() {
        if (pid > 0) kill(pid, SIGTERM);
        if (pipe) pclose(pipe);
    }
    size_t requestsFor(const std::string& path) const {
        std::string text = test::readFile(log);
        size_t count = 0;
        for (size_t at = 0; (at = text.find(path + "\n", at)) != std::string::npos; at += path.size()) ++count;
        return count;
    }
    std::string log;
    FILE* pipe = nullptr;
    int pid = 0, port = 0;
};

struct KeyPair {
    KeyPair() : key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), &EVP_PKEY_free) {}
    std::string publicKey() const {
        std::string raw(32, '\0');
        size_t length = raw.size();
        EVP_PKEY_get_raw_public_key(key.get(), reinterpret_cast<unsigned char*>(raw.data()), &length);
        return raw;
    }
    std::string sign(const std::string& message) const {
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
        std::string signature(64, '\0');
        size_t length = signature.size();
        EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get());
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(message.data()), message.size());
        return base64Encode(signature) + "\n";
    }
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key;
};

std::string feed(const std::string& version, const std::string& link) {
    return R"(<?xml version="1.0" encoding="utf-8"?>)"
           R"(<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel>)"
           "<item><title>velko " + version + "</title><link>" + link + "</link><sparkle:version>" + version +
           "</sparkle:version></item><item><sparkle:version>0.0.9</sparkle:version><link>https://old.example/</link>"
           "</item></channel></rss>";
}

struct RecordingPresenter final : UpdatePresenting {
    void presentUpdate(const UpdateOffer& offer) override {
        shown.push_back(updateAvailableMessage(offer) + " " + offer.link);
    }
    void presentUpToDate() override { shown.push_back(kUpToDateMessage); }
    void presentCheckFailed() override { shown.push_back(kUpdateCheckFailedMessage); }
    std::vector<std::string> shown;
};

struct Harness {
    Harness(const std::string& feedURL, const std::string& publicKey) {
        setMainQueue(main);
        updater = std::make_shared<Updater>(Updater::Dependencies{.settings = {feedURL, publicKey},
                                                                  .http = http,
                                                                  .presenter = presenter,
                                                                  .currentVersion = "0.1.0",
                                                                  .queue = queue});
    }
    void run() {
        while (queue->runUntilIdle() + main->runUntilIdle() > 0) {
        }
    }
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<CurlHttpClient> http = std::make_shared<CurlHttpClient>();
    std::shared_ptr<RecordingPresenter> presenter = std::make_shared<RecordingPresenter>();
    std::shared_ptr<Updater> updater;
};

}  // namespace

TEST(Updater, OnlyASignedNewerFeedWithAnHttpsPageBecomesAnOffer) {
    test::TempDir dir;
    FeedServer server(dir);
    ASSERT_GT(server.port, 0);
    KeyPair shipped, other;
    const std::string base = "http://127.0.0.1:" + std::to_string(server.port) + "/";
    const std::string newer = feed("0.2.0", "https://velko.example/download");

    struct Case {
        const char* name;
        std::string feed;
        std::optional<std::string> signature;  // nothing: no .sig file
        std::string shown;
    };
    std::string flipped = newer;
    flipped[flipped.find("0.2.0")] = '9';
    const Case cases[] = {
        {"signed and newer", newer, shipped.sign(newer), "新しいバージョン 0.2.0 があります https://velko.example/download"},
        {"a flipped byte", flipped, shipped.sign(newer), kUpdateCheckFailedMessage},
        {"signed with another key", newer, other.sign(newer), kUpdateCheckFailedMessage},
        {"no signature", newer, std::nullopt, kUpdateCheckFailedMessage},
        {"a javascript: link", feed("0.2.0", "javascript:alert(1)"), shipped.sign(feed("0.2.0", "javascript:alert(1)")),
         kUpToDateMessage},
        {"nothing newer", feed("0.1.0", "https://velko.example/"), shipped.sign(feed("0.1.0", "https://velko.example/")),
         kUpToDateMessage},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string name = "feed" + std::to_string(n++) + ".xml";
        dir.write("www/" + name, c.feed);
        if (c.signature) dir.write("www/" + name + ".sig", *c.signature);
        Harness h(base + name, shipped.publicKey());
        h.updater->checkForUpdates();
        h.updater->checkForUpdates();  // while one waits, a second adds nothing
        h.run();
        EXPECT_EQ(h.presenter->shown, std::vector<std::string>{c.shown});
    }
    // A feed that does not verify is never read past its signature: the failing
    // cases fetched the feed and its .sig once each, nothing else.
    EXPECT_EQ(server.requestsFor("/feed1.xml"), 1u);
    EXPECT_EQ(server.requestsFor("/feed1.xml.sig"), 1u);
}

TEST(Updater, AProbeIsSilentUnlessItFindsAnUpdateThenOneVisibleCheckShowsIt) {
    test::TempDir dir;
    FeedServer server(dir);
    ASSERT_GT(server.port, 0);
    KeyPair shipped;
    const std::string base = "http://127.0.0.1:" + std::to_string(server.port) + "/";
    for (auto [name, version] : {std::pair{"newer.xml", "0.3.0"}, {"same.xml", "0.1.0"}}) {
        std::string text = feed(version, "https://velko.example/download");
        dir.write(std::string("www/") + name, text);
        dir.write(std::string("www/") + name + ".sig", shipped.sign(text));
    }

    Harness quiet(base + "same.xml", shipped.publicKey());
    quiet.updater->probe();
    quiet.run();
    EXPECT_TRUE(quiet.presenter->shown.empty());
    EXPECT_EQ(server.requestsFor("/same.xml"), 1u);

    Harness hit(base + "newer.xml", shipped.publicKey());
    hit.updater->probe();
    hit.run();
    EXPECT_EQ(hit.presenter->shown,
              std::vector<std::string>{"新しいバージョン 0.3.0 があります https://velko.example/download"});
    EXPECT_EQ(server.requestsFor("/newer.xml"), 2u);  // the probe and the one visible check
    // The next probe waits a day.
    EXPECT_EQ(hit.queue->pendingTimers(), 1u);
    hit.queue->advance(std::chrono::hours(24));
    hit.run();
    EXPECT_EQ(server.requestsFor("/newer.xml"), 4u);
    EXPECT_EQ(hit.presenter->shown.size(), 2u);
}
