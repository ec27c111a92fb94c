#include "support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/Paths.h"
#include "shell/WebBridge.h"

namespace velko::test {

TempDir::TempDir() {
    std::string pattern = temporaryDirectory() + "/velko-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) std::abort();
    m_path = buffer.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave read-only folders behind; make them writable before removal.
    for (auto it = std::filesystem::recursive_directory_iterator(m_path, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) chmod(it->path().c_str(), 0700);
    }
    chmod(m_path.c_str(), 0700);
    std::filesystem::remove_all(m_path, ec);
}

std::string TempDir::write(const std::string& relative, const std::string& contents) const {
    std::string path = file(relative);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary);
    out << contents;
    return path;
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_previous = old;
    setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (m_previous) setenv(m_name.c_str(), m_previous->c_str(), 1);
    else unsetenv(m_name.c_str());
}

IsolatedHome::IsolatedHome()
    : m_home("HOME", m_dir.path()),
      m_data("XDG_DATA_HOME", m_dir.path() + "/data"),
      m_cache("XDG_CACHE_HOME", m_dir.path() + "/cache"),
      m_tmp("TMPDIR", (std::filesystem::create_directories(m_dir.path() + "/tmp"), m_dir.path() + "/tmp")) {}

void EventRecorder::dispatchEvent(std::string_view type, const nlohmann::ordered_json& payload) {
    auto parsed = parseJson(dumpJson(payload));
    std::lock_guard lock(m_mutex);
    m_events.push_back({std::string(type), parsed ? *parsed : Json()});
}

void EventRecorder::dispatchEncodedEvent(std::string_view type, std::string envelopeJson,
                                         std::function<void()> onDelivered) {
    auto parsed = parseJson(envelopeJson);
    {
        std::lock_guard lock(m_mutex);
        m_events.push_back({std::string(type), parsed && parsed->contains("payload") ? (*parsed)["payload"] : Json()});
    }
    if (onDelivered) onDelivered();
}

std::vector<RecordedEvent> EventRecorder::events() const {
    std::lock_guard lock(m_mutex);
    return m_events;
}

std::vector<RecordedEvent> EventRecorder::eventsOfType(std::string_view type) const {
    std::lock_guard lock(m_mutex);
    std::vector<RecordedEvent> out;
    for (const auto& e : m_events)
        if (e.type == type) out.push_back(e);
    return out;
}

void EventRecorder::clear() {
    std::lock_guard lock(m_mutex);
    m_events.clear();
}

std::vector<Json> ScriptRecorder::envelopes() const {
    std::vector<Json> out;
    for (const auto& script : scripts) {
        auto envelope = envelopeFromEventScript(script);
        auto parsed = envelope ? parseJson(*envelope) : std::nullopt;
        out.push_back(parsed ? *parsed : Json());
    }
    return out;
}

std::vector<std::string> ScriptRecorder::types() const {
    std::vector<std::string> out;
    for (const auto& envelope : envelopes())
        out.push_back(envelope.is_object() && envelope.contains("type") ? envelope["type"].get<std::string>() : "");
    return out;
}

std::string readFile(const std::string& path) {
    std::string out;
    readWholeFile(path, out);
    return out;
}

}  // namespace velko::test
