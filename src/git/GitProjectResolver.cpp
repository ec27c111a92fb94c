#include "git/GitProjectResolver.h"

#include "core/Paths.h"
#include "core/TaskQueue.h"

namespace velko {

namespace {

using Found = std::optional<std::pair<Uuid, ProjectMetadata>>;

// Reads the project on the main thread, in one hop, so that the active id and
// the project belong to the same configuration.
Found lookUp(const std::weak_ptr<ProjectProviding>& provider, const std::optional<Uuid>& projectID) {
    auto store = provider.lock();
    if (!store) return std::nullopt;
    std::optional<Uuid> id = projectID ? projectID : store->config().activeProjectID;
    if (!id) return std::nullopt;
    auto project = store->project(*id);
    if (!project) return std::nullopt;
    return std::make_pair(*id, std::move(*project));
}

// The answer of one hop, read by the waiting block under the shared mutex.
struct Slot {
    bool done = false;
    Found value;
};

// Travels with the hop. Whoever drops the hop, run or not, marks the slot
// answered, so a main queue that discards its work releases the waiting block.
struct HopGuard {
    HopGuard(std::shared_ptr<GitProjectResolver::Waits> w, std::shared_ptr<Slot> s)
        : waits(std::move(w)), slot(std::move(s)) {}
    HopGuard(const HopGuard&) = delete;
    HopGuard& operator=(const HopGuard&) = delete;
    std::shared_ptr<GitProjectResolver::Waits> waits;
    std::shared_ptr<Slot> slot;
    ~HopGuard() { finish(std::nullopt); }
    void finish(Found found) {
        {
            std::lock_guard lock(waits->mutex);
            if (slot->done) return;
            slot->value = std::move(found);
            slot->done = true;
        }
        waits->changed.notify_all();
    }
};

}  // namespace

GitProjectResolver::GitProjectResolver(std::weak_ptr<ProjectProviding> provider) : m_provider(std::move(provider)) {}

std::optional<GitProject> GitProjectResolver::resolve(const std::optional<Uuid>& projectID) {
    Found found;
    if (isMainThread()) {
        found = lookUp(m_provider, projectID);
    } else {
        {
            std::lock_guard lock(m_waits->mutex);
            if (m_waits->stopped) return std::nullopt;
        }
        auto slot = std::make_shared<Slot>();
        auto guard = std::make_shared<HopGuard>(m_waits, slot);
        mainQueue().post([guard = std::move(guard), provider = m_provider, projectID] {
            guard->finish(lookUp(provider, projectID));
        });
        std::unique_lock lock(m_waits->mutex);
        m_waits->changed.wait(lock, [&] { return slot->done || m_waits->stopped; });
        if (!slot->done) return std::nullopt;
        found = std::move(slot->value);
    }
    if (!found) return std::nullopt;
    std::string directory = expandTilde(found->second.rootPath, homeDirectory());
    return GitProject{std::move(found->second), found->first, std::move(directory)};
}

void GitProjectResolver::stop() {
    {
        std::lock_guard lock(m_waits->mutex);
        m_waits->stopped = true;
    }
    m_waits->changed.notify_all();
}

}  // namespace velko
