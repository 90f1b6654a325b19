// Fuzz target for the slice's token cutting: whatever the bytes, separators
// and order of calls, every token and every rest must lie inside the input,
// and a cut may only shrink the slice.
//
// Input layout: one byte giving the separator length (mod 8), that many
// separator bytes, one byte giving the number of operations (mod 32), that
// many operation bytes, then the data. The data and the separators are
// copied into heap blocks of their exact size so that AddressSanitizer
// reports any read past either end.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "amtypes.h"

namespace {

struct bounds_t {
    char const* lo;
    char const* hi;
};

void check(bool ok) {
    if (!ok) std::abort();
}

// A non-empty slice must lie in [b.lo, b.hi); an empty one may point anywhere.
void inside(lstr_t const& s, bounds_t const& b) {
    if (s.length() == 0) return;
    check(s.ptr() >= b.lo && s.ptr() <= b.hi && s.length() <= static_cast<std::size_t>(b.hi - s.ptr()));
}

void after_cut(lstr_t const& before, lstr_t const& token, lstr_t const& rest, bounds_t const& input) {
    inside(token, input);
    inside(rest, input);
    check(rest.length() <= before.length());
    check(token.length() + rest.length() <= before.length());
    if (before.length() > 0) {
        bounds_t const was{before.ptr(), before.ptr() + before.length()};
        inside(token, was);
        inside(rest, was);
    }
    // Touch every byte of both through the const operations.
    (void)token.calc_hash64();
    (void)rest.calc_hash32();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::size_t pos = 0;
    if (pos >= size) return 0;
    std::size_t const sep_len = data[pos++] % 8;
    if (size - pos < sep_len) return 0;
    std::vector<char> sep_store(data + pos, data + pos + sep_len);
    pos += sep_len;
    if (pos >= size) return 0;
    std::size_t const op_count = data[pos++] % 32;
    if (size - pos < op_count) return 0;
    std::uint8_t const* ops = data + pos;
    pos += op_count;

    std::size_t const n = size - pos;
    char* buf = static_cast<char*>(std::malloc(n ? n : 1));
    if (n) std::memcpy(buf, data + pos, n);
    char* sep_buf = static_cast<char*>(std::malloc(sep_len ? sep_len : 1));
    if (sep_len) std::memcpy(sep_buf, sep_store.data(), sep_len);

    bounds_t const input{buf, buf + n};
    lstr_t const whole(buf, n);
    lstr_t const sep(sep_buf, sep_len);
    char const c = sep_len ? sep_buf[0] : ',';
    lstr_t s = whole;

    for (std::size_t i = 0; i < op_count; ++i) {
        std::uint8_t const op = ops[i];
        bool const strict = (op >> 4) & 1;
        unsigned long const k = op >> 5;
        lstr_t const before = s;
        lstr_t token;
        switch (op % 16) {
        case 0: token = s.word(k); break;
        case 1: token = s.word(c, strict); break;
        case 2: token = s.word(sep, strict); break;
        case 3: token = s.r_word(c, strict); break;
        case 4: token = s.r_word(sep, strict); break;
        case 5: token = s.word_by_eol(strict); break;
        case 6: token = s.word_word(sep, strict); break;
        case 7: token = s.word_word_ic(sep, strict); break;
        case 8: token = s.r_word_word(sep, strict); break;
        case 9: token = s.r_word_word_ic(sep, strict); break;
        case 10: s.skip_words(k, c); break;
        case 11: if (strict) s.drop(sep); else s.drop(c); break;
        case 12: if (strict) s.r_drop(sep); else s.r_drop(c); break;
        case 13: s = s.trim(); break;
        case 14: {
            std::vector<lstr_t> out;
            unsigned long const count = s.words(out, sep);
            check(count == out.size() && count == s.words(sep));
            for (lstr_t const& w : out) after_cut(before, w, lstr_t(), input);
            break;
        }
        default:
            (void)s.find_word(sep);
            (void)s.find_word_ic(sep);
            (void)s.contain_one(sep);
            (void)s.ends_ic(sep);
            (void)s.r_find(c);
            break;
        }
        after_cut(before, token, s, input);
        if (s.empty()) s = whole;
    }

    std::free(sep_buf);
    std::free(buf);
    return 0;
}
