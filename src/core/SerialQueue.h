#pragma once
// SerialQueue: one worker thread running tasks in FIFO order, plus timers.
// ConcurrentQueue: a small pool running tasks in any order.
//
// The destructor finishes the tasks already posted (timers not yet due are
// dropped) and joins the threads, so a queue never outlives its owner's state.
// A queue may be destroyed by one of its own tasks (the task held the last
// reference to the queue's owner): the worker keeps the queue's shared state
// alive, finishes what was posted, and on its way out hands its own thread to
// the main queue, which joins it.

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/TaskQueue.h"

namespace velko {

// Joins `thread` on the main queue: for a worker that was orphaned by its own
// task and calls this as its very last step, so the join returns at once.
void joinOnMainQueue(std::thread thread);

class SerialQueue final : public TaskQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue() override;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void post(Task task) override;
    void postDelayed(Duration delay, Task task) override;
    bool isCurrent() const override;
    const std::string& label() const { return m_label; }

    // Blocks the caller until every task posted before this call has run.
    // Never call it from the queue itself.
    void drainForTesting();

private:
    struct State;
    std::string m_label;
    std::shared_ptr<State> m_state;  // shared with the worker
    std::thread m_thread;
    std::thread::id m_threadID;
};

class ConcurrentQueue final : public TaskQueue {
public:
    ConcurrentQueue(std::string label, unsigned threads);
    ~ConcurrentQueue() override;
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    void post(Task task) override;
    void postDelayed(Duration delay, Task task) override;
    bool isCurrent() const override;

private:
    struct State;
    std::string m_label;
    std::shared_ptr<State> m_state;  // shared with the workers and the timers
    std::vector<std::thread> m_threads;
    std::vector<std::thread::id> m_threadIDs;
    std::unique_ptr<SerialQueue> m_timerQueue;  // delays are rare here; a helper queue holds them
};

}  // namespace velko
