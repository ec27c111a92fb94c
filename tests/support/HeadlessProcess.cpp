#include "support/HeadlessProcess.h"

#include <poll.h>

#include <cerrno>
#include <stdexcept>

#include "support/ChildProcesses.h"

namespace velko::test {

HeadlessProcess::HeadlessProcess(const std::vector<std::string>& arguments) {
    const char* dir = std::getenv("VELKO_BINARY_DIR");
    std::vector<std::string> args = {std::string(dir ? dir : ".") + "/velko", "--headless"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    m_pid = spawnChild(args, out[1], {}, in[0]);
    close(in[0]);
    close(out[1]);
    if (m_pid <= 0) throw std::runtime_error("spawn " + args[0]);
    m_in = in[1];
    m_out = out[0];
}

HeadlessProcess::~HeadlessProcess() {
    if (!m_exited && m_pid > 0) {
        if (finish(std::chrono::seconds(8)) == -1) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    if (m_in >= 0) close(m_in);
    if (m_out >= 0) close(m_out);
}

void HeadlessProcess::send(const std::string& line) { sendRaw(line + "\n"); }

void HeadlessProcess::send(const std::string& type, const OrderedJson& payload) {
    send(dumpJson(OrderedJson{{"type", type}, {"payload", payload}}));
}

void HeadlessProcess::sendRaw(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size() && m_in >= 0) {
        ssize_t n = write(m_in, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        done += static_cast<size_t>(n);
    }
}

void HeadlessProcess::closeInput() {
    if (m_in >= 0) close(m_in);
    m_in = -1;
}

bool HeadlessProcess::readSome(std::chrono::milliseconds timeout) {
    pollfd p{m_out, POLLIN, 0};
    int ready = poll(&p, 1, static_cast<int>(timeout.count()));
    if (ready <= 0) return false;
    char chunk[65536];
    ssize_t n = read(m_out, chunk, sizeof chunk);
    if (n == 0) m_eof = true;
    if (n <= 0) return false;
    m_buffer.append(chunk, static_cast<size_t>(n));
    takeLines();
    return true;
}

void HeadlessProcess::takeLines() {
    size_t start = 0;
    for (size_t nl; (nl = m_buffer.find('\n', start)) != std::string::npos; start = nl + 1) {
        std::string line = m_buffer.substr(start, nl - start);
        auto parsed = parseJson(line);
        if (parsed && parsed->is_object()) m_events.push_back(std::move(*parsed));
        else m_stray.push_back(line);
    }
    m_buffer.erase(0, start);
}

std::optional<Json> HeadlessProcess::readUntil(const std::function<std::optional<Json>()>& found,
                                               std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (auto event = found()) return event;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || m_eof) return std::nullopt;
        if (!readSome(left) && std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    }
}

std::optional<Json> HeadlessProcess::waitFor(const std::function<bool(const Json&)>& predicate,
                                             std::chrono::milliseconds timeout) {
    return readUntil([&]() -> std::optional<Json> {
        for (; m_checked < m_events.size(); ++m_checked)
            if (predicate(m_events[m_checked])) return m_events[m_checked++];
        return std::nullopt;
    }, timeout);
}

std::optional<Json> HeadlessProcess::waitForType(const std::string& type, std::chrono::milliseconds timeout) {
    return waitFor([&](const Json& e) { return e.value("type", "") == type; }, timeout);
}

std::optional<Json> HeadlessProcess::take(const std::function<bool(const Json&)>& predicate,
                                         std::chrono::milliseconds timeout) {
    return readUntil([&]() -> std::optional<Json> {
        m_taken.resize(m_events.size(), false);
        for (size_t i = 0; i < m_events.size(); ++i) {
            if (!m_taken[i] && predicate(m_events[i])) {
                m_taken[i] = true;
                return m_events[i];
            }
        }
        return std::nullopt;
    }, timeout);
}

int HeadlessProcess::finish(std::chrono::milliseconds timeout) {
    closeInput();
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        readSome(std::chrono::milliseconds(50));
        pid_t r = waitpid(m_pid, &m_status, WNOHANG);
        if (r == m_pid) {
            m_exited = true;
            while (readSome(std::chrono::milliseconds(0))) {
            }
            return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
        }
    }
    return -1;
}

}  // namespace velko::test
