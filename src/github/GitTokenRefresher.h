#pragma once
// GitTokenRefresher: once a minute, on "app.velko.oauth-refresh", looks at the
// stored record and refreshes the token when it expires within five minutes.
// The stored record is the only truth: nothing is kept between ticks, so a
// logout between two ticks leaves the next one nothing to do.
//
// start()/stop()/isRunning() on the main thread; evaluateRefresh() on the
// refresh queue, where the HTTP call blocks. A refresh whose result finds a
// different refresh token stored (a logout or a new sign-in meanwhile) writes
// nothing and reports nothing: the newer state wins. A refused refresh removes
// the token (the user must sign in again) and is reported.

#include <atomic>
#include <chrono>
#include <memory>

#include "core/TaskQueue.h"
#include "github/GitAuthManager.h"
#include "github/GitHubOAuthHTTPClient.h"

namespace velko {

class RefreshScheduling {
public:
    virtual ~RefreshScheduling() = default;
    // Replaces any earlier schedule; the first call comes one interval from now.
    virtual void scheduleRepeating(Duration interval, Task handler) = 0;
    virtual void cancel() = 0;
};

// Repeats on a task queue (a serial queue in the program, a manual one in
// tests). The queue's owner keeps it: once it is gone, nothing repeats, and
// no tick can end up releasing the queue on its own thread.
class QueueRefreshScheduler final : public RefreshScheduling {
public:
    explicit QueueRefreshScheduler(std::weak_ptr<TaskQueue> queue) : m_queue(std::move(queue)) {}
    void scheduleRepeating(Duration interval, Task handler) override;
    void cancel() override { ++*m_generation; }

private:
    std::weak_ptr<TaskQueue> m_queue;
    std::shared_ptr<std::atomic<uint64_t>> m_generation = std::make_shared<std::atomic<uint64_t>>(0);
};

class GitTokenRefresherDelegate {
public:
    virtual ~GitTokenRefresherDelegate() = default;
    virtual void gitTokenRefresherDidRefresh(const OAuthTokenRecord& record) = 0;
    virtual void gitTokenRefresherDidFail(OAuthError error) = 0;
};

class GitTokenRefresher final : public std::enable_shared_from_this<GitTokenRefresher> {
public:
    static constexpr std::chrono::seconds kInterval{60};
    static constexpr std::chrono::seconds kRefreshWindow{300};

    GitTokenRefresher(std::shared_ptr<GitAuthManager> authManager, std::shared_ptr<GitHubOAuthHTTPClient> client,
                      std::shared_ptr<RefreshScheduling> scheduler, OAuthClock clock = oauthNow)
        : m_authManager(std::move(authManager)),
          m_client(std::move(client)),
          m_scheduler(std::move(scheduler)),
          m_clock(std::move(clock)) {}
    ~GitTokenRefresher() { m_scheduler->cancel(); }

    void setDelegate(std::weak_ptr<GitTokenRefresherDelegate> delegate) { m_delegate = std::move(delegate); }
    void start();
    void stop();
    bool isRunning() const { return m_isRunning; }
    // One tick.
    void evaluateRefresh();

private:
    std::shared_ptr<GitAuthManager> m_authManager;
    std::shared_ptr<GitHubOAuthHTTPClient> m_client;
    std::shared_ptr<RefreshScheduling> m_scheduler;
    OAuthClock m_clock;
    bool m_isRunning = false;
    std::weak_ptr<GitTokenRefresherDelegate> m_delegate;
};

}  // namespace velko
