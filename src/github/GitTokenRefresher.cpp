#include "github/GitTokenRefresher.h"

namespace velko {

namespace {
// Each tick holds the counter and the queue weakly, not the scheduler: a
// cancelled or replaced schedule stops at its next tick, whatever is left of it.
struct Tick {
    std::weak_ptr<TaskQueue> queue;
    std::shared_ptr<std::atomic<uint64_t>> generation;
    uint64_t mine;
    Duration interval;
    std::shared_ptr<Task> handler;

    void arm() const {
        auto target = queue.lock();
        if (!target) return;
        Tick next = *this;
        target->postDelayed(interval, [next] {
            if (next.generation->load() != next.mine) return;
            (*next.handler)();
            if (next.generation->load() == next.mine) next.arm();
        });
    }
};
}  // namespace

void QueueRefreshScheduler::scheduleRepeating(Duration interval, Task handler) {
    Tick{m_queue, m_generation, ++*m_generation, interval, std::make_shared<Task>(std::move(handler))}.arm();
}

void GitTokenRefresher::start() {
    if (m_isRunning) return;
    m_isRunning = true;
    std::weak_ptr<GitTokenRefresher> weak = weak_from_this();
    m_scheduler->scheduleRepeating(kInterval, [weak] {
        if (auto self = weak.lock()) self->evaluateRefresh();
    });
}

void GitTokenRefresher::stop() {
    m_scheduler->cancel();
    m_isRunning = false;
}

void GitTokenRefresher::evaluateRefresh() {
    auto record = m_authManager->loadRecord();
    // A token without a refresh token stays until the server refuses it.
    if (!record || record->refreshToken.empty()) return;
    OAuthTime now = m_clock();
    if (record->expiresAt - now > kRefreshWindow) return;

    auto delegate = [this] { return m_delegate.lock(); };
    auto answer = m_client->refreshToken(record->refreshToken);
    if (!answer) {
        // The refresh token is spent or refused: the user must sign in again.
        if (m_authManager->removeIfRefreshTokenIs(record->refreshToken))
            if (auto d = delegate()) d->gitTokenRefresherDidFail(answer.error());
        return;
    }
    OAuthTokenRecord updated = record->updating(answer.value(), m_clock());
    auto saved = m_authManager->replaceIfRefreshTokenIs(record->refreshToken, updated);
    if (!saved) {
        // The new tokens could not be kept; the old ones are likely revoked by
        // the rotation, so the user hears of it now rather than at the next push.
        if (auto d = delegate()) d->gitTokenRefresherDidFail(saved.error());
        return;
    }
    if (saved.value())
        if (auto d = delegate()) d->gitTokenRefresherDidRefresh(updated);
}

}  // namespace velko
