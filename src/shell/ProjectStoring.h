#pragma once
// ProjectStoring: the workspace operations behind the page's project messages
// (open, close, activate, resume, reorder) and the project lookups of the file
// requests. The configuration store does the work; the bridge reaches it
// through this role so that its handlers can be tested with a fake.
//
// Main thread only, like the store. The bridge holds it weakly.

#include <optional>
#include <string>
#include <vector>

#include "core/Uuid.h"
#include "workspace/Models.h"

namespace velko {

class ProjectStoring {
public:
    virtual ~ProjectStoring() = default;

    virtual const AppConfig& config() const = 0;
    virtual std::optional<ProjectMetadata> project(const Uuid& id) const = 0;
    // The projects made from the folders, in order; invalid folders are left out.
    virtual std::vector<ProjectMetadata> openProjects(const std::vector<std::string>& folderPaths) = 0;
    // The sessions that left the configuration with the project (none for an unknown id).
    virtual std::vector<Uuid> closeProject(const Uuid& id) = 0;
    // Does nothing for an unknown id.
    virtual void setActiveProject(const Uuid& id) = 0;
    // The new active project, or nothing when there was nothing to resume.
    virtual std::optional<Uuid> resumeWorkspace() = 0;
    virtual void reorderProjects(const std::vector<Uuid>& ids) = 0;
};

}  // namespace velko
