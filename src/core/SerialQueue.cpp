#include "core/SerialQueue.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <mutex>

namespace velko {

namespace {

void nameThread(const std::string& label) {
    // Thread names are limited to 15 bytes; keep the distinctive end of the label.
    std::string name = label.size() > 15 ? label.substr(label.size() - 15) : label;
    pthread_setname_np(pthread_self(), name.c_str());
}

// Owns a thread handed over for joining; joins it even when the task that
// carries it is dropped unrun (the main queue going away at exit).
struct Joiner {
    std::thread thread;
    void join() {
        if (thread.joinable()) thread.join();
    }
    ~Joiner() { join(); }
};

// Runs `task` and destroys it while the lock is released: its captures may
// hold the last reference to the queue's owner, whose destructor takes the lock.
void runUnlocked(std::unique_lock<std::mutex>& lock, Task task) {
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
}

// Called by a worker on its way out: when its queue was destroyed on this very
// thread, the thread handle waits in `orphan` for someone else to join it.
void handOff(std::unique_lock<std::mutex>& lock, std::thread& orphan) {
    std::thread self = std::move(orphan);
    lock.unlock();
    if (self.joinable()) joinOnMainQueue(std::move(self));
}

}  // namespace

void joinOnMainQueue(std::thread thread) {
    auto joiner = std::make_shared<Joiner>();
    joiner->thread = std::move(thread);
    mainQueue().post([joiner] { joiner->join(); });
}

// --- SerialQueue ---

struct SerialQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> tasks;
    std::multimap<std::chrono::steady_clock::time_point, Task> timers;
    bool stopping = false;
    std::thread orphan;  // set by a destructor that ran on the worker itself

    void run() {
        std::unique_lock lock(mutex);
        for (;;) {
            auto now = std::chrono::steady_clock::now();
            while (!timers.empty() && timers.begin()->first <= now) {
                tasks.push_back(std::move(timers.begin()->second));
                timers.erase(timers.begin());
            }
            if (!tasks.empty()) {
                Task task = std::move(tasks.front());
                tasks.pop_front();
                runUnlocked(lock, std::move(task));
                continue;
            }
            if (stopping) break;
            if (timers.empty()) wake.wait(lock);
            else wake.wait_until(lock, timers.begin()->first);
        }
        // Timers not yet due are dropped here, on the worker, like any task.
        auto dropped = std::move(timers);
        timers.clear();
        lock.unlock();
        dropped.clear();
        lock.lock();
        handOff(lock, orphan);
    }
};

SerialQueue::SerialQueue(std::string label) : m_label(std::move(label)), m_state(std::make_shared<State>()) {
    m_thread = std::thread([state = m_state, label = m_label] {
        nameThread(label);
        state->run();
    });
    m_threadID = m_thread.get_id();
}

SerialQueue::~SerialQueue() {
    // One of our own tasks may have let go of the queue: the worker cannot join
    // itself, so it finishes what was posted and hands its thread on as it leaves.
    const bool onWorker = m_threadID == std::this_thread::get_id();
    {
        std::lock_guard lock(m_state->mutex);
        m_state->stopping = true;
        if (onWorker) m_state->orphan = std::move(m_thread);
    }
    m_state->wake.notify_all();
    if (!onWorker) m_thread.join();
}

void SerialQueue::post(Task task) {
    {
        std::lock_guard lock(m_state->mutex);
        m_state->tasks.push_back(std::move(task));
    }
    m_state->wake.notify_one();
}

void SerialQueue::postDelayed(Duration delay, Task task) {
    {
        std::lock_guard lock(m_state->mutex);
        m_state->timers.emplace(std::chrono::steady_clock::now() + delay, std::move(task));
    }
    m_state->wake.notify_one();
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == m_threadID; }

void SerialQueue::drainForTesting() {
    std::promise<void> done;
    post([&done] { done.set_value(); });
    done.get_future().wait();
}

// --- ConcurrentQueue ---

struct ConcurrentQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> tasks;
    bool stopping = false;
    std::thread orphan;

    void push(Task task) {
        {
            std::lock_guard lock(mutex);
            tasks.push_back(std::move(task));
        }
        wake.notify_one();
    }

    void run() {
        std::unique_lock lock(mutex);
        for (;;) {
            if (!tasks.empty()) {
                Task task = std::move(tasks.front());
                tasks.pop_front();
                runUnlocked(lock, std::move(task));
                continue;
            }
            if (stopping) break;
            wake.wait(lock);
        }
        handOff(lock, orphan);
    }
};

ConcurrentQueue::ConcurrentQueue(std::string label, unsigned threads)
    : m_label(std::move(label)),
      m_state(std::make_shared<State>()),
      m_timerQueue(std::make_unique<SerialQueue>(m_label + ".timers")) {
    threads = std::max(1u, threads);
    for (unsigned i = 0; i < threads; ++i) {
        m_threads.emplace_back([state = m_state, label = m_label] {
            nameThread(label);
            state->run();
        });
        m_threadIDs.push_back(m_threads.back().get_id());
    }
}

ConcurrentQueue::~ConcurrentQueue() {
    // Timers already due reach the pool before it stops.
    m_timerQueue.reset();
    {
        std::lock_guard lock(m_state->mutex);
        m_state->stopping = true;
    }
    m_state->wake.notify_all();
    const auto self = std::this_thread::get_id();
    for (auto& thread : m_threads) {
        if (thread.get_id() != self) {
            thread.join();
            continue;
        }
        std::lock_guard lock(m_state->mutex);
        m_state->orphan = std::move(thread);
    }
}

void ConcurrentQueue::post(Task task) { m_state->push(std::move(task)); }

void ConcurrentQueue::postDelayed(Duration delay, Task task) {
    std::weak_ptr<State> state = m_state;
    m_timerQueue->postDelayed(delay, [state, task = std::move(task)]() mutable {
        if (auto s = state.lock()) s->push(std::move(task));
    });
}

bool ConcurrentQueue::isCurrent() const {
    return std::find(m_threadIDs.begin(), m_threadIDs.end(), std::this_thread::get_id()) != m_threadIDs.end();
}

}  // namespace velko
