// The update feed's pure parts as tables: which feed and key an updater gets,
// how versions order, what a feed's text yields, and which item is offered.
#include <gtest/gtest.h>

#include "updater/UpdateFeed.h"

using namespace velko;

namespace {
const std::string kKey = "11qYAYKxCrfVS/7TyWQHOg7hcvPapiMlrwIaaPcHURo=";  // 32 bytes
}

TEST(UpdateFeed, SettingsNeedAKeyOf32BytesAndAFeed) {
    struct Case {
        const char* name;
        Json info;
        std::optional<std::string> appcast;  // APPCAST_URL
        std::optional<std::string> feed;      // nothing: no updater
    };
    const Json both{{"SUFeedURL", "https://velko.example/appcast.xml"}, {"SUPublicEDKey", kKey}};
    const Case cases[] = {
        {"from Info.json", both, std::nullopt, "https://velko.example/appcast.xml"},
        {"APPCAST_URL first, trimmed", both, " \n https://other.example/a.xml\t\n", "https://other.example/a.xml"},
        {"APPCAST_URL no URL", both, "not a url", "https://velko.example/appcast.xml"},
        {"no key: APPCAST_URL changes nothing", {{"SUFeedURL", "https://velko.example/a.xml"}},
         "https://other.example/a.xml", std::nullopt},
        {"key of 31 bytes", {{"SUFeedURL", "https://v.example/a"}, {"SUPublicEDKey", "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHg=="}},
         std::nullopt, std::nullopt},
        {"no feed anywhere", {{"SUPublicEDKey", kKey}}, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto settings = resolveUpdaterSettings(c.info, [&](const char* name) {
            return std::string(name) == "APPCAST_URL" ? c.appcast : std::nullopt;
        });
        EXPECT_EQ(settings ? std::optional(settings->feedURL) : std::nullopt, c.feed);
    }
    EXPECT_EQ(signatureURL("https://v.example/feed.xml?channel=beta#x"), "https://v.example/feed.xml.sig?channel=beta#x");
}

TEST(UpdateFeed, VersionsOrderAsPeopleReadThem) {
    struct Case {
        const char* lower;
        const char* higher;  // equal when `same`
        bool same = false;
    };
    const Case cases[] = {
        {"1.9", "1.10"},          {"1.0", "1.0.0", true}, {"v1.2", "1.2", true},  {"1.2+build.5", "1.2", true},
        {"2.0-beta.2", "2.0-rc.1"}, {"2.0-rc.1", "2.0"},    {"2.0-beta.2", "2.0-beta.11"}, {"2.0-1", "2.0-alpha"},
        {"2.0-rc", "2.0-rc.1"},   {"0.1.0", "0.1.1"},     {"9.99", "10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.lower) + " / " + c.higher);
        auto a = parseVersion(c.lower), b = parseVersion(c.higher);
        ASSERT_TRUE(a && b);
        EXPECT_EQ(compareVersions(*a, *b), c.same ? 0 : -1);
        EXPECT_EQ(compareVersions(*b, *a), c.same ? 0 : 1);
    }
    for (const char* invalid : {"", "abc", "1..2", "1.x", "1.0-", "1.0-beta..1", "-1"}) {
        SCOPED_TRACE(invalid);
        EXPECT_FALSE(parseVersion(invalid));
    }
}

TEST(UpdateFeed, FeedsYieldTheirItemsAndAnythingElseNothing) {
    const std::string head =
        R"(<?xml version="1.0"?><rss xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel>)";
    const std::string tail = "</channel></rss>";
    auto item = [](const std::string& inner) { return "<item><title>t</title>" + inner + "</item>"; };
    struct Case {
        const char* name;
        std::string xml;
        std::optional<std::vector<std::string>> items;  // "version|short|link" of each item
    };
    const Case cases[] = {
        {"elements, any order", head + item("<link>https://a/2</link><sparkle:version>2.0</sparkle:version>") +
                                    item("<sparkle:shortVersionString>1.5 beta</sparkle:shortVersionString>"
                                         "<sparkle:version>1.5</sparkle:version>") + tail,
         std::vector<std::string>{"2.0||https://a/2", "1.5|1.5 beta|"}},
        {"enclosure attributes", head + item(R"(<enclosure url="https://a/x.tar" sparkle:version=" 3.1 " )"
                                             R"(sparkle:shortVersionString="3.1"/><link>https://a/3</link>)") + tail,
         std::vector<std::string>{"3.1|3.1|https://a/3"}},
        {"any document type", "<!DOCTYPE rss><rss><channel>" + item("<version>2</version>") + tail, std::nullopt},
        {"entities of its own (the way to an entity bomb)",
         R"(<!DOCTYPE rss [<!ENTITY e "2">]><rss><channel>)" + item("<version>&e;</version>") + tail, std::nullopt},
        {"garbage", "\x89PNG not xml at all", std::nullopt},
        {"truncated", (head + item("<sparkle:version>2.0</sparkle:version>")).substr(0, 120), std::nullopt},
        {"oversize", head + item(std::string(kMaxFeedBytes, ' ')) + tail, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto parsed = parseAppcast(c.xml);
        ASSERT_EQ(parsed.has_value(), c.items.has_value());
        if (!parsed) continue;
        std::vector<std::string> got;
        for (const auto& i : *parsed)
            got.push_back(i.version.value_or("") + "|" + i.shortVersionString.value_or("") + "|" + i.link.value_or(""));
        EXPECT_EQ(got, *c.items);
    }
}

TEST(UpdateFeed, TheNewestItemAboveThisVersionIsOffered) {
    auto item = [](const char* version, const char* link = "https://velko.example/get") {
        return AppcastItem{std::string(version), std::nullopt, std::string(link)};
    };
    struct Case {
        const char* name;
        const char* current;
        std::vector<AppcastItem> items;
        std::optional<std::string> offered;
    };
    const Case cases[] = {
        {"newest, in any order", "1.0", {item("1.2"), item("1.10"), item("0.9"), item("1.9")}, "1.10"},
        {"nothing newer", "1.10", {item("1.9"), item("1.10.0")}, std::nullopt},
        {"a release build skips pre-releases", "1.0", {item("1.1-rc.1"), item("1.0.1")}, "1.0.1"},
        {"a pre-release build takes them", "1.1-beta.1", {item("1.1-rc.1"), item("1.0.1")}, "1.1-rc.1"},
        {"no https link", "1.0", {item("2.0", "javascript:alert(1)"), item("3.0", "http://velko.example/get")},
         std::nullopt},
        {"unreadable versions are passed over", "1.0", {item("latest"), AppcastItem{}, item("1.1")}, "1.1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto offer = newestUpdate(c.items, *parseVersion(c.current));
        EXPECT_EQ(offer ? std::optional(offer->version) : std::nullopt, c.offered);
    }
}
