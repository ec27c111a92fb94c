#pragma once
// TaskQueue: where work runs. The main queue (GLib main context in the program,
// a ManualQueue in tests), SerialQueue (one thread, FIFO, timers) and
// ConcurrentQueue all share this interface, so services take the queue they
// live on as a collaborator.

#include <chrono>
#include <functional>
#include <memory>

namespace velko {

using Task = std::function<void()>;
using Duration = std::chrono::steady_clock::duration;

class TaskQueue {
public:
    virtual ~TaskQueue() = default;
    // Runs `task` later, after the tasks posted before it from the same thread.
    virtual void post(Task task) = 0;
    // Runs `task` once `delay` has passed.
    virtual void postDelayed(Duration delay, Task task) = 0;
    // True when the calling thread is this queue's thread (for serial queues).
    virtual bool isCurrent() const = 0;
};

// The main queue of the process. Installed once at start (GLib in the program,
// a ManualQueue in tests); every hop to "the main thread" goes here.
TaskQueue& mainQueue();
void setMainQueue(std::shared_ptr<TaskQueue> queue);
bool isMainThread();

// The hop rule: run now if already on the main thread, else post.
void runOnMain(Task task);

// Hop with a weak reference: the task runs only if the object still lives.
template <typename T, typename F>
void runOnMainWeak(const std::weak_ptr<T>& weak, F&& body) {
    runOnMain([weak, body = std::forward<F>(body)]() mutable {
        if (auto self = weak.lock()) body(*self);
    });
}

}  // namespace velko
