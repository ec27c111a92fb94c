// The security log: one JSON line per sign-in event, whatever happens to the file.
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/MainQueue.h"
#include "core/Time.h"
#include "support/TestSupport.h"
#include "telemetry/SecurityEventLogger.h"

using namespace velko;
using namespace velko::test;

TEST(SecurityEventLogger, WritesOneLinePerEventAndRecreatesADeletedFile) {
    TempDir dir;
    auto queue = std::make_shared<ManualQueue>();
    auto logger = SecurityEventLogger::create(dir.file("security-events.log"), queue);
    const SecurityAction all[] = {SecurityAction::oauthStart,          SecurityAction::oauthSuccess,
                                  SecurityAction::oauthFailure,        SecurityAction::oauthLogout,
                                  SecurityAction::oauthRefreshSuccess, SecurityAction::oauthRefreshFailure,
                                  SecurityAction::oauthTokenInvalid};
    for (auto action : all) logger->log(action);
    logger->log(SecurityAction::oauthFailure, "octo", SecurityEventLogging::Metadata{{"error", "stateMismatch"}});
    queue->runUntilIdle();
    std::vector<std::string> lines;
    std::string text = readFile(logger->filePath());
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    ASSERT_EQ(lines.size(), 8u);
    for (size_t i = 0; i < 7; ++i) {
        auto entry = parseJson(lines[i]);
        ASSERT_TRUE(entry);
        EXPECT_EQ((*entry)["action"], std::string(securityActionName(all[i])));
        EXPECT_EQ(entry->size(), 2u) << "timestamp and action only";
        EXPECT_TRUE(parseIso8601((*entry)["timestamp"].get<std::string>()));
    }
    EXPECT_EQ(std::string(securityActionName(SecurityAction::oauthRefreshFailure)), "oauthRefreshFailure");
    EXPECT_NE(lines[7].find(R"("action":"oauthFailure","login":"octo","metadata":{"error":"stateMismatch"})"),
              std::string::npos);
    unlink(logger->filePath().c_str());
    logger->log(SecurityAction::oauthLogout);
    queue->runUntilIdle();
    EXPECT_NE(readFile(logger->filePath()).find("oauthLogout"), std::string::npos);
}
