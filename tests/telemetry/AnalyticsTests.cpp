// "analytics/event" from the page to the line in the log, through the bridge
// and a capturing sink: what any property turns into, and that no message,
// however large or odd, makes a line fail or grow without bound.
#include <gtest/gtest.h>

#include "shell/BridgeHarness.h"
#include "telemetry/AnalyticsLogger.h"
#include "telemetry/AnalyticsProperties.h"

using namespace velko;

TEST(Analytics, PageEventsBecomeOneSortedLineEach) {
    test::BridgeHarness h;
    std::vector<std::string> lines;
    h.bridge->setAnalyticsLogger(std::make_shared<AnalyticsLogger>([&](LogLevel level, const std::string& line) {
        EXPECT_EQ(level, LogLevel::Info);
        lines.push_back(line);
    }));
    std::string deep = "1";
    for (int i = 0; i < 100; ++i) deep = "[" + deep + "]";
    const std::string token = "ghp_" + std::string(36, 'A');
    struct Case {
        const char* name;
        std::string payload;                  // the message's payload, as JSON text
        std::optional<std::string> expected;  // nothing: no line
    };
    const Case cases[] = {
        {"order by text", R"({"name":"x","properties":{"b":2,"a":true,"n":{"k":[1]}}})",
         R"(event=x properties=a=true, b=2, n={"k":[1]})"},
        {"no properties", R"({"name":"x"})", "event=x"},
        {"properties an array", R"({"name":"x","properties":[1,2]})", "event=x"},
        {"true is no number", R"({"name":"x","properties":{"t":true,"one":1,"f":1.0}})",
         "event=x properties=f=1.0, one=1, t=true"},
        {"null and arrays", R"({"name":"x","properties":{"z":null,"l":[1,"a",null]}})",
         R"(event=x properties=l=[1,"a",null], z=null)"},
        {"past 64 bits", R"({"name":"x","properties":{"max":18446744073709551615,"min":-9223372036854775808}})",
         "event=x properties=max=18446744073709551616.0, min=-9223372036854775808"},
        {"deep nesting", R"({"name":"x","properties":{"d":)" + deep + "}}", "event=x properties=d=" + deep},
        {"a token is masked", R"({"name":"x","properties":{"e":"auth )" + token + R"( failed"}})",
         "event=x properties=e=auth *** failed"},
        {"empty name", R"({"name":"","properties":{"a":1}})", std::nullopt},
        {"name not text", R"({"name":5})", std::nullopt},
        {"empty payload", R"({})", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        lines.clear();
        h.send(R"({"type":"analytics/event","payload":)" + c.payload + "}");
        EXPECT_EQ(lines, c.expected ? std::vector<std::string>{*c.expected} : std::vector<std::string>{});
    }

    // 10 MiB of text in one property: the line is cut, on a character boundary, and says so.
    lines.clear();
    std::string huge;
    huge.reserve(10u << 20);
    while (huge.size() < 10u << 20) huge += "éééééééé";
    Json properties{{"s", std::move(huge)}};
    AnalyticsLogger([&](LogLevel, const std::string& line) { lines.push_back(line); })
        .log("big", sanitizeAnalyticsProperties(&properties));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_LE(lines[0].size(), kMaxAnalyticsLineBytes);
    EXPECT_GT(lines[0].size(), kMaxAnalyticsLineBytes - 8);
    EXPECT_TRUE(lines[0].starts_with("event=big properties=s=éé"));
    EXPECT_TRUE(lines[0].ends_with("é" + std::string(kAnalyticsTruncationMark)));
}
