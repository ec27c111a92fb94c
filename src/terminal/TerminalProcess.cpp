#include "terminal/TerminalProcess.h"

#include <sys/wait.h>

#include "terminal/TerminalReaper.h"

namespace velko {

TerminalProcess::TerminalProcess(pid_t pid, std::weak_ptr<TerminalReaperCore> reaper)
    : m_pid(pid), m_reaper(std::move(reaper)) {}

TerminalProcess::~TerminalProcess() {
    if (!m_terminated) TerminalReaper::abandon(m_reaper, m_pid);
}

void TerminalProcess::handleExit(int status, bool reaped) {
    if (reaped) {
        if (WIFSIGNALED(status)) m_terminationStatus = -WTERMSIG(status);
        else m_terminationStatus = WEXITSTATUS(status);
    }
    TerminationHandler handler;
    {
        std::lock_guard lock(m_handlerMutex);
        m_terminated = true;
        if (m_terminationHandler && !m_handlerCalled) {
            m_handlerCalled = true;
            handler = m_terminationHandler;
        }
    }
    if (handler) handler(*this);
}

void TerminalProcess::setTerminationHandler(TerminationHandler handler) {
    bool callNow = false;
    {
        std::lock_guard lock(m_handlerMutex);
        m_terminationHandler = handler;
        if (m_terminated && handler && !m_handlerCalled) {
            m_handlerCalled = true;
            callNow = true;
        }
    }
    if (callNow) handler(*this);
}

}  // namespace velko
