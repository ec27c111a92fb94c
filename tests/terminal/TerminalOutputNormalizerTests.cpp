#include <gtest/gtest.h>

#include <random>
#include <string>

#include "terminal/TerminalOutputNormalizer.h"

using namespace velko;

namespace {

const std::string kFiller(TerminalOutputNormalizer::kPromptFiller);

std::string normalizeChunks(const std::vector<std::string>& chunks) {
    TerminalOutputNormalizer normalizer;
    std::string out;
    for (const auto& chunk : chunks) out += normalizer.normalize(chunk);
    return out;
}

}  // namespace

// What each kind of output becomes. Every case also holds when the input is
// split in two at any byte, which is how a PTY read may cut it.
TEST(TerminalOutputNormalizer, FiltersBytesTheSameWhereverAReadCutsThem) {
    struct Case {
        const char* name;
        std::string input;
        std::string expected;
    };
    const std::string esc = "\x1b", bel = "\x07", st = "\x1b\\";
    const Case cases[] = {
        {"plain text", "hello world\n", "hello world\n"},
        {"CR run collapses", "a\r\r\rb", "a\rb"},
        {"CR LF pairs stay", "a\r\n\r\nb", "a\r\n\r\nb"},
        {"NUL dropped and clears CR", std::string("\r\0\r", 3), "\r\r"},
        {"NUL bytes dropped", std::string("a\0b\0\0c", 6), "abc"},
        {"OSC title with BEL", esc + "]0;title" + bel + "x", esc + "]0;title" + bel + "x"},
        {"OSC title with ST", esc + "]0;title" + st, esc + "]0;title" + st},
        {"ESC inside OSC body stays", esc + "]0;ti" + esc + "xtle" + bel, esc + "]0;ti" + esc + "xtle" + bel},
        {"OSC without digits", esc + "]" + bel, esc + "]" + bel},
        {"OSC 133 kept", esc + "]133;A" + st + "$ ", esc + "]133;A" + st + "$ "},
        {"shim markers", esc + "]633;velko-codex:start" + bel + "out\n" + esc + "]633;velko-codex:end;status=3" + bel,
         esc + "]633;velko-codex:start" + bel + "out\n" + esc + "]633;velko-codex:end;status=3" + bel},
        {"SGR passes", esc + "[31mred" + esc + "[0m", esc + "[31mred" + esc + "[0m"},
        {"ESC CR drops the next CR", esc + "\r\rx", esc + "\rx"},
        {"ESC ESC bracket is text", esc + esc + "]x", esc + esc + "]x"},
        {"NUL inside CSI dropped", esc + std::string("[3\0" "1m", 5), esc + "[31m"},
        {"NUL inside OSC kept", esc + std::string("]0;a\0b", 6) + bel, esc + std::string("]0;a\0b", 6) + bel},
        {"UTF-8 untouched", "caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac\r\n", "caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac\r\n"},
        {"long plain run", std::string(100, 'x') + "\r\r" + std::string(40, 'y'),
         std::string(100, 'x') + "\r" + std::string(40, 'y')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(normalizeChunks({c.input}), c.expected);
        for (size_t cut = 1; cut < c.input.size(); ++cut) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            EXPECT_EQ(normalizeChunks({c.input.substr(0, cut), c.input.substr(cut)}), c.expected);
        }
    }
}

// Until its terminator comes, a sequence and everything after it (CRs and
// NULs included) is held back; the cases above show it then comes whole.
TEST(TerminalOutputNormalizer, HoldsAnOscSequenceBackUntilItsTerminator) {
    TerminalOutputNormalizer normalizer;
    EXPECT_EQ(normalizer.normalize("\x1b]2;never ends"), "");
    EXPECT_EQ(normalizer.normalize(std::string("\r\r\0z", 4)), "");
    EXPECT_EQ(normalizer.normalize("\x07ok"), std::string("\x1b]2;never ends\r\r\0z\x07ok", 21));
}

TEST(TerminalOutputNormalizer, ShrinksZshPartialLineMarkerOnlyWithinOneChunk) {
    struct Case {
        const char* name;
        std::vector<std::string> chunks;
        std::string expected;
    };
    const std::string spaces79(79, ' ');
    const Case cases[] = {
        {"filler, spaces, CR", {"out" + kFiller + spaces79 + "\r$ "}, "out\r$ "},
        {"filler directly followed by CR", {kFiller + "\r"}, "\r"},
        {"filler after a CR still gives one CR", {"\r" + kFiller + "\r"}, "\r\r"},
        {"CR in the next chunk keeps the filler", {kFiller + spaces79, "\r"}, kFiller + spaces79 + "\r"},
        {"exactly the filler passes through", {kFiller}, kFiller},
        {"filler followed by text passes through", {kFiller + "  x\r"}, kFiller + "  x\r"},
        {"CR after the shrunk filler is dropped", {kFiller + " \r\rx"}, "\rx"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(normalizeChunks(c.chunks), c.expected);
    }
}

namespace {

// The filter written the plain way, one byte at a time, to hold the fast
// scanning paths against.
class ReferenceNormalizer {
public:
    std::string normalize(const std::string& chunk) {
        std::string out, payload;
        for (size_t i = 0; i < chunk.size(); ++i) {
            const auto byte = static_cast<uint8_t>(chunk[i]);
            switch (m_osc.consume(byte, payload)) {
                case OSCSequenceState::Outcome::Emit:
                case OSCSequenceState::Outcome::PassThrough:
                    out += payload;
                    m_cr = !payload.empty() && payload.back() == '\r';
                    continue;
                case OSCSequenceState::Outcome::Filtered: m_cr = false; continue;
                case OSCSequenceState::Outcome::Waiting: continue;
                case OSCSequenceState::Outcome::NotActive: break;
            }
            if (byte == 0) {
                m_cr = false;
            } else if (byte == '\r') {
                if (!m_cr) out += '\r';
                m_cr = true;
            } else if (byte == 0x1b) {
                if (chunk.size() - i >= kFiller.size() + 1 && chunk.compare(i, kFiller.size(), kFiller) == 0) {
                    size_t cursor = i + kFiller.size();
                    while (cursor < chunk.size() && chunk[cursor] == ' ') ++cursor;
                    if (cursor < chunk.size() && chunk[cursor] == '\r') {
                        out += '\r';
                        m_cr = true;
                        i = cursor;
                        continue;
                    }
                }
                m_osc.begin();
            } else {
                out += static_cast<char>(byte);
                m_cr = false;
            }
        }
        return out;
    }

private:
    OSCSequenceState m_osc;
    bool m_cr = false;
};

// Output with the bytes the filter treats packed densely, in long plain runs
// (which cross vector boundaries), and in near misses of the prompt filler.
std::string randomOutput(std::mt19937& random) {
    static const std::string pieces[] = {
        std::string(1, '\0'), "\r", "\r\r", "\n", "\x1b", "\x1b]", "\x1b[", "\x07", "\\", ";", "0", "133", "m",
        " ", "\xe6\x97\xa5", "\x80", "\xff", "\x1b]0;title", "\x1b\\", kFiller, kFiller.substr(0, 11), "        ",
    };
    std::string out;
    const size_t pieceCount = random() % 120;
    for (size_t i = 0; i < pieceCount; ++i) {
        switch (random() % 4) {
            case 0: out += std::string(random() % 200, static_cast<char>('a' + random() % 26)); break;
            default: out += pieces[random() % std::size(pieces)]; break;
        }
    }
    return out;
}

}  // namespace

// Every scan the CPU offers gives, chunk by chunk, exactly what the byte loop
// gives, wherever the reads cut the output.
TEST(TerminalOutputNormalizer, EveryScanMatchesTheByteLoopOnRandomOutput) {
    for (ByteScan scan : {ByteScan::Portable, ByteScan::Sse2, ByteScan::Avx2}) {
        if (!TerminalOutputNormalizer::isAvailable(scan)) continue;
        SCOPED_TRACE("scan " + std::to_string(static_cast<int>(scan)));
        std::mt19937 random(2024);
        for (int round = 0; round < 400; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            const std::string text = randomOutput(random);
            TerminalOutputNormalizer normalizer(scan);
            ASSERT_EQ(normalizer.byteScan(), scan);
            ReferenceNormalizer reference;
            for (size_t at = 0; at < text.size();) {
                const size_t size = std::min(text.size() - at, size_t{1} + random() % (random() % 2 ? 40 : 1000));
                // Each chunk in its own allocation, so a sanitizer sees any read past its end.
                const std::string chunk = text.substr(at, size);
                std::string out = "kept";
                normalizer.normalizeInto(chunk, out);
                ASSERT_EQ(out, "kept" + reference.normalize(chunk)) << "chunk at " << at;
                at += size;
            }
        }
    }
}
