#pragma once
// Helpers for tests of GitService: a fake runner that answers from a script,
// fake account and project providers, and a pump that drives the manual main
// queue while the git queue works (its metadata hops wait for main).

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "core/MainQueue.h"
#include "git/GitService.h"
#include "support/TestSupport.h"
#include "workspace/ConfigStore.h"

namespace velko::test {

struct RunCall {
    std::vector<std::string> arguments;
    GitEnvironment environment;
    std::string joined() const {
        std::string out;
        for (size_t i = 1; i < arguments.size(); ++i) out += (i > 1 ? " " : "") + arguments[i];
        return out;
    }
};

class FakeGitRunner final : public GitProcessRunning {
public:
    // Answers by the joined arguments behind "git"; unknown commands succeed empty.
    void on(const std::string& command, GitProcessExecutionResult result) {
        std::lock_guard lock(m_mutex);
        m_answers[command] = std::move(result);
    }
    GitProcessExecutionResult run(const std::vector<std::string>& arguments, const std::string&,
                                  const GitEnvironment& environment) override {
        RunCall call{arguments, environment};
        std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
        auto it = m_answers.find(call.joined());
        if (it != m_answers.end()) return it->second;
        return {0, "", ""};
    }
    std::vector<RunCall> calls() const {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }
    std::vector<std::string> commands() const {
        std::vector<std::string> out;
        for (const auto& c : calls()) out.push_back(c.joined());
        return out;
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, GitProcessExecutionResult> m_answers;
    std::vector<RunCall> m_calls;
};

class FakeAuth final : public GitAuthProviding {
public:
    std::optional<GitAuthToken> loadToken() override {
        std::lock_guard lock(m_mutex);
        return token;
    }
    bool deleteToken(const std::string& accessToken) override {
        std::lock_guard lock(m_mutex);
        if (token && token->accessToken != accessToken) return false;
        token.reset();
        ++deletions;
        return true;
    }
    std::optional<GitAuthToken> token;
    int deletions = 0;

private:
    std::mutex m_mutex;
};

class FakeBroker final : public GitCredentialBroking {
public:
    Result<GitEnvironment, GitCredentialError> prepareEnvironment(const std::string& token) override {
        ++prepared;
        live = true;
        return GitEnvironment{{"GIT_ASKPASS", "/fake/askpass"}, {"GIT_ASKPASS_REQUIRE", "force"},
                              {"VELKO_GITHUB_TOKEN", token}};
    }
    void cleanup() override { live = false; }
    int prepared = 0;
    bool live = false;
};

class FakeProjects final : public ProjectProviding {
public:
    const AppConfig& config() const override { return m_config; }
    std::optional<ProjectMetadata> project(const Uuid& id) const override {
        for (const auto& p : m_config.projects)
            if (p.id == id) return p;
        return std::nullopt;
    }
    Uuid add(const std::string& rootPath, bool active = true) {
        ProjectMetadata p;
        p.id = Uuid::random();
        p.name = "p";
        p.rootPath = rootPath;
        m_config.projects.push_back(p);
        if (active) m_config.activeProjectID = p.id;
        return p.id;
    }

private:
    AppConfig m_config;
};

// GitHub answering from a script, one answer per request, recording what it was asked.
class ScriptedGraphQL final : public GitHubGraphQLClient {
public:
    std::deque<GitHubGraphQLResult> answers;
    std::vector<std::string> asked;  // "<query name> cursor=<cursor|null>"
    GitHubGraphQLResult execute(std::string_view query, const OrderedJson& vars, const std::string& token) override {
        EXPECT_EQ(token, "tok");
        std::string name(query.substr(6, query.find('(') - 6));
        asked.push_back(name + " cursor=" + (vars["cursor"].is_null() ? "null" : vars["cursor"].get<std::string>()));
        if (answers.empty()) return fail(GitHubGraphQLClientError{GitHubGraphQLClientError::Kind::EmptyData, {}, {}, ""});
        auto answer = std::move(answers.front());
        answers.pop_front();
        return answer;
    }
};

inline std::shared_ptr<ManualQueue> installManualMainQueue() {
    auto queue = std::make_shared<ManualQueue>();
    setMainQueue(queue);
    return queue;
}

// Runs the main queue until every block posted to `service` so far has run,
// and the blocks those posted in turn (an action queues a status refresh).
// Polls with a deadline: the git queue may be running real processes.
inline bool drain(GitService& service, ManualQueue& main) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    // A follow-up is queued while its parent runs, so before the first marker
    // has run; a second marker posted after that one lands behind it.
    for (int round = 0; round < 2; ++round) {
        auto done = std::make_shared<std::atomic<bool>>(false);
        service.whenIdle([done] { *done = true; });
        while (!*done) {
            main.runUntilIdle();
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
    }
    main.runUntilIdle();
    return true;
}

// A GitService on a manual main queue with fake projects and account and its
// events recorded; the test fills in the rest of `deps` (runner, broker, ...)
// before `start`.
struct ServiceRig {
    std::shared_ptr<ManualQueue> mainQueue = installManualMainQueue();
    std::shared_ptr<FakeProjects> projects = std::make_shared<FakeProjects>();
    std::shared_ptr<FakeAuth> auth = std::make_shared<FakeAuth>();
    std::shared_ptr<EventRecorder> events = std::make_shared<EventRecorder>();
    std::shared_ptr<GitService> service;
    GitService::Dependencies deps;

    void start() {
        deps.configProvider = projects;
        if (!deps.authProvider) deps.authProvider = auth;
        service = std::make_shared<GitService>(std::move(deps));
        service->setEventSink(events);
    }
    void settle() { ASSERT_TRUE(drain(*service, *mainQueue)); }
    // "ok: <message>" or "fail: <message>" for each git/result.
    std::vector<std::string> results() const {
        std::vector<std::string> out;
        for (const auto& e : events->eventsOfType("git/result"))
            out.push_back(std::string(e.payload["success"].get<bool>() ? "ok: " : "fail: ") +
                          e.payload["message"].get<std::string>());
        return out;
    }
    // The payload of the one event of `type`.
    Json only(const std::string& type) const {
        auto list = events->eventsOfType(type);
        EXPECT_EQ(list.size(), 1u) << type;
        return list.empty() ? Json() : list.back().payload;
    }
};

}  // namespace velko::test
