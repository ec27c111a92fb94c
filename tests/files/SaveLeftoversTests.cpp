#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <functional>

#include "files/InotifyExplorerWatcher.h"
#include "files/ProjectFileAccess.h"
#include "files/SaveLeftovers.h"
#include "support/TestSupport.h"

using namespace velko;
namespace fs = std::filesystem;

namespace {

enum class Kind { File, Link, Folder };

// Dates `path` itself (not what a link points to) an hour back: left by an earlier run.
void makeOld(const std::string& path) {
    timespec hourAgo {};
    clock_gettime(CLOCK_REALTIME, &hourAgo);
    hourAgo.tv_sec -= 3600;
    const timespec times[2] = {hourAgo, hourAgo};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

}  // namespace

// Leftovers of a killed save go when their folder is next saved into or the
// project is opened; nothing else in the folder is ever touched.
TEST(SaveLeftovers, OnlyOurOwnOldFilesGoWhenTheFolderIsSavedIntoOrTheProjectOpens) {
    struct Case {
        std::string name;
        Kind kind;
        bool old;
        bool removed;
    };
    const Case cases[] = {
        {".velko-save-0123ABCD.tmp", Kind::File, true, true},
        {".velko-save-89ABCDEF.tmp", Kind::File, false, false},  // may be a save running now
        {".velko-save-0123abcd.tmp", Kind::File, true, false},   // we write upper-case digits
        {".velko-save-0123ABC.tmp", Kind::File, true, false},
        {".velko-save-0123ABCDE.tmp", Kind::File, true, false},
        {".velko-save-0123ABCG.tmp", Kind::File, true, false},
        {"velko-save-0123ABCD.tmp", Kind::File, true, false},
        {".velko-save-0123ABCD.tmp~", Kind::File, true, false},
        {".velko-save-0123ABCD.TMP", Kind::File, true, false},
        {".velko-save-11111111.tmp", Kind::Link, true, false},
        {".velko-save-22222222.tmp", Kind::Folder, true, false},
    };
    struct Route {
        const char* name;
        std::function<void(const test::TempDir& project)> run;
    };
    const Route routes[] = {
        {"saved into", [](const test::TempDir& p) { ASSERT_TRUE(saveProjectFile("sub/a.txt", p.path(), "a", "/")); }},
        {"project opened",
         [](const test::TempDir& p) {
             InotifyExplorerWatcher watcher(fs::canonical(p.path()).string(), ExplorerExclusionRules{});
             ASSERT_TRUE(watcher.start([](std::vector<ExplorerFileEvent>) {}));
             watcher.waitUntilScanned();
         }},
    };
    for (const auto& route : routes) {
        SCOPED_TRACE(route.name);
        test::TempDir project, outside;
        std::string target = outside.write("target.txt", "what the link points to");
        makeOld(target);
        fs::create_directories(project.file("sub"));
        for (const auto& c : cases) {
            std::string path = project.file("sub/" + c.name);
            if (c.kind == Kind::File) project.write("sub/" + c.name, "partial");
            if (c.kind == Kind::Link) fs::create_symlink(target, path);
            if (c.kind == Kind::Folder) fs::create_directory(path);
            if (c.old) makeOld(path);
        }
        route.run(project);
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            struct stat st {};
            EXPECT_EQ(lstat(project.file("sub/" + c.name).c_str(), &st) != 0, c.removed);
        }
        EXPECT_EQ(test::readFile(target), "what the link points to");
    }
}
