#include "terminal/TerminalOutputNormalizer.h"

#include <cstdint>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define VELKO_X86_SCAN 1
#endif

namespace velko {

namespace {

constexpr char kEsc = 0x1B;
constexpr char kBel = 0x07;
constexpr char kCr = 0x0D;

// The kernels below answer questions about the bytes in [src, src + n):
// plainRun returns the length of the leading run that needs no treatment
// (anything but NUL, CR and ESC); copyPlain also copies that run to dst, for
// the short runs between escape sequences; bodyRun returns the length of the
// leading run holding neither ESC nor BEL, the inside of an OSC sequence.
// copyPlain may write more of src to dst than it reports, never beyond
// dst + n.

// Colour sequences start with ESC [ 1 as often as the filler does: its first
// eight bytes, compared at once, tell them apart before the whole compare.
bool startsLikeFiller(const char* at) {
    static constexpr char kHead[8] = {kEsc, '[', '1', 'm', kEsc, '[', '7', 'm'};
    uint64_t head, expected;
    std::memcpy(&head, at, sizeof head);
    std::memcpy(&expected, kHead, sizeof expected);
    return head == expected;
}

bool isTreated(char c) { return c == 0 || c == kCr || c == kEsc; }

size_t plainRunPortable(const char* src, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (isTreated(src[i])) return i;
    return n;
}

size_t copyPlainPortable(const char* src, size_t n, char* dst) {
    for (size_t i = 0; i < n; ++i) {
        const char c = src[i];
        if (isTreated(c)) return i;
        dst[i] = c;
    }
    return n;
}

size_t bodyRunPortable(const char* src, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (src[i] == kEsc || src[i] == kBel) return i;
    return n;
}

#if VELKO_X86_SCAN

inline unsigned treatedMaskSse2(__m128i v) {
    const __m128i nulOrCr = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_setzero_si128()), _mm_cmpeq_epi8(v, _mm_set1_epi8(kCr)));
    const __m128i hit = _mm_or_si128(nulOrCr, _mm_cmpeq_epi8(v, _mm_set1_epi8(kEsc)));
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
}

inline unsigned terminatorMaskSse2(__m128i v) {
    const __m128i hit = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(kEsc)), _mm_cmpeq_epi8(v, _mm_set1_epi8(kBel)));
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
}

// Runs shorter than a vector end in one more load that overlaps what was
// already scanned: those bytes are known to be plain, so they add no hit,
// and storing them again writes what is already there.
size_t copyPlainSse2(const char* src, size_t n, char* dst) {
    if (n < 16) return copyPlainPortable(src, n, dst);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), v);
        if (const unsigned mask = treatedMaskSse2(v)) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    if (i == n) return n;
    const size_t at = n - 16;
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + at), v);
    if (const unsigned mask = treatedMaskSse2(v)) return at + static_cast<size_t>(__builtin_ctz(mask));
    return n;
}

size_t plainRunSse2(const char* src, size_t n) {
    if (n < 16) return plainRunPortable(src, n);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const unsigned mask = treatedMaskSse2(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        if (mask) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    if (i == n) return n;
    const size_t at = n - 16;
    const unsigned mask = treatedMaskSse2(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at)));
    return mask ? at + static_cast<size_t>(__builtin_ctz(mask)) : n;
}

size_t bodyRunSse2(const char* src, size_t n) {
    if (n < 16) return bodyRunPortable(src, n);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const unsigned mask = terminatorMaskSse2(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        if (mask) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    if (i == n) return n;
    const size_t at = n - 16;
    const unsigned mask = terminatorMaskSse2(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at)));
    return mask ? at + static_cast<size_t>(__builtin_ctz(mask)) : n;
}

// NUL, CR and ESC have different low nibbles (0, D, B), so one table lookup
// by low nibble and one compare find all three: the table holds each byte at
// its own nibble and 0xFF elsewhere, which no byte below 0x80 equals, and
// bytes from 0x80 up look up 0, which they do not equal either.
__attribute__((target("avx2"))) inline __m256i treatedAvx2(__m256i v) {
    const __m256i table = _mm256_setr_epi8(0x00, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, kEsc, -1, kCr, -1, -1,  //
                                           0x00, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, kEsc, -1, kCr, -1, -1);
    return _mm256_cmpeq_epi8(_mm256_shuffle_epi8(table, v), v);
}

__attribute__((target("avx2"))) inline unsigned treatedMaskAvx2(__m256i v) {
    return static_cast<unsigned>(_mm256_movemask_epi8(treatedAvx2(v)));
}

// Long runs of plain text are the common case: 128 bytes per step, one
// branch for all of them.
__attribute__((target("avx2"))) size_t plainRunAvx2(const char* src, size_t n) {
    if (n < 32) return plainRunSse2(src, n);
    size_t i = 0;
    for (; i + 128 <= n; i += 128) {
        const __m256i a = treatedAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i)));
        const __m256i b = treatedAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 32)));
        const __m256i c = treatedAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 64)));
        const __m256i d = treatedAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 96)));
        const __m256i any = _mm256_or_si256(_mm256_or_si256(a, b), _mm256_or_si256(c, d));
        if (_mm256_testz_si256(any, any)) continue;
        const uint64_t low = static_cast<uint32_t>(_mm256_movemask_epi8(a)) |
                             static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(b))) << 32;
        if (low) return i + static_cast<size_t>(__builtin_ctzll(low));
        const uint64_t high = static_cast<uint32_t>(_mm256_movemask_epi8(c)) |
                              static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(d))) << 32;
        return i + 64 + static_cast<size_t>(__builtin_ctzll(high));
    }
    for (; i + 32 <= n; i += 32) {
        const unsigned mask = treatedMaskAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i)));
        if (mask) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    if (i == n) return n;
    const size_t at = n - 32;
    const unsigned mask = treatedMaskAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + at)));
    return mask ? at + static_cast<size_t>(__builtin_ctz(mask)) : n;
}

__attribute__((target("avx2"))) inline unsigned terminatorMaskAvx2(__m256i v) {
    const __m256i hit =
        _mm256_or_si256(_mm256_cmpeq_epi8(v, _mm256_set1_epi8(kEsc)), _mm256_cmpeq_epi8(v, _mm256_set1_epi8(kBel)));
    return static_cast<unsigned>(_mm256_movemask_epi8(hit));
}

__attribute__((target("avx2"))) size_t copyPlainAvx2(const char* src, size_t n, char* dst) {
    if (n < 32) return copyPlainSse2(src, n, dst);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), v);
        if (const unsigned mask = treatedMaskAvx2(v)) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    if (i == n) return n;
    const size_t at = n - 32;
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + at));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + at), v);
    if (const unsigned mask = treatedMaskAvx2(v)) return at + static_cast<size_t>(__builtin_ctz(mask));
    return n;
}

__attribute__((target("avx2"))) size_t bodyRunAvx2(const char* src, size_t n) {
    if (n < 32) return bodyRunSse2(src, n);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const unsigned mask = terminatorMaskAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i)));
        if (mask) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    if (i == n) return n;
    const size_t at = n - 32;
    const unsigned mask = terminatorMaskAvx2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + at)));
    return mask ? at + static_cast<size_t>(__builtin_ctz(mask)) : n;
}

#endif

}  // namespace

namespace {

struct PortableScan {
    static size_t plainRun(const char* src, size_t n) { return plainRunPortable(src, n); }
    static size_t copyPlain(const char* src, size_t n, char* dst) { return copyPlainPortable(src, n, dst); }
    static size_t bodyRun(const char* src, size_t n) { return bodyRunPortable(src, n); }
};

#if VELKO_X86_SCAN
struct Sse2Scan {
    static size_t plainRun(const char* src, size_t n) { return plainRunSse2(src, n); }
    static size_t copyPlain(const char* src, size_t n, char* dst) { return copyPlainSse2(src, n, dst); }
    static size_t bodyRun(const char* src, size_t n) { return bodyRunSse2(src, n); }
};

struct Avx2Scan {
    static size_t plainRun(const char* src, size_t n) { return plainRunAvx2(src, n); }
    static size_t copyPlain(const char* src, size_t n, char* dst) { return copyPlainAvx2(src, n, dst); }
    static size_t bodyRun(const char* src, size_t n) { return bodyRunAvx2(src, n); }
};
#endif

}  // namespace

const std::string_view TerminalOutputNormalizer::kPromptFiller{"\x1b[1m\x1b[7m%\x1b[27m\x1b[1m\x1b[0m", 22};

bool TerminalOutputNormalizer::isAvailable(ByteScan scan) {
    switch (scan) {
        case ByteScan::Portable: return true;
#if VELKO_X86_SCAN
        case ByteScan::Sse2: return true;
        case ByteScan::Avx2: {
            static const bool hasAvx2 = [] {
                __builtin_cpu_init();  // may run before the library has set up its own data
                return __builtin_cpu_supports("avx2") != 0;
            }();
            return hasAvx2;
        }
#else
        case ByteScan::Sse2:
        case ByteScan::Avx2: return false;
#endif
    }
    return false;
}

ByteScan TerminalOutputNormalizer::bestByteScan() {
    if (isAvailable(ByteScan::Avx2)) return ByteScan::Avx2;
    if (isAvailable(ByteScan::Sse2)) return ByteScan::Sse2;
    return ByteScan::Portable;
}

TerminalOutputNormalizer::TerminalOutputNormalizer(ByteScan scan) : m_scan(isAvailable(scan) ? scan : bestByteScan()) {}

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

std::optional<size_t> TerminalOutputNormalizer::consumePromptFiller(std::string_view chunk, size_t index, char*& out) {
    if (chunk.size() - index < kPromptFiller.size() + 1) return std::nullopt;
    if (chunk.compare(index, kPromptFiller.size(), kPromptFiller) != 0) return std::nullopt;
    size_t cursor = index + kPromptFiller.size();
    while (cursor < chunk.size() && chunk[cursor] == ' ') ++cursor;
    if (cursor >= chunk.size() || chunk[cursor] != kCr) return std::nullopt;
    *out++ = kCr;
    m_previousWasCarriageReturn = true;
    return cursor + 1;
}

std::string TerminalOutputNormalizer::normalize(std::string_view chunk) {
    if (chunk.empty()) return {};
    std::string out;
    normalizeInto(chunk, out);
    return out;
}

template <typename Scan>
const char* TerminalOutputNormalizer::feedSequence(const char* at, const char* end, char*& out) {
    if (m_osc.stage == OSCSequenceState::Stage::ReadingBody) {
        // A title or a long hyperlink: take the body up to its possible end in one piece.
        const size_t run = Scan::bodyRun(at, static_cast<size_t>(end - at));
        m_osc.buffer.append(at, run);
        at += run;
        if (at == end) return at;
    }
    switch (m_osc.consume(static_cast<uint8_t>(*at), m_scratch)) {
        case OSCSequenceState::Outcome::Emit:
        case OSCSequenceState::Outcome::PassThrough:
            std::memcpy(out, m_scratch.data(), m_scratch.size());
            out += m_scratch.size();
            m_previousWasCarriageReturn = !m_scratch.empty() && m_scratch.back() == kCr;
            m_scratch.clear();
            break;
        case OSCSequenceState::Outcome::Filtered: m_previousWasCarriageReturn = false; break;
        case OSCSequenceState::Outcome::Waiting:
        case OSCSequenceState::Outcome::NotActive: break;
    }
    return at + 1;
}

void TerminalOutputNormalizer::normalizeInto(std::string_view chunk, std::string& out) {
    if (chunk.empty()) return;
    switch (m_scan) {
#if VELKO_X86_SCAN
        case ByteScan::Avx2: return normalizeWith<Avx2Scan>(chunk, out);
        case ByteScan::Sse2: return normalizeWith<Sse2Scan>(chunk, out);
#else
        case ByteScan::Avx2:
        case ByteScan::Sse2:
#endif
        case ByteScan::Portable: return normalizeWith<PortableScan>(chunk, out);
    }
}

template <typename Scan>
void TerminalOutputNormalizer::normalizeWith(std::string_view chunk, std::string& out) {
    const char* const first = chunk.data();
    const char* const end = first + chunk.size();
    size_t plain = 0;
    if (m_osc.stage == OSCSequenceState::Stage::Idle) {
        // Most output is text with nothing to treat: find how much, and copy
        // it in one piece.
        plain = Scan::plainRun(first, chunk.size());
        if (plain) m_previousWasCarriageReturn = false;
        if (plain == chunk.size()) {
            out.append(chunk);
            return;
        }
    }
    // The output of a chunk is never longer than the chunk plus a sequence
    // held back from earlier chunks. The chunk's copy makes room for it (and
    // its plain start is already final); the loop writes through a cursor.
    const size_t start = out.size();
    out.append(chunk);
    if (!m_osc.buffer.empty()) out.resize(out.size() + m_osc.buffer.size());
    char* const base = out.data();
    char* cursor = base + start + plain;
    const char* at = first + plain;
    while (at < end) {
        if (m_osc.stage != OSCSequenceState::Stage::Idle) {
            at = feedSequence<Scan>(at, end, cursor);
            continue;
        }
        if (const size_t run = Scan::copyPlain(at, static_cast<size_t>(end - at), cursor)) {
            at += run;
            cursor += run;
            m_previousWasCarriageReturn = false;
            if (at == end) break;
        }
        const char c = *at;
        if (c == 0) {
            m_previousWasCarriageReturn = false;
            ++at;
        } else if (c == kCr) {
            if (!m_previousWasCarriageReturn) {
                *cursor++ = kCr;
                m_previousWasCarriageReturn = true;
            }
            ++at;
        } else if (end - at < 2 || at[1] == ']') {
            // ESC: the start of an OSC sequence, or one whose second byte is in the next chunk.
            m_osc.begin();
            ++at;
        } else if (end - at > static_cast<ptrdiff_t>(kPromptFiller.size()) && startsLikeFiller(at)) {
            if (auto next = consumePromptFiller(chunk, static_cast<size_t>(at - first), cursor)) {
                at = first + *next;
            } else {
                cursor[0] = kEsc;
                cursor[1] = at[1];
                cursor += 2;
                m_previousWasCarriageReturn = false;
                at += 2;
            }
        } else {
            // Not an OSC sequence (colours, cursor moves): the escape and the
            // byte after it pass as they are, as the OSC state would pass
            // them, without its bookkeeping.
            cursor[0] = kEsc;
            cursor[1] = at[1];
            cursor += 2;
            m_previousWasCarriageReturn = at[1] == kCr;
            at += 2;
        }
    }
    out.resize(static_cast<size_t>(cursor - base));
}

}  // namespace velko
