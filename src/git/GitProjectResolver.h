#pragma once
// GitProjectResolver: turns the project id of a git message (or, without one,
// the active project) into the project a git block works on. The workspace
// lives on the main thread, so a block on a git queue asks there and waits.
// The main thread never waits for a git queue, so the wait ends; and when the
// main thread will not run the hop any more (the loop has ended, or the
// engine is stopping), the answer is "no project" rather than a block that
// waits forever.
//
// Called on git queues; thread-safe. Owned by GitService.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/Uuid.h"
#include "workspace/ConfigStore.h"

namespace velko {

struct GitProject {
    ProjectMetadata metadata;
    Uuid id;
    std::string directory;  // root path with the tilde expanded
};

class GitProjectResolver {
public:
    explicit GitProjectResolver(std::weak_ptr<ProjectProviding> provider);

    std::optional<GitProject> resolve(const std::optional<Uuid>& projectID);
    // Every resolve waiting now, and every later one, answers "no project".
    void stop();

    struct Waits {
        std::mutex mutex;
        std::condition_variable changed;
        bool stopped = false;
    };

private:
    std::weak_ptr<ProjectProviding> m_provider;
    std::shared_ptr<Waits> m_waits = std::make_shared<Waits>();
};

}  // namespace velko
