#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "core/Paths.h"
#include "support/TestSupport.h"
#include "workspace/ConfigStore.h"

using namespace velko;

namespace {

struct StoreFixture : ::testing::Test {
    test::IsolatedHome home;
    std::string storage = home.dataDir();

    std::string folder(const std::string& relative) {
        std::string path = home.home() + "/" + relative;
        std::filesystem::create_directories(path);
        return path;
    }
    std::unique_ptr<ConfigStore> bootstrapped() {
        auto store = std::make_unique<ConfigStore>(storage);
        EXPECT_TRUE(store->bootstrap().ok());
        return store;
    }
    std::vector<std::string> names(const std::vector<ProjectMetadata>& projects) {
        std::vector<std::string> out;
        for (const auto& p : projects) out.push_back(p.name);
        return out;
    }
};

}  // namespace

TEST_F(StoreFixture, FirstStartWritesAnEmptyWorkspaceAndASecondStoreReadsWhatTheFirstSaved) {
    auto store = bootstrapped();
    EXPECT_TRUE(store->config().projects.empty());
    auto file = parseJson(test::readFile(storage + "/config.json"));
    ASSERT_TRUE(file);
    EXPECT_EQ((*file)["projects"], Json::array());
    EXPECT_EQ((*file)["features"], Json::array({"terminal.v2"}));

    auto opened = store->openProjects({folder("code/one"), folder("code/two")});
    ASSERT_EQ(opened.size(), 2u);
    store->waitForSaves();  // saves land on the store's writer thread
    auto again = bootstrapped();
    EXPECT_EQ(again->config().projects, store->config().projects);
    EXPECT_EQ(again->config().activeProjectID, opened[0].id);
    EXPECT_EQ(again->config().cliSessions.size(), 2u);
}

TEST_F(StoreFixture, OpeningFoldersDeduplicatesAndAbbreviatesTheHomeDirectory) {
    auto store = bootstrapped();
    std::string one = folder("code/one");
    std::filesystem::create_directory_symlink(one, home.home() + "/link-to-one");
    std::string outside = test::TempDir().path();  // removed again: a folder that does not exist
    auto opened = store->openProjects({one, home.home() + "/link-to-one", one + "/../one/", outside,
                                       test::TempDir().write("plain-file", "x"), "relative/path"});
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].rootPath, "~/code/one");
    EXPECT_EQ(opened[0].name, "one");
    ASSERT_EQ(store->config().cliSessions.size(), 1u);
    EXPECT_EQ(store->config().cliSessions[0].title, "CLI #1");
    EXPECT_EQ(store->config().cliSessions[0].workingDirectory, one);

    // The same folder once more (by its resolved path) activates it and adds nothing.
    std::string two = folder("code/two");
    store->openProjects({two});
    auto reopened = store->openProjects({home.home() + "/link-to-one"});
    EXPECT_EQ(reopened[0].id, opened[0].id);
    EXPECT_EQ(store->config().projects.size(), 2u);
    EXPECT_EQ(store->config().activeProjectID, opened[0].id);
    EXPECT_EQ(store->config().cliSessions.size(), 2u);

    // The home folder itself, a sibling sharing its prefix, and a folder elsewhere.
    std::string sibling = home.home() + "2";
    std::filesystem::create_directories(sibling);
    auto more = store->openProjects({home.home(), sibling, "/usr/share"});
    std::filesystem::remove_all(sibling);
    ASSERT_EQ(more.size(), 3u);
    EXPECT_EQ(more[0].rootPath, "~");
    EXPECT_EQ(more[1].rootPath, "~/2") << "a plain text prefix test, kept as it always was";
    EXPECT_EQ(more[2].rootPath, "/usr/share");
    EXPECT_EQ(store->config().activeProjectID, more[0].id) << "the first selected folder becomes active";
}

TEST_F(StoreFixture, ClosingAndResumingFollowTheResumeList) {
    auto store = bootstrapped();
    int publications = 0;
    store->subscribe([&](const AppConfig&) { ++publications; });
    EXPECT_FALSE(store->resumeWorkspace()) << "nothing saved yet";
    EXPECT_EQ(publications, 0);
    auto opened = store->openProjects({folder("a"), folder("b"), folder("c")});
    store->setActiveProject(opened[1].id);
    auto closed = store->closeProject(opened[1].id);
    ASSERT_TRUE(closed);
    EXPECT_EQ(closed->removedSessionIDs.size(), 1u);
    EXPECT_EQ(closed->nextActiveID, opened[0].id) << "the first tab, not the neighbour";
    EXPECT_EQ(names(store->config().resumeProjects), (std::vector<std::string>{"a", "c"}));

    EXPECT_FALSE(store->closeProject(Uuid::random()));
    store->closeProject(opened[2].id);  // not active: active unchanged
    EXPECT_EQ(store->config().activeProjectID, opened[0].id);

    store->closeProject(opened[0].id);
    EXPECT_TRUE(store->config().projects.empty());
    EXPECT_FALSE(store->config().activeProjectID);
    EXPECT_TRUE(store->config().cliSessions.empty());
    EXPECT_EQ(names(store->config().resumeProjects), std::vector<std::string>{"a"});

    auto active = store->resumeWorkspace();
    EXPECT_EQ(active, opened[0].id);
    EXPECT_EQ(store->config().projects, store->config().resumeProjects);
    EXPECT_TRUE(store->config().cliSessions.empty()) << "resume brings projects back, not sessions";
    store->waitForSaves();
    EXPECT_EQ(bootstrapped()->config().projects.size(), 1u);
}

TEST_F(StoreFixture, NextAndPreviousWrapAndReorderPutsNamedProjectsFirst) {
    auto store = bootstrapped();
    EXPECT_FALSE(store->nextProject(std::nullopt));
    EXPECT_FALSE(store->previousProject(std::nullopt));
    auto p = store->openProjects({folder("a"), folder("b"), folder("c")});
    struct Case {
        std::optional<Uuid> from;
        std::string next, previous;
    };
    const Case cases[] = {
        {p[0].id, "b", "c"}, {p[2].id, "a", "b"}, {std::nullopt, "a", "c"}, {Uuid::random(), "a", "c"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(store->nextProject(c.from)->name, c.next);
        EXPECT_EQ(store->previousProject(c.from)->name, c.previous);
    }

    p.push_back(store->openProjects({folder("d")})[0]);
    store->reorderProjects({p[3].id, Uuid::random(), p[1].id, p[3].id});
    EXPECT_EQ(names(store->config().projects), (std::vector<std::string>{"d", "b", "a", "c"}));
    EXPECT_EQ(names(store->config().resumeProjects), names(store->config().projects));

    int publications = 0;
    store->subscribe([&](const AppConfig&) { ++publications; });
    store->reorderProjects({Uuid::random()});
    EXPECT_EQ(names(store->config().projects), (std::vector<std::string>{"d", "b", "a", "c"}));
    EXPECT_GT(publications, 0);
    publications = 0;
    store->reorderProjects({});
    EXPECT_EQ(publications, 0);
}

TEST_F(StoreFixture, SessionNumbersFollowTheCountPerProjectAndADeferredSaveWaitsForTheLastDeferral) {
    auto store = bootstrapped();
    auto p = store->openProjects({folder("a")});
    EXPECT_EQ(store->addCLISession(std::nullopt, p[0].id).title, "CLI #2");
    auto third = store->addCLISession(std::nullopt, p[0].id);
    EXPECT_EQ(store->addCLISession(std::nullopt, std::nullopt).title, "CLI #1") << "sessions without a project count apart";
    EXPECT_EQ(store->addCLISession(std::string(), p[0].id).title, "");
    store->removeCLISession(third.id);
    EXPECT_EQ(store->addCLISession(std::nullopt, p[0].id).title, "CLI #4");

    auto saved = [&] {
        store->waitForSaves();  // saves land on the store's writer thread
        return test::readFile(store->fileURL());
    };
    CLISessionConfig first, second;
    {
        ConfigStore::SaveDeferral outer(*store);
        first = store->addCLISession(std::nullopt, p[0].id);
        {
            ConfigStore::SaveDeferral inner(*store);
            second = store->addCLISession(std::nullopt, p[0].id);
        }
        EXPECT_EQ(saved().find(second.id.toString()), std::string::npos) << "saved while a deferral lives";
        EXPECT_EQ(store->config().cliSessions.size(), 7u) << "memory changes at once";
    }
    const std::string text = saved();
    EXPECT_NE(text.find(first.id.toString()), std::string::npos);
    EXPECT_NE(text.find(second.id.toString()), std::string::npos);
}

TEST_F(StoreFixture, EveryChangePublishesInOrderRawThenNormalisedThenMirrored) {
    auto store = bootstrapped();
    auto p = store->openProjects({folder("a"), folder("b")});
    std::vector<std::optional<Uuid>> seenByFirst, seenBySecond;
    store->subscribe([&](const AppConfig& c) { seenByFirst.push_back(c.activeProjectID); });
    store->subscribe([&](const AppConfig& c) { seenBySecond.push_back(c.activeProjectID); });
    store->setActiveProject(p[1].id);
    EXPECT_EQ(seenByFirst.size(), 3u);
    EXPECT_EQ(seenByFirst, seenBySecond);
    store->setActiveProject(Uuid::random());
    EXPECT_EQ(seenByFirst.size(), 3u) << "an unknown id changes nothing";
}

TEST_F(StoreFixture, CorruptFileKeepsSamplesInMemoryUntilAFolderReplacesThemAndIsKeptAside) {
    createDirectories(storage);
    std::string corrupt = "{\"projects\": [ {\"id\": 12} ]}";
    ASSERT_TRUE(writeFileAtomically(storage + "/config.json", corrupt));
    ConfigStore store(storage);
    EXPECT_FALSE(store.bootstrap().ok());
    EXPECT_EQ(store.config().projects.size(), 3u) << "the samples stay visible";
    EXPECT_EQ(test::readFile(storage + "/config.json"), corrupt) << "nothing is written before a change";

    auto opened = store.openProjects({folder("Projects/velko/app")});
    EXPECT_NE(opened.at(0).id, ProjectMetadata::samples()[0].id) << "a sample's path still makes a new project";
    EXPECT_EQ(names(store.config().projects), std::vector<std::string>{"app"});
    EXPECT_EQ(store.config().cliSessions.size(), 1u);
    store.waitForSaves();
    EXPECT_EQ(test::readFile(storage + "/config.json.bad"), corrupt);
    auto saved = parseJson(test::readFile(storage + "/config.json"));
    ASSERT_TRUE(saved);
    EXPECT_EQ((*saved)["projects"].size(), 1u);
}

TEST_F(StoreFixture, UnwritableStorageLeavesMemoryAuthoritative) {
    std::string blocker = test::TempDir().path() + "-blocker";
    ASSERT_TRUE(writeFileAtomically(blocker, "a file where a folder should be"));
    ConfigStore store(blocker + "/velko");
    EXPECT_FALSE(store.bootstrap().ok());
    auto opened = store.openProjects({folder("a")});
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(store.config().projects.size(), 1u);
    EXPECT_EQ(store.config().activeProjectID, opened[0].id);
    unlink(blocker.c_str());
}
