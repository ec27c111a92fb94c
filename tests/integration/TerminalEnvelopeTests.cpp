// The "terminal/output" and "terminal/activity" envelopes are written by hand
// on the hot path; through the real bridge they must give the page exactly the
// script that the bridge's own encoder gives for the same payload.
#include <gtest/gtest.h>

#include "core/Base64.h"
#include "core/MainQueue.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"
#include "terminal/TerminalOutputPump.h"

using namespace velko;

TEST(TerminalEnvelope, GivesThePageTheScriptOfTheGenericEncoder) {
    auto queue = std::make_shared<ManualQueue>();
    setMainQueue(queue);
    auto bridge = std::make_shared<WebBridge>();
    auto page = std::make_shared<test::ScriptRecorder>();
    bridge->setWebView(page);
    bridge->notifyWebViewDidFinishNavigation();
    queue->runUntilIdle();
    page->scripts.clear();

    const std::string id = Uuid::random().toString();
    const std::vector<std::string> chunks = {"",
                                             "a",
                                             "hello\r\n",
                                             std::string("\0\xff\xfe\x1b]0;t\x07", 9),
                                             "'quotes' \"and\" \\back\\slashes\\ </script> \xe2\x80\xa8",
                                             std::string(4095, 'z')};
    for (const auto& chunk : chunks) {
        SCOPED_TRACE(chunk.size());
        bridge->dispatchEvent("terminal/output",
                              {{"sessionId", id}, {"chunk", base64Encode(chunk)}, {"encoding", "base64"}});
        std::string envelope;
        TerminalOutputPump::appendOutputEnvelope(id, chunk, envelope);
        bool delivered = false;
        bridge->dispatchEncodedEvent("terminal/output", envelope, [&] { delivered = true; });
        queue->runUntilIdle();
        ASSERT_EQ(page->scripts.size(), 2u);
        EXPECT_EQ(page->scripts[1], page->scripts[0]);
        EXPECT_TRUE(delivered);
        page->scripts.clear();
    }
    bridge->dispatchEvent("terminal/activity", {{"sessionId", id}});
    bridge->dispatchEncodedEvent("terminal/activity", TerminalOutputPump::activityEnvelope(id));
    queue->runUntilIdle();
    ASSERT_EQ(page->scripts.size(), 2u);
    EXPECT_EQ(page->scripts[1], page->scripts[0]);
}
