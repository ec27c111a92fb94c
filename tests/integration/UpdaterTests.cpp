// The updater against a loopback feed server and a key pair made here: only a
// feed signed with the shipped key, newer than this build and pointing at an
// https page, becomes an offer; a probe that finds one leads to exactly one
// visible check. Both queues are run by hand, so every check is over when the
// test looks.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <memory>

#include "core/Base64.h"
#include "core/MainQueue.h"
#include "integration/GitTestRepos.h"
#include "platform/http/CurlHttpClient.h"
#include "support/ScriptedServer.h"
#include "updater/Updater.h"

using namespace velko;

namespace {

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

std::string feed(const std::string& version, const std::string& link = "https://velko.example/download") {
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

}  // namespace

TEST(Updater, OnlyASignedNewerFeedBecomesAnOfferAndAProbeShowsItThroughOneVisibleCheck) {
    test::ScriptedServer server;
    ASSERT_GT(server.process.port, 0);
    KeyPair shipped, other;
    auto http = std::make_shared<CurlHttpClient>();
    const std::string newer = feed("0.2.0");
    const std::string offer = "新しいバージョン 0.2.0 があります https://velko.example/download";
    std::string flipped = newer;
    flipped[flipped.find("0.2.0")] = '9';

    struct Case {
        const char* name;
        std::string feed;
        std::optional<std::string> signature;  // nothing: no .sig file
        bool probe;                            // the launch probe instead of the menu's check
        std::vector<std::string> shown;
        long feedFetches;
    };
    const Case cases[] = {
        {"signed and newer", newer, shipped.sign(newer), false, {offer}, 1},
        {"a flipped byte", flipped, shipped.sign(newer), false, {kUpdateCheckFailedMessage}, 1},
        {"signed with another key", newer, other.sign(newer), false, {kUpdateCheckFailedMessage}, 1},
        {"no signature", newer, std::nullopt, false, {kUpdateCheckFailedMessage}, 1},
        {"a probe finding nothing is silent", feed("0.1.0"), shipped.sign(feed("0.1.0")), true, {}, 1},
        {"a probe hit: exactly one visible check", newer, shipped.sign(newer), true, {offer}, 2},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string name = "/feed" + std::to_string(n++) + ".xml";
        server.script(name, {{"kind", "raw"}, {"body", c.feed}}, true);
        if (c.signature) server.script(name + ".sig", {{"kind", "raw"}, {"body", *c.signature}}, true);
        auto main = std::make_shared<ManualQueue>(), queue = std::make_shared<ManualQueue>();
        setMainQueue(main);
        auto presenter = std::make_shared<RecordingPresenter>();
        auto updater = std::make_shared<Updater>(Updater::Dependencies{
            .settings = {server.url(name), shipped.publicKey()},
            .http = http,
            .presenter = presenter,
            .currentVersion = "0.1.0",
            .queue = queue});
        if (c.probe) {
            updater->probe();
        } else {
            updater->checkForUpdates();
            updater->checkForUpdates();  // while one waits, a second adds nothing
        }
        while (queue->runUntilIdle() + main->runUntilIdle() > 0) {
        }
        EXPECT_EQ(presenter->shown, c.shown);
        auto requests = server.requests();
        EXPECT_EQ(std::count_if(requests.begin(), requests.end(), [&](const Json& r) { return r["path"] == name; }),
                  c.feedFetches);
        // The probe comes back a day later.
        EXPECT_EQ(queue->pendingTimers(), c.probe ? 1u : 0u);
    }
}
