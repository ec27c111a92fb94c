#pragma once
// GitScheduler: the serial queue "app.velko.git-service" that carries all git
// work except history pages, so that two of its git commands never overlap,
// across all projects. It adds to the queue what the engine needs of it:
// delayed work and a marker behind everything posted so far.
//
// Owned by GitService (and shared with the services that run on the same
// queue); thread-safe. Destroyed from one of its own blocks, the queue ends
// its thread once that block returns.

#include <string>

#include "core/SerialQueue.h"

namespace velko {

class GitScheduler {
public:
    explicit GitScheduler(std::string label = "app.velko.git-service");

    void post(Task block);
    void postDelayed(Duration delay, Task block);
    // Runs `done` on the queue once every block posted before it has run.
    void whenIdle(Task done);
    bool isCurrent() const { return m_queue.isCurrent(); }

private:
    SerialQueue m_queue;
};

}  // namespace velko
