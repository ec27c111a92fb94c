#include <gtest/gtest.h>
#include <sys/inotify.h>

#include "files/InotifyExplorerWatcher.h"

using namespace velko;
using Item = ExplorerFileItemKind;
using Change = ExplorerFileChangeKind;

TEST(InotifyExplorerWatcher, KernelEventsMapOntoTheExplorersChangeModel) {
    struct Case {
        const char* name;
        uint32_t mask;
        bool isRoot;
        std::optional<ExplorerFileEvent> expected;
    };
    const std::string p = "/r/x";
    const Case cases[] = {
        {"file created", IN_CREATE, false, ExplorerFileEvent{p, Item::File, Change::Created, false}},
        {"folder created", IN_CREATE | IN_ISDIR, false, ExplorerFileEvent{p, Item::Directory, Change::Created, false}},
        {"file deleted", IN_DELETE, false, ExplorerFileEvent{p, Item::File, Change::Removed, false}},
        {"folder deleted", IN_DELETE | IN_ISDIR, false, ExplorerFileEvent{p, Item::Directory, Change::Removed, false}},
        {"moved away", IN_MOVED_FROM, false, ExplorerFileEvent{p, Item::File, Change::Renamed, false}},
        {"moved here", IN_MOVED_TO | IN_ISDIR, false, ExplorerFileEvent{p, Item::Directory, Change::Renamed, false}},
        {"written", IN_MODIFY, false, ExplorerFileEvent{p, Item::File, Change::Modified, false}},
        {"closed after writing", IN_CLOSE_WRITE, false, ExplorerFileEvent{p, Item::File, Change::Modified, false}},
        {"touched", IN_ATTRIB, false, ExplorerFileEvent{p, Item::File, Change::Modified, false}},
        {"queue overflow", IN_Q_OVERFLOW, false, ExplorerFileEvent{p, Item::Directory, Change::Unknown, true}},
        {"root deleted", IN_DELETE_SELF, true, ExplorerFileEvent{p, Item::Directory, Change::Removed, true}},
        {"root moved", IN_MOVE_SELF, true, ExplorerFileEvent{p, Item::Directory, Change::Renamed, true}},
        {"root unmounted", IN_UNMOUNT, true, ExplorerFileEvent{p, Item::Directory, Change::Removed, true}},
        {"inner folder's own deletion is told by its parent", IN_DELETE_SELF, false, std::nullopt},
        {"watch released", IN_IGNORED, false, std::nullopt},
        {"opened only", IN_OPEN, false, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(explorerEventFromInotify(c.mask, p, c.isRoot), c.expected);
    }
}
