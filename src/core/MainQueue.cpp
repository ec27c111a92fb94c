#include "core/MainQueue.h"

#include <glib.h>

#include <atomic>

namespace velko {

namespace {
std::mutex g_mainMutex;
std::shared_ptr<TaskQueue> g_main;
}  // namespace

TaskQueue& mainQueue() {
    std::lock_guard lock(g_mainMutex);
    if (!g_main) g_main = std::make_shared<ManualQueue>();
    return *g_main;
}

void setMainQueue(std::shared_ptr<TaskQueue> queue) {
    std::lock_guard lock(g_mainMutex);
    g_main = std::move(queue);
}

bool isMainThread() { return mainQueue().isCurrent(); }

void runOnMain(Task task) {
    TaskQueue& queue = mainQueue();
    if (queue.isCurrent()) task();
    else queue.post(std::move(task));
}

// --- GlibMainQueue ---

struct GlibMainQueue::Pending {
    std::mutex mutex;
    std::deque<Task> tasks;
    bool scheduled = false;

    static int drain(void* data) {
        auto& pending = **static_cast<std::shared_ptr<Pending>*>(data);
        std::deque<Task> batch;
        {
            std::lock_guard lock(pending.mutex);
            batch.swap(pending.tasks);
            pending.scheduled = false;
        }
        for (auto& task : batch) task();
        return G_SOURCE_REMOVE;
    }
    static void release(void* data) { delete static_cast<std::shared_ptr<Pending>*>(data); }
};

GlibMainQueue::GlibMainQueue() : m_thread(std::this_thread::get_id()), m_pending(std::make_shared<Pending>()) {}

bool GlibMainQueue::isCurrent() const { return std::this_thread::get_id() == m_thread; }

void GlibMainQueue::post(Task task) {
    bool schedule = false;
    {
        std::lock_guard lock(m_pending->mutex);
        m_pending->tasks.push_back(std::move(task));
        if (!m_pending->scheduled) {
            m_pending->scheduled = true;
            schedule = true;
        }
    }
    if (schedule) {
        // Not g_main_context_invoke: on the owning thread it would run the tasks
        // right now, inside the caller.
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, &Pending::drain, new std::shared_ptr<Pending>(m_pending), &Pending::release);
        g_source_attach(source, nullptr);
        g_source_unref(source);
    }
}

namespace {
struct DelayedTask {
    Task task;
};
int runDelayed(void* data) {
    auto* delayed = static_cast<DelayedTask*>(data);
    delayed->task();
    return G_SOURCE_REMOVE;
}
void freeDelayed(void* data) { delete static_cast<DelayedTask*>(data); }
}  // namespace

void GlibMainQueue::postDelayed(Duration delay, Task task) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(delay).count();
    if (ms < 0) ms = 0;
    GSource* source = g_timeout_source_new(static_cast<guint>(ms));
    g_source_set_callback(source, &runDelayed, new DelayedTask{std::move(task)}, &freeDelayed);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

// --- ManualQueue ---

ManualQueue::ManualQueue() : m_thread(std::this_thread::get_id()) {}

bool ManualQueue::isCurrent() const { return std::this_thread::get_id() == m_thread; }

void ManualQueue::post(Task task) {
    std::lock_guard lock(m_mutex);
    m_tasks.push_back(std::move(task));
}

void ManualQueue::postDelayed(Duration delay, Task task) {
    std::lock_guard lock(m_mutex);
    m_timers.emplace(m_now + delay, std::move(task));
}

size_t ManualQueue::runUntilIdle() {
    size_t ran = 0;
    for (;;) {
        Task task;
        {
            std::lock_guard lock(m_mutex);
            if (m_tasks.empty()) return ran;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task();
        ++ran;
    }
}

void ManualQueue::advance(Duration by) {
    Duration target = m_now + by;
    for (;;) {
        runUntilIdle();
        Task task;
        {
            std::lock_guard lock(m_mutex);
            auto it = m_timers.begin();
            if (it == m_timers.end() || it->first > target) break;
            m_now = it->first;
            task = std::move(it->second);
            m_timers.erase(it);
        }
        task();
    }
    m_now = target;
    runUntilIdle();
}

size_t ManualQueue::pendingTimers() const {
    std::lock_guard lock(m_mutex);
    return m_timers.size();
}

}  // namespace velko
