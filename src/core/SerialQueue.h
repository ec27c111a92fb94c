#pragma once
// SerialQueue: one worker thread running tasks in FIFO order, plus timers.
// ConcurrentQueue: a small pool running tasks in any order.
//
// The destructor finishes the tasks already posted (timers not yet due are
// dropped) and joins the thread, so a queue never outlives its owner's state.

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/TaskQueue.h"

namespace velko {

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
    void run();

    std::string m_label;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Task> m_tasks;
    std::multimap<std::chrono::steady_clock::time_point, Task> m_timers;
    bool m_stopping = false;
    std::thread m_thread;
};

class ConcurrentQueue final : public TaskQueue {
public:
    ConcurrentQueue(std::string label, unsigned threads);
    ~ConcurrentQueue() override;
    void post(Task task) override;
    void postDelayed(Duration delay, Task task) override;
    bool isCurrent() const override;

private:
    void run();

    std::string m_label;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Task> m_tasks;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;
    SerialQueue m_timerQueue;  // delays are rare here; a helper queue holds them
};

}  // namespace velko
