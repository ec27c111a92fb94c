#pragma once
// Helpers shared by the test programs: temporary directories, an environment
// override that restores itself, a recorder of dispatched events, and a
// web view stand-in that keeps the scripts it was given.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/EventDispatching.h"
#include "core/Json.h"
#include "shell/WebViewHosting.h"

namespace velko::test {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& relative) const { return m_path + "/" + relative; }
    // Writes a file (creating parent folders) and returns its path.
    std::string write(const std::string& relative, const std::string& contents) const;

private:
    std::string m_path;
};

// Sets an environment variable for the lifetime of the object.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value);
    ~ScopedEnv();

private:
    std::string m_name;
    std::optional<std::string> m_previous;
};

// Points HOME, XDG_DATA_HOME, XDG_CACHE_HOME and TMPDIR into one temporary directory.
class IsolatedHome {
public:
    IsolatedHome();
    const std::string& home() const { return m_dir.path(); }
    std::string dataDir() const { return m_dir.path() + "/data/velko"; }
    std::string cacheDir() const { return m_dir.path() + "/cache/velko"; }

private:
    TempDir m_dir;
    ScopedEnv m_home, m_data, m_cache, m_tmp;
};

struct RecordedEvent {
    std::string type;
    Json payload;
};

// EventDispatching that records what it is given, from any thread.
class EventRecorder final : public EventDispatching {
public:
    void dispatchEvent(std::string_view type, const nlohmann::ordered_json& payload) override;
    void dispatchEncodedEvent(std::string_view type, std::string envelopeJson,
                              std::function<void()> onDelivered) override;
    std::vector<RecordedEvent> events() const;
    std::vector<RecordedEvent> eventsOfType(std::string_view type) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<RecordedEvent> m_events;
};

// Web view that records evaluated scripts.
class ScriptRecorder final : public WebViewHosting {
public:
    void evaluateScript(const std::string& script) override { scripts.push_back(script); }
    // The envelopes of the recorded scripts, parsed.
    std::vector<Json> envelopes() const;
    std::vector<std::string> types() const;
    std::vector<std::string> scripts;
};

// Reads a file whole; empty if it cannot be read.
std::string readFile(const std::string& path);

}  // namespace velko::test
