#pragma once
// A real `velko --headless` child for integration tests: messages go in as
// JSON lines on its standard input, events come back as lines on its output.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/Json.h"

namespace velko::test {

class HeadlessProcess {
public:
    // Starts $VELKO_BINARY_DIR/velko --headless with `arguments`, in the current
    // environment (tests point HOME and XDG_* at temporary folders first).
    explicit HeadlessProcess(const std::vector<std::string>& arguments = {});
    ~HeadlessProcess();  // closes input, waits a little, then kills

    void send(const std::string& line);
    // One message of `type` with `payload`, as the page posts it.
    void send(const std::string& type, const OrderedJson& payload);
    void sendRaw(const std::string& bytes);
    void closeInput();

    // Reads events until `predicate` accepts one or `timeout` passes; every
    // event read is kept in events().
    std::optional<Json> waitFor(const std::function<bool(const Json&)>& predicate,
                                std::chrono::milliseconds timeout = std::chrono::seconds(15));
    std::optional<Json> waitForType(const std::string& type,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(15));
    // The first event not yet taken that `predicate` accepts, in the order the
    // program wrote them; events passed over stay for later takes. Independent
    // of waitFor's position.
    std::optional<Json> take(const std::function<bool(const Json&)>& predicate,
                             std::chrono::milliseconds timeout = std::chrono::seconds(15));
    // Closes input and collects everything until the program exits. Returns its exit code (-1 on timeout).
    int finish(std::chrono::milliseconds timeout = std::chrono::seconds(15));

    const std::vector<Json>& events() const { return m_events; }
    // Output lines that were not JSON objects (should be none).
    const std::vector<std::string>& strayLines() const { return m_stray; }
    pid_t pid() const { return m_pid; }

private:
    bool readSome(std::chrono::milliseconds timeout);
    // Reads on until `found` gives an event or `timeout` passes.
    std::optional<Json> readUntil(const std::function<std::optional<Json>()>& found, std::chrono::milliseconds timeout);
    void takeLines();

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    std::string m_buffer;
    std::vector<Json> m_events;
    size_t m_checked = 0;
    std::vector<bool> m_taken;
    std::vector<std::string> m_stray;
    bool m_exited = false;
    bool m_eof = false;
    int m_status = 0;
};

}  // namespace velko::test
