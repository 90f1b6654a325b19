// quote-utils.cc: the quoted-string escape format.
//
// Both directions work on 64-byte blocks on x86-64: SSE2 compares give a
// bit mask of the bytes that begin a unit, and the loop visits only those
// bits, copying the plain bytes between them with 16-byte stores that may
// run past the gap (the next store overwrites the excess). The excess is in
// bounds because the writer's output is never shorter than its input
// (every byte maps to at least one byte, a pair to two) and the reader's
// never longer, so the output room left is at least the input left; the
// block loops stop while enough input remains for their widest access.
// Units are looked up in tables and chosen by indexing, not branching: in
// text, which unit comes next follows no pattern a predictor could learn.
#include "quote-utils.h"

#include <cstring>

#include "code-exec-time.h"
#include "exceptions.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kern {
namespace quote {
namespace stat {
namespace quote {
std::atomic<q_uint64_t> calls{0};
std::atomic<q_uint64_t> size{0};
std::atomic<q_uint64_t> time{0};
}  // namespace quote
namespace dequote {
std::atomic<q_uint64_t> calls{0};
std::atomic<q_uint64_t> size{0};
std::atomic<q_uint64_t> time{0};
}  // namespace dequote
}  // namespace stat
}  // namespace quote
}  // namespace kern

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "units are stored as little-endian words");

constexpr q_uint32_t word(char a, char b, char c = 0) {
    return static_cast<unsigned char>(a) | static_cast<unsigned char>(b) << 8 |
           static_cast<q_uint32_t>(static_cast<unsigned char>(c)) << 16;
}

struct tables_t {
    // Writer: 1 for a byte that is not simply copied (unsafe, "%" or ",").
    unsigned char special[256];
    // The unit for a byte written alone ([0]) and for a pair begun by it
    // ([1]), as the bytes of a little-endian word, and its length.
    q_uint32_t code[2][256];
    unsigned char len[2][256];
    // The byte that completes a pair begun by this one; -1: none.
    short pair_next[256];
    // Extra output bytes over the input byte, pairs aside (size function).
    unsigned char extra[256];
    // Reader: the bytes a letter code stands for and their count (0: the
    // byte is not a letter code).
    unsigned short letter[256];
    unsigned char letter_len[256];
    // Value of a hexadecimal digit of either case; 0xFF for other bytes.
    unsigned char hex_value[256];

    constexpr tables_t()
        : special(), code(), len(), pair_next(), extra(), letter(), letter_len(), hex_value() {
        char const hex[] = "0123456789ABCDEF";
        for (int b = 0; b < 256; ++b) {
            pair_next[b] = -1;
            hex_value[b] = b >= '0' && b <= '9'   ? b - '0'
                           : b >= 'A' && b <= 'F' ? b - 'A' + 10
                           : b >= 'a' && b <= 'f' ? b - 'a' + 10
                                                  : 0xFF;
            if (b < 0x21 || b > 0x7E) {
                special[b] = 1;
                code[0][b] = word('%', hex[b >> 4], hex[b & 15]);
                len[0][b] = 3;
                extra[b] = 2;
            } else {
                code[0][b] = static_cast<q_uint32_t>(b);
                len[0][b] = 1;
            }
        }
        char const letters[][3] = {{'%', 'P', 1}, {' ', 'S', 1},  {'\t', 'T', 1}, {'\n', 'N', 1},
                                   {'\r', 'R', 1}, {0, 'L', 2}, {0, 'M', 2}};
        for (auto const& l : letters) {
            unsigned char const b = static_cast<unsigned char>(l[0]);
            unsigned char const c = static_cast<unsigned char>(l[1]);
            letter_len[c] = static_cast<unsigned char>(l[2]);
            if (l[2] == 1) {
                letter[c] = b;
                special[b] = 1;
                code[0][b] = word('%', l[1]);
                len[0][b] = 2;
                extra[b] = 1;
            }
        }
        constexpr unsigned char comma = ',', cr = '\r';
        letter[static_cast<unsigned char>('L')] = word('\r', '\n') & 0xFFFF;
        letter[static_cast<unsigned char>('M')] = word(',', ' ') & 0xFFFF;
        special[comma] = 1;
        pair_next[comma] = ' ';
        code[1][comma] = word('%', 'M');
        len[1][comma] = 2;
        pair_next[cr] = '\n';
        code[1][cr] = word('%', 'L');
        len[1][cr] = 2;
    }
};

constexpr tables_t s_tab;

// Writes the unit that begins with the byte at s (of any class) and returns
// how many input bytes it took. With wide, the unit goes out as one 4-byte
// store, for which the caller guarantees room; s + 1 < e is then known too.
template <bool wide>
inline unsigned put_unit(unsigned char const* s, unsigned char const* e, char*& o) {
    unsigned const b = s[0];
    // Indexing rather than choosing keeps this free of branches.
    unsigned const pair = (wide || s + 1 < e) && s[1] == s_tab.pair_next[b];
    q_uint32_t const c = s_tab.code[pair][b];
    unsigned const l = s_tab.len[pair][b];
    std::memcpy(o, &c, wide ? 4 : l);
    o += l;
    return 1 + pair;
}

#if defined(__SSE2__)
inline __m128i load16(void const* p) { return _mm_loadu_si128(static_cast<__m128i const*>(p)); }
inline void store16(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

// Bit i set when byte i of v begins a unit other than a plain copy: a byte
// below 0x21 or above 0x7E (bytes from 0x80 are negative as signed), "%" or
// ",", but not the second byte of a pair, which its first byte's unit takes.
// before holds, in its last byte, the byte in front of v (0 for none).
// Finding pairs here keeps the per-unit loop free of a chain through loads.
inline unsigned writer_mask(__m128i v, __m128i before) {
    __m128i const prev = _mm_or_si128(_mm_slli_si128(v, 1), _mm_srli_si128(before, 15));
    __m128i const low = _mm_cmplt_epi8(v, _mm_set1_epi8(0x21));
    __m128i const del = _mm_cmpeq_epi8(v, _mm_set1_epi8(0x7F));
    __m128i const pct = _mm_cmpeq_epi8(v, _mm_set1_epi8('%'));
    __m128i const comma = _mm_cmpeq_epi8(v, _mm_set1_epi8(','));
    __m128i const second = _mm_or_si128(
        _mm_and_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(' ')), _mm_cmpeq_epi8(prev, _mm_set1_epi8(','))),
        _mm_and_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\n')), _mm_cmpeq_epi8(prev, _mm_set1_epi8('\r'))));
    __m128i const any = _mm_or_si128(_mm_or_si128(low, del), _mm_or_si128(pct, comma));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(second, any)));
}

// The writer's mask of the 64 bytes at p. A block never starts on the
// second byte of a pair (the unit before it took that byte), so nothing
// in front of it is needed.
inline q_uint64_t writer_block_mask(void const* p) {
    char const* const c = static_cast<char const*>(p);
    __m128i const v0 = load16(c), v1 = load16(c + 16), v2 = load16(c + 32), v3 = load16(c + 48);
    return static_cast<q_uint64_t>(writer_mask(v0, _mm_setzero_si128())) |
           static_cast<q_uint64_t>(writer_mask(v1, v0)) << 16 |
           static_cast<q_uint64_t>(writer_mask(v2, v1)) << 32 |
           static_cast<q_uint64_t>(writer_mask(v3, v2)) << 48;
}

// Bit i set when byte i of v is "%".
inline unsigned reader_mask(__m128i v) {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('%'))));
}

// The reader's mask of the 64 bytes at p.
inline q_uint64_t reader_block_mask(void const* p) {
    char const* const c = static_cast<char const*>(p);
    return static_cast<q_uint64_t>(reader_mask(load16(c))) |
           static_cast<q_uint64_t>(reader_mask(load16(c + 16))) << 16 |
           static_cast<q_uint64_t>(reader_mask(load16(c + 32))) << 32 |
           static_cast<q_uint64_t>(reader_mask(load16(c + 48))) << 48;
}

inline void copy64(void* o, void const* p) {
    char* const d = static_cast<char*>(o);
    char const* const c = static_cast<char const*>(p);
    store16(d, load16(c));
    store16(d + 16, load16(c + 16));
    store16(d + 32, load16(c + 32));
    store16(d + 48, load16(c + 48));
}

// Copies the len plain bytes at from to o and moves o past them, in whole
// 16-byte pieces: up to 16 bytes past the gap are read and stored too.
template <typename T>
inline void copy_gap(char*& o, T const* from, long len) {
    store16(o, load16(from));
    for (long i = 16; i < len; i += 16) store16(o + i, load16(from + i));
    o += len;
}

// Copies the plain bytes from cur to the block's end (none when the last
// unit reached past it) and returns where the next block starts.
template <typename T>
inline T const* copy_rest(char*& o, T const* cur, T const* end) {
    long const left = end - cur;
    copy_gap(o, cur, left > 0 ? left : 0);
    return left > 0 ? end : cur;
}
#endif

// The writer proper; o has room for calc_quoted_string_size bytes.
char* quote_into(char const* in, unsigned long n, char* o) noexcept {
    if (n == 0) {
        o[0] = '%';
        o[1] = 'Z';
        return o + 2;
    }
    unsigned char const* p = reinterpret_cast<unsigned char const*>(in);
    unsigned char const* const e = p + n;
#if defined(__SSE2__)
    // A unit ends at most 2 bytes past its block, and copies reach 16
    // bytes past that: 160 bytes of input (and so of output room) keep every
    // access of a block in bounds.
    while (e - p >= 160) {
        q_uint64_t m = writer_block_mask(p);
        if (m == 0) {
            copy64(o, p);
            p += 64;
            o += 64;
            continue;
        }
        unsigned char const* cur = p;
        do {
            unsigned char const* const s = p + __builtin_ctzll(m);
            copy_gap(o, cur, s - cur);
            cur = s + put_unit<true>(s, e, o);
            m &= m - 1;
        } while (m != 0);
        p = copy_rest(o, cur, p + 64);
    }
#endif
    while (p < e) {
        unsigned char const* const run = p;
        while (p < e && !s_tab.special[*p]) ++p;
        std::memcpy(o, run, p - run);
        o += p - run;
        if (p < e) p += put_unit<false>(p, e, o);
    }
    return o;
}

// The exact output size; pairs never overlap (their second bytes, line feed
// and blank, never begin a pair), so every occurrence of one is a unit.
unsigned long quoted_size(char const* s, unsigned long n) noexcept {
    if (n == 0) return 2;
    unsigned char const* p = reinterpret_cast<unsigned char const*>(s);
    unsigned char const* const e = p + n;
    unsigned long plus = 0, minus = 0;
#if defined(__SSE2__)
    // Per-lane byte counters gain at most 2 per round: flushed every 127.
    __m128i const zero = _mm_setzero_si128();
    while (e - p >= 17) {
        __m128i acc_plus = zero, acc_minus = zero;
        for (int round = 0; round < 127 && e - p >= 17; ++round, p += 16) {
            __m128i const v = load16(p);
            __m128i const next = load16(p + 1);
            __m128i const cr = _mm_cmpeq_epi8(v, _mm_set1_epi8('\r'));
            __m128i const ctl = _mm_or_si128(_mm_cmplt_epi8(v, _mm_set1_epi8(0x21)),
                                             _mm_cmpeq_epi8(v, _mm_set1_epi8(0x7F)));
            __m128i const letters = _mm_or_si128(
                _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(' ')), _mm_cmpeq_epi8(v, _mm_set1_epi8('\t'))),
                _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\n')), cr));
            // Every unsafe byte adds 1, a hexadecimal one 2, "%" 1.
            acc_plus = _mm_sub_epi8(acc_plus, ctl);
            acc_plus = _mm_sub_epi8(acc_plus, _mm_andnot_si128(letters, ctl));
            acc_plus = _mm_sub_epi8(acc_plus, _mm_cmpeq_epi8(v, _mm_set1_epi8('%')));
            // CR LF counted 1 + 1 but written in 2; ", " counted 0 + 1.
            __m128i const crlf = _mm_and_si128(cr, _mm_cmpeq_epi8(next, _mm_set1_epi8('\n')));
            __m128i const cs = _mm_and_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(',')),
                                             _mm_cmpeq_epi8(next, _mm_set1_epi8(' ')));
            acc_minus = _mm_sub_epi8(acc_minus, _mm_add_epi8(crlf, crlf));
            acc_minus = _mm_sub_epi8(acc_minus, cs);
        }
        __m128i const sp = _mm_sad_epu8(acc_plus, zero);
        __m128i const sm = _mm_sad_epu8(acc_minus, zero);
        plus += static_cast<unsigned long>(_mm_cvtsi128_si64(sp)) +
                static_cast<unsigned long>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sp, sp)));
        minus += static_cast<unsigned long>(_mm_cvtsi128_si64(sm)) +
                 static_cast<unsigned long>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sm, sm)));
    }
#endif
    for (; p < e; ++p) {
        plus += s_tab.extra[*p];
        if (p + 1 < e && p[1] == s_tab.pair_next[*p]) minus += *p == '\r' ? 2 : 1;
    }
    return n + plus - minus;
}

// The reader's failures. out is first cut back to the bytes decoded so far.
[[noreturn]] __attribute__((noinline, cold)) void fail(int which, lstr_t q, char const* at,
                                                       std::string& out, char const* o) {
    out.resize(o - out.data());
    int const len = static_cast<int>(q.length());
    if (which == 0) QVL_THROW(quoted_format_exception, "single %% at end: \"%.*s\"", len, q.ptr());
    if (which == 1)
        QVL_THROW(quoted_format_exception, "single char after %%: \"%.*s\"", len, q.ptr());
    QVL_THROW(quoted_format_exception, "invalid quoted string \"%.*s\" at %lu", len, q.ptr(),
              static_cast<unsigned long>(at - q.ptr()));
}

// Decodes the unit that begins with the "%" at s and returns the position
// after it. With wide, the caller guarantees that 2 more input bytes follow.
template <bool wide>
inline char const* get_unit(lstr_t q, char const* s, std::string& out, char*& o);

// Both decodings are computed and one is kept by arithmetic: which of the
// two a unit is follows no pattern the branch predictor could learn.
template <>
inline char const* get_unit<true>(lstr_t q, char const* s, std::string& out, char*& o) {
    unsigned char const c = static_cast<unsigned char>(s[1]);
    unsigned const l = s_tab.letter_len[c];
    unsigned const hi = s_tab.hex_value[c];
    unsigned const lo = s_tab.hex_value[static_cast<unsigned char>(s[2])];
    unsigned const is_letter = l != 0;
    if (!is_letter & ((hi | lo) > 15)) fail(2, q, s, out, o);
    unsigned const keep = 0u - is_letter;
    unsigned short const d =
        static_cast<unsigned short>((s_tab.letter[c] & keep) | ((hi << 4 | lo) & ~keep));
    std::memcpy(o, &d, 2);
    o += l + !is_letter;
    return s + 3 - is_letter;
}

template <>
inline char const* get_unit<false>(lstr_t q, char const* s, std::string& out, char*& o) {
    char const* const e = q.end();
    if (s + 1 == e) fail(0, q, s, out, o);
    unsigned char const c = static_cast<unsigned char>(s[1]);
    unsigned const l = s_tab.letter_len[c];
    if (l != 0) {
        std::memcpy(o, &s_tab.letter[c], l);
        o += l;
        return s + 2;
    }
    if (s + 2 == e) fail(1, q, s, out, o);
    unsigned const hi = s_tab.hex_value[c];
    unsigned const lo = s_tab.hex_value[static_cast<unsigned char>(s[2])];
    if ((hi | lo) > 15) fail(2, q, s, out, o);
    *o++ = static_cast<char>(hi << 4 | lo);
    return s + 3;
}

// The reader proper; q must not lie in out's buffer.
void dequote_into(lstr_t q, std::string& out) {
    out.clear();
    unsigned long const n = q.length();
    if (n == 0 || (n == 2 && q[0] == '%' && q[1] == 'Z')) return;
    // Decoding never lengthens: size out once, trim it at the end.
    out.resize(n);
    char* o = &out[0];
    char const* p = q.ptr();
    char const* const e = p + n;
#if defined(__SSE2__)
    // As in the writer: one mask per 64-byte block, plain bytes between
    // units copied by overlapping 16-byte stores; the output position never
    // runs ahead of the input position.
    while (e - p >= 160) {
        q_uint64_t m = reader_block_mask(p);
        if (m == 0) {
            copy64(o, p);
            p += 64;
            o += 64;
            continue;
        }
        char const* cur = p;
        do {
            char const* const s = p + __builtin_ctzll(m);
            copy_gap(o, cur, s - cur);
            // The bytes a unit takes after its "%" are never "%" when it
            // decodes, so only the "%" itself leaves the mask.
            cur = get_unit<true>(q, s, out, o);
            m &= m - 1;
        } while (m != 0);
        p = copy_rest(o, cur, p + 64);
    }
#endif
    while (p < e) {
        char const* const pc = static_cast<char const*>(std::memchr(p, '%', e - p));
        char const* const stop = pc ? pc : e;
        std::memcpy(o, p, stop - p);
        o += stop - p;
        p = pc ? get_unit<false>(q, pc, out, o) : e;
    }
    out.resize(o - out.data());
}

void append_quoted(char const* s, unsigned long n, std::string& out) {
    std::size_t const old = out.size();
    out.resize(old + quoted_size(s, n));
    quote_into(s, n, &out[old]);
}

// True when [p, p + n) overlaps the storage of s.
bool inside(std::string const& s, char const* p, unsigned long n) {
    char const* const b = s.data();
    return n != 0 && p < b + s.capacity() && b < p + n;
}

}  // namespace

unsigned long calc_quoted_string_size(char const* s, unsigned long n) noexcept {
    return quoted_size(s, n);
}

unsigned long quote_string(char const* s, unsigned long n, char* out) noexcept {
    namespace st = kern::quote::stat::quote;
    kern::runtime::stat::scoped_time_t timing(st::time);
    if (timing.on()) {
        st::calls.fetch_add(1, std::memory_order_relaxed);
        st::size.fetch_add(n, std::memory_order_relaxed);
    }
    return quote_into(s, n, out) - out;
}

void quote_string(char const* s, unsigned long n, std::string& out) {
    namespace st = kern::quote::stat::quote;
    kern::runtime::stat::scoped_time_t timing(st::time);
    if (timing.on()) {
        st::calls.fetch_add(1, std::memory_order_relaxed);
        st::size.fetch_add(n, std::memory_order_relaxed);
    }
    if (inside(out, s, n)) {
        // Growing out may move the bytes being quoted.
        std::string const copy(s, n);
        append_quoted(copy.data(), n, out);
    } else {
        append_quoted(s, n, out);
    }
}

void dequote_string(lstr_t q, std::string& out) {
    namespace st = kern::quote::stat::dequote;
    kern::runtime::stat::scoped_time_t timing(st::time);
    if (timing.on()) {
        st::calls.fetch_add(1, std::memory_order_relaxed);
        st::size.fetch_add(q.length(), std::memory_order_relaxed);
    }
    if (inside(out, q.ptr(), q.length())) {
        // Decoding in place would overwrite the input.
        std::string const copy(q.ptr(), q.length());
        dequote_into(lstr_t(copy), out);
        return;
    }
    dequote_into(q, out);
}
