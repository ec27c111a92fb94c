#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "files/ExplorerListing.h"
#include "support/TestSupport.h"

using namespace velko;
namespace fs = std::filesystem;

namespace {

constexpr const char* kHome = "/home/nobody-here";

// "name:path:type" for each node, in order, or "error:<token>@<path>".
std::vector<std::string> describe(const ExplorerDirectorySnapshot& snapshot) {
    if (!snapshot.error.empty()) return {"error:" + snapshot.error + "@" + snapshot.path};
    std::vector<std::string> out;
    for (const auto& node : snapshot.nodes)
        out.push_back(node.name + ":" + node.path + ":" + (node.type == ExplorerNodeType::Folder ? "folder" : "file"));
    return out;
}

}  // namespace

TEST(ExplorerExclusionRules, NamesExcludeAtEveryDepthAndPathsOnlyTheirSubtree) {
    test::ScopedEnv home("HOME", kHome);
    ExplorerExclusionRules rules({"/abs", "../up", ".", "", "dist", "a/b", "./c/d/", "~/x", "a/../.."});
    struct Case {
        const char* path;
        bool excluded;
    };
    const Case cases[] = {
        {"", false},               // the root is never excluded
        {".git", true},
        {"src/.git/HEAD", true},
        {"a/node_modules/b", true},
        {"node_modules_old", false},
        {"Pods", true},
        {"pods", false},           // exact, case included
        {"dist", true},
        {"deep/dist/x", true},
        {"a/b", true},
        {"a/bc", false},
        {"x/a/b", false},          // a path rule is anchored at the root
        {"c/d/e", true},           // "./c/d/" standardises to "c/d"
        {"abs", false},            // absolute entries are ignored
        {"up", false},
        {"~/x", false},            // a tilde entry names a place outside the project
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(rules.contains(c.path), c.excluded);
    }
    EXPECT_EQ(rules.paths(), (std::vector<std::string>{"a/b", "c/d", "a/../.."}));
}

TEST(ExplorerListing, ListsOneLevelFoldersFirstCaseInsensitivelyWithExclusionsAndErrors) {
    test::TempDir root;
    // "accents/Éz.txt" folded comes after "accents/éa.txt".
    for (const char* file : {"B", "a", "C", "z/inner.txt", ".hidden", ".DS_Store", ".git/HEAD", "node_modules/x/y.js",
                             "dist/out.js", "src/node_modules/m.js", "src/main.cpp", "src/Zeta/q", "src/alpha/q",
                             "accents/Éz.txt", "accents/éa.txt"})
        root.write(file, "");
    test::TempDir outside;
    outside.write("o.txt", "");
    fs::create_symlink(root.file("src"), root.file("link-in"));
    fs::create_symlink(outside.path(), root.file("link-out"));
    fs::create_symlink(root.path(), root.file("src/loop"));
    ASSERT_EQ(mkfifo(root.file("fifo").c_str(), 0600), 0);

    const std::vector<std::string> requested = {
        "", "src", "./src/", "link-in", "link-out", "src/loop", "a", "missing", "/abs", "../up", "dist", ".git",
        "src/node_modules", "accents"};
    auto snapshots = listExplorerDirectories(root.path(), requested, {"dist", "src/Zeta"}, kHome);
    ASSERT_EQ(snapshots.size(), requested.size());

    using List = std::vector<std::string>;
    const List top = {"accents:accents:folder", "src:src:folder", "z:z:folder", ".hidden:.hidden:file",
                      "a:a:file", "B:B:file", "C:C:file"};
    const List src = {"alpha:src/alpha:folder", "main.cpp:src/main.cpp:file"};
    const List expected[] = {
        top,
        src,
        src,
        src,  // through a link inside the project the entries carry the target's paths
        {"error:notFound@link-out"},
        top,
        {"error:notFound@a"},
        {"error:notFound@missing"},
        {"error:invalidPath@/abs"},
        {"error:invalidPath@../up"},
        {"error:excluded@dist"},
        {"error:excluded@.git"},
        {"error:excluded@src/node_modules"},
        {"éa.txt:accents/éa.txt:file", "Éz.txt:accents/Éz.txt:file"},
    };
    for (size_t i = 0; i < requested.size(); ++i) {
        SCOPED_TRACE(requested[i]);
        EXPECT_EQ(describe(snapshots[i]), expected[i]);
    }
    // A successful snapshot carries the normalised path, the page matches on it.
    EXPECT_EQ(snapshots[2].path, "src");
}
