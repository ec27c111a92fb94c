// The injected event script run by a real JavaScript engine (JavaScriptCore,
// no display needed): what the page receives must equal what we sent.
#include <gtest/gtest.h>
#include <jsc/jsc.h>

#include "shell/BridgeHarness.h"

using namespace velko;

namespace {

class ScriptEngine {
public:
    ScriptEngine() : m_context(jsc_context_new()) { evaluate("var window = globalThis;"); }
    ~ScriptEngine() { g_object_unref(m_context); }

    void evaluate(const std::string& code) {
        JSCValue* value = jsc_context_evaluate(m_context, code.c_str(), static_cast<gssize>(code.size()));
        if (JSCException* exception = jsc_context_get_exception(m_context)) {
            ADD_FAILURE() << "script threw: " << jsc_exception_get_message(exception);
            jsc_context_clear_exception(m_context);
        }
        g_object_unref(value);
    }
    // The UTF-8 bytes of a string-valued expression, embedded NULs included.
    std::string string(const std::string& expression) {
        JSCValue* value = jsc_context_evaluate(m_context, expression.c_str(), static_cast<gssize>(expression.size()));
        GBytes* bytes = jsc_value_to_string_as_bytes(value);
        gsize size = 0;
        const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
        std::string out(data ? data : "", size);
        g_bytes_unref(bytes);
        g_object_unref(value);
        return out;
    }
    int number(const std::string& expression) { return std::stoi(string(expression)); }

private:
    JSCContext* m_context;
};

struct ScriptFixture : ::testing::Test {
    void runScripts() {
        for (const auto& script : h.view->scripts) engine.evaluate(script);
        h.view->scripts.clear();
    }
    test::BridgeHarness h;
    ScriptEngine engine;
};

}  // namespace

TEST_F(ScriptFixture, HostileTextArrivesInThePageByteForByte) {
    // Long enough for the vector scan, with quotes and backslashes on and
    // across its 16-byte steps.
    std::string longText(70, 'x');
    for (size_t at : {0, 15, 16, 17, 33, 50, 69}) longText[at] = at % 2 ? '\'' : '\\';
    const std::string texts[] = {
        "it's", "'); alert(1); ('", "back\\slash", "\\'", "\\\\''\\", "line\nbreak\r\n", "tab\tquote\"",
        "\xE2\x80\xA8 and \xE2\x80\xA9", "emoji \xF0\x9F\x98\x80", std::string("nul\0byte", 8), "</script>",
        "\\u0041 not an escape", "日本語のテキスト", longText,
    };
    for (const auto& text : texts) h.bridge->dispatchEvent("text", OrderedJson{{"text", text}});
    // The headless program reads the same scripts back without an engine.
    ASSERT_EQ(h.view->scripts.size(), std::size(texts));
    for (size_t i = 0; i < std::size(texts); ++i) {
        auto envelope = envelopeFromEventScript(h.view->scripts[i]);
        ASSERT_TRUE(envelope.has_value()) << i;
        EXPECT_EQ(Json::parse(*envelope)["payload"]["text"], texts[i]) << i;
    }
    EXPECT_FALSE(envelopeFromEventScript("alert(1)"));
    runScripts();
    ASSERT_EQ(engine.number("window.__velkoEventHistory.length"), static_cast<int>(std::size(texts)));
    for (size_t i = 0; i < std::size(texts); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(engine.string("window.__velkoEventHistory[" + std::to_string(i) + "].payload.text"), texts[i]);
        EXPECT_EQ(engine.string("window.__velkoEventHistory[" + std::to_string(i) + "].type"), "text");
    }
}

TEST_F(ScriptFixture, EventsWaitInThePageUntilItsDispatcherExistsAndHistoryKeepsTheNewest200) {
    h.bridge->dispatchEvent("early", OrderedJson{{"n", 0}});
    runScripts();
    EXPECT_EQ(engine.number("window.__velkoPendingEvents.length"), 1);
    EXPECT_EQ(engine.number("window.__velkoEventHistory.length"), 1);

    engine.evaluate("window.received = []; window.__velko__ = { dispatch: function (e) { window.received.push(e); } };");
    for (int i = 1; i <= 200; ++i) h.bridge->dispatchEvent("late", OrderedJson{{"n", i}});
    runScripts();
    EXPECT_EQ(engine.number("window.received.length"), 200);
    EXPECT_EQ(engine.number("window.__velkoPendingEvents.length"), 1) << "delivered events are not queued";
    EXPECT_EQ(engine.number("window.__velkoEventHistory.length"), 200);
    EXPECT_EQ(engine.number("window.__velkoEventHistory[0].payload.n"), 1) << "the 201st event pushed out the first";
    EXPECT_EQ(engine.number("window.__velkoEventHistory[199].payload.n"), 200);
}
