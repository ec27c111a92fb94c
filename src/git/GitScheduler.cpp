#include "git/GitScheduler.h"

namespace velko {

GitScheduler::GitScheduler(std::string label) : m_queue(std::move(label)) {}

Task GitScheduler::guarded(Task block) const {
    return [stopped = m_stopped, block = std::move(block)] {
        if (!stopped->load()) block();
    };
}

void GitScheduler::post(Task block) { m_queue.post(guarded(std::move(block))); }

void GitScheduler::postDelayed(Duration delay, Task block) { m_queue.postDelayed(delay, guarded(std::move(block))); }

void GitScheduler::whenIdle(Task done) { m_queue.post(std::move(done)); }

void GitScheduler::stop() { m_stopped->store(true); }

}  // namespace velko
