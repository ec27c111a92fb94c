// The git messages of the page against a fake git service: each one becomes
// the right operation with the arguments read from its payload, or nothing.
#include <gtest/gtest.h>

#include "shell/BridgeHarness.h"

using namespace velko;
using test::kA;

TEST(GitMessages, EachMessageBecomesItsOperationWithTheParsedArguments) {
    struct Case {
        std::string message;
        test::Journal journal;
    };
    auto msg = test::message;
    const Case cases[] = {
        {R"({"type":"git/status"})", {"git.status -"}},
        {msg("git/status", {{"projectId", kA}}), {"git.status " + kA}},
        {msg("git/status", {{"projectId", "not-a-uuid"}}), {"git.status -"}},
        {msg("git/status/detail", {{"projectId", kA}}), {"git.detail " + kA}},
        {msg("git/status/detail", Json::object()), {}},
        {msg("git/commit", {{"projectId", kA}, {"message", "fix: it's done"}}),
         {"git.commit " + kA + " fix: it's done"}},
        {msg("git/commit", {{"projectId", kA}, {"message", 5}}), {}},
        {msg("git/commit", {{"message", "no project"}}), {}},
        {msg("git/push", {{"projectId", kA}}), {"git.push " + kA}},
        {msg("git/push", {{"projectId", 42}}), {}},
        {msg("git/pull", {{"projectId", kA}}), {"git.pull " + kA}},
        {msg("git/fetch", {{"projectId", kA}}), {"git.fetch " + kA}},
        {msg("git/remote/tracking", {{"projectId", kA}}), {"git.tracking " + kA}},
        {msg("git/working-tree", {{"projectId", kA}}), {"git.tree " + kA}},
        {msg("git/diff", {{"projectId", kA},
                          {"targets", {{{"path", "a.txt"}, {"stage", "staged"}}, {{"path", 5}}, {{"stage", "head"}},
                                       {{"path", "b"}}, {{"path", ""}, {"stage", "head"}}, "c"}}}),
         {"git.diff " + kA + " [a.txt:staged,b:unstaged,:head]"}},
        {msg("git/diff", {{"projectId", kA}, {"targets", "a.txt"}}), {"git.diff " + kA + " []"}},
        {msg("git/commit/diff", {{"projectId", kA}, {"commit", "abc123"}}), {"git.commitDiff " + kA + " abc123"}},
        {msg("git/commit/diff", {{"projectId", kA}, {"commit", "abc123"}, {"path", "x/y"}}),
         {"git.commitDiff " + kA + " abc123 x/y"}},
        {msg("git/commit/diff", {{"projectId", kA}, {"path", "x/y"}}), {}},
        {msg("git/refresh/barrier", {{"projectId", kA}, {"requestId", "r1"}}), {"git.barrier " + kA + " r1"}},
        {msg("git/refresh/barrier", {{"projectId", kA}}), {}},
        {msg("git/history", {{"projectId", kA}}), {"git.history " + kA + " - 20 -"}},
        {msg("git/history", {{"projectId", kA}, {"cursor", "c1"}, {"cursorPayload", "{}"}, {"pageSize", 50},
                             {"requestId", "h1"}}),
         {"git.history " + kA + " {} 50 h1"}},
        {msg("git/history", {{"projectId", kA}, {"cursor", "c1"}, {"cursorPayload", 7}, {"pageSize", "9"}}),
         {"git.history " + kA + " c1 20 -"}},
        {msg("git/graph", {{"projectId", kA}}), {"git.graph " + kA + " 50"}},
        {msg("git/graph", {{"projectId", kA}, {"pageSize", 10.5}}), {"git.graph " + kA + " 50"}},
        {msg("git/branch-map", {{"projectId", kA}}), {"git.branchMap " + kA + " 50"}},
        {msg("git/branch-map", {{"projectId", kA}, {"limit", 3}}), {"git.branchMap " + kA + " 3"}},
        // A payload that is no object counts as absent.
        {R"({"type":"git/push","payload":[")" + kA + R"("]})", {}},
        {R"({"type":"git/status","payload":")" + kA + R"("})", {"git.status -"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        test::BridgeHarness h;
        h.send(c.message);
        EXPECT_EQ(h.journal, c.journal);
        EXPECT_TRUE(h.events().empty()) << "the git service answers, not the bridge";
    }
}

TEST(GitMessages, AreDroppedOnceTheServiceIsGone) {
    test::BridgeHarness h;
    h.git.reset();
    h.send(test::message("git/push", {{"projectId", kA}}));
    h.send(R"({"type":"git/status"})");
    EXPECT_TRUE(h.journal.empty());
}
