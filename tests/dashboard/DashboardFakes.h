#pragma once
// Fakes for the dashboard's tests: a git runner answering by directory and
// arguments, a languages source, an analytics sink, an event recorder, and a
// pump for the manual main queue while the pool works.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "core/MainQueue.h"
#include "dashboard/DashboardMetricsService.h"

namespace velko::test {

// Answers each git run through `answer`; counts runs per directory and the
// widest concurrency seen.
class ScriptedGitRunner final : public GitProcessRunning {
public:
    using Answer = std::function<GitProcessExecutionResult(const std::vector<std::string>&, const std::string&)>;
    explicit ScriptedGitRunner(Answer answer) : m_answer(std::move(answer)) {}

    GitProcessExecutionResult run(const std::vector<std::string>& arguments, const std::string& directory,
                                  const GitEnvironment& environment) override {
        {
            std::lock_guard lock(m_mutex);
            ++m_runs[directory];
            widest = std::max(widest.load(), ++m_running);
            lastEnvironment = environment;
        }
        auto result = m_answer(arguments, directory);
        std::lock_guard lock(m_mutex);
        --m_running;
        return result;
    }
    int runsIn(const std::string& directory) {
        std::lock_guard lock(m_mutex);
        return m_runs[directory];
    }
    std::atomic<int> widest{0};
    GitEnvironment lastEnvironment;

private:
    Answer m_answer;
    std::mutex m_mutex;
    std::map<std::string, int> m_runs;
    int m_running = 0;
};

struct LoggedEvent {
    std::string name;
    AnalyticsProperties properties;
};

class CapturingAnalytics final : public AnalyticsLogging {
public:
    void log(std::string_view event, const AnalyticsProperties& properties) override {
        std::lock_guard lock(m_mutex);
        m_events.push_back({std::string(event), properties});
    }
    std::vector<LoggedEvent> events() {
        std::lock_guard lock(m_mutex);
        return m_events;
    }

private:
    std::mutex m_mutex;
    std::vector<LoggedEvent> m_events;
};

class StaticProjects final : public DashboardProjectProviding {
public:
    Result<std::vector<ProjectMetadata>, DashboardMetricsError> dashboardProjects() override {
        if (unavailable) return fail(DashboardMetricsError::ProjectsUnavailable);
        return projects;
    }
    ProjectMetadata& add(const std::string& rootPath, const std::string& name = "p") {
        projects.push_back({Uuid::random(), name, rootPath, std::nullopt, {}});
        return projects.back();
    }
    std::vector<ProjectMetadata> projects;
    bool unavailable = false;
};

// Installs a manual main queue for the test's lifetime.
class ManualMainQueue {
public:
    ManualMainQueue() : queue(std::make_shared<ManualQueue>()) { setMainQueue(queue); }
    std::shared_ptr<ManualQueue> queue;
};

// Runs the main queue until `done` holds; the pool's tasks post to it from
// their threads. False when `limit` passes first.
inline bool pumpUntil(ManualQueue& main, const std::function<bool()>& done,
                      std::chrono::seconds limit = std::chrono::seconds(60)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        main.runUntilIdle();
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

// One snapshot fetch, pumped to its answer.
inline std::optional<DashboardMetricsServicing::SnapshotResult> fetchNow(DashboardMetricsService& service,
                                                                        ManualQueue& main, bool force) {
    std::optional<DashboardMetricsServicing::SnapshotResult> out;
    service.fetchSnapshot(force, [&](DashboardMetricsServicing::SnapshotResult r) { out.emplace(std::move(r)); });
    if (!pumpUntil(main, [&] { return out.has_value(); })) return std::nullopt;
    return out;
}

}  // namespace velko::test
