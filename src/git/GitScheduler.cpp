#include "git/GitScheduler.h"

namespace velko {

GitScheduler::GitScheduler(std::string label) : m_queue(std::move(label)) {}

void GitScheduler::post(Task block) { m_queue.post(std::move(block)); }

void GitScheduler::postDelayed(Duration delay, Task block) { m_queue.postDelayed(delay, std::move(block)); }

void GitScheduler::whenIdle(Task done) { m_queue.post(std::move(done)); }

}  // namespace velko
