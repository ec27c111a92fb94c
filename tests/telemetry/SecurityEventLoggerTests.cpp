// The security log: one JSON line per sign-in event, whatever happens to the file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "core/MainQueue.h"
#include "core/Time.h"
#include "support/TestSupport.h"
#include "telemetry/SecurityEventLogger.h"

using namespace velko;
using namespace velko::test;

// (Several events in one log, as a sign-in writes them, are the end-to-end test's.)
TEST(SecurityEventLogger, WritesOneLinePerEventAndRecreatesADeletedFile) {
    TempDir dir;
    auto queue = std::make_shared<ManualQueue>();
    auto logger = SecurityEventLogger::create(dir.file("security-events.log"), queue);
    logger->log(SecurityAction::oauthRefreshFailure);
    queue->runUntilIdle();
    std::string text = readFile(logger->filePath());
    ASSERT_TRUE(text.ends_with("\n"));
    auto entry = parseJson(text.substr(0, text.size() - 1));
    ASSERT_TRUE(entry);
    EXPECT_EQ((*entry)["action"], "oauthRefreshFailure");
    EXPECT_EQ(entry->size(), 2u) << "timestamp and action only";
    EXPECT_TRUE(parseIso8601((*entry)["timestamp"].get<std::string>()));

    unlink(logger->filePath().c_str());
    logger->log(SecurityAction::oauthFailure, "octo", SecurityEventLogging::Metadata{{"error", "stateMismatch"}});
    queue->runUntilIdle();
    text = readFile(logger->filePath());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    EXPECT_NE(text.find(R"("action":"oauthFailure","login":"octo","metadata":{"error":"stateMismatch"})"),
              std::string::npos);
}
