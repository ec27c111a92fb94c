// The snapshot service over a scripted git runner: the pool's bounds, the
// deadline for a project that never answers, order, caching and the choice of
// language source. Real repositories and time zones are the integration tests'.
#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

#include "core/MainQueue.h"
#include "dashboard/DashboardMetricsService.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace std::chrono_literals;
using Snapshot = DashboardMetricsServicing::SnapshotResult;

namespace {

// Every project: 7 commits, 2 in each period, branch "main". Counts runs per
// directory and the widest concurrency; "/hung" waits until released.
class ScriptedGit final : public GitProcessRunning {
public:
    GitProcessExecutionResult run(const std::vector<std::string>& args, const std::string& directory,
                                  const GitEnvironment& env) override {
        std::unique_lock lock(m_mutex);
        ++runs[directory];
        widest = std::max(widest, ++m_running);
        environment = env;
        m_released.wait(lock, [&] { return directory != "/hung" || released; });
        lock.unlock();
        if (directory != "/hung") std::this_thread::sleep_for(std::chrono::microseconds(50 * directory.size()));
        lock.lock();
        --m_running;
        if (args[1] == "rev-parse") return {0, "main\n", ""};
        if (args[1] == "rev-list") return {0, args.size() == 4 ? "7\n" : "2\n", ""};
        return {0, "", ""};
    }
    void release() {
        std::lock_guard lock(m_mutex);
        released = true;
        m_released.notify_all();
    }
    int count(const std::string& directory) {
        std::lock_guard lock(m_mutex);
        return runs[directory];
    }
    std::map<std::string, int> runs;
    int widest = 0;
    bool released = false;
    GitEnvironment environment;

private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    int m_running = 0;
};

struct CapturingAnalytics final : AnalyticsLogging {
    void log(std::string_view event, const AnalyticsProperties& properties) override {
        std::lock_guard lock(mutex);  // the pool's threads log
        events.emplace_back(std::string(event), properties);
    }
    std::mutex mutex;
    std::vector<std::pair<std::string, AnalyticsProperties>> events;
};

class ScriptedLanguages final : public DashboardLanguagesProviding {
public:
    LanguagesAnswer fetchLanguages(const ProjectMetadata&) override { return answer; }
    LanguagesAnswer answer = std::optional<LanguageBytes>{};
};

struct Fixture : DashboardProjectProviding {
    Result<std::vector<ProjectMetadata>, DashboardMetricsError> dashboardProjects() override { return projects; }
    ProjectMetadata& add(const std::string& root) {
        return projects.emplace_back(ProjectMetadata{Uuid::random(), root.substr(1), root, std::nullopt, {}});
    }
    std::shared_ptr<DashboardMetricsService> make(std::shared_ptr<DashboardLanguagesProviding> languages = nullptr) {
        setMainQueue(main);
        DashboardMetricsService::Dependencies deps;
        deps.projectProvider = std::shared_ptr<DashboardProjectProviding>(std::shared_ptr<void>(), this);
        deps.processRunner = git;
        deps.languagesProvider = std::move(languages);
        deps.analyticsLogger = analytics;
        deps.clock = [this] { return now; };
        deps.calendar = DashboardCalendar::forZone("UTC");
        deps.environment = GitEnvironment{{"PATH", "/usr/bin"}};
        return std::make_shared<DashboardMetricsService>(std::move(deps));
    }
    // Runs the main queue until `done` holds; the pool posts to it from its threads.
    bool pumpUntil(const std::function<bool()>& done) {
        for (auto limit = std::chrono::steady_clock::now() + 60s; !done(); std::this_thread::yield()) {
            mainTasksRun += main->runUntilIdle();
            if (std::chrono::steady_clock::now() > limit) return false;
        }
        return true;
    }
    std::optional<Snapshot> fetch(DashboardMetricsService& service, bool force) {
        std::optional<Snapshot> out;
        service.fetchSnapshot(force, [&](Snapshot r) { out.emplace(std::move(r)); });
        return pumpUntil([&] { return out.has_value(); }) ? std::move(out) : std::nullopt;
    }

    std::vector<ProjectMetadata> projects;
    size_t mainTasksRun = 0;  // each finished project posts one
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<ScriptedGit> git = std::make_shared<ScriptedGit>();
    std::shared_ptr<CapturingAnalytics> analytics = std::make_shared<CapturingAnalytics>();
    SystemTime now = std::chrono::sys_days(std::chrono::year{2024} / 6 / 15) + 12h;
};

}  // namespace

TEST(DashboardMetricsService, AProjectThatNeverAnswersHoldsOneThreadAndTheOtherCardsArrive) {
    Fixture f;
    auto service = f.make();
    for (const char* root : {"/a", "/hung", "/b"}) f.add(root);
    std::optional<Snapshot> first;
    service->fetchSnapshot(false, [&](Snapshot result) { first.emplace(std::move(result)); });
    ASSERT_TRUE(f.pumpUntil([&] { return f.mainTasksRun == 2; })) << "a and b answer";
    EXPECT_FALSE(first) << "the snapshot waits for the deadline";
    f.main->advance(20s);
    ASSERT_TRUE(first && first->ok());
    const auto& summaries = first->value().projectSummaries;
    ASSERT_EQ(summaries.size(), 3u);
    EXPECT_EQ(summaries[1].commitCount, 0);
    EXPECT_EQ(summaries[1].branch, "HEAD");
    EXPECT_EQ(first->value().totalCommits, 14);

    // While the hung task lives, a refresh does not start it again.
    auto second = f.fetch(*service, true);
    ASSERT_TRUE(second && second->ok());
    EXPECT_EQ(f.git->count("/hung"), 1);
    EXPECT_EQ(f.git->count("/a"), 14);

    // Once its old task has answered, a refresh measures it again.
    f.git->release();
    int64_t measured = 0;
    ASSERT_TRUE(f.pumpUntil([&] {
        auto next = f.fetch(*service, true);
        return (measured = next && next->ok() ? next->value().projectSummaries[1].commitCount : -1) != 0;
    }));
    EXPECT_EQ(measured, 7);
}

TEST(DashboardMetricsService, FiftyProjectsNeverRunWiderThanThePoolAndKeepTheirOrder) {
    Fixture f;
    auto service = f.make();
    // Longer names take longer, so tasks end out of order.
    for (int i = 0; i < 50; ++i) f.add("/" + std::string(size_t(50 - i), 'p'));
    auto result = f.fetch(*service, true);
    ASSERT_TRUE(result && result->ok());
    ASSERT_EQ(result->value().projectSummaries.size(), 50u);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(result->value().projectSummaries[i].projectName, f.projects[i].name);
    EXPECT_EQ(result->value().totalCommits, 350);
    EXPECT_LE(f.git->widest, int(DashboardMetricsService::defaultPoolWidth()));
    EXPECT_EQ(f.git->environment["GIT_TERMINAL_PROMPT"], "0");
}

TEST(DashboardMetricsService, ServesTheCacheForFiveMinutesUnlessRefreshIsForced) {
    Fixture f;
    auto service = f.make();
    f.add("/a");
    struct Step {
        const char* name;
        std::chrono::seconds later;
        bool force, recomputed;
    };
    const Step steps[] = {{"first fetch", 0s, false, true},
                          {"within five minutes", 60s, false, false},
                          {"forced", 10s, true, true},
                          {"the forced result is the cache now", 200s, false, false},
                          {"five minutes after the forced fetch", 100s, false, true}};
    SystemTime lastGenerated{};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        f.now += step.later;
        int before = f.git->count("/a");
        auto result = f.fetch(*service, step.force);
        ASSERT_TRUE(result && result->ok());
        EXPECT_EQ(f.git->count("/a") > before, step.recomputed);
        EXPECT_EQ(result->value().generatedAt == lastGenerated, !step.recomputed);
        lastGenerated = result->value().generatedAt;
    }
}

TEST(DashboardMetricsService, DeltaIsAPercentageToOneDecimal) {
    struct Case {
        int64_t last30, previous30;
        double expected;
    };
    for (const Case c : {Case{5, 2, 150.0}, {3, 7, -57.1}, {0, 0, 0.0}, {4, 0, 100.0}, {1, 3, -66.7}}) {
        SCOPED_TRACE(std::to_string(c.last30) + " against " + std::to_string(c.previous30));
        EXPECT_DOUBLE_EQ(dashboardDeltaPercent(c.last30, c.previous30), c.expected);
    }
}

TEST(DashboardMetricsService, LanguagesComeFromTheRemoteElseTheWalkAndAFailureKeepsAValidCacheEntry) {
    test::TempDir dir;
    dir.write("app.py", std::string(5000, 'x'));
    Fixture f;
    auto languages = std::make_shared<ScriptedLanguages>();
    auto service = f.make(languages);
    const std::string projectId = f.projects.emplace_back(ProjectMetadata{Uuid::random(), "shop", dir.path(),
                                                                          std::nullopt, {}}).id.toString();
    using Error = DashboardLanguagesError;
    struct Step {
        const char* name;
        LanguagesAnswer answer;
        std::chrono::seconds later;
        const char* language;  // the stack's first entry
        std::string event;     // "reason error", or empty for none
    };
    const Step steps[] = {
        {"remote answers", std::optional(LanguageBytes{{"Swift", 900}, {"C", 100}}), 0s, "Swift", ""},
        {"failure with a valid entry keeps it", fail(Error{Error::Kind::HttpError, 502}), 60s, "Swift",
         "error httpError(code: 502)"},
        {"failure after it expired walks the tree", fail(Error{Error::Kind::Unauthorized}), 400s, "Python",
         "error unauthorized"},
        {"nothing from the remote walks the tree", std::optional<LanguageBytes>{}, 400s, "Python", "empty_response"},
        {"an empty answer too", std::optional(LanguageBytes{}), 400s, "Python", "empty_response"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        languages->answer = step.answer;
        f.now += step.later;
        size_t before = f.analytics->events.size();
        auto result = f.fetch(*service, true);
        ASSERT_TRUE(result && result->ok());
        EXPECT_EQ(result->value().projectSummaries.at(0).techStack.languages.at(0).name, step.language);
        ASSERT_EQ(f.analytics->events.size(), before + !step.event.empty());
        if (step.event.empty()) continue;
        auto& [name, props] = f.analytics->events.back();
        EXPECT_EQ(name, "dashboard_languages_unavailable");
        std::string got = std::get<std::string>(props["reason"]);
        if (props.count("error")) got += " " + std::get<std::string>(props["error"]);
        EXPECT_EQ(got, step.event);
        EXPECT_EQ(std::get<std::string>(props["projectId"]), projectId);
        EXPECT_EQ(std::get<std::string>(props["projectName"]), "shop");
    }
}
