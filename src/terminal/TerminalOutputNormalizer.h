#pragma once
// TerminalOutputNormalizer: the byte filter between a PTY master and every
// reader of terminal output. It drops NUL bytes, collapses runs of carriage
// returns, shrinks zsh's partial-line marker (the reverse-video "%" padded
// with spaces) to one CR, and holds operating-system-command sequences
// (ESC ] ... BEL or ESC ] ... ESC \) back until they are complete, so that
// no title or marker reaches the page split across two events.
//
// The bytes between the ones that need treatment are found with vector
// compares (AVX2 where the CPU has it, SSE2 on any x86-64, a byte loop
// elsewhere); every choice gives the same output.
//
// A value owned by one session; used by its reader thread only. Never fails.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko {

struct OSCSequenceState {
    enum class Stage { Idle, ExpectingBracket, ReadingCommand, ReadingBody, ExpectingStringTerminator };
    enum class Outcome { NotActive, Emit, PassThrough, Waiting, Filtered };

    Stage stage = Stage::Idle;
    std::string buffer;                  // the sequence so far, ESC included
    std::vector<uint8_t> commandDigits;  // the OSC number, kept for a future drop list
    bool shouldFilter = false;
    bool shouldFilterDetermined = false;

    // Emit and PassThrough leave their bytes in `out` (replacing its contents).
    Outcome consume(uint8_t byte, std::string& out);
    // Starts a sequence at an ESC byte.
    void begin();
    void reset();
};

// How the normaliser looks for the bytes it treats.
enum class ByteScan { Portable, Sse2, Avx2 };

class TerminalOutputNormalizer {
public:
    // The 22 bytes zsh prints ahead of a prompt when output lacked a final newline.
    static const std::string_view kPromptFiller;

    // The fastest scan this CPU runs.
    static ByteScan bestByteScan();
    static bool isAvailable(ByteScan scan);

    // A scan the CPU lacks falls back to the best one it has.
    explicit TerminalOutputNormalizer(ByteScan scan = bestByteScan());

    std::string normalize(std::string_view chunk);
    // Same, appending to `out` (the hot path reuses one buffer).
    void normalizeInto(std::string_view chunk, std::string& out);

    bool previousWasCarriageReturn() const { return m_previousWasCarriageReturn; }
    const OSCSequenceState& osc() const { return m_osc; }
    ByteScan byteScan() const { return m_scan; }

private:
    // One instance per scan, so that the loop calls its scan directly.
    template <typename Scan>
    void normalizeWith(std::string_view chunk, std::string& out);
    // Writes at `out` and returns the index to continue from, or nothing
    // when no filler stands at `index`.
    std::optional<size_t> consumePromptFiller(std::string_view chunk, size_t index, char*& out);
    // Feeds bytes from `at` to the sequence under way; returns where it stopped.
    template <typename Scan>
    const char* feedSequence(const char* at, const char* end, char*& out);

    ByteScan m_scan;
    bool m_previousWasCarriageReturn = false;
    OSCSequenceState m_osc;
    std::string m_scratch;
};

}  // namespace velko
