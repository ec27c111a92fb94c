// The adapters of the workspace, terminal and git services; those of the
// files subsystem are in ServiceAdaptersFiles.cpp (the git and files headers
// do not mix in one translation unit).
#include "shell/ServiceAdapters.h"

#include "git/GitService.h"
#include "shell/GitOperating.h"
#include "shell/ProjectStoring.h"
#include "shell/TerminalMessageHandling.h"
#include "shell/WebBridge.h"
#include "terminal/TerminalService.h"
#include "workspace/ConfigStore.h"

namespace velko {

namespace {

class ConfigStoreProjects final : public ProjectStoring {
public:
    explicit ConfigStoreProjects(std::shared_ptr<ConfigStore> store) : m_store(std::move(store)) {}
    const AppConfig& config() const override { return m_store->config(); }
    std::optional<ProjectMetadata> project(const Uuid& id) const override { return m_store->project(id); }
    std::vector<ProjectMetadata> openProjects(const std::vector<std::string>& folderPaths) override {
        return m_store->openProjects(folderPaths);
    }
    std::vector<Uuid> closeProject(const Uuid& id) override {
        auto result = m_store->closeProject(id);
        return result ? std::move(result->removedSessionIDs) : std::vector<Uuid>{};
    }
    void setActiveProject(const Uuid& id) override { m_store->setActiveProject(id); }
    std::optional<Uuid> resumeWorkspace() override { return m_store->resumeWorkspace(); }
    void reorderProjects(const std::vector<Uuid>& ids) override { m_store->reorderProjects(ids); }

private:
    std::shared_ptr<ConfigStore> m_store;
};

class TerminalServiceMessages final : public TerminalMessageHandling {
public:
    explicit TerminalServiceMessages(std::shared_ptr<TerminalService> service) : m_service(std::move(service)) {}
    void handleMessage(std::string_view type, const Json* payload) override { m_service->handleMessage(type, payload); }
    void terminateSessions(const std::vector<Uuid>& ids) override { m_service->terminateSessions(ids); }

private:
    std::shared_ptr<TerminalService> m_service;
};

class GitServiceOperations final : public GitOperating {
public:
    explicit GitServiceOperations(std::shared_ptr<GitService> service) : m_service(std::move(service)) {}
    void refreshStatus(const std::optional<Uuid>& id) override { m_service->refreshStatus(id); }
    void fetchStatusDetail(const Uuid& id) override { m_service->fetchStatusDetail(id); }
    void fetchWorkingTree(const Uuid& id) override { m_service->fetchWorkingTree(id); }
    void fetchDiff(const Uuid& id, std::vector<GitDiffTarget> targets) override {
        m_service->fetchDiff(id, std::move(targets));
    }
    void fetchCommitDiff(const Uuid& id, std::string commit, std::optional<std::string> path) override {
        m_service->fetchCommitDiff(id, std::move(commit), std::move(path));
    }
    void commit(const Uuid& id, std::string message) override { m_service->commit(id, std::move(message)); }
    void push(const Uuid& id) override { m_service->push(id); }
    void pull(const Uuid& id) override { m_service->pull(id); }
    void fetch(const Uuid& id) override { m_service->fetch(id); }
    void fetchRemoteTracking(const Uuid& id) override { m_service->fetchRemoteTracking(id); }
    void reachRefreshBarrier(const Uuid& id, std::string requestId) override {
        m_service->reachRefreshBarrier(id, std::move(requestId));
    }
    void fetchCommitHistory(const Uuid& id, std::optional<std::string> cursor, int64_t pageSize,
                            std::optional<std::string> requestId) override {
        m_service->fetchCommitHistory(id, std::move(cursor), pageSize, std::move(requestId));
    }
    void fetchCommitGraph(const Uuid& id, int64_t pageSize) override { m_service->fetchCommitGraph(id, pageSize); }
    void fetchBranchMap(const Uuid& id, int64_t limit) override { m_service->fetchBranchMap(id, limit); }

private:
    std::shared_ptr<GitService> m_service;
};

}  // namespace

std::shared_ptr<ProjectStoring> makeProjectStoring(std::shared_ptr<ConfigStore> store) {
    return std::make_shared<ConfigStoreProjects>(std::move(store));
}
std::shared_ptr<TerminalMessageHandling> makeTerminalMessageHandling(std::shared_ptr<TerminalService> service) {
    return std::make_shared<TerminalServiceMessages>(std::move(service));
}
std::shared_ptr<GitOperating> makeGitOperating(std::shared_ptr<GitService> service) {
    return std::make_shared<GitServiceOperations>(std::move(service));
}

namespace {
class GitEventSink final : public EventDispatching {
public:
    explicit GitEventSink(std::weak_ptr<WebBridge> bridge) : m_bridge(std::move(bridge)) {}
    void dispatchEvent(std::string_view type, const OrderedJson& payload) override {
        auto bridge = m_bridge.lock();
        if (!bridge) return;
        if (type == "github/oauth/status") return bridge->gitServiceDidUpdateOAuthStatus(payload);
        bridge->dispatchEvent(type, payload);
    }
    void dispatchEncodedEvent(std::string_view type, std::string envelopeJson,
                              std::function<void()> onDelivered) override {
        if (auto bridge = m_bridge.lock())
            bridge->dispatchEncodedEvent(type, std::move(envelopeJson), std::move(onDelivered));
    }

private:
    std::weak_ptr<WebBridge> m_bridge;
};
}  // namespace

std::shared_ptr<EventDispatching> makeGitEventSink(std::weak_ptr<WebBridge> bridge) {
    return std::make_shared<GitEventSink>(std::move(bridge));
}

}  // namespace velko
