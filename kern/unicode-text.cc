// unicode-text.cc: case mapping, collation and text breaking of UTF-8 text,
// under the library's locale.
#include <emmintrin.h>

#include <algorithm>

#include <unicode/ustring.h>
#include <unicode/utext.h>

#include "exceptions.h"
#include "unicode-int.h"
#include "unicode.h"

namespace {

using kern_n::detail::check_utf8;
using kern_n::detail::icu_length;

enum case_t { k_lower, k_upper, k_title, k_fold };

char const* const k_case_names[] = {"lower case", "upper case", "title case", "folded case"};

// Writes the n bytes of s to d with the 26 ASCII letters of one case
// changed to the other (to upper case when upper) and stops at the first
// byte that is not ASCII; answers how many it wrote.
std::size_t ascii_case(char const* s, std::size_t n, char* d, bool upper) noexcept {
    unsigned char const from = upper ? 'a' : 'A';
    std::size_t i = 0;
    // Moved by 0x80 - from, the letters are the 26 smallest signed bytes.
    __m128i const shift = _mm_set1_epi8(static_cast<char>(0x80 - from));
    __m128i const limit = _mm_set1_epi8(static_cast<char>(0x80 + 26));
    __m128i const flip = _mm_set1_epi8(0x20);
    for (; i + 16 <= n; i += 16) {
        __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s + i));
        if (_mm_movemask_epi8(v)) break;
        __m128i const letter = _mm_cmplt_epi8(_mm_add_epi8(v, shift), limit);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_xor_si128(v, _mm_and_si128(letter, flip)));
    }
    for (; i < n; ++i) {
        unsigned const u = static_cast<unsigned char>(s[i]);
        if (u >= 0x80) break;
        d[i] = static_cast<char>(u - from < 26u ? u ^ 0x20 : u);
    }
    return i;
}

// Appends s mapped to case c. Text all in ASCII, outside the Turkic locales,
// is mapped by hand: ICU gives the same at a tenth of the speed.
void map_case(lstr_t const& s, std::string& out, case_t c) {
    if (s.empty()) return;
    std::size_t ascii = 0;
    if (c != k_title && kern_n::detail::ascii_case_plain()) {
        std::size_t const old = out.size();
        out.resize(old + s.length());
        ascii = ascii_case(s.ptr(), s.length(), &out[old], c == k_upper);  // ASCII folds to lower case
        if (ascii == s.length()) return;
        out.resize(old);
    }
    check_utf8(s, "text", ascii);
    int32_t const n = icu_length(s.length(), "text");
    UCaseMap* const cm = kern_n::detail::thread_casemap();
    // Mapping rarely grows a text; when it does, ICU says by how much.
    UErrorCode const st =
        kern_n::detail::append_icu(out, s.length() + s.length() / 8 + 16, [&](char* d, int32_t cap, UErrorCode* e) {
            switch (c) {
            case k_lower: return ucasemap_utf8ToLower(cm, d, cap, s.ptr(), n, e);
            case k_upper: return ucasemap_utf8ToUpper(cm, d, cap, s.ptr(), n, e);
            case k_title: return ucasemap_utf8ToTitle(cm, d, cap, s.ptr(), n, e);
            default: return ucasemap_utf8FoldCase(cm, d, cap, s.ptr(), n, e);
            }
        });
    if (U_FAILURE(st))
        QVL_THROW(icu_exception, "unable to map text to %s because of %s", k_case_names[c], u_errorName(st));
}

// a against b in the library's locale's collation: -1, 0 or 1.
int collate(UCollator* coll, lstr_t const& a, lstr_t const& b) {
    UErrorCode st = U_ZERO_ERROR;
    UCollationResult const r =
        ucol_strcollUTF8(coll, a.ptr(), icu_length(a.length(), "text"), b.ptr(), icu_length(b.length(), "text"), &st);
    if (U_FAILURE(st)) QVL_THROW(icu_exception, "unable to compare texts because of %s", u_errorName(st));
    return r;
}

// Case is ignored by comparing the folded texts: a collator's strength
// cannot do it everywhere (in the POSIX locale's order "a" and "A" differ
// at the first level).
int compare(lstr_t const& a, lstr_t const& b, bool ignore_case) {
    if (!ignore_case) {
        check_utf8(a, "text");
        check_utf8(b, "text");
        return collate(kern_n::detail::thread_collator(), a, b);
    }
    std::string fa, fb;
    map_case(a, fa, k_fold);
    map_case(b, fb, k_fold);
    return collate(kern_n::detail::thread_collator(), fa, fb);
}

// The thread's break iterator of a kind, set on s (well-formed UTF-8, not
// empty); its positions are byte offsets into s.
class breaker_t {
public:
    breaker_t(UBreakIteratorType type, lstr_t const& s) : bi_(kern_n::detail::thread_breaker(type)) {
        check_utf8(s, "text");
        UErrorCode st = U_ZERO_ERROR;
        utext_openUTF8(&text_, s.ptr(), icu_length(s.length(), "text"), &st);
        // The iterator keeps a copy of the text's header: text_ may go
        // before it does, s may not.
        ubrk_setUText(bi_, &text_, &st);
        if (U_FAILURE(st)) {
            utext_close(&text_);
            QVL_THROW(icu_exception, "unable to break text because of %s", u_errorName(st));
        }
    }
    ~breaker_t() { utext_close(&text_); }
    breaker_t(breaker_t const&) = delete;
    breaker_t& operator=(breaker_t const&) = delete;

    UBreakIterator* get() const noexcept { return bi_; }

private:
    UBreakIterator* const bi_;
    UText text_ = UTEXT_INITIALIZER;
};

// Appends the pieces of s between the boundaries of a kind; words_only keeps
// only those the word rules mark as words.
void pieces(UBreakIteratorType type, lstr_t const& s, std::vector<lstr_t>& out, bool words_only) {
    if (s.empty()) return;
    breaker_t b(type, s);
    int32_t start = ubrk_first(b.get());
    for (int32_t end = ubrk_next(b.get()); end != UBRK_DONE; start = end, end = ubrk_next(b.get())) {
        if (words_only && ubrk_getRuleStatus(b.get()) < UBRK_WORD_NONE_LIMIT) continue;
        out.emplace_back(s.ptr() + start, static_cast<unsigned long>(end - start));
    }
}

lstr_t first_glyphs(lstr_t const& s, unsigned long n) {
    if (s.empty() || n == 0) return lstr_t(s.ptr(), 0);
    breaker_t b(UBRK_CHARACTER, s);
    int32_t end = 0;
    for (int32_t next = ubrk_next(b.get()); n > 0 && next != UBRK_DONE; --n, next = ubrk_next(b.get())) end = next;
    return lstr_t(s.ptr(), static_cast<unsigned long>(end));
}

template <class T>
void sort_texts(std::vector<T>& items) {
    for (T const& t : items) check_utf8(lstr_t(t), "text");
    UCollator* const coll = kern_n::detail::thread_collator();
    std::stable_sort(items.begin(), items.end(),
                     [coll](T const& a, T const& b) { return collate(coll, lstr_t(a), lstr_t(b)) < 0; });
}

}  // namespace

void lower_string_uc(lstr_t const& s, std::string& out) { map_case(s, out, k_lower); }

void upper_string_uc(lstr_t const& s, std::string& out) { map_case(s, out, k_upper); }

void title_string(lstr_t const& s, std::string& out) { map_case(s, out, k_title); }

int q_strcmp_uc(lstr_t const& a, lstr_t const& b) { return compare(a, b, false); }

int q_strcasecmp_uc(lstr_t const& a, lstr_t const& b) { return compare(a, b, true); }

int q_strncasecmp_uc(lstr_t const& a, lstr_t const& b, unsigned long n) {
    return compare(first_glyphs(a, n), first_glyphs(b, n), true);
}

void q_strsort_uc(std::vector<lstr_t>& items) { sort_texts(items); }

void q_strsort_uc(std::vector<std::string>& items) { sort_texts(items); }

void break_glyph(lstr_t const& s, std::vector<lstr_t>& out) { pieces(UBRK_CHARACTER, s, out, false); }

void break_word(lstr_t const& s, std::vector<lstr_t>& out) { pieces(UBRK_WORD, s, out, true); }

void break_line(lstr_t const& s, std::vector<lstr_t>& out) { pieces(UBRK_LINE, s, out, false); }
