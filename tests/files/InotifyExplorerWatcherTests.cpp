#include <gtest/gtest.h>
#include <sys/inotify.h>

#include "files/InotifyExplorerWatcher.h"

using namespace velko;
using Item = ExplorerFileItemKind;
using Change = ExplorerFileChangeKind;

// The common events are proven on real inotify in the integration tests; these
// are the ones a test cannot easily make the kernel send, or must not pass on.
TEST(InotifyExplorerWatcher, KernelEventsMapOntoTheExplorersChangeModel) {
    struct Case {
        const char* name;
        uint32_t mask;
        bool isRoot;
        std::optional<ExplorerFileEvent> expected;
    };
    const std::string p = "/r/x";
    const Case cases[] = {
        {"touched", IN_ATTRIB, false, ExplorerFileEvent{p, Item::File, Change::Modified, false}},
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
