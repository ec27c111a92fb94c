#include "core/SerialQueue.h"

#include <pthread.h>

#include <algorithm>
#include <future>

namespace velko {

namespace {
void nameThread(const std::string& label) {
    // Thread names are limited to 15 bytes; keep the distinctive end of the label.
    std::string name = label.size() > 15 ? label.substr(label.size() - 15) : label;
    pthread_setname_np(pthread_self(), name.c_str());
}
}  // namespace

SerialQueue::SerialQueue(std::string label) : m_label(std::move(label)) {
    m_thread = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) {
        if (m_thread.get_id() == std::this_thread::get_id()) m_thread.detach();
        else m_thread.join();
    }
}

void SerialQueue::post(Task task) {
    {
        std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    m_wake.notify_one();
}

void SerialQueue::postDelayed(Duration delay, Task task) {
    {
        std::lock_guard lock(m_mutex);
        m_timers.emplace(std::chrono::steady_clock::now() + delay, std::move(task));
    }
    m_wake.notify_one();
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == m_thread.get_id(); }

void SerialQueue::drainForTesting() {
    std::promise<void> done;
    post([&done] { done.set_value(); });
    done.get_future().wait();
}

void SerialQueue::run() {
    nameThread(m_label);
    std::unique_lock lock(m_mutex);
    for (;;) {
        auto now = std::chrono::steady_clock::now();
        while (!m_timers.empty() && m_timers.begin()->first <= now) {
            m_tasks.push_back(std::move(m_timers.begin()->second));
            m_timers.erase(m_timers.begin());
        }
        if (!m_tasks.empty()) {
            Task task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (m_stopping) return;
        if (m_timers.empty()) m_wake.wait(lock);
        else m_wake.wait_until(lock, m_timers.begin()->first);
    }
}

ConcurrentQueue::ConcurrentQueue(std::string label, unsigned threads)
    : m_label(std::move(label)), m_timerQueue(m_label + ".timers") {
    threads = std::max(1u, threads);
    for (unsigned i = 0; i < threads; ++i) m_threads.emplace_back([this] { run(); });
}

ConcurrentQueue::~ConcurrentQueue() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    for (auto& t : m_threads) {
        if (t.get_id() == std::this_thread::get_id()) t.detach();
        else t.join();
    }
}

void ConcurrentQueue::post(Task task) {
    {
        std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    m_wake.notify_one();
}

void ConcurrentQueue::postDelayed(Duration delay, Task task) {
    m_timerQueue.postDelayed(delay, [this, task = std::move(task)]() mutable { post(std::move(task)); });
}

bool ConcurrentQueue::isCurrent() const {
    auto id = std::this_thread::get_id();
    return std::any_of(m_threads.begin(), m_threads.end(), [id](const std::thread& t) { return t.get_id() == id; });
}

void ConcurrentQueue::run() {
    nameThread(m_label);
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (!m_tasks.empty()) {
            Task task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (m_stopping) return;
        m_wake.wait(lock);
    }
}

}  // namespace velko
