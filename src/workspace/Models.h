#pragma once
// The workspace model: plain value records, copied freely, saved as one JSON
// file by ConfigStore. Field names equal their JSON keys except where noted.

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/Json.h"
#include "core/Result.h"
#include "core/PathText.h"
#include "core/Uuid.h"

namespace velko {

enum class Feature { TerminalV2, TerminalDebugDump };
std::string featureRawValue(Feature feature);            // "terminal.v2", "terminal.debugDump"
std::optional<Feature> featureFromRawValue(std::string_view raw);

enum class ColumnKind { Explorer, Preview, Editor, Terminal, Git };
std::string columnKindRawValue(ColumnKind kind);         // "explorer", ...
std::optional<ColumnKind> columnKindFromRawValue(std::string_view raw);
const std::vector<ColumnKind>& allColumnKinds();

struct ColumnLayout {
    std::vector<ColumnKind> order;
    static ColumnLayout defaultLayout();  // explorer, preview, editor, terminal
    friend bool operator==(const ColumnLayout&, const ColumnLayout&) = default;
};

struct ProjectMetadata {
    Uuid id;
    std::string name;
    std::string rootPath;  // stored with a leading "~" for folders under the home directory
    std::optional<std::string> description;
    std::vector<std::string> explorerExcludedPaths;

    static const std::vector<ProjectMetadata>& samples();
    friend bool operator==(const ProjectMetadata&, const ProjectMetadata&) = default;
};

struct CLISessionConfig {
    Uuid id;
    std::string title;
    std::string workingDirectory;  // absolute, tilde expanded; may be empty in a file
    std::string shell;             // "/bin/zsh" for sessions the program makes
    std::optional<Uuid> projectId;
    friend bool operator==(const CLISessionConfig&, const CLISessionConfig&) = default;
};

enum class ProjectTabStatus { Idle, Running };
struct ProjectTab {
    Uuid id;
    std::string name;
    std::string rootPath;
    ProjectTabStatus status = ProjectTabStatus::Idle;
};

struct AppConfig {
    std::set<Feature> enabledFeatures;
    std::vector<ProjectMetadata> projects;
    std::optional<Uuid> activeProjectID;
    ColumnLayout columnLayout = ColumnLayout::defaultLayout();
    std::vector<CLISessionConfig> cliSessions;
    std::vector<ProjectMetadata> resumeProjects;
    std::optional<std::vector<Uuid>> legacyLastOpenedProjectIDs;  // key "lastOpenedProjectIDs"

    bool hasFeature(Feature f) const { return enabledFeatures.count(f) != 0; }
    const ProjectMetadata* project(const Uuid& id) const;

    // The normalised copy that every change goes through.
    AppConfig ensuringDefaults() const;
    AppConfig ensuringDefaults(const std::string& homePath) const;

    friend bool operator==(const AppConfig&, const AppConfig&) = default;
};

// The working directory of a new session: the project's root (tilde expanded)
// or the home path.
std::string cliWorkingDirectory(const std::optional<Uuid>& projectId,
                                const std::vector<ProjectMetadata>& projects,
                                const std::string& homePath);

// --- JSON form of the configuration file ---

enum class ConfigDecodeError { InvalidJson, InvalidValue };
OrderedJson encodeAppConfig(const AppConfig& config);
// Tolerant of missing keys, strict about bad values (except "features").
Result<AppConfig, ConfigDecodeError> decodeAppConfig(const Json& json, const std::string& homePath);
Result<AppConfig, ConfigDecodeError> decodeAppConfigText(std::string_view text, const std::string& homePath);

OrderedJson encodeProject(const ProjectMetadata& project);  // file form, with description

}  // namespace velko
