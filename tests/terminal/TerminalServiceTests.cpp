#include <gtest/gtest.h>
#include <signal.h>

#include "core/Base64.h"
#include "core/MainQueue.h"
#include "support/TestSupport.h"
#include "terminal/TerminalService.h"
#include "workspace/ConfigStore.h"

using namespace velko;

namespace {

// Records what the service asks of the coordinator and answers dimensions.
class FakeCoordinator final : public TerminalCoordinating {
public:
    void setDelegate(std::weak_ptr<TerminalCoordinatorDelegate> d) override { delegate = d; }
    void setEnvironmentOverrides(std::map<std::string, std::string>) override {}
    void synchronize(const std::vector<CLISessionConfig>& wanted) override {
        calls.push_back("synchronize " + std::to_string(wanted.size()));
    }
    void startSession(const CLISessionConfig& c) override { calls.push_back("start " + c.title); }
    void terminateSession(const Uuid& id) override { calls.push_back("terminate " + id.toString()); }
    void terminateAll() override { calls.push_back("terminateAll"); }
    void write(const Uuid&, std::string_view data) override { calls.push_back("write " + std::string(data)); }
    void sendSignal(const Uuid&, int signal) override { calls.push_back("signal " + std::to_string(signal)); }
    void resize(const Uuid&, int cols, int rows) override {
        calls.push_back("resize " + std::to_string(cols) + "x" + std::to_string(rows));
    }
    std::optional<std::pair<int, int>> dimensions(const Uuid&) const override { return std::nullopt; }
    void updateDebugDump(bool) override {}
    std::shared_ptr<TerminalDebugDumpStore> debugDumpStore() const override { return nullptr; }

    std::weak_ptr<TerminalCoordinatorDelegate> delegate;
    std::vector<std::string> calls;
};

class TerminalServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        setMainQueue(queue);
        store = std::make_shared<ConfigStore>(home.dataDir());
        (void)store->bootstrap();
        service = TerminalService::create(store, coordinator, nullptr);
        service->setBridge(recorder);
        queue->runUntilIdle();
        coordinator->calls.clear();
        recorder->clear();
    }
    Uuid create(std::optional<std::string> title = "t") {
        send("terminal/create", title ? R"({"title":")" + *title + R"("})" : "{}");
        return store->config().cliSessions.back().id;
    }
    void send(const std::string& type, const std::string& payload) {
        auto json = parseJson(payload);
        ASSERT_TRUE(json);
        service->handleMessage(type, &*json);
        queue->runUntilIdle();
    }

    test::IsolatedHome home;
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<ConfigStore> store;
    std::shared_ptr<FakeCoordinator> coordinator = std::make_shared<FakeCoordinator>();
    std::shared_ptr<test::EventRecorder> recorder = std::make_shared<test::EventRecorder>();
    std::shared_ptr<TerminalService> service;
};

}  // namespace

// A well-formed message becomes one call on its session; anything else is
// dropped without a call, an event or a change of focus.
TEST_F(TerminalServiceTest, PassesWellFormedMessagesToTheSessionAndDropsTheRestSilently) {
    const Uuid id = create();
    recorder->clear();
    const std::string sid = R"({"sessionId":")" + id.toString() + R"(",)";
    const struct Case {
        const char* type;
        std::string payload;
        const char* call;  // nullptr: dropped
    } cases[] = {
        {"terminal/input", sid + R"("data":"ls\r"})", "write ls\r"},
        {"cli/input", sid + R"("data":"bHMK","encoding":"base64"})", "write ls\n"},
        {"terminal/input", sid + R"("data":"bHMK","encoding":"hex"})", "write bHMK"},
        {"terminal/signal", sid + R"("signal":"sigint"})", "signal 2"},
        {"cli/resize", sid + R"("cols":1,"rows":1.9})", "resize 2x2"},
        {"terminal/resize", sid + R"("cols":100.7,"rows":30})", "resize 100x30"},
        {"terminal/resize", sid + R"("cols":1e12,"rows":30})", "resize 65535x30"},
        {"terminal/input", R"({"data":"x"})", nullptr},
        {"terminal/input", R"({"sessionId":"not-a-uuid","data":"x"})", nullptr},
        {"terminal/input", sid + R"("data":7})", nullptr},
        {"terminal/input", sid + R"("data":"@@","encoding":"base64"})", nullptr},
        {"cli/input", R"({"sessionId":7,"data":"x"})", nullptr},
        {"terminal/resize", sid + R"("cols":0,"rows":10})", nullptr},
        {"terminal/resize", sid + R"("cols":"80","rows":10})", nullptr},
        {"terminal/signal", sid + R"("signal":"SIGTERM"})", nullptr},
        {"terminal/signal", sid + R"("signal":2})", nullptr},
        {"terminal/focus", sid + R"("focused":"yes"})", nullptr},
        {"terminal/create", R"({"title":5})", nullptr},
        {"terminal/close", R"({"sessionId":"x"})", nullptr},
        {"cli/focus", sid + R"("focused":true})", nullptr},
        {"terminal/input", R"([1,2])", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.payload);
        coordinator->calls.clear();
        recorder->clear();
        send(c.type, c.payload);
        EXPECT_EQ(coordinator->calls, c.call ? std::vector<std::string>{c.call} : std::vector<std::string>{});
        EXPECT_TRUE(c.call || recorder->events().empty()) << "a dropped message answered";
        EXPECT_FALSE(service->activeInputSessionID());
    }
    service->handleMessage("terminal/input", nullptr);
    EXPECT_TRUE(coordinator->calls.empty());
}

TEST_F(TerminalServiceTest, ResizeToThePresentSizeSendsNoEvent) {
    const Uuid id = create();
    recorder->clear();
    const std::string message = R"({"sessionId":")" + id.toString() + R"(","cols":90,"rows":20})";
    send("terminal/resize", message);
    send("terminal/resize", message);
    auto resizes = recorder->eventsOfType("terminal/resize");
    ASSERT_EQ(resizes.size(), 1u);
    EXPECT_EQ(resizes[0].payload["cols"], 90);
    EXPECT_EQ(resizes[0].payload["rows"], 20);
}

TEST_F(TerminalServiceTest, ReportsTheSessionRoadAsTheCoordinatorTellsIt) {
    const Uuid id = create("road");
    recorder->clear();
    auto delegate = coordinator->delegate.lock();
    ASSERT_TRUE(delegate);
    delegate->terminalCoordinatorDidCreateSession({id, "road", 120, 40, 4242, "/bin/zsh", "/tmp"});
    delegate->terminalCoordinatorDidUpdateStatus(SessionStatus::ready(), id, std::nullopt);
    delegate->terminalCoordinatorDidUpdateStatus(SessionStatus::failed("write_failed: x"), id, std::nullopt);
    delegate->terminalCoordinatorDidUpdateStatus(SessionStatus::terminated(), id, 3);
    auto events = recorder->events();
    std::vector<std::string> types;
    for (const auto& e : events) types.push_back(e.type);
    EXPECT_EQ(types, (std::vector<std::string>{"terminal/created", "terminal/snapshot", "terminal/status",
                                               "terminal/snapshot", "terminal/status", "terminal/error",
                                               "terminal/snapshot", "terminal/status", "terminal/exit",
                                               "terminal/snapshot"}));
    EXPECT_EQ(events[1].payload["sessions"][0]["pid"], 4242);
    EXPECT_EQ(events[5].payload["message"], "write_failed: x");
    EXPECT_EQ(events[5].payload["recoverable"], true);
    EXPECT_EQ(events[7].payload["exitCode"], 3);
    EXPECT_EQ(events[8].payload["exitCode"], 3);
    EXPECT_EQ(events[9].payload["sessions"][0]["status"], "terminated");
}

// Before the configuration file is read the store holds the sample
// configuration, which does not have "terminal.v2" (reading the file brings
// it: see the launch burst below).
TEST_F(TerminalServiceTest, WithTheFeatureOffSessionsAreUnavailableAndSayItOnce) {
    test::TempDir dir;
    auto sampleStore = std::make_shared<ConfigStore>(dir.path());
    ASSERT_FALSE(sampleStore->config().hasFeature(Feature::TerminalV2));
    ASSERT_FALSE(sampleStore->config().cliSessions.empty());
    auto offCoordinator = std::make_shared<FakeCoordinator>();
    auto offService = TerminalService::create(sampleStore, offCoordinator, nullptr);
    offService->setBridge(recorder);
    recorder->clear();
    queue->runUntilIdle();
    EXPECT_EQ(offCoordinator->calls, std::vector<std::string>{"terminateAll"});
    auto snapshots = recorder->eventsOfType("terminal/snapshot");
    ASSERT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(snapshots[0].payload["sessions"][0]["status"], "unavailable");

    const Uuid id = sampleStore->config().cliSessions[0].id;
    recorder->clear();
    offCoordinator->calls.clear();
    auto input = parseJson(R"({"sessionId":")" + id.toString() + R"(","data":"ls\r"})");
    offService->handleMessage("terminal/input", &*input);
    offService->handleMessage("cli/input", &*input);
    EXPECT_TRUE(offCoordinator->calls.empty());
    auto outputs = recorder->eventsOfType("terminal/output");
    ASSERT_EQ(outputs.size(), 1u);
    EXPECT_EQ(*base64Decode(outputs[0].payload["chunk"].get<std::string>()),
              "[velko] Terminal2 準備中: " + id.toString());
    auto statuses = recorder->eventsOfType("terminal/status");
    ASSERT_EQ(statuses.size(), 1u);
    EXPECT_EQ(statuses[0].payload["status"], "unavailable");
}

TEST_F(TerminalServiceTest, ListsSessionsWithoutRuntimeStateAsPending) {
    const Uuid id = create("p");
    // A project closed by the page: its sessions leave the runtime view but not the configuration.
    service->terminateSessions({id});
    auto snapshot = recorder->eventsOfType("terminal/snapshot").back().payload["sessions"][0];
    EXPECT_EQ(snapshot["status"], "pending");
    EXPECT_FALSE(snapshot.contains("cols"));
    EXPECT_FALSE(snapshot.contains("pid"));
    EXPECT_EQ(coordinator->calls.back(), "terminate " + id.toString());
}

TEST_F(TerminalServiceTest, KeepsFocusOnlyForTheSessionThatHasIt) {
    const Uuid a = create("a"), b = create("b");
    auto focus = [&](const Uuid& id, bool focused) {
        send("terminal/focus",
             R"({"sessionId":")" + id.toString() + R"(","focused":)" + (focused ? "true" : "false") + "}");
    };
    focus(a, true);
    focus(b, true);
    focus(a, false);  // a late blur of the other session
    EXPECT_EQ(service->activeInputSessionID(), b);
    focus(b, false);
    EXPECT_FALSE(service->activeInputSessionID());
    focus(a, true);
    send("terminal/close", R"({"sessionId":")" + a.toString() + R"("})");
    EXPECT_FALSE(service->activeInputSessionID());
}

// A publication still queued when a session is created carries a list
// without it; acting on that list would end the new shell right away.
TEST_F(TerminalServiceTest, NeverSynchronisesWithAListOlderThanANewSession) {
    (void)store->addCLISession("queued", std::nullopt);  // published, not yet delivered
    service->createSession("new", std::nullopt);
    queue->runUntilIdle();
    const size_t sessions = store->config().cliSessions.size();
    ASSERT_GE(sessions, 2u);
    std::vector<std::string> synchronizations;
    for (const auto& call : coordinator->calls)
        if (call.rfind("synchronize", 0) == 0) synchronizations.push_back(call);
    ASSERT_FALSE(synchronizations.empty());
    for (const auto& call : synchronizations) EXPECT_EQ(call, "synchronize " + std::to_string(sessions));
}

// At launch the first delivery and the reading of the file come together, and
// one change of the store publishes more than once: each burst synchronises
// the sessions once, so a shell that cannot start is tried once.
TEST_F(TerminalServiceTest, SynchronisesOncePerBurstOfPublications) {
    test::TempDir dir;
    auto launchStore = std::make_shared<ConfigStore>(dir.path());
    auto launchCoordinator = std::make_shared<FakeCoordinator>();
    auto launchService = TerminalService::create(launchStore, launchCoordinator, nullptr);
    const std::function<void()> bursts[] = {
        [&] { (void)launchStore->bootstrap(); },
        [&] { (void)launchStore->addCLISession("second", std::nullopt); },
        [&] { launchStore->removeCLISession(launchStore->config().cliSessions.back().id); },
    };
    for (size_t i = 0; i < std::size(bursts); ++i) {
        SCOPED_TRACE(i);
        launchCoordinator->calls.clear();
        bursts[i]();
        queue->runUntilIdle();
        EXPECT_EQ(launchCoordinator->calls,
                  std::vector<std::string>{"synchronize " + std::to_string(launchStore->config().cliSessions.size())});
    }
}
