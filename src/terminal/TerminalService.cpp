#include "terminal/TerminalService.h"

#include <signal.h>

#include <algorithm>
#include <cctype>

#include "core/Base64.h"
#include "core/TaskQueue.h"
#include "terminal/CodexShimInstaller.h"
#include "terminal/PTYDriver.h"
#include "terminal/TerminalDebugDumpStore.h"
#include "terminal/TerminalMessages.h"
#include "workspace/ConfigStore.h"

namespace velko {

std::shared_ptr<TerminalService> TerminalService::create(std::shared_ptr<ConfigStore> configStore,
                                                         std::shared_ptr<TerminalCoordinating> coordinator,
                                                         std::shared_ptr<CodexShimInstaller> codexShimInstaller) {
    std::shared_ptr<TerminalService> service(
        new TerminalService(std::move(configStore), std::move(coordinator), std::move(codexShimInstaller)));
    service->m_coordinator->setDelegate(service);
    std::weak_ptr<TerminalService> weak = service;
    // Publications arrive on a later turn of the main queue, the current value
    // too, and those that come while one is waiting are folded into it: the
    // store publishes up to three times per change, and at launch the first
    // delivery and the file's bootstrap come together. So the sessions are
    // synchronised once per burst (a shell that cannot start fails once), and
    // with the configuration as it is by then: a value captured at
    // publication can be older than a session created since, and
    // synchronising with it would end that session right after its birth.
    auto deliver = [weak](const AppConfig&) {
        auto self = weak.lock();
        if (!self || self->m_deliveryPending) return;
        self->m_deliveryPending = true;
        mainQueue().post([weak] {
            auto self = weak.lock();
            if (!self) return;
            self->m_deliveryPending = false;
            self->handleConfigChange(self->m_configStore->config());
        });
    };
    service->m_subscription = service->m_configStore->subscribe(deliver);
    deliver(service->m_configStore->config());
    return service;
}

TerminalService::TerminalService(std::shared_ptr<ConfigStore> configStore,
                                 std::shared_ptr<TerminalCoordinating> coordinator,
                                 std::shared_ptr<CodexShimInstaller> installer)
    : m_configStore(std::move(configStore)),
      m_coordinator(std::move(coordinator)),
      m_codexShimInstaller(std::move(installer)) {
    if (auto store = m_coordinator->debugDumpStore()) store->performStartupMaintenance();
    m_coordinator->updateDebugDump(m_configStore->config().hasFeature(Feature::TerminalDebugDump));
    // The shim is installed once per run, starting here but off the main
    // thread: its files are written while the window comes up, and the first
    // shell, which needs them, waits for them in useShimEnvironment().
    if (m_codexShimInstaller) m_codexShimInstaller->installInBackground();
}

void TerminalService::useShimEnvironment() {
    if (!m_codexShimInstaller || m_shimEnvironmentSet) return;
    m_shimEnvironmentSet = true;
    m_coordinator->setEnvironmentOverrides(m_codexShimInstaller->environmentOverrides());
}

TerminalService::~TerminalService() {
    if (m_subscription) m_configStore->unsubscribe(m_subscription);
}

bool TerminalService::isTerminalV2Enabled() const {
    return m_configStore->config().hasFeature(Feature::TerminalV2);
}

void TerminalService::dispatch(std::string_view type, const OrderedJson& payload) {
    if (auto bridge = m_bridge.lock()) bridge->dispatchEvent(type, payload);
}

void TerminalService::bootstrapIfNeeded() {
    if (m_hasBootstrapped) return;
    m_hasBootstrapped = true;
    dispatchSnapshot(m_configStore->config().cliSessions, isTerminalV2Enabled());
}

std::pair<int, int> TerminalService::dimensionsOrDefault(const Uuid& id) const {
    if (auto size = m_coordinator->dimensions(id)) return *size;
    return {TerminalCoordinator::kInitialCols, TerminalCoordinator::kInitialRows};
}

void TerminalService::handleConfigChange(const AppConfig& config) {
    std::set<Uuid> ids;
    for (const auto& session : config.cliSessions) ids.insert(session.id);
    std::erase_if(m_unavailableNotifiedSessions, [&](const Uuid& id) { return !ids.count(id); });
    std::erase_if(m_runtimeStates, [&](const auto& entry) { return !ids.count(entry.first); });
    if (m_activeInputSessionID && !ids.count(*m_activeInputSessionID)) m_activeInputSessionID.reset();
    m_coordinator->updateDebugDump(config.hasFeature(Feature::TerminalDebugDump));
    const bool enabled = config.hasFeature(Feature::TerminalV2);
    if (enabled) {
        useShimEnvironment();
        m_coordinator->synchronize(config.cliSessions);
        for (const auto& session : config.cliSessions) {
            if (m_runtimeStates.count(session.id)) continue;
            auto [cols, rows] = dimensionsOrDefault(session.id);
            m_runtimeStates[session.id] = RuntimeState{SessionStatus::booting(), cols, rows, std::nullopt};
        }
    } else {
        m_coordinator->terminateAll();
    }
    dispatchSnapshot(config.cliSessions, enabled);
}

void TerminalService::dispatchSnapshot(const std::vector<CLISessionConfig>& sessions, bool featureEnabled) {
    if (!m_bridge.lock()) return;
    OrderedJson list = OrderedJson::array();
    for (const auto& session : sessions) {
        OrderedJson entry;
        entry["id"] = session.id.toString();
        entry["title"] = session.title;
        entry["workingDirectory"] = session.workingDirectory;
        auto runtime = m_runtimeStates.find(session.id);
        const bool hasRuntime = runtime != m_runtimeStates.end();
        entry["status"] = !featureEnabled ? "unavailable" : hasRuntime ? runtime->second.status.text() : "pending";
        if (session.projectId) entry["projectId"] = session.projectId->toString();
        if (hasRuntime) {
            entry["cols"] = runtime->second.cols;
            entry["rows"] = runtime->second.rows;
            if (runtime->second.pid) entry["pid"] = *runtime->second.pid;
        }
        list.push_back(std::move(entry));
    }
    OrderedJson payload;
    payload["sessions"] = std::move(list);
    dispatch("terminal/snapshot", payload);
}

void TerminalService::dispatchCurrentSnapshot(bool featureEnabled) {
    dispatchSnapshot(m_configStore->config().cliSessions, featureEnabled);
}

void TerminalService::dispatchStatus(const Uuid& id, std::string_view status, std::optional<int> exitCode) {
    OrderedJson payload;
    payload["sessionId"] = id.toString();
    payload["status"] = status;
    if (exitCode) payload["exitCode"] = *exitCode;
    dispatch("terminal/status", payload);
}

void TerminalService::createSession(const std::optional<std::string>& title, const std::optional<Uuid>& projectID) {
    // The shell starts before the new session is saved: the save's disk syncs
    // took longer than everything else on the way to the spawn.
    ConfigStore::SaveDeferral deferral(*m_configStore);
    CLISessionConfig session = m_configStore->addCLISession(title, projectID);
    auto [cols, rows] = dimensionsOrDefault(session.id);
    m_runtimeStates[session.id] = RuntimeState{SessionStatus::booting(), cols, rows, std::nullopt};
    const bool enabled = isTerminalV2Enabled();
    dispatchCurrentSnapshot(enabled);
    if (enabled) {
        useShimEnvironment();
        m_coordinator->startSession(session);
    } else {
        notifyUnavailable(session.id, session.title);
    }
}

void TerminalService::notifyUnavailable(const Uuid& sessionID, const std::optional<std::string>& title) {
    if (isTerminalV2Enabled() || !m_bridge.lock()) return;
    if (!m_unavailableNotifiedSessions.insert(sessionID).second) return;  // once per session
    std::string line = std::string(terminal_messages::kUnavailableLead) + (title ? *title : sessionID.toString());
    OrderedJson output;
    output["sessionId"] = sessionID.toString();
    output["chunk"] = base64Encode(line);
    output["encoding"] = "base64";
    dispatch("terminal/output", output);
    dispatchStatus(sessionID, "unavailable", std::nullopt);
}

void TerminalService::closeSession(const Uuid& id) {
    m_configStore->removeCLISession(id);
    m_unavailableNotifiedSessions.erase(id);
    m_runtimeStates.erase(id);
    if (m_activeInputSessionID == id) m_activeInputSessionID.reset();
    const bool enabled = isTerminalV2Enabled();
    if (enabled) m_coordinator->terminateSession(id);
    else dispatchStatus(id, "closed", std::nullopt);
    dispatchCurrentSnapshot(enabled);
}

void TerminalService::terminateSessions(const std::vector<Uuid>& ids) {
    if (ids.empty()) return;
    for (const auto& id : ids) {
        m_unavailableNotifiedSessions.erase(id);
        m_runtimeStates.erase(id);
        if (m_activeInputSessionID == id) m_activeInputSessionID.reset();
        m_coordinator->terminateSession(id);
    }
    dispatchCurrentSnapshot(isTerminalV2Enabled());
}

void TerminalService::resizeSession(const Uuid& id, int cols, int rows) {
    if (!isTerminalV2Enabled()) return;
    cols = std::clamp(cols, 2, PTYDriver::kMaxDimension);
    rows = std::clamp(rows, 2, PTYDriver::kMaxDimension);
    m_coordinator->resize(id, cols, rows);
    auto it = m_runtimeStates.find(id);
    if (it != m_runtimeStates.end() && it->second.cols == cols && it->second.rows == rows) return;
    if (it == m_runtimeStates.end())
        it = m_runtimeStates.emplace(id, RuntimeState{SessionStatus::booting(), cols, rows, std::nullopt}).first;
    it->second.cols = cols;
    it->second.rows = rows;
    OrderedJson payload;
    payload["sessionId"] = id.toString();
    payload["cols"] = cols;
    payload["rows"] = rows;
    dispatch("terminal/resize", payload);
}

void TerminalService::setInputFocus(const Uuid& sessionID, bool focused) {
    if (focused) m_activeInputSessionID = sessionID;
    else if (m_activeInputSessionID == sessionID) m_activeInputSessionID.reset();  // a late blur keeps another's focus
}

void TerminalService::shutdown() { m_coordinator->terminateAll(); }

void TerminalService::terminalCoordinatorDidCreateSession(const SessionInfo& info) {
    m_runtimeStates[info.id] = RuntimeState{SessionStatus::booting(), info.cols, info.rows, info.pid};
    OrderedJson payload;
    payload["sessionId"] = info.id.toString();
    payload["pid"] = info.pid;
    payload["cols"] = info.cols;
    payload["rows"] = info.rows;
    payload["title"] = info.title;
    payload["workingDirectory"] = info.workingDirectory;
    payload["shell"] = info.shell;
    dispatch("terminal/created", payload);
    dispatchCurrentSnapshot(true);
}

void TerminalService::terminalCoordinatorDidUpdateStatus(const SessionStatus& status, const Uuid& sessionID,
                                                         std::optional<int> exitCode) {
    auto it = m_runtimeStates.find(sessionID);
    if (it != m_runtimeStates.end()) it->second.status = status;
    dispatchStatus(sessionID, status.text(), exitCode);
    if (status.kind == SessionStatus::Kind::Terminated) {
        OrderedJson payload;
        payload["sessionId"] = sessionID.toString();
        payload["exitCode"] = exitCode.value_or(0);
        dispatch("terminal/exit", payload);
    } else if (status.kind == SessionStatus::Kind::Failed) {
        OrderedJson payload;
        payload["sessionId"] = sessionID.toString();
        payload["message"] = status.message;
        payload["recoverable"] = true;
        dispatch("terminal/error", payload);
    }
    dispatchCurrentSnapshot(true);
}

void TerminalService::handleMessage(std::string_view type, const Json* payload) {
    if (!payload || !payload->is_object()) return;
    auto base = [&](std::string_view name) { return type == "terminal/" + std::string(name) || type == "cli/" + std::string(name); };
    // A present key of the wrong type drops the message like a missing one.
    auto optionalText = [&](std::string_view key, std::optional<std::string>& out) {
        const Json* value = json::member(payload, key);
        if (!value || value->is_null()) return true;
        if (!value->is_string()) return false;
        out = value->get<std::string>();
        return true;
    };

    if (base("create")) {
        std::optional<std::string> title, projectText;
        if (!optionalText("title", title) || !optionalText("projectId", projectText)) return;
        std::optional<Uuid> projectID = projectText ? Uuid::parse(*projectText) : std::nullopt;
        createSession(title, projectID);
        return;
    }

    auto sessionID = json::uuid(payload, "sessionId");
    if (!sessionID) return;

    if (base("input")) {
        auto data = json::string(payload, "data");
        if (!data) return;
        std::string bytes = *data;
        if (json::string(payload, "encoding") == std::optional<std::string>("base64")) {
            auto decoded = base64Decode(*data);
            if (!decoded) return;
            bytes = std::move(*decoded);
        }
        if (isTerminalV2Enabled()) m_coordinator->write(*sessionID, bytes);
        else notifyUnavailable(*sessionID, std::nullopt);
    } else if (base("close")) {
        closeSession(*sessionID);
    } else if (base("resize")) {
        // Any number is read through its integer value; another type counts as 0.
        auto dimension = [&](std::string_view key) -> int64_t {
            auto number = json::number(payload, key);
            if (!number) return 0;
            return static_cast<int64_t>(std::clamp(*number, -1.0, 1.0e6));
        };
        int64_t cols = dimension("cols"), rows = dimension("rows");
        if (cols < 1 || rows < 1) return;
        resizeSession(*sessionID, static_cast<int>(std::min<int64_t>(cols, PTYDriver::kMaxDimension)),
                      static_cast<int>(std::min<int64_t>(rows, PTYDriver::kMaxDimension)));
    } else if (base("signal")) {
        auto name = json::string(payload, "signal");
        if (!name || !isTerminalV2Enabled()) return;
        std::string upper = *name;
        std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
        if (upper == "SIGINT") m_coordinator->sendSignal(*sessionID, SIGINT);
    } else if (type == "terminal/focus") {
        auto focused = json::boolean(payload, "focused");
        if (!focused) return;
        setInputFocus(*sessionID, *focused);
    }
}

}  // namespace velko
