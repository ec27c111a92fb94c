#pragma once
// The raw change events of a watched project folder, and the role interface of
// whatever delivers them.
#include <functional>
#include <string>
#include <vector>

namespace velko {

enum class ExplorerFileItemKind { File, Directory, Unknown };
enum class ExplorerFileChangeKind { Created, Removed, Renamed, Modified, Unknown };

struct ExplorerFileEvent {
    std::string path;  // absolute
    ExplorerFileItemKind itemKind = ExplorerFileItemKind::Unknown;
    ExplorerFileChangeKind changeKind = ExplorerFileChangeKind::Unknown;
    // The watcher lost track (queue overflow, root moved or gone, out of
    // watches): everything below `path` must be listed again.
    bool requiresResync = false;
    bool operator==(const ExplorerFileEvent&) const = default;
};

// A recursive watcher of one folder. `start` returns true when the stream
// runs; the handler is called on the watcher's own thread with one delivery of
// events at a time, never with an empty list. `stop` ends deliveries before
// it returns and may be called more than once.
class ExplorerEventWatching {
public:
    using Handler = std::function<void(std::vector<ExplorerFileEvent>)>;
    virtual ~ExplorerEventWatching() = default;
    virtual bool start(Handler handler) = 0;
    virtual void stop() = 0;
};

}  // namespace velko
