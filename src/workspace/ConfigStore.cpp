#include "workspace/ConfigStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <unordered_set>

#include "core/Log.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"

namespace velko {

namespace {

constexpr std::chrono::milliseconds kSaveDelay{100};

const Logger& logger() {
    static const Logger log("app.velko.workspace", "config");
    return log;
}

std::string lastComponent(const std::string& path) {
    auto slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return name.empty() ? path : name;
}

std::string abbreviateHome(const std::string& canonical, const std::string& home) {
    // A plain text prefix test: a sibling such as "/home/alice2" of "/home/alice"
    // becomes "~/2". Odd, but stored files have always looked like this.
    if (canonical.compare(0, home.size(), home) != 0) return canonical;
    std::string rest = canonical.substr(home.size());
    if (rest.empty()) return "~";
    if (rest[0] == '/') return "~" + rest;
    return "~/" + rest;
}

}  // namespace

// The newest text not yet written, and whether a write is under way. The
// writer thread and waitForSaves() each write only while no write is under
// way, so an older text never lands after a newer one.
struct ConfigStore::Saves {
    std::string path;
    std::string directory;
    std::mutex mutex;
    std::condition_variable idle;
    std::optional<std::string> text;
    bool writing = false;

    bool write(const std::string& contents) const {
        createDirectories(directory);
        if (writeFileAtomically(path, contents, 0600)) return true;
        logger().error("configuration could not be saved: " + std::string(std::strerror(errno)));
        return false;
    }

    // Writes the newest text, if one is still waiting.
    void writeNewest() {
        std::string newest;
        {
            std::unique_lock lock(mutex);
            idle.wait(lock, [&] { return !writing; });
            if (!text) return;
            newest = std::move(*text);
            text.reset();
            writing = true;
        }
        write(newest);
        std::lock_guard lock(mutex);
        writing = false;
        idle.notify_all();
    }
};

ConfigStore::ConfigStore(std::optional<std::string> storageDirectory)
    : m_saves(std::make_shared<Saves>()), m_writer(std::make_unique<SerialQueue>("app.velko.workspace.config")) {
    m_directory = storageDirectory ? *storageDirectory : dataDirectory();
    m_filePath = m_directory + "/config.json";
    m_saves->path = m_filePath;
    m_saves->directory = m_directory;
    createDirectories(m_directory);
    m_config = sampleConfiguration(homeDirectory());
}

ConfigStore::~ConfigStore() { waitForSaves(); }

void ConfigStore::waitForSaves() {
    m_saves->writeNewest();  // what waits for its delay is written now
    std::unique_lock lock(m_saves->mutex);
    m_saves->idle.wait(lock, [&] { return !m_saves->writing; });
}

AppConfig ConfigStore::sampleConfiguration(const std::string& homePath) {
    AppConfig config;
    config.projects = ProjectMetadata::samples();
    config.activeProjectID = config.projects.front().id;
    config.columnLayout = ColumnLayout::defaultLayout();
    config.cliSessions.push_back({Uuid::random(), "CLI #1", homePath, "/bin/zsh", config.projects.front().id});
    return config;
}

size_t ConfigStore::subscribe(Subscriber subscriber) {
    size_t token = m_nextToken++;
    m_subscribers.emplace_back(token, std::move(subscriber));
    return token;
}

void ConfigStore::unsubscribe(size_t token) {
    std::erase_if(m_subscribers, [token](const auto& entry) { return entry.first == token; });
}

void ConfigStore::publish() {
    // A subscriber may subscribe or unsubscribe while being told; iterate a copy.
    auto subscribers = m_subscribers;
    AppConfig value = m_config;
    for (auto& [token, subscriber] : subscribers) subscriber(value);
}

void ConfigStore::assign(AppConfig value) {
    m_config = std::move(value);
    publish();
}

Status<ConfigStoreError> ConfigStore::bootstrap() {
    std::string home = homeDirectory();
    struct stat st{};
    if (stat(m_filePath.c_str(), &st) == 0) {
        std::string text;
        if (!readWholeFile(m_filePath, text)) {
            logger().error("configuration file could not be read: " + std::string(std::strerror(errno)));
            m_keepBadFileAside = true;
            return fail(ConfigStoreError::ReadFailed);
        }
        auto decoded = decodeAppConfigText(text, home);
        if (!decoded) {
            logger().error("configuration file could not be decoded; it is kept as config.json.bad before the next save");
            m_keepBadFileAside = true;
            return fail(ConfigStoreError::DecodeFailed);
        }
        assign(decoded.value().ensuringDefaults(home));
        return Ok{};
    }
    assign(sampleConfiguration(home).ensuringDefaults(home));
    return persist();
}

void ConfigStore::keepBadFileAside() {
    if (!m_keepBadFileAside) return;
    // The user's projects are never silently lost: the unreadable file moves aside once.
    std::string aside = m_filePath + ".bad";
    if (rename(m_filePath.c_str(), aside.c_str()) == 0) {
        m_keepBadFileAside = false;
        logger().notice("unreadable configuration kept at " + aside);
    } else if (errno == ENOENT) {
        m_keepBadFileAside = false;
    }
}

Status<ConfigStoreError> ConfigStore::persist() {
    waitForSaves();  // a queued save must not land after this one
    keepBadFileAside();
    if (!m_saves->write(dumpJson(encodeAppConfig(m_config)))) return fail(ConfigStoreError::WriteFailed);
    return Ok{};
}

void ConfigStore::persistInBackground() {
    keepBadFileAside();  // rare, and it must come before the save replaces the file
    std::string text = dumpJson(encodeAppConfig(m_config));
    {
        std::lock_guard lock(m_saves->mutex);
        const bool waiting = m_saves->text.has_value();
        m_saves->text = std::move(text);
        if (waiting) return;  // the save already waiting takes the newer text
    }
    // A moment's delay: a burst of changes (a drag, folders opened together)
    // is one write, and a new shell starts without the disk's syncs beside it.
    m_writer->postDelayed(kSaveDelay, [saves = m_saves] { saves->writeNewest(); });
}

template <typename F>
void ConfigStore::update(bool ensureDefaults, F&& change) {
    mutate(std::forward<F>(change));
    if (ensureDefaults) assign(m_config.ensuringDefaults());
    mirrorResumeAndPersist();
}

void ConfigStore::mirrorResumeAndPersist() {
    if (m_saveDeferrals > 0) {
        m_savePending = true;
        return;
    }
    m_savePending = false;
    if (!m_config.projects.empty()) {
        mutate([](AppConfig& c) { c.resumeProjects = c.projects; });
    }
    persistInBackground();  // best effort: memory stays authoritative
}

std::optional<ProjectMetadata> ConfigStore::project(const Uuid& id) const {
    if (const auto* p = m_config.project(id)) return *p;
    return std::nullopt;
}

void ConfigStore::setActiveProject(const Uuid& id) {
    if (!m_config.project(id)) return;
    update(true, [&](AppConfig& c) { c.activeProjectID = id; });
}

void ConfigStore::reorderProjects(const std::vector<Uuid>& ids) {
    if (ids.empty()) return;
    mutate([&](AppConfig& c) {
        if (c.projects.size() < 2) return;
        std::map<Uuid, ProjectMetadata> byID;
        for (const auto& p : c.projects) byID.emplace(p.id, p);
        std::vector<ProjectMetadata> order;
        for (const auto& id : ids) {
            auto it = byID.find(id);
            if (it == byID.end()) continue;
            order.push_back(std::move(it->second));
            byID.erase(it);
        }
        if (order.empty()) return;
        for (const auto& p : c.projects)
            if (byID.count(p.id)) order.push_back(p);
        if (order.size() == c.projects.size() && order != c.projects) c.projects = std::move(order);
    });
    assign(m_config.ensuringDefaults());
    mirrorResumeAndPersist();
}

std::vector<ProjectMetadata> ConfigStore::openProjects(const std::vector<std::string>& folderPaths) {
    std::unordered_set<Uuid> sampleIDs;
    for (const auto& s : ProjectMetadata::samples()) sampleIDs.insert(s.id);
    std::string home = homeDirectory();
    bool onlySamples = !m_config.projects.empty() &&
                       std::all_of(m_config.projects.begin(), m_config.projects.end(),
                                   [&](const ProjectMetadata& p) { return sampleIDs.count(p.id) != 0; });

    struct Pair {
        ProjectMetadata metadata;
        bool isExisting;
    };
    std::vector<Pair> pairs;
    std::unordered_set<std::string> seen;
    for (const auto& folder : folderPaths) {
        if (folder.empty() || folder[0] != '/') continue;
        std::string standardized = standardizePath(folder, {});
        struct stat st{};
        if (stat(standardized.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        std::string canonical = resolveSymlinks(standardized);
        if (!seen.insert(canonical).second) continue;
        if (!onlySamples) {
            const ProjectMetadata* existing = nullptr;
            for (const auto& p : m_config.projects) {
                if (standardizePath(expandTilde(p.rootPath, home), {}) == canonical) {
                    existing = &p;
                    break;
                }
            }
            if (existing) {
                pairs.push_back({*existing, true});
                continue;
            }
        }
        ProjectMetadata project;
        project.id = Uuid::random();
        project.name = lastComponent(canonical);
        project.rootPath = abbreviateHome(canonical, home);
        pairs.push_back({std::move(project), false});
    }
    if (pairs.empty()) return {};

    mutate([&](AppConfig& c) {
        if (onlySamples) c.projects.clear();
        for (const auto& pair : pairs)
            if (!pair.isExisting) c.projects.push_back(pair.metadata);
        c.activeProjectID = pairs.front().metadata.id;
        for (const auto& pair : pairs) ensureInitialCLISession(pair.metadata.id, c);
    });
    assign(m_config.ensuringDefaults(home));
    mirrorResumeAndPersist();

    std::vector<ProjectMetadata> result;
    for (auto& pair : pairs) result.push_back(std::move(pair.metadata));
    return result;
}

void ConfigStore::ensureInitialCLISession(const Uuid& projectId, AppConfig& config) const {
    if (!config.project(projectId)) return;
    size_t count = 0;
    for (const auto& s : config.cliSessions)
        if (s.projectId == projectId) ++count;
    if (count > 0) return;
    config.cliSessions.push_back({Uuid::random(), "CLI #" + std::to_string(count + 1),
                                  cliWorkingDirectory(projectId, config.projects, homeDirectory()), "/bin/zsh",
                                  projectId});
}

std::optional<ProjectMetadata> ConfigStore::nextProject(const std::optional<Uuid>& after) const {
    const auto& projects = m_config.projects;
    if (projects.empty()) return std::nullopt;
    for (size_t i = 0; after && i < projects.size(); ++i)
        if (projects[i].id == *after) return projects[(i + 1) % projects.size()];
    return projects.front();
}

std::optional<ProjectMetadata> ConfigStore::previousProject(const std::optional<Uuid>& before) const {
    const auto& projects = m_config.projects;
    if (projects.empty()) return std::nullopt;
    for (size_t i = 0; before && i < projects.size(); ++i)
        if (projects[i].id == *before) return projects[(i + projects.size() - 1) % projects.size()];
    return projects.back();
}

CLISessionConfig ConfigStore::addCLISession(const std::optional<std::string>& title,
                                            const std::optional<Uuid>& projectId) {
    size_t count = 0;
    for (const auto& s : m_config.cliSessions)
        if (s.projectId == projectId) ++count;
    CLISessionConfig session{Uuid::random(), title ? *title : "CLI #" + std::to_string(count + 1),
                             cliWorkingDirectory(projectId, m_config.projects, homeDirectory()), "/bin/zsh",
                             projectId};
    update(true, [&](AppConfig& c) { c.cliSessions.push_back(session); });
    return session;
}

void ConfigStore::removeCLISession(const Uuid& id) {
    update(true, [&](AppConfig& c) { std::erase_if(c.cliSessions, [&](const auto& s) { return s.id == id; }); });
}

std::optional<ConfigStore::CloseProjectResult> ConfigStore::closeProject(const Uuid& id) {
    if (!m_config.project(id)) return std::nullopt;
    CloseProjectResult result;
    update(false, [&](AppConfig& c) {
        for (const auto& s : c.cliSessions)
            if (s.projectId == id) result.removedSessionIDs.push_back(s.id);
        std::erase_if(c.cliSessions, [&](const auto& s) { return s.projectId == id; });
        std::erase_if(c.projects, [&](const auto& p) { return p.id == id; });
        if (c.activeProjectID == id) {
            if (c.projects.empty()) c.activeProjectID.reset();
            else c.activeProjectID = c.projects.front().id;
        }
        if (c.projects.empty()) c.activeProjectID.reset();
        result.nextActiveID = c.activeProjectID;
    });
    return result;
}

std::optional<Uuid> ConfigStore::resumeWorkspace() {
    if (m_config.resumeProjects.empty()) return std::nullopt;
    mutate([](AppConfig& c) {
        c.projects = c.resumeProjects;
        if (!c.activeProjectID || !c.project(*c.activeProjectID)) c.activeProjectID = c.projects.front().id;
    });
    assign(m_config.ensuringDefaults());
    mirrorResumeAndPersist();
    return m_config.activeProjectID;
}

}  // namespace velko
