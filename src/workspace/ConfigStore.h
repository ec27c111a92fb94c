#pragma once
// ConfigStore: the only writer of the workspace configuration.
//
// Lives on the main thread; every operation is called there. Each change is
// applied, normalised, saved and published to subscribers in order, on the
// thread of the change (up to three publications per operation: the raw
// change, the normalised value, the mirrored resume list). Saving is best
// effort: a failed save is logged and the value in memory stays authoritative.
// The file is written atomically a moment after a change, on a writer thread
// of the store's own, so that the main thread never waits for the disk (a
// save's syncs took longer than starting a shell) and a burst of changes is
// one write. A file that fails to decode is kept aside as "config.json.bad"
// before the first save replaces it.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Result.h"
#include "workspace/Models.h"

namespace velko {

class SerialQueue;

// Read access to the projects, for services that must not write the store.
// Implementations are touched on the main thread only.
class ProjectProviding {
public:
    virtual ~ProjectProviding() = default;
    virtual const AppConfig& config() const = 0;
    virtual std::optional<ProjectMetadata> project(const Uuid& id) const = 0;
};

enum class ConfigStoreError { ReadFailed, DecodeFailed, WriteFailed };

class ConfigStore final : public ProjectProviding {
public:
    struct CloseProjectResult {
        std::vector<Uuid> removedSessionIDs;
        std::optional<Uuid> nextActiveID;
    };
    using Subscriber = std::function<void(const AppConfig&)>;

    // No directory: $XDG_DATA_HOME/velko. A given directory is used as it is.
    explicit ConfigStore(std::optional<std::string> storageDirectory = std::nullopt);
    ~ConfigStore() override;  // finishes the saves under way

    const AppConfig& config() const override { return m_config; }
    const std::string& fileURL() const { return m_filePath; }

    // Publications go to every subscriber in subscription order.
    size_t subscribe(Subscriber subscriber);
    void unsubscribe(size_t token);

    Status<ConfigStoreError> bootstrap();
    // Writes what waits for its moment now and blocks until every change
    // made so far is on disk (or failed to be). At exit and in tests.
    void waitForSaves();

    std::optional<ProjectMetadata> project(const Uuid& id) const override;
    void setActiveProject(const Uuid& id);
    void reorderProjects(const std::vector<Uuid>& ids);
    std::vector<ProjectMetadata> openProjects(const std::vector<std::string>& folderPaths);
    std::optional<ProjectMetadata> nextProject(const std::optional<Uuid>& after) const;
    std::optional<ProjectMetadata> previousProject(const std::optional<Uuid>& before) const;
    CLISessionConfig addCLISession(const std::optional<std::string>& title, const std::optional<Uuid>& projectId);
    void removeCLISession(const Uuid& id);
    std::optional<CloseProjectResult> closeProject(const Uuid& id);
    std::optional<Uuid> resumeWorkspace();

    // While one lives, changes are published at once but saved when the last
    // one ends: a caller with urgent work (a shell to start) does it before
    // the save's disk syncs. Main thread only, like every other call.
    class SaveDeferral {
    public:
        explicit SaveDeferral(ConfigStore& store) : m_store(store) { ++m_store.m_saveDeferrals; }
        ~SaveDeferral() {
            if (--m_store.m_saveDeferrals == 0 && m_store.m_savePending) m_store.mirrorResumeAndPersist();
        }
        SaveDeferral(const SaveDeferral&) = delete;
        SaveDeferral& operator=(const SaveDeferral&) = delete;

    private:
        ConfigStore& m_store;
    };

    // Builds the value held before the file is read: the samples, the first one
    // active, one session "CLI #1". Exposed for tests of normalisation.
    static AppConfig sampleConfiguration(const std::string& homePath);

private:
    void assign(AppConfig value);  // assigns and publishes
    template <typename F>
    void mutate(F&& change) {
        change(m_config);
        publish();
    }
    void publish();
    template <typename F>
    void update(bool ensureDefaults, F&& change);
    void mirrorResumeAndPersist();
    Status<ConfigStoreError> persist();
    void persistInBackground();
    void keepBadFileAside();
    void ensureInitialCLISession(const Uuid& projectId, AppConfig& config) const;

    std::string m_directory;
    std::string m_filePath;
    AppConfig m_config;
    bool m_keepBadFileAside = false;
    int m_saveDeferrals = 0;
    bool m_savePending = false;
    std::vector<std::pair<size_t, Subscriber>> m_subscribers;
    size_t m_nextToken = 1;
    struct Saves;
    std::shared_ptr<Saves> m_saves;  // shared with the writer's tasks
    std::unique_ptr<SerialQueue> m_writer;
};

}  // namespace velko
