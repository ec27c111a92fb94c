#include "workspace/Models.h"

#include <algorithm>
#include <unordered_set>

#include "core/Paths.h"

namespace velko {

std::string featureRawValue(Feature feature) {
    switch (feature) {
        case Feature::TerminalV2: return "terminal.v2";
        case Feature::TerminalDebugDump: return "terminal.debugDump";
    }
    return {};
}

std::optional<Feature> featureFromRawValue(std::string_view raw) {
    if (raw == "terminal.v2") return Feature::TerminalV2;
    if (raw == "terminal.debugDump") return Feature::TerminalDebugDump;
    return std::nullopt;
}

const std::vector<ColumnKind>& allColumnKinds() {
    static const std::vector<ColumnKind> kinds = {ColumnKind::Explorer, ColumnKind::Preview, ColumnKind::Editor,
                                                  ColumnKind::Terminal, ColumnKind::Git};
    return kinds;
}

std::string columnKindRawValue(ColumnKind kind) {
    switch (kind) {
        case ColumnKind::Explorer: return "explorer";
        case ColumnKind::Preview: return "preview";
        case ColumnKind::Editor: return "editor";
        case ColumnKind::Terminal: return "terminal";
        case ColumnKind::Git: return "git";
    }
    return {};
}

std::optional<ColumnKind> columnKindFromRawValue(std::string_view raw) {
    for (auto kind : allColumnKinds())
        if (columnKindRawValue(kind) == raw) return kind;
    return std::nullopt;
}

ColumnLayout ColumnLayout::defaultLayout() {
    return {{ColumnKind::Explorer, ColumnKind::Preview, ColumnKind::Editor, ColumnKind::Terminal}};
}

const std::vector<ProjectMetadata>& ProjectMetadata::samples() {
    static const std::vector<ProjectMetadata> samples = {
        {*Uuid::parse("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE0"), "velko-app", "~/Projects/velko/app",
         "Desktop workspace shell", {}},
        {*Uuid::parse("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE1"), "api-server", "~/Projects/velko/api",
         "Backend services", {}},
        {*Uuid::parse("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE2"), "prompt-lab", "~/Projects/velko/prompt-lab",
         "Prompt experiments", {}},
    };
    return samples;
}

const ProjectMetadata* AppConfig::project(const Uuid& id) const {
    for (const auto& p : projects)
        if (p.id == id) return &p;
    return nullptr;
}

std::string cliWorkingDirectory(const std::optional<Uuid>& projectId, const std::vector<ProjectMetadata>& projects,
                                const std::string& homePath) {
    if (projectId) {
        for (const auto& p : projects)
            if (p.id == *projectId) return expandTilde(p.rootPath, homePath);
    }
    return homePath;
}

AppConfig AppConfig::ensuringDefaults() const { return ensuringDefaults(homeDirectory()); }

AppConfig AppConfig::ensuringDefaults(const std::string& homePath) const {
    AppConfig copy = *this;
    std::unordered_set<Uuid> sampleIDs;
    for (const auto& s : ProjectMetadata::samples()) sampleIDs.insert(s.id);
    auto isSample = [&](const ProjectMetadata& p) { return sampleIDs.count(p.id) != 0; };
    std::erase_if(copy.projects, isSample);
    std::erase_if(copy.resumeProjects, isSample);

    if (copy.projects.empty()) {
        // An emptied workspace keeps its resume list: that is what "resume" brings back.
        copy.activeProjectID.reset();
    } else if (copy.resumeProjects.empty()) {
        // The active id is left as it stands here; the next saving operation repairs it.
        copy.resumeProjects = copy.projects;
    } else if (!copy.activeProjectID || !copy.project(*copy.activeProjectID)) {
        copy.activeProjectID = copy.projects.front().id;
    }

    if (copy.columnLayout.order.empty()) copy.columnLayout = ColumnLayout::defaultLayout();

    std::unordered_set<Uuid> projectIDs;
    for (const auto& p : copy.projects) projectIDs.insert(p.id);
    std::vector<CLISessionConfig> sessions;
    for (auto session : copy.cliSessions) {
        if (session.projectId && !projectIDs.count(*session.projectId)) continue;
        if (session.workingDirectory.empty())
            session.workingDirectory = cliWorkingDirectory(session.projectId, copy.projects, homePath);
        sessions.push_back(std::move(session));
    }
    copy.cliSessions = std::move(sessions);

    copy.enabledFeatures.insert(Feature::TerminalV2);
    return copy;
}

// --- encoding ---

OrderedJson encodeProject(const ProjectMetadata& project) {
    OrderedJson p;
    p["id"] = project.id.toString();
    p["name"] = project.name;
    p["rootPath"] = project.rootPath;
    if (project.description) p["description"] = *project.description;
    p["explorerExcludedPaths"] = project.explorerExcludedPaths;
    return p;
}

namespace {
OrderedJson encodeSession(const CLISessionConfig& session) {
    OrderedJson s;
    s["id"] = session.id.toString();
    s["title"] = session.title;
    s["workingDirectory"] = session.workingDirectory;
    s["shell"] = session.shell;
    if (session.projectId) s["projectId"] = session.projectId->toString();
    return s;
}
}  // namespace

OrderedJson encodeAppConfig(const AppConfig& config) {
    OrderedJson root;
    OrderedJson projects = OrderedJson::array();
    for (const auto& p : config.projects) projects.push_back(encodeProject(p));
    root["projects"] = std::move(projects);
    root["activeProjectID"] = config.activeProjectID ? OrderedJson(config.activeProjectID->toString()) : OrderedJson();
    OrderedJson order = OrderedJson::array();
    for (auto kind : config.columnLayout.order) order.push_back(columnKindRawValue(kind));
    root["columnLayout"] = OrderedJson{{"order", std::move(order)}};
    OrderedJson sessions = OrderedJson::array();
    for (const auto& s : config.cliSessions) sessions.push_back(encodeSession(s));
    root["cliSessions"] = std::move(sessions);
    if (!config.enabledFeatures.empty()) {
        OrderedJson features = OrderedJson::array();
        for (auto f : config.enabledFeatures) features.push_back(featureRawValue(f));
        root["features"] = std::move(features);
    }
    if (!config.resumeProjects.empty()) {
        OrderedJson resume = OrderedJson::array();
        for (const auto& p : config.resumeProjects) resume.push_back(encodeProject(p));
        root["resumeProjects"] = std::move(resume);
    }
    if (config.legacyLastOpenedProjectIDs) {
        OrderedJson ids = OrderedJson::array();
        for (const auto& id : *config.legacyLastOpenedProjectIDs) ids.push_back(id.toString());
        root["lastOpenedProjectIDs"] = std::move(ids);
    }
    return root;
}

// --- decoding ---

namespace {

struct Invalid {};

const Json* optionalMember(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

std::string requiredString(const Json& object, const char* key) {
    const Json* v = optionalMember(object, key);
    if (!v || !v->is_string()) throw Invalid{};
    return v->get<std::string>();
}

Uuid uuidValue(const Json& value) {
    if (!value.is_string()) throw Invalid{};
    auto id = Uuid::parse(value.get<std::string>());
    if (!id) throw Invalid{};
    return *id;
}

std::optional<Uuid> optionalUuid(const Json& object, const char* key) {
    const Json* v = optionalMember(object, key);
    if (!v) return std::nullopt;
    return uuidValue(*v);
}

ProjectMetadata decodeProject(const Json& value) {
    if (!value.is_object()) throw Invalid{};
    ProjectMetadata p;
    const Json* id = optionalMember(value, "id");
    if (!id) throw Invalid{};
    p.id = uuidValue(*id);
    p.name = requiredString(value, "name");
    p.rootPath = requiredString(value, "rootPath");
    if (const Json* d = optionalMember(value, "description")) {
        if (!d->is_string()) throw Invalid{};
        p.description = d->get<std::string>();
    }
    if (const Json* paths = optionalMember(value, "explorerExcludedPaths")) {
        if (!paths->is_array()) throw Invalid{};
        for (const auto& entry : *paths) {
            if (!entry.is_string()) throw Invalid{};
            p.explorerExcludedPaths.push_back(entry.get<std::string>());
        }
    }
    return p;
}

std::vector<ProjectMetadata> decodeProjects(const Json& root, const char* key) {
    std::vector<ProjectMetadata> projects;
    const Json* list = optionalMember(root, key);
    if (!list) return projects;
    if (!list->is_array()) throw Invalid{};
    for (const auto& entry : *list) projects.push_back(decodeProject(entry));
    return projects;
}

CLISessionConfig decodeSession(const Json& value) {
    if (!value.is_object()) throw Invalid{};
    CLISessionConfig s;
    const Json* id = optionalMember(value, "id");
    if (!id) throw Invalid{};
    s.id = uuidValue(*id);
    s.title = requiredString(value, "title");
    s.workingDirectory = requiredString(value, "workingDirectory");
    s.shell = requiredString(value, "shell");
    s.projectId = optionalUuid(value, "projectId");
    return s;
}

}  // namespace

Result<AppConfig, ConfigDecodeError> decodeAppConfig(const Json& root, const std::string& homePath) {
    if (!root.is_object()) return fail(ConfigDecodeError::InvalidValue);
    try {
        AppConfig config;
        config.projects = decodeProjects(root, "projects");
        std::optional<Uuid> active = optionalUuid(root, "activeProjectID");

        config.columnLayout = ColumnLayout::defaultLayout();
        if (const Json* layout = optionalMember(root, "columnLayout")) {
            if (!layout->is_object()) throw Invalid{};
            auto order = layout->find("order");
            if (order == layout->end() || !order->is_array()) throw Invalid{};
            config.columnLayout.order.clear();
            for (const auto& entry : *order) {
                if (!entry.is_string()) throw Invalid{};
                auto kind = columnKindFromRawValue(entry.get<std::string>());
                if (!kind) throw Invalid{};
                config.columnLayout.order.push_back(*kind);
            }
        }

        std::optional<std::vector<CLISessionConfig>> sessions;
        if (const Json* list = optionalMember(root, "cliSessions")) {
            if (!list->is_array()) throw Invalid{};
            sessions.emplace();
            for (const auto& entry : *list) sessions->push_back(decodeSession(entry));
        }

        // The one forgiving key: anything wrong here means "no features".
        if (const Json* features = optionalMember(root, "features"); features && features->is_array()) {
            std::set<Feature> parsed;
            bool valid = true;
            for (const auto& entry : *features) {
                auto feature = entry.is_string() ? featureFromRawValue(entry.get<std::string>()) : std::nullopt;
                if (!feature) {
                    valid = false;
                    break;
                }
                parsed.insert(*feature);
            }
            if (valid) config.enabledFeatures = std::move(parsed);
        }

        config.resumeProjects = decodeProjects(root, "resumeProjects");

        if (const Json* legacy = optionalMember(root, "lastOpenedProjectIDs")) {
            if (!legacy->is_array()) throw Invalid{};
            std::vector<Uuid> ids;
            for (const auto& entry : *legacy) ids.push_back(uuidValue(entry));
            config.legacyLastOpenedProjectIDs = std::move(ids);
        }

        if (sessions) {
            config.cliSessions = std::move(*sessions);
        } else {
            CLISessionConfig session;
            session.id = Uuid::random();
            session.title = "CLI #1";
            session.workingDirectory = homePath;
            session.shell = "/bin/zsh";
            if (active) session.projectId = active;
            else if (!config.projects.empty()) session.projectId = config.projects.front().id;
            config.cliSessions.push_back(std::move(session));
        }

        if (active) config.activeProjectID = active;
        else if (config.legacyLastOpenedProjectIDs && !config.legacyLastOpenedProjectIDs->empty())
            config.activeProjectID = config.legacyLastOpenedProjectIDs->front();
        return config;
    } catch (const Invalid&) {
        return fail(ConfigDecodeError::InvalidValue);
    }
}

Result<AppConfig, ConfigDecodeError> decodeAppConfigText(std::string_view text, const std::string& homePath) {
    auto json = parseJson(text);
    if (!json) return fail(ConfigDecodeError::InvalidJson);
    return decodeAppConfig(*json, homePath);
}

}  // namespace velko
