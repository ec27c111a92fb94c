#pragma once
// Main-queue implementations.
//
// GlibMainQueue posts onto the default GLib main context. It keeps its own FIFO
// and wakes the context once per batch, so order holds across threads and a
// flood of posts costs one wake-up, not one GSource each.
//
// ManualQueue is the test stand-in: work runs when the test calls
// runUntilIdle(); timers fire when the test advances its clock.

#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "core/TaskQueue.h"

namespace velko {

class GlibMainQueue final : public TaskQueue, public std::enable_shared_from_this<GlibMainQueue> {
public:
    // Must be constructed on the thread that runs the default main context.
    GlibMainQueue();
    void post(Task task) override;
    void postDelayed(Duration delay, Task task) override;
    bool isCurrent() const override;

private:
    struct Pending;
    std::thread::id m_thread;
    // Shared with the idle source that drains it, so a source still attached
    // when the queue goes away never reaches freed memory.
    std::shared_ptr<Pending> m_pending;
};

class ManualQueue final : public TaskQueue {
public:
    ManualQueue();
    void post(Task task) override;
    void postDelayed(Duration delay, Task task) override;
    bool isCurrent() const override;

    // Runs posted tasks (and tasks they post) until none is left. Returns how many ran.
    size_t runUntilIdle();
    // Moves the manual clock on, firing due timers in deadline order, then runs until idle.
    void advance(Duration by);
    Duration now() const { return m_now; }
    size_t pendingTimers() const;

private:
    std::thread::id m_thread;
    mutable std::mutex m_mutex;
    std::deque<Task> m_tasks;
    std::multimap<Duration, Task> m_timers;
    Duration m_now{};
};

}  // namespace velko
