#include "shell/WebBridge.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "core/SerialQueue.h"
#include "core/TaskQueue.h"
#include "shell/ProjectStoring.h"

namespace velko {

const char* const kEventScriptPrefix = "(function() {\n  const event = JSON.parse('";
const char* const kEventScriptSuffix =
    "');\n"
    "  if (!Array.isArray(window.__velkoEventHistory)) {\n"
    "    window.__velkoEventHistory = [];\n"
    "  }\n"
    "  window.__velkoEventHistory.push(event);\n"
    "  if (window.__velkoEventHistory.length > 200) {\n"
    "    window.__velkoEventHistory.splice(0, window.__velkoEventHistory.length - 200);\n"
    "  }\n"
    "  if (window.__velko__ && typeof window.__velko__.dispatch === 'function') {\n"
    "    window.__velko__.dispatch(event);\n"
    "    return;\n"
    "  }\n"
    "  if (!Array.isArray(window.__velkoPendingEvents)) {\n"
    "    window.__velkoPendingEvents = [];\n"
    "  }\n"
    "  window.__velkoPendingEvents.push(event);\n"
    "})();";

namespace {

// The first backslash or quote at or after `from`, or `n`. Envelopes are
// mostly base64 (a terminal's output), where neither occurs, so the scan
// compares sixteen bytes at a time and costs less than the copy after it.
size_t nextToEscape(const char* data, size_t from, size_t n) {
    size_t i = from;
#if defined(__SSE2__)
    const __m128i backslash = _mm_set1_epi8('\\'), quote = _mm_set1_epi8('\'');
    for (; i + 16 <= n; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        const int mask = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, backslash), _mm_cmpeq_epi8(v, quote)));
        if (mask) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
#endif
    for (; i < n; ++i)
        if (data[i] == '\\' || data[i] == '\'') return i;
    return n;
}

void appendEscapedForScriptLiteral(std::string_view json, std::string& out) {
    size_t start = 0;
    for (size_t i = nextToEscape(json.data(), 0, json.size()); i < json.size();
         i = nextToEscape(json.data(), i + 1, json.size())) {
        out.append(json.substr(start, i - start));
        out.push_back('\\');
        out.push_back(json[i]);
        start = i + 1;
    }
    out.append(json.substr(start));
}

}  // namespace

std::string escapeForScriptLiteral(std::string_view json) {
    std::string out;
    out.reserve(json.size() + json.size() / 16 + 8);
    appendEscapedForScriptLiteral(json, out);
    return out;
}

std::string buildEventScript(std::string_view envelopeJson) {
    static const size_t kFixed = std::char_traits<char>::length(kEventScriptPrefix) +
                                 std::char_traits<char>::length(kEventScriptSuffix);
    std::string script;
    script.reserve(kFixed + envelopeJson.size() + envelopeJson.size() / 16 + 8);
    script.append(kEventScriptPrefix);
    appendEscapedForScriptLiteral(envelopeJson, script);
    script.append(kEventScriptSuffix);
    return script;
}

std::optional<std::string> envelopeFromEventScript(std::string_view script) {
    std::string_view prefix(kEventScriptPrefix), suffix(kEventScriptSuffix);
    if (script.size() < prefix.size() + suffix.size() || script.substr(0, prefix.size()) != prefix ||
        script.substr(script.size() - suffix.size()) != suffix)
        return std::nullopt;
    std::string_view body = script.substr(prefix.size(), script.size() - prefix.size() - suffix.size());
    std::string out;
    out.reserve(body.size());
    for (size_t i = 0; i < body.size(); ++i) {
        if (body[i] == '\\' && i + 1 < body.size() && (body[i + 1] == '\\' || body[i + 1] == '\'')) ++i;
        out.push_back(body[i]);
    }
    return out;
}

WebBridge::WebBridge(Collaborators collaborators)
    : m_fileQueue(collaborators.fileQueue ? std::move(collaborators.fileQueue)
                                          : std::make_shared<SerialQueue>("app.velko.webbridge.fs")),
      m_files(std::move(collaborators.files)),
      m_explorer(std::move(collaborators.explorer)) {}

// --- inbound ---

// Exact, case-sensitive types, in the order they are tested, each with the
// handler of that one message. The "cli/" aliases reach the terminal handler
// with their own spelling; "terminal/focus" has no alias. A type that is not
// here is ignored. A message whose service does not exist yet still has its
// entry, with a handler that drops it.
const WebBridge::Route* WebBridge::routeFor(std::string_view type) {
    static constexpr Route kRoutes[] = {
        {"terminal/input", &WebBridge::handleTerminalMessage},
        {"cli/input", &WebBridge::handleTerminalMessage},
        {"terminal/create", &WebBridge::handleTerminalMessage},
        {"cli/create", &WebBridge::handleTerminalMessage},
        {"terminal/close", &WebBridge::handleTerminalMessage},
        {"cli/close", &WebBridge::handleTerminalMessage},
        {"terminal/resize", &WebBridge::handleTerminalMessage},
        {"cli/resize", &WebBridge::handleTerminalMessage},
        {"terminal/signal", &WebBridge::handleTerminalMessage},
        {"cli/signal", &WebBridge::handleTerminalMessage},
        {"terminal/focus", &WebBridge::handleTerminalMessage},
        {"project/open", &WebBridge::handleProjectOpen},
        {"project/close", &WebBridge::handleProjectClose},
        {"project/explorer/directories/request", &WebBridge::handleExplorerDirectoriesRequest},
        {"project/file/open", &WebBridge::handleFileOpen},
        {"project/file/save", &WebBridge::handleFileSave},
        {"project/file/rename", &WebBridge::handleFileRename},
        {"project/activate", &WebBridge::handleProjectActivate},
        {"project/resume", &WebBridge::handleProjectResume},
        {"project/reorder", &WebBridge::handleProjectReorder},
        {"github/oauth/start", &WebBridge::handleOAuthStart},
        {"github/oauth/logout", &WebBridge::handleOAuthLogout},
        {"github/oauth/requestStatus", &WebBridge::handleOAuthRequestStatus},
        {"git/status", &WebBridge::handleGitStatus},
        {"git/status/detail", &WebBridge::handleGitStatusDetail},
        {"git/commit", &WebBridge::handleGitCommit},
        {"git/push", &WebBridge::handleGitPush},
        {"git/pull", &WebBridge::handleGitPull},
        {"git/fetch", &WebBridge::handleGitFetch},
        {"git/diff", &WebBridge::handleGitDiff},
        {"git/history", &WebBridge::handleGitHistory},
        {"git/graph", &WebBridge::handleGitGraph},
        {"git/remote/tracking", &WebBridge::handleGitRemoteTracking},
        {"git/working-tree", &WebBridge::handleGitWorkingTree},
        {"git/refresh/barrier", &WebBridge::handleGitRefreshBarrier},
        {"git/commit/diff", &WebBridge::handleGitCommitDiff},
        {"git/branch-map", &WebBridge::handleGitBranchMap},
        {"previewTabs/persist", &WebBridge::handlePreviewTabsPersist},
        {"previewTabs/cache/write", &WebBridge::handlePreviewTabsCacheWrite},
        {"previewTabs/limitReached", &WebBridge::handlePreviewTabsLimitReached},
        {"dashboard.present", &WebBridge::handleDashboardPresent},
        {"dashboard.dismiss", &WebBridge::handleDashboardDismiss},
        {"app/config/request", &WebBridge::handleAppConfigRequest},
        {"analytics/event", &WebBridge::handleAnalyticsEvent},
    };
    for (const auto& route : kRoutes)
        if (route.type == type) return &route;
    return nullptr;
}

void WebBridge::handle(const Json& body) {
    if (!body.is_object()) return;
    auto type = json::string(&body, "type");
    if (!type) return;
    const Route* route = routeFor(*type);
    if (!route) return;
    // A payload of any other JSON type than an object counts as absent.
    (this->*(route->handler))(*type, json::objectMember(&body, "payload"));
}

void WebBridge::handleMessageText(std::string_view text) {
    auto body = parseJson(text);
    if (body) handle(*body);
}

void WebBridge::handleAppConfigRequest(std::string_view, const Json*) {
    runOnMainWeak(weak_from_this(), [](WebBridge& self) {
        if (self.m_cachedConfig) {
            AppConfig config = *self.m_cachedConfig;
            self.updateConfigSnapshot(config);
        } else if (auto store = self.m_projectStore.lock()) {
            self.updateConfigSnapshot(store->config());
        }
    });
}

// --- outbound ---

void WebBridge::dispatchEvent(std::string_view type, const OrderedJson& payload) {
    std::string payloadJson = dumpJson(payload);
    std::string envelope;
    envelope.reserve(payloadJson.size() + type.size() + 24);
    envelope.append("{\"type\":");
    envelope.append(dumpJson(OrderedJson(std::string(type))));
    envelope.append(",\"payload\":");
    envelope.append(payloadJson);
    envelope.push_back('}');
    if (m_eventObserver) m_eventObserver(std::string(type), payloadJson);
    deliver(buildEventScript(envelope), {});
}

void WebBridge::dispatchEncodedEvent(std::string_view type, std::string envelopeJson,
                                     std::function<void()> onDelivered) {
    if (m_eventObserver) {
        std::string prefix = "{\"type\":" + dumpJson(OrderedJson(std::string(type))) + ",\"payload\":";
        if (envelopeJson.size() > prefix.size() && envelopeJson.compare(0, prefix.size(), prefix) == 0 &&
            envelopeJson.back() == '}')
            m_eventObserver(std::string(type),
                            envelopeJson.substr(prefix.size(), envelopeJson.size() - prefix.size() - 1));
    }
    deliver(buildEventScript(envelopeJson), std::move(onDelivered));
}

void WebBridge::deliver(std::string script, std::function<void()> onDelivered) {
    auto work = [script = std::move(script), onDelivered = std::move(onDelivered)](WebBridge& self) mutable {
        auto view = self.m_webView.lock();
        if (!view || !self.m_isWebViewReady) {
            self.m_pendingScripts.push_back({std::move(script), std::move(onDelivered)});
            return;
        }
        view->evaluateScript(script);
        if (onDelivered) onDelivered();
    };
    if (isMainThread()) {
        work(*this);
        return;
    }
    std::weak_ptr<WebBridge> weak = weak_from_this();
    mainQueue().post([weak, work = std::move(work)]() mutable {
        if (auto self = weak.lock()) work(*self);
    });
}

void WebBridge::flushPendingScripts() {
    runOnMainWeak(weak_from_this(), [](WebBridge& self) {
        auto view = self.m_webView.lock();
        if (!view || !self.m_isWebViewReady) return;
        // Scripts dispatched while flushing (by a callback below) land behind these.
        std::vector<PendingScript> scripts;
        scripts.swap(self.m_pendingScripts);
        for (auto& pending : scripts) {
            view->evaluateScript(pending.script);
            if (pending.onDelivered) pending.onDelivered();
        }
    });
}

// --- web view lifecycle ---

void WebBridge::setWebView(std::weak_ptr<WebViewHosting> webView) {
    m_webView = std::move(webView);
    m_isWebViewReady = false;
}

void WebBridge::notifyWebViewDidStartNavigation() { m_isWebViewReady = false; }

void WebBridge::notifyWebViewDidFinishNavigation() {
    m_isWebViewReady = true;
    size_t queued = m_pendingScripts.size();
    flushPendingScripts();
    // A reload with nothing queued still needs the workspace and account state.
    if (queued == 0 && m_cachedConfig) {
        AppConfig config = *m_cachedConfig;
        updateConfigSnapshot(config);
    }
}

// --- configuration snapshot ---

namespace {
OrderedJson projectPayload(const ProjectMetadata& project) {
    OrderedJson p;
    p["id"] = project.id.toString();
    p["name"] = project.name;
    p["rootPath"] = project.rootPath;
    p["explorerExcludedPaths"] = project.explorerExcludedPaths;
    return p;
}
}  // namespace

OrderedJson WebBridge::configSnapshotPayload(const AppConfig& config) {
    OrderedJson payload;
    OrderedJson projects = OrderedJson::array();
    for (const auto& project : config.projects) projects.push_back(projectPayload(project));
    payload["projects"] = std::move(projects);
    if (config.activeProjectID) payload["activeProjectId"] = config.activeProjectID->toString();
    OrderedJson columns = OrderedJson::array();
    for (auto kind : config.columnLayout.order) columns.push_back(columnKindRawValue(kind));
    payload["columnLayout"] = std::move(columns);
    OrderedJson sessions = OrderedJson::array();
    for (const auto& session : config.cliSessions) {
        OrderedJson s;
        s["id"] = session.id.toString();
        s["title"] = session.title;
        s["workingDirectory"] = session.workingDirectory;
        s["status"] = "pending";
        if (session.projectId) s["projectId"] = session.projectId->toString();
        sessions.push_back(std::move(s));
    }
    payload["cliSessions"] = std::move(sessions);
    OrderedJson features = OrderedJson::array();
    for (auto feature : config.enabledFeatures) features.push_back(featureRawValue(feature));
    payload["features"] = std::move(features);
    payload["hasSavedWorkspace"] = !config.resumeProjects.empty();
    if (!config.resumeProjects.empty()) {
        OrderedJson resume = OrderedJson::array();
        for (const auto& project : config.resumeProjects) resume.push_back(projectPayload(project));
        payload["resumeProjects"] = std::move(resume);
    }
    return payload;
}

void WebBridge::updateConfigSnapshot(const AppConfig& config) {
    m_cachedConfig = config;
    dispatchEvent("app/config", configSnapshotPayload(config));
    dispatchOAuthStatus();
}

}  // namespace velko

namespace velko {
WebBridge::~WebBridge() = default;
}  // namespace velko
