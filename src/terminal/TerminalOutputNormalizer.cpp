#include "terminal/TerminalOutputNormalizer.h"

#include <cstring>

#include <cstdint>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velko {

namespace {

constexpr char kEsc = 0x1B;
constexpr char kBel = 0x07;
constexpr char kCr = 0x0D;

// Length of the leading run of bytes that need no treatment (anything but
// NUL, CR and ESC): the hot loop of the whole output road, so it looks at 64
// bytes per step with AVX2 where the CPU has it, 16 with SSE2 otherwise.
size_t plainRunLengthPortable(const char* data, size_t size, size_t i) {
#if defined(__SSE2__)
    const __m128i nul = _mm_setzero_si128();
    const __m128i cr = _mm_set1_epi8(kCr);
    const __m128i esc = _mm_set1_epi8(kEsc);
    for (; i + 16 <= size; i += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, nul), _mm_cmpeq_epi8(v, cr)), _mm_cmpeq_epi8(v, esc));
        int mask = _mm_movemask_epi8(hit);
        if (mask) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
#endif
    for (; i < size; ++i) {
        char c = data[i];
        if (c == 0 || c == kCr || c == kEsc) return i;
    }
    return size;
}

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"))) size_t plainRunLengthAvx2(const char* data, size_t size) {
    const __m256i nul = _mm256_setzero_si256();
    const __m256i cr = _mm256_set1_epi8(kCr);
    const __m256i esc = _mm256_set1_epi8(kEsc);
    size_t i = 0;
    for (; i + 64 <= size; i += 64) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 32));
        const __m256i a =
            _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(x, nul), _mm256_cmpeq_epi8(x, cr)), _mm256_cmpeq_epi8(x, esc));
        const __m256i b =
            _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(y, nul), _mm256_cmpeq_epi8(y, cr)), _mm256_cmpeq_epi8(y, esc));
        if (_mm256_testz_si256(_mm256_or_si256(a, b), _mm256_or_si256(a, b))) continue;
        uint64_t mask = static_cast<uint32_t>(_mm256_movemask_epi8(a)) |
                        (static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(b))) << 32);
        return i + static_cast<size_t>(__builtin_ctzll(mask));
    }
    return plainRunLengthPortable(data, size, i);
}

const bool kHasAvx2 = [] {
    __builtin_cpu_init();  // static initialisation may run before the library's own
    return __builtin_cpu_supports("avx2") != 0;
}();
#endif

size_t plainRunLength(const char* data, size_t size) {
#if defined(__x86_64__) && defined(__GNUC__)
    if (kHasAvx2) return plainRunLengthAvx2(data, size);
#endif
    return plainRunLengthPortable(data, size, 0);
}

}  // namespace

const std::string_view TerminalOutputNormalizer::kPromptFiller{"\x1b[1m\x1b[7m%\x1b[27m\x1b[1m\x1b[0m", 22};

void OSCSequenceState::reset() {
    stage = Stage::Idle;
    buffer.clear();
    commandDigits.clear();
    shouldFilter = false;
    shouldFilterDetermined = false;
}

void OSCSequenceState::begin() {
    reset();
    stage = Stage::ExpectingBracket;
    buffer.push_back(kEsc);
}

OSCSequenceState::Outcome OSCSequenceState::consume(uint8_t byte, std::string& out) {
    if (stage == Stage::Idle) return Outcome::NotActive;
    buffer.push_back(static_cast<char>(byte));
    auto decide = [this] {
        if (!shouldFilterDetermined) {
            // No OSC command is dropped today; the decision point stays so a
            // drop list can be added in one place.
            shouldFilter = false;
            shouldFilterDetermined = true;
        }
    };
    auto finish = [this, &out] {
        if (shouldFilter) {
            reset();
            return Outcome::Filtered;
        }
        out.swap(buffer);
        reset();
        return Outcome::Emit;
    };
    switch (stage) {
        case Stage::Idle: return Outcome::NotActive;
        case Stage::ExpectingBracket:
            if (byte == ']') {
                stage = Stage::ReadingCommand;
                return Outcome::Waiting;
            }
            out.swap(buffer);
            reset();
            return Outcome::PassThrough;
        case Stage::ReadingCommand:
            if (byte == ';') {
                decide();
                stage = Stage::ReadingBody;
                return Outcome::Waiting;
            }
            if (byte == static_cast<uint8_t>(kEsc)) {
                stage = Stage::ExpectingStringTerminator;
                return Outcome::Waiting;
            }
            if (byte == static_cast<uint8_t>(kBel)) {
                decide();
                return finish();
            }
            if (byte >= '0' && byte <= '9') {
                commandDigits.push_back(byte);
                return Outcome::Waiting;
            }
            shouldFilter = false;
            shouldFilterDetermined = true;
            stage = Stage::ReadingBody;
            return Outcome::Waiting;
        case Stage::ReadingBody:
            if (byte == static_cast<uint8_t>(kEsc)) {
                stage = Stage::ExpectingStringTerminator;
                return Outcome::Waiting;
            }
            if (byte == static_cast<uint8_t>(kBel)) return finish();
            return Outcome::Waiting;
        case Stage::ExpectingStringTerminator:
            if (byte == '\\') return finish();
            stage = Stage::ReadingBody;
            return Outcome::Waiting;
    }
    return Outcome::Waiting;
}

std::optional<size_t> TerminalOutputNormalizer::consumePromptFiller(std::string_view chunk, size_t index,
                                                                    std::string& out) {
    if (chunk.size() - index < kPromptFiller.size() + 1) return std::nullopt;
    if (chunk.compare(index, kPromptFiller.size(), kPromptFiller) != 0) return std::nullopt;
    size_t cursor = index + kPromptFiller.size();
    while (cursor < chunk.size() && chunk[cursor] == ' ') ++cursor;
    if (cursor >= chunk.size() || chunk[cursor] != kCr) return std::nullopt;
    out.push_back(kCr);
    m_previousWasCarriageReturn = true;
    return cursor + 1;
}

std::string TerminalOutputNormalizer::normalize(std::string_view chunk, const DebugSink* debugSink) {
    if (chunk.empty()) return {};
    std::string out;
    out.reserve(chunk.size());
    normalizeInto(chunk, out);
    if (debugSink && *debugSink) (*debugSink)(chunk, out);
    return out;
}

void TerminalOutputNormalizer::normalizeInto(std::string_view chunk, std::string& out) {
    const char* data = chunk.data();
    const size_t size = chunk.size();
    size_t i = 0;
    while (i < size) {
        if (m_osc.stage != OSCSequenceState::Stage::Idle) {
            auto outcome = m_osc.consume(static_cast<uint8_t>(data[i]), m_scratch);
            ++i;
            switch (outcome) {
                case OSCSequenceState::Outcome::Emit:
                case OSCSequenceState::Outcome::PassThrough:
                    out.append(m_scratch);
                    m_previousWasCarriageReturn = !m_scratch.empty() && m_scratch.back() == kCr;
                    m_scratch.clear();
                    break;
                case OSCSequenceState::Outcome::Filtered: m_previousWasCarriageReturn = false; break;
                case OSCSequenceState::Outcome::Waiting:
                case OSCSequenceState::Outcome::NotActive: break;
            }
            continue;
        }
        size_t run = plainRunLength(data + i, size - i);
        if (run) {
            out.append(data + i, run);
            m_previousWasCarriageReturn = false;
            i += run;
            continue;
        }
        char c = data[i];
        if (c == 0) {
            m_previousWasCarriageReturn = false;
            ++i;
        } else if (c == kCr) {
            if (!m_previousWasCarriageReturn) {
                out.push_back(kCr);
                m_previousWasCarriageReturn = true;
            }
            ++i;
        } else {  // ESC
            if (auto next = consumePromptFiller(chunk, i, out)) {
                i = *next;
            } else if (i + 1 < size && data[i + 1] != ']') {
                // Not an OSC sequence (colours, cursor moves): the escape and
                // the byte after it pass as they are, as the OSC state would
                // pass them, without its bookkeeping.
                out.push_back(kEsc);
                out.push_back(data[i + 1]);
                m_previousWasCarriageReturn = data[i + 1] == kCr;
                i += 2;
            } else {
                m_osc.begin();
                ++i;
            }
        }
    }
}

}  // namespace velko
