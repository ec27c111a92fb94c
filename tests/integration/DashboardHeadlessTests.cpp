// The dashboard through the real program: `velko --headless` with two
// repositories and a plain folder picked as projects.
#include <gtest/gtest.h>

#include <filesystem>

#include "integration/GitTestRepos.h"
#include "support/HeadlessProcess.h"

using namespace velko;
using namespace velko::test;

TEST(DashboardHeadless, PresentFetchesRefreshesAndDismisses) {
    IsolatedHome home;
    TempDir base;
    std::vector<std::string> folders;
    for (const char* name : {"alpha", "beta"}) {
        std::string repo = initRepo(base, name);
        writeFileAtomically(repo + "/main.py", std::string(5000, 'x'));
        git(repo, {"add", "main.py"});
        git(repo, {"commit", "-q", "-m", "first"});
        git(repo, {"commit", "-q", "--allow-empty", "-m", "second"});
        folders.push_back(repo);
    }
    folders.push_back(base.file("plain"));
    std::filesystem::create_directories(folders.back());

    HeadlessProcess velko({"--pick-folder", folders[0], "--pick-folder", folders[1], "--pick-folder", folders[2]});
    velko.send(R"({"type":"project/open"})");
    ASSERT_TRUE(velko.waitFor([](const Json& e) {
        return e.value("type", "") == "app/config" && e["payload"]["projects"].size() == 3;
    }));
    auto isDashboardEvent = [](const Json& e) { return e.value("type", "").rfind("dashboard.", 0) == 0; };

    velko.send(R"({"type":"dashboard.present","payload":{"source":"acceptance"}})");
    auto toggled = velko.take(isDashboardEvent);
    ASSERT_TRUE(toggled);
    EXPECT_EQ(toggled->dump(), R"({"payload":{"open":true},"type":"dashboard.toggled"})");
    auto metrics = velko.take(isDashboardEvent);
    ASSERT_TRUE(metrics);
    ASSERT_EQ(metrics->value("type", ""), "dashboard.metrics");
    const Json& summaries = (*metrics)["payload"]["projectSummaries"];
    ASSERT_EQ(summaries.size(), 3u);
    for (size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(folders[i]);
        EXPECT_EQ(summaries[i]["projectName"], std::filesystem::path(folders[i]).filename().string());
        EXPECT_EQ(summaries[i]["branch"], "main");
        EXPECT_EQ(std::to_string(summaries[i]["commitCount"].get<int>()) + "\n",
                  git(folders[i], {"rev-list", "--count", "HEAD"}));
        EXPECT_EQ(summaries[i]["heatmap"].size(), 28u);
        EXPECT_EQ(summaries[i]["heatmap"].back()["count"], 2);
        EXPECT_EQ(summaries[i]["techStack"]["languages"][0]["name"], "Python");
    }
    EXPECT_EQ(summaries[2]["branch"], "HEAD");
    EXPECT_EQ(summaries[2]["commitCount"], 0);
    EXPECT_FALSE(summaries[2].contains("lastCommitAt"));
    EXPECT_EQ((*metrics)["payload"]["totalCommits"], 4);

    // Open already: a plain present does nothing, a forced one fetches again.
    velko.send(R"({"type":"dashboard.present","payload":{"source":"acceptance"}})");
    velko.send(R"({"type":"dashboard.present","payload":{"forceRefresh":true}})");
    auto refreshed = velko.take(isDashboardEvent);
    ASSERT_TRUE(refreshed);
    EXPECT_EQ(refreshed->value("type", ""), "dashboard.metrics");
    velko.send(R"({"type":"dashboard.dismiss"})");
    auto closed = velko.take(isDashboardEvent);
    ASSERT_TRUE(closed);
    EXPECT_EQ(closed->dump(), R"({"payload":{"open":false},"type":"dashboard.toggled"})");
    EXPECT_EQ(velko.finish(), 0);
}
