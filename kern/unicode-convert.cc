// unicode-convert.cc: UTF-8 validation and the conversions between code
// pages, UTF-8 and UTF-16.
#include <immintrin.h>

#include <cstring>
#include <memory>

#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include "exceptions.h"
#include "unicode-int.h"
#include "unicode.h"

namespace {

typedef unsigned char byte_t;

// First byte of a well-formed sequence and the bounds of its second byte:
// the narrower bounds after E0, ED, F0 and F4 are what shut out overlong
// forms, surrogates and code points above U+10FFFF.
struct lead_t {
    byte_t length;  // 0: not a first byte
    byte_t low, high;
};

constexpr lead_t lead_of(unsigned b) noexcept {
    return b < 0x80   ? lead_t{1, 0, 0}
           : b < 0xC2 ? lead_t{0, 0, 0}  // continuation, or C0/C1: overlong
           : b < 0xE0 ? lead_t{2, 0x80, 0xBF}
           : b == 0xE0 ? lead_t{3, 0xA0, 0xBF}
           : b == 0xED ? lead_t{3, 0x80, 0x9F}
           : b < 0xF0  ? lead_t{3, 0x80, 0xBF}
           : b == 0xF0 ? lead_t{4, 0x90, 0xBF}
           : b < 0xF4  ? lead_t{4, 0x80, 0xBF}
           : b == 0xF4 ? lead_t{4, 0x80, 0x8F}
                       : lead_t{0, 0, 0};
}

struct lead_table_t {
    lead_t at[256];
    constexpr lead_table_t() : at() {
        for (unsigned b = 0; b < 256; ++b) at[b] = lead_of(b);
    }
};
constexpr lead_table_t k_leads;

// --- block validation (AVX2) ------------------------------------------------
// Checks 32 bytes at a time against the byte before, two before and three
// before, by table look-ups on their nibbles (the "lookup" method of Keiser
// and Lemire, "Validating UTF-8 in less than one instruction per byte",
// 2021). Each table entry is a set of the error kinds a nibble allows; a
// byte pair is bad when all three look-ups share a kind.
namespace avx2 {

enum : unsigned char {
    too_short = 1 << 0,   // lead byte or ASCII, then lead byte or ASCII where a continuation is due
    too_long = 1 << 1,    // ASCII, then continuation
    overlong_3 = 1 << 2,  // E0 80..9F
    too_large = 1 << 3,   // F4 90..BF, F5..FF
    surrogate = 1 << 4,   // ED A0..BF
    overlong_2 = 1 << 5,  // C0, C1
    too_large_1000 = 1 << 6,
    overlong_4 = 1 << 6,  // F0 80..8F
    two_conts = 1 << 7,   // continuation after continuation where none is due
    carry = too_short | too_long | two_conts,
};

// The error kinds allowed by the high nibble of a byte, by its low nibble,
// and by the high nibble of the byte after it.
alignas(16) constexpr unsigned char k_byte_1_high[16] = {
    too_long, too_long, too_long, too_long, too_long, too_long, too_long, too_long,  // ASCII
    two_conts, two_conts, two_conts, two_conts,                                      // continuation
    too_short | overlong_2, too_short, too_short | overlong_3 | surrogate,
    too_short | too_large | too_large_1000 | overlong_4};
alignas(16) constexpr unsigned char k_byte_1_low[16] = {
    carry | overlong_3 | overlong_2 | overlong_4, carry | overlong_2, carry, carry, carry | too_large,
    carry | too_large | too_large_1000, carry | too_large | too_large_1000, carry | too_large | too_large_1000,
    carry | too_large | too_large_1000, carry | too_large | too_large_1000, carry | too_large | too_large_1000,
    carry | too_large | too_large_1000, carry | too_large | too_large_1000,
    carry | too_large | too_large_1000 | surrogate, carry | too_large | too_large_1000,
    carry | too_large | too_large_1000};
alignas(16) constexpr unsigned char k_byte_2_high[16] = {
    too_short, too_short, too_short, too_short, too_short, too_short, too_short, too_short,  // ASCII
    too_long | overlong_2 | two_conts | overlong_3 | too_large_1000 | overlong_4,           // 80..8F
    too_long | overlong_2 | two_conts | overlong_3 | too_large,                             // 90..9F
    too_long | overlong_2 | two_conts | surrogate | too_large,                              // A0..BF
    too_long | overlong_2 | two_conts | surrogate | too_large,
    too_short, too_short, too_short, too_short};  // lead byte

// The table t looked up by the 32 nibbles of v.
__attribute__((target("avx2"))) inline __m256i lookup(unsigned char const* t, __m256i v) {
    return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<__m128i const*>(t))), v);
}

__attribute__((target("avx2"))) inline __m256i nibble_high(__m256i v) {
    return _mm256_and_si256(_mm256_srli_epi16(v, 4), _mm256_set1_epi8(0x0F));
}

// v shifted by n bytes towards the end, the last n bytes of prev in front.
template <int N>
__attribute__((target("avx2"))) inline __m256i before(__m256i v, __m256i prev) {
    return _mm256_alignr_epi8(v, _mm256_permute2x128_si256(prev, v, 0x21), 16 - N);
}

// Non-zero where in, after prev, breaks a rule.
__attribute__((target("avx2"))) inline __m256i errors(__m256i in, __m256i prev) {
    __m256i const prev1 = before<1>(in, prev);
    __m256i const byte_1_high = lookup(k_byte_1_high, nibble_high(prev1));
    __m256i const byte_1_low = lookup(k_byte_1_low, _mm256_and_si256(prev1, _mm256_set1_epi8(0x0F)));
    __m256i const byte_2_high = lookup(k_byte_2_high, nibble_high(in));
    __m256i const special = _mm256_and_si256(_mm256_and_si256(byte_1_high, byte_1_low), byte_2_high);
    // The third and fourth bytes of a sequence must be continuations: the
    // top bit says where a lead byte two or three back requires one, and
    // two_conts in special where one is there.
    __m256i const third = _mm256_subs_epu8(before<2>(in, prev), _mm256_set1_epi8(static_cast<char>(0xE0 - 0x80)));
    __m256i const fourth = _mm256_subs_epu8(before<3>(in, prev), _mm256_set1_epi8(static_cast<char>(0xF0 - 0x80)));
    __m256i const must = _mm256_and_si256(_mm256_or_si256(third, fourth), _mm256_set1_epi8(static_cast<char>(0x80)));
    return _mm256_xor_si256(must, special);
}

// Non-zero where the last three bytes of in begin a sequence they cannot end.
__attribute__((target("avx2"))) inline __m256i incomplete(__m256i in) {
    __m256i const max = _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                         -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, static_cast<char>(0xF0 - 1),
                                         static_cast<char>(0xE0 - 1), static_cast<char>(0xC0 - 1));
    return _mm256_subs_epu8(in, max);
}

// Offset of the block in which the first error shows (an error shows in
// the block of the byte after it, at most three bytes on), n when it shows
// only at the end, npos for well-formed text.
struct state_t {
    __m256i prev, pending;
};

// Takes in the next block; true when an error shows in it.
__attribute__((target("avx2"))) inline bool step(state_t& st, __m256i in) {
    __m256i err;
    if (_mm256_movemask_epi8(in) == 0) {  // ASCII: only a sequence left open before can be wrong
        err = st.pending;
        st.pending = _mm256_setzero_si256();
    } else {
        err = errors(in, st.prev);
        st.pending = incomplete(in);
    }
    st.prev = in;
    return !_mm256_testz_si256(err, err);
}

__attribute__((target("avx2"))) std::size_t bad_block(byte_t const* p, std::size_t n) {
    state_t st = {_mm256_setzero_si256(), _mm256_setzero_si256()};
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32)
        if (step(st, _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i)))) return i;
    if (i < n) {
        alignas(32) byte_t tail[32] = {};  // zeros after the text: ASCII
        std::memcpy(tail, p + i, n - i);
        if (step(st, _mm256_load_si256(reinterpret_cast<__m256i const*>(tail)))) return i;
    }
    return _mm256_testz_si256(st.pending, st.pending) ? lstr_t::npos : n;
}

}  // namespace avx2

// False until this file's initialiser has run: a call made earlier takes
// the scalar way, which answers the same.
bool const k_avx2 = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
}();

// Offset of the first ill-formed byte from i on, one sequence at a time.
std::size_t scalar_invalid_at(byte_t const* p, std::size_t n, std::size_t i) noexcept {
    while (i < n) {
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        lead_t const l = k_leads.at[p[i]];
        if (l.length == 0 || n - i < l.length) return i;
        if (p[i + 1] < l.low || p[i + 1] > l.high) return i;
        switch (l.length) {
        case 4:
            if ((p[i + 3] & 0xC0) != 0x80) return i;
            [[fallthrough]];
        case 3:
            if ((p[i + 2] & 0xC0) != 0x80) return i;
        }
        i += l.length;
    }
    return lstr_t::npos;
}

// Closes a converter when the scope ends.
struct converter_t {
    explicit converter_t(char const* codepage) : cnv(kern_n::detail::open_converter(codepage)) {}
    ~converter_t() { ucnv_close(cnv); }
    converter_t(converter_t const&) = delete;
    converter_t& operator=(converter_t const&) = delete;
    bool is_utf8() const noexcept { return ucnv_getType(cnv) == UCNV_UTF8; }
    UConverter* const cnv;
};

// Runs one conversion call after another into out, beyond its old size,
// doubling the room while the converter asks for more; on a failure out
// gets its old size back and fail (which throws) is told the status.
template <class Out, class Step, class Fail>
void convert_into(Out& out, std::size_t room, Step step, Fail fail) {
    std::size_t const old = out.size();
    out.resize(old + room);
    std::size_t used = old;
    for (;;) {
        auto* t = &out[0] + used;
        UErrorCode st = U_ZERO_ERROR;
        step(t, &out[0] + out.size(), st);
        used = static_cast<std::size_t>(t - &out[0]);
        if (st == U_BUFFER_OVERFLOW_ERROR) {
            out.resize(out.size() * 2);
            continue;
        }
        if (U_FAILURE(st)) {
            out.resize(old);
            fail(st);
        }
        break;
    }
    out.resize(used);
}

// Decodes s from cnv's code page, appending to out; out is unchanged when it
// throws.
void decode(converter_t& c, lstr_t const& s, std::u16string& out, char const* codepage) {
    if (s.empty()) return;
    char const* const start = s.ptr();
    char const* src = start;
    convert_into(
        out, s.length() + 16,
        [&](UChar*& t, UChar* end, UErrorCode& st) {
            ucnv_toUnicode(c.cnv, &t, end, &src, start + s.length(), nullptr, true, &st);
        },
        [&](UErrorCode st) {
            char bad[32];
            int8_t bad_len = sizeof bad;
            UErrorCode ignored = U_ZERO_ERROR;
            ucnv_getInvalidChars(c.cnv, bad, &bad_len, &ignored);
            std::size_t const at = static_cast<std::size_t>(src - start) - (U_SUCCESS(ignored) ? bad_len : 0);
            QVL_THROW(icu_exception, "unable to convert text from \"%s\" at byte %zu because of %s",
                      kern_n::detail::codepage_name(codepage), at, u_errorName(st));
        });
}

// Encodes s into cnv's code page, appending to out; out is unchanged when it
// throws.
void encode(converter_t& c, std::u16string_view s, std::string& out, char const* codepage) {
    if (s.empty()) return;
    UChar const* const start = s.data();
    UChar const* src = start;
    convert_into(
        out, s.size() * 2 + 16,
        [&](char*& t, char* end, UErrorCode& st) {
            ucnv_fromUnicode(c.cnv, &t, end, &src, start + s.size(), nullptr, true, &st);
        },
        [&](UErrorCode st) {
            UChar bad[8];
            int8_t bad_len = 8;
            UErrorCode ignored = U_ZERO_ERROR;
            ucnv_getInvalidUChars(c.cnv, bad, &bad_len, &ignored);
            UChar32 cp = 0xFFFD;
            if (U_SUCCESS(ignored) && bad_len > 0) U16_GET(bad, 0, 0, bad_len, cp);
            QVL_THROW(icu_exception, "unable to convert U+%04X to \"%s\" because of %s", static_cast<unsigned>(cp),
                      kern_n::detail::codepage_name(codepage), u_errorName(st));
        });
}

// Appends s, known to be UTF-8, to out after checking it.
void copy_utf8(lstr_t const& s, std::string& out) {
    kern_n::detail::check_utf8(s, "text");
    out.append(s.ptr(), s.length());
}

}  // namespace

namespace kern_n {
namespace detail {

std::size_t utf8_invalid_at(char const* s, std::size_t n) noexcept {
    byte_t const* const p = reinterpret_cast<byte_t const*>(s);
    if (!k_avx2) return scalar_invalid_at(p, n, 0);
    std::size_t const block = avx2::bad_block(p, n);
    if (block == lstr_t::npos) return block;
    // Everything up to three bytes before the block is well-formed: the
    // sequence in error starts after the last lead byte before that.
    std::size_t from = block < 3 ? 0 : block - 3;
    while (from > 0 && (p[from] & 0xC0) == 0x80) --from;
    return scalar_invalid_at(p, n, from);
}

}  // namespace detail
}  // namespace kern_n

bool is_valid_utf8(lstr_t const& s) noexcept {
    return kern_n::detail::utf8_invalid_at(s.ptr(), s.length()) == lstr_t::npos;
}

void from_utf8_to_unicode(lstr_t const& s, std::u16string& out) {
    int32_t const n = kern_n::detail::icu_length(s.length(), "UTF-8 text");
    // A UTF-8 text never has more UTF-16 units than bytes.
    UErrorCode const st = kern_n::detail::append_icu(out, s.length(), [&](UChar* d, int32_t cap, UErrorCode* e) {
        int32_t len = 0;
        u_strFromUTF8(d, cap, &len, s.ptr(), n, e);
        return len;
    });
    if (U_FAILURE(st)) {
        kern_n::detail::check_utf8(s, "text");
        QVL_THROW(icu_exception, "unable to convert UTF-8 text to Unicode because of %s", u_errorName(st));
    }
}

void from_unicode_to_utf8(std::u16string_view s, std::string& out) {
    int32_t const n = kern_n::detail::icu_length(s.size(), "UTF-16 text");
    std::size_t const guess = s.size() <= (1u << 20) ? s.size() * 3 : s.size() + s.size() / 2;
    UErrorCode const st = kern_n::detail::append_icu(out, guess, [&](char* d, int32_t cap, UErrorCode* e) {
        int32_t len = 0;
        u_strToUTF8(d, cap, &len, s.data(), n, e);
        return len;
    });
    if (U_FAILURE(st)) {
        for (std::size_t i = 0; i < s.size(); ++i) {
            if (!U16_IS_SURROGATE(s[i])) continue;
            if (U16_IS_LEAD(s[i]) && i + 1 < s.size() && U16_IS_TRAIL(s[i + 1])) {
                ++i;
                continue;
            }
            QVL_THROW(icu_exception, "unable to convert U+%04X at unit %zu to UTF-8 because of %s",
                      static_cast<unsigned>(s[i]), i, u_errorName(st));
        }
        QVL_THROW(icu_exception, "unable to convert text to UTF-8 because of %s", u_errorName(st));
    }
}

void local_2_unicode(lstr_t const& s, std::u16string& out, char const* codepage) {
    converter_t c(codepage);
    decode(c, s, out, codepage);
}

void unicode_2_local(std::u16string_view s, std::string& out, char const* codepage) {
    converter_t c(codepage);
    encode(c, s, out, codepage);
}

void local_2_utf8(lstr_t const& s, std::string& out, char const* codepage) {
    converter_t c(codepage);
    if (c.is_utf8()) return copy_utf8(s, out);
    std::u16string wide;
    decode(c, s, wide, codepage);
    from_unicode_to_utf8(wide, out);
}

void utf8_2_local(lstr_t const& s, std::string& out, char const* codepage) {
    converter_t c(codepage);
    if (c.is_utf8()) return copy_utf8(s, out);
    std::u16string wide;
    from_utf8_to_unicode(s, wide);
    encode(c, wide, out, codepage);
}
