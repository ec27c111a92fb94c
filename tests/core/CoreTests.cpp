#include <gtest/gtest.h>
#include <glib.h>

#include <atomic>
#include <future>
#include <thread>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/Time.h"
#include "core/Uuid.h"
#include "support/ChildProcesses.h"
#include "support/TestSupport.h"

using namespace velko;

TEST(Uuid, ParsesCanonicalTextOfEitherCaseAndRefusesTheRest) {
    struct Case {
        const char* text;
        const char* canonical;  // "": refused
    };
    const Case cases[] = {
        {"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE0", "AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEE0"},
        {"0f8fad5b-d9cb-469f-a165-70867728950e", "0F8FAD5B-D9CB-469F-A165-70867728950E"},
        {"0F8FAD5B-d9cb-469F-a165-70867728950E", "0F8FAD5B-D9CB-469F-A165-70867728950E"},
        {"", ""},
        {"0F8FAD5B-D9CB-469F-A165-70867728950", ""},     // short
        {"0F8FAD5B-D9CB-469F-A165-70867728950E0", ""},   // long
        {"0F8FAD5BD9CB-469F-A165-70867728950E-", ""},    // dashes misplaced
        {"0F8FAD5G-D9CB-469F-A165-70867728950E", ""},    // not hex
        {"{0F8FAD5B-D9CB-469F-A165-70867728950E}", ""},  // braces
        {" 0F8FAD5B-D9CB-469F-A165-70867728950E", ""},   // blank
        {"0F8FAD5B+D9CB-469F-A165-70867728950E", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto id = Uuid::parse(c.text);
        EXPECT_EQ(id ? id->toString() : "", c.canonical);
    }
}

TEST(Time, FormatsUtcWithMillisecondsAndParsesBack) {
    using namespace std::chrono;
    struct Case {
        SystemTime time;
        const char* text;
    };
    const Case cases[] = {
        {SystemTime{}, "1970-01-01T00:00:00.000Z"},
        {SystemTime{milliseconds(1700000000123)}, "2023-11-14T22:13:20.123Z"},
        {SystemTime{milliseconds(-1)}, "1969-12-31T23:59:59.999Z"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(formatIso8601(c.time), c.text);
        EXPECT_EQ(parseIso8601(c.text), c.time);
    }
    EXPECT_EQ(parseIso8601("2023-11-14T23:13:20+01:00"), SystemTime{seconds(1700000000)});
    for (const char* bad : {"", "2023-11-14", "2023-11-14T22:13:20", "2023-13-14T22:13:20Z", "2023-02-30T00:00:00Z",
                            "2023-11-14T22:13:20.Z", "2023-11-14T22:13:20Zjunk"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parseIso8601(bad));
    }
}

TEST(Json, StrictCastsNeverConvertBetweenTypes) {
    auto object = parseJson(R"({"s":"5","n":5,"f":5.5,"b":true,"nul":null,"o":{},"a":[],
        "id":"0f8fad5b-d9cb-469f-a165-70867728950e","bad":"nope"})");
    ASSERT_TRUE(object);
    const Json* o = &*object;
    EXPECT_EQ(json::string(o, "s"), "5");
    EXPECT_FALSE(json::string(o, "n"));
    EXPECT_FALSE(json::number(o, "s"));
    EXPECT_EQ(json::number(o, "n"), 5.0);
    EXPECT_EQ(json::integer(o, "n"), 5);
    EXPECT_FALSE(json::integer(o, "f"));
    EXPECT_FALSE(json::boolean(o, "n"));
    EXPECT_FALSE(json::number(o, "b"));
    EXPECT_EQ(json::boolean(o, "b"), true);
    EXPECT_FALSE(json::string(o, "nul"));
    EXPECT_FALSE(json::string(o, "missing"));
    EXPECT_NE(json::objectMember(o, "o"), nullptr);
    EXPECT_EQ(json::objectMember(o, "a"), nullptr);
    EXPECT_NE(json::array(o, "a"), nullptr);
    EXPECT_TRUE(json::uuid(o, "id"));
    EXPECT_FALSE(json::uuid(o, "bad"));
    Json notObject = Json::array();
    EXPECT_FALSE(json::string(&notObject, "s"));
    EXPECT_FALSE(json::string(nullptr, "s"));
}

TEST(Json, ParsingRefusesGarbageAndDeepNesting) {
    EXPECT_FALSE(parseJson(""));
    EXPECT_FALSE(parseJson("{"));
    EXPECT_FALSE(parseJson("{} trailing"));
    EXPECT_FALSE(parseJson(std::string(100000, '[') + std::string(100000, ']')));
    EXPECT_TRUE(parseJson(std::string(100, '[') + std::string(100, ']')));
    // Brackets inside strings do not count as nesting.
    EXPECT_TRUE(parseJson("{\"a\":\"" + std::string(1000, '[') + "\"}"));
    EXPECT_EQ(jsonNestingDepth(R"({"a":"\"[[[","b":[1]})"), 2u);
}

TEST(Json, DumpWritesWhatTheLibraryWritesByteForByte) {
    // Every byte below 0x20, the two escaped printables, DEL and multi-byte text.
    std::string controls;
    for (int c = 0; c < 0x20; ++c) controls.push_back(static_cast<char>(c));
    const std::string strings[] = {
        "",
        "plain text",
        controls,
        "quote \" backslash \\ slash / apostrophe ' del \x7f",
        "日本語 é 😀 \xE2\x80\xA8 \xE2\x80\xA9",
        std::string("nul\0inside", 11),
        "truncated \xE6\x97",           // invalid: replaced as the library replaces it, never a failure
        "overlong \xC0\xAF, surrogate \xED\xA0\x80",
        std::string(70000, 'a') + "\n" + std::string(3, '"'),
    };
    for (const auto& text : strings) {
        SCOPED_TRACE(testing::PrintToString(text.substr(0, 40)));
        for (const OrderedJson& value : {OrderedJson(text), OrderedJson{{text, text}},
                                         OrderedJson{{"list", {text, 1, -2.5, true, nullptr, OrderedJson::object()}},
                                                     {"nested", {{"k", OrderedJson::array()}, {"n", 1e300}}}}}) {
            EXPECT_EQ(dumpJson(value), value.dump(-1, ' ', false, OrderedJson::error_handler_t::replace));
            Json unordered = Json::parse(value.dump(-1, ' ', false, OrderedJson::error_handler_t::replace));
            EXPECT_EQ(dumpJson(unordered), unordered.dump(-1, ' ', false, Json::error_handler_t::replace));
        }
    }
}

TEST(Base64, EncodesAndDecodesRfc4648Vectors) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {std::string("\0\xff\xfe", 3), "AP/+"},
    };
    for (const auto& [plain, encoded] : vectors) {
        SCOPED_TRACE(encoded);
        EXPECT_EQ(base64Encode(plain), encoded);
        EXPECT_EQ(base64Decode(encoded), plain);
    }
    EXPECT_EQ(base64Decode("Zg"), "f");  // padding may be left out
    // Every length through the encoder's six-byte steps and its tail, against the decoder.
    std::string bytes;
    for (int length = 0; length < 40; ++length, bytes.push_back(static_cast<char>(length * 97 + 13))) {
        SCOPED_TRACE(length);
        EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
    }
    EXPECT_EQ(base64Encode("Many hands make light work."), "TWFueSBoYW5kcyBtYWtlIGxpZ2h0IHdvcmsu");
    for (const char* bad : {"Z", "Zg=", "Zm9v!", "Zg===", "Zg==Zg==", "Zm 9v"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(base64Decode(bad));
    }
}

TEST(Queues, SerialQueueRunsTasksInOrderAndTimersByDeadline) {
    SerialQueue queue("test.serial");
    std::vector<int> order;
    std::promise<void> done;
    queue.postDelayed(std::chrono::milliseconds(30), [&] {
        order.push_back(3);
        done.set_value();
    });
    queue.postDelayed(std::chrono::milliseconds(10), [&] { order.push_back(2); });
    for (int i = 0; i < 2; ++i) queue.post([&, i] { order.push_back(i - 2); });
    queue.post([&] { EXPECT_TRUE(queue.isCurrent()); });
    done.get_future().wait();
    EXPECT_EQ(order, (std::vector<int>{-2, -1, 2, 3}));
    EXPECT_FALSE(queue.isCurrent());
}

// A service dropped by its own last task takes its queue with it, on the
// queue's own thread: the work posted before still runs, nothing reads freed
// memory, and the thread is joined on the main queue (the sanitizer runs
// report a use after free or a thread never joined).
TEST(Queues, AQueueReleasedByItsOwnTaskFinishesItsWorkAndIsJoined) {
    // Not GLib's queue: its wake-ups are invisible to ThreadSanitizer, which
    // then reports the hand-over of the join as a race.
    auto main = std::make_shared<ManualQueue>();
    setMainQueue(main);
    struct Case {
        const char* name;
        bool concurrent;
        bool releasedInsideTheTask;  // else when the finished task is destroyed
    };
    const Case cases[] = {
        {"serial, inside the task", false, true},
        {"serial, with the task", false, false},
        {"concurrent, inside the task", true, true},
        {"concurrent, with the task", true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::shared_ptr<TaskQueue> queue;
        if (c.concurrent) queue = std::make_shared<ConcurrentQueue>("test.release", 2);
        else queue = std::make_shared<SerialQueue>("test.release");
        std::weak_ptr<TaskQueue> weak = queue;
        std::promise<void> open, last;
        std::shared_future<void> opened = open.get_future().share();
        std::atomic<int> ran{0};
        queue->post([queue, opened, &ran, inside = c.releasedInsideTheTask]() mutable {
            opened.wait();
            if (inside) queue.reset();
            ++ran;
        });
        queue->post([&] {
            ++ran;
            last.set_value();
        });
        queue->postDelayed(std::chrono::hours(1), [&ran] { ran += 100; });  // dropped, never run
        queue.reset();
        open.set_value();
        last.get_future().wait();
        // The join: it is posted once the worker has left.
        EXPECT_TRUE(test::waitUntil([&] { return main->runUntilIdle() > 0; }));
        EXPECT_EQ(ran.load(), 2);
        EXPECT_TRUE(weak.expired());
    }
    setMainQueue(std::make_shared<ManualQueue>());
}

// The test stand-in for the main queue is exercised by every service test;
// what matters here is the hop onto it.
TEST(Queues, AHopFromAWorkerWaitsForTheMainQueueAndAWeakOneSkipsAGoneObject) {
    auto manual = std::make_shared<ManualQueue>();
    setMainQueue(manual);
    // On the main thread a hop runs at once.
    bool ranInline = false;
    runOnMain([&] { ranInline = true; });
    EXPECT_TRUE(ranInline);
    std::atomic<bool> ranFromWorker{false};
    std::thread([&] { runOnMain([&] { ranFromWorker = true; }); }).join();
    EXPECT_FALSE(ranFromWorker);
    manual->runUntilIdle();
    EXPECT_TRUE(ranFromWorker);

    // A weak hop does nothing once its object is gone.
    auto object = std::make_shared<int>(1);
    int seen = 0;
    std::thread([&, weak = std::weak_ptr<int>(object)] { runOnMainWeak(weak, [&](int& v) { seen = v; }); }).join();
    object.reset();
    manual->runUntilIdle();
    EXPECT_EQ(seen, 0);
}

TEST(Paths, XdgDirectoriesFollowTheEnvironment) {
    test::ScopedEnv home("HOME", "/home/tester/");
    {
        test::ScopedEnv data("XDG_DATA_HOME", "/xdg/data");
        test::ScopedEnv cache("XDG_CACHE_HOME", "");
        EXPECT_EQ(homeDirectory(), "/home/tester");
        EXPECT_EQ(dataDirectory(), "/xdg/data/velko");
        EXPECT_EQ(cacheDirectory(), "/home/tester/.cache/velko");
    }
    test::ScopedEnv relative("XDG_DATA_HOME", "relative/path");  // not absolute: ignored
    EXPECT_EQ(dataDirectory(), "/home/tester/.local/share/velko");
}

TEST(Queues, GlibMainQueueKeepsOrderAcrossThreadsAndNeverRunsInsideTheCaller) {
    GMainContext* context = g_main_context_default();
    auto queue = std::make_shared<GlibMainQueue>();
    std::vector<int> order;
    bool insideCaller = false;
    bool posting = true;
    queue->post([&] { insideCaller = posting; });
    posting = false;
    std::thread worker([&] {
        for (int i = 0; i < 100; ++i) queue->post([&order, i] { order.push_back(i); });
    });
    worker.join();
    bool fired = false;
    queue->postDelayed(std::chrono::milliseconds(20), [&] { fired = true; });
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while ((!fired || order.size() < 100) && std::chrono::steady_clock::now() < deadline)
        g_main_context_iteration(context, TRUE);
    EXPECT_FALSE(insideCaller);
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
    EXPECT_TRUE(fired);
    EXPECT_TRUE(queue->isCurrent());
}
