#pragma once
// GitScheduler: the serial queue "app.velko.git-service" that carries all git
// work except history pages, so that two of its git commands never overlap,
// across all projects. It adds to the queue what the engine needs of it:
// delayed work, a marker behind everything posted so far, and a stop that
// drops the blocks which have not started yet.
//
// Owned by GitService (and shared with the services that run on the same
// queue); thread-safe. Destroyed from one of its own blocks, the queue ends
// its thread once that block returns.

#include <atomic>
#include <memory>
#include <string>

#include "core/SerialQueue.h"

namespace velko {

class GitScheduler {
public:
    explicit GitScheduler(std::string label = "app.velko.git-service");

    // Blocks posted after a stop, or still waiting when it came, never run.
    void post(Task block);
    void postDelayed(Duration delay, Task block);
    // Runs `done` on the queue once every block posted before it has run or
    // been dropped; a stop does not drop it.
    void whenIdle(Task done);
    void stop();
    bool isStopped() const { return m_stopped->load(); }
    bool isCurrent() const { return m_queue.isCurrent(); }

private:
    Task guarded(Task block) const;

    // Shared with the posted blocks, which may run after the scheduler is gone.
    std::shared_ptr<std::atomic<bool>> m_stopped = std::make_shared<std::atomic<bool>>(false);
    SerialQueue m_queue;
};

}  // namespace velko
