// The snapshot service over a scripted git runner: the pool's bounds, the
// deadline for a project that never answers, order, caching and the choice of
// language source. Real repositories and time zones are the integration tests'.
#include <gtest/gtest.h>

#include <condition_variable>

#include "dashboard/DashboardMetricsService.h"
#include "dashboard/DashboardFakes.h"
#include "support/TestSupport.h"

using namespace velko;
using namespace velko::test;
using namespace std::chrono_literals;

namespace {

bool hasArgument(const std::vector<std::string>& arguments, std::string_view word) {
    return std::find(arguments.begin(), arguments.end(), word) != arguments.end();
}

// Every project has 7 commits, 2 of them today; a branch "main".
GitProcessExecutionResult steadyRepository(const std::vector<std::string>& arguments, const std::string&) {
    if (hasArgument(arguments, "rev-parse")) return {0, "main\n", ""};
    if (hasArgument(arguments, "rev-list")) return {0, arguments.size() == 4 ? "7\n" : "2\n", ""};
    return {0, "", ""};
}

// Blocks callers in one directory until released.
class Latch {
public:
    void wait() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_open; });
    }
    void open() {
        std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

struct Fixture {
    ManualMainQueue main;
    StaticProjects* projects = nullptr;
    std::shared_ptr<ScriptedGitRunner> runner;
    SystemTime now = std::chrono::sys_days(std::chrono::year{2024} / 6 / 15) + 12h;

    std::shared_ptr<DashboardMetricsService> make(ScriptedGitRunner::Answer answer,
                                                  std::shared_ptr<DashboardLanguagesProviding> languages = nullptr,
                                                  std::shared_ptr<AnalyticsLogging> analytics = nullptr) {
        auto provider = std::make_shared<StaticProjects>();
        projects = provider.get();
        runner = std::make_shared<ScriptedGitRunner>(std::move(answer));
        DashboardMetricsService::Dependencies deps;
        deps.projectProvider = provider;
        deps.processRunner = runner;
        deps.languagesProvider = std::move(languages);
        deps.analyticsLogger = std::move(analytics);
        deps.clock = [this] { return now; };
        deps.calendar = DashboardCalendar::forZone("UTC");
        deps.environment = GitEnvironment{{"PATH", "/usr/bin"}};
        deps.deadline = 20s;
        return std::make_shared<DashboardMetricsService>(std::move(deps));
    }
};

}  // namespace

TEST(DashboardMetricsService, AProjectThatNeverAnswersHoldsOneThreadAndTheOtherCardsArrive) {
    Fixture f;
    Latch hung;
    auto service = f.make([&](const std::vector<std::string>& arguments, const std::string& directory) {
        if (directory == "/hung") hung.wait();
        return steadyRepository(arguments, directory);
    });
    f.projects->add("/a");
    f.projects->add("/hung");
    f.projects->add("/b");

    std::optional<DashboardMetricsServicing::SnapshotResult> first;
    service->fetchSnapshot(false, [&](auto result) { first.emplace(std::move(result)); });
    // a and b ran all seven commands.
    ASSERT_TRUE(pumpUntil(*f.main.queue, [&] { return f.runner->runsIn("/a") == 7 && f.runner->runsIn("/b") == 7; }));
    f.main.queue->runUntilIdle();
    EXPECT_FALSE(first) << "the snapshot waits for the deadline";
    f.main.queue->advance(20s);
    ASSERT_TRUE(first && first->ok());
    const auto& summaries = first->value().projectSummaries;
    ASSERT_EQ(summaries.size(), 3u);
    EXPECT_EQ(summaries[0].commitCount, 7);
    EXPECT_EQ(summaries[1].commitCount, 0);
    EXPECT_EQ(summaries[1].branch, "HEAD");
    EXPECT_EQ(summaries[1].heatmap.size(), 28u);
    EXPECT_EQ(summaries[2].commitCount, 7);
    EXPECT_EQ(first->value().totalCommits, 14);

    // While the hung task lives, a refresh does not start it again.
    auto second = fetchNow(*service, *f.main.queue, true);
    ASSERT_TRUE(second && second->ok());
    EXPECT_EQ(f.runner->runsIn("/hung"), 1);
    EXPECT_EQ(f.runner->runsIn("/a"), 14);
    EXPECT_EQ(second->value().projectSummaries[1].commitCount, 0);

    // Once its old task has answered, a refresh measures it again.
    hung.open();
    int64_t measured = 0;
    ASSERT_TRUE(pumpUntil(*f.main.queue, [&] {
        auto next = fetchNow(*service, *f.main.queue, true);
        measured = next && next->ok() ? next->value().projectSummaries[1].commitCount : -1;
        return measured != 0;
    }));
    EXPECT_EQ(measured, 7);
}

TEST(DashboardMetricsService, FiftyProjectsNeverRunWiderThanThePoolAndKeepTheirOrder) {
    Fixture f;
    auto service = f.make([](const std::vector<std::string>& arguments, const std::string& directory) {
        // Later projects answer sooner, so tasks end roughly in reverse.
        int index = std::stoi(directory.substr(1));
        std::this_thread::sleep_for(std::chrono::microseconds(50 * (50 - index)));
        return steadyRepository(arguments, directory);
    });
    for (int i = 0; i < 50; ++i) f.projects->add("/" + std::to_string(i), "project " + std::to_string(i));

    auto result = fetchNow(*service, *f.main.queue, true);
    ASSERT_TRUE(result && result->ok());
    const auto& snapshot = result->value();
    ASSERT_EQ(snapshot.projectSummaries.size(), 50u);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(snapshot.projectSummaries[i].projectName, "project " + std::to_string(i));
    EXPECT_EQ(snapshot.totalCommits, 350);
    EXPECT_LE(f.runner->widest.load(), int(DashboardMetricsService::defaultPoolWidth()));
    EXPECT_GE(f.runner->widest.load(), 2) << "projects run side by side";
    EXPECT_EQ(f.runner->lastEnvironment["GIT_TERMINAL_PROMPT"], "0");
}

TEST(DashboardMetricsService, ServesTheCacheForFiveMinutesUnlessRefreshIsForced) {
    Fixture f;
    auto service = f.make(steadyRepository);
    f.projects->add("/a");
    struct Step {
        const char* name;
        std::chrono::seconds later;
        bool force;
        bool recomputed;
    };
    const Step steps[] = {
        {"first fetch", 0s, false, true},
        {"within five minutes", 60s, false, false},
        {"forced", 10s, true, true},
        {"the forced result is the cache now", 200s, false, false},
        {"five minutes after the forced fetch", 100s, false, true},
    };
    SystemTime lastGenerated{};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        f.now += step.later;
        int before = f.runner->runsIn("/a");
        auto result = fetchNow(*service, *f.main.queue, step.force);
        ASSERT_TRUE(result && result->ok());
        EXPECT_EQ(f.runner->runsIn("/a") > before, step.recomputed);
        EXPECT_EQ(result->value().generatedAt == lastGenerated, !step.recomputed);
        lastGenerated = result->value().generatedAt;
    }
}

TEST(DashboardMetricsService, AProviderThatCannotTellTheProjectsFailsTheSnapshotAndNoProjectsGiveZeros) {
    Fixture f;
    auto service = f.make(steadyRepository);
    f.projects->unavailable = true;
    auto failed = fetchNow(*service, *f.main.queue, true);
    ASSERT_TRUE(failed);
    ASSERT_FALSE(failed->ok());
    EXPECT_EQ(failed->error(), DashboardMetricsError::ProjectsUnavailable);

    f.projects->unavailable = false;
    auto empty = fetchNow(*service, *f.main.queue, true);
    ASSERT_TRUE(empty && empty->ok());
    EXPECT_TRUE(empty->value().projectSummaries.empty());
    EXPECT_EQ(empty->value().totalCommits, 0);
    EXPECT_EQ(empty->value().last30DayDeltaPercent, 0.0);
}

TEST(DashboardMetricsService, DeltaIsAPercentageToOneDecimal) {
    struct Case {
        int64_t last30, previous30;
        double expected;
    };
    const Case cases[] = {{5, 2, 150.0}, {3, 7, -57.1}, {0, 0, 0.0}, {4, 0, 100.0}, {2, 3, -33.3}, {1, 3, -66.7}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.last30) + " against " + std::to_string(c.previous30));
        EXPECT_DOUBLE_EQ(dashboardDeltaPercent(c.last30, c.previous30), c.expected);
    }
}

namespace {

class ScriptedLanguages final : public DashboardLanguagesProviding {
public:
    LanguagesAnswer fetchLanguages(const ProjectMetadata&) override {
        ++calls;
        return answer;
    }
    LanguagesAnswer answer = std::optional<LanguageBytes>{};
    int calls = 0;
};

}  // namespace

TEST(DashboardMetricsService, LanguagesComeFromTheRemoteElseTheWalkAndAFailureKeepsAValidCacheEntry) {
    test::TempDir dir;
    dir.write("app.py", std::string(5000, 'x'));
    Fixture f;
    auto languages = std::make_shared<ScriptedLanguages>();
    auto analytics = std::make_shared<CapturingAnalytics>();
    auto service = f.make(steadyRepository, languages, analytics);
    auto& project = f.projects->add(dir.path(), "shop");
    const std::string projectId = project.id.toString();

    using Error = DashboardLanguagesError;
    struct Step {
        const char* name;
        LanguagesAnswer answer;
        bool force;
        std::chrono::seconds later;
        const char* expectedLanguage;     // first entry of the stack
        const char* expectedReason;       // analytics, or nullptr
        const char* expectedError;        // the event's error, or nullptr
    };
    const Step steps[] = {
        {"remote answers", std::optional<LanguageBytes>(LanguageBytes{{"Swift", 900}, {"C", 100}}), true, 0s,
         "Swift", nullptr, nullptr},
        {"failure with a valid entry keeps it", fail(Error{Error::Kind::HttpError, 502}), true, 60s, "Swift",
         "error", "httpError(code: 502)"},
        {"failure after the entry expired walks the tree", fail(Error{Error::Kind::Unauthorized}), true, 400s,
         "Python", "error", "unauthorized"},
        {"nothing from the remote walks the tree", std::optional<LanguageBytes>{}, true, 400s, "Python",
         "empty_response", nullptr},
        {"an empty answer walks the tree", std::optional<LanguageBytes>(LanguageBytes{}), true, 400s, "Python",
         "empty_response", nullptr},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        languages->answer = step.answer;
        f.now += step.later;
        size_t eventsBefore = analytics->events().size();
        auto result = fetchNow(*service, *f.main.queue, step.force);
        ASSERT_TRUE(result && result->ok());
        const auto& stack = result->value().projectSummaries.at(0).techStack;
        ASSERT_FALSE(stack.languages.empty());
        EXPECT_EQ(stack.languages[0].name, step.expectedLanguage);
        auto events = analytics->events();
        ASSERT_EQ(events.size(), eventsBefore + (step.expectedReason ? 1 : 0));
        if (!step.expectedReason) continue;
        const auto& event = events.back();
        EXPECT_EQ(event.name, "dashboard_languages_unavailable");
        EXPECT_EQ(std::get<std::string>(event.properties.at("reason")), step.expectedReason);
        EXPECT_EQ(std::get<std::string>(event.properties.at("projectId")), projectId);
        EXPECT_EQ(std::get<std::string>(event.properties.at("projectName")), "shop");
        EXPECT_EQ(event.properties.count("error"), step.expectedError ? 1u : 0u);
        if (step.expectedError) {
            EXPECT_EQ(std::get<std::string>(event.properties.at("error")), step.expectedError);
        }
    }

}
