// Tests of the string slice and of the case mapping that fills its tables.
#include "amtypes.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <type_traits>

#include "exceptions.h"
#include "unicode.h"

static_assert(std::is_trivially_copyable<lstr_t>::value, "a slice is copied as two words");
static_assert(sizeof(lstr_t) == 16, "length then pointer");

namespace {

std::string S(lstr_t const& s) { return s.to_string(); }

// A slice over a literal that may hold NUL bytes.
template <std::size_t N>
lstr_t L(char const (&a)[N]) { return lstr_t(a, N - 1); }

// The cutting operations under one signature (arg: the separator or set).
using cut_t = lstr_t (*)(lstr_t&, lstr_t, bool);
lstr_t by_char(lstr_t& s, lstr_t a, bool strict) { return s.word(a[0], strict); }
lstr_t r_by_char(lstr_t& s, lstr_t a, bool strict) { return s.r_word(a[0], strict); }
lstr_t by_set(lstr_t& s, lstr_t a, bool strict) { return s.word(a, strict); }
lstr_t r_by_set(lstr_t& s, lstr_t a, bool strict) { return s.r_word(a, strict); }
lstr_t by_eol(lstr_t& s, lstr_t, bool strict) { return s.word_by_eol(strict); }
lstr_t by_sep(lstr_t& s, lstr_t a, bool strict) { return s.word_word(a, strict); }
lstr_t r_by_sep(lstr_t& s, lstr_t a, bool strict) { return s.r_word_word(a, strict); }
lstr_t by_sep_ic(lstr_t& s, lstr_t a, bool strict) { return s.word_word_ic(a, strict); }
lstr_t r_by_sep_ic(lstr_t& s, lstr_t a, bool strict) { return s.r_word_word_ic(a, strict); }

TEST(LstrTest, ConversionAndHashing) {
    EXPECT_TRUE(lstr_t(static_cast<char const*>(nullptr)).empty());
    std::string const owner("a\0b", 3);
    EXPECT_EQ(lstr_t(owner).to_string(), owner);                    // embedded NUL kept
    EXPECT_EQ(lstr_t("MiXeD\xc9").to_lower_string(), "mixed\xc9");  // ASCII only in the C locale
    EXPECT_EQ(lstr_t("MiXeD").to_upper_string(), "MIXED");

    // h * 31 + byte on unsigned bytes, each in its own width: both wrap for 40 bytes of 0xfe.
    std::string const text(40, '\xfe');
    EXPECT_EQ(lstr_t("ab").calc_hash32(), 3105u);
    EXPECT_EQ(lstr_t("\xff").calc_hash64(), 255u);
    EXPECT_EQ(lstr_t().calc_hash64(), 0u);
    EXPECT_NE(q_uint64_t(lstr_t(text).calc_hash32()), lstr_t(text).calc_hash64());
}

TEST(LstrTest, SearchingAndAffixes) {
    lstr_t const s = L("ab\0cab");
    unsigned long const no = lstr_t::npos;
    struct { lstr_t hay; char c; bool has; unsigned long at, r_at; } const chars[] = {
        {s, '\0', true, 2, 2}, {s, 'b', true, 1, 5}, {s, 'z', false, no, no}, {lstr_t(), 'a', false, no, no}};
    for (auto const& c : chars) {
        EXPECT_EQ(c.hay.contain(c.c), c.has) << c.c;
        EXPECT_EQ(c.hay.find(c.c), c.at) << c.c;
        EXPECT_EQ(c.hay.r_find(c.c), c.r_at) << c.c;
    }
    // An empty needle, one with a NUL, one at the same start; then a longer one.
    for (lstr_t sub : {lstr_t(), L("\0ca"), lstr_t(s.ptr(), 2)}) EXPECT_TRUE(s.contain(sub)) << S(sub);
    EXPECT_FALSE(s.contain(lstr_t("ab\0cabx", 7)));
    EXPECT_TRUE(lstr_t("xABy").contain_ic("ab"));
    EXPECT_FALSE(lstr_t("xABy").contain("ab"));
    EXPECT_TRUE(s.contain_one("zyb"));
    EXPECT_FALSE(s.contain_one("xyz"));
    EXPECT_FALSE(s.contain_one(""));
    struct { lstr_t hay, sub; unsigned long at; bool ic; } const finds[] = {
        {s, lstr_t(), no, false}, {s, "ab", 0, false}, {s, L("\0c"), 2, false}, {s, "abx", no, false},
        {"ab", "abc", no, false}, {"xxaBc", "AbC", 2, true}, {"xxaBc", "bcd", no, true}, {"abc", "", no, true}};
    for (auto const& f : finds)
        EXPECT_EQ(f.ic ? f.hay.find_word_ic(f.sub) : f.hay.find_word(f.sub), f.at) << S(f.hay) << " " << S(f.sub);

    // Prefix and suffix, exact and case-insensitive; a slice that begins where this begins counts as a suffix.
    lstr_t const t("abcdef");
    struct { lstr_t p; bool starts, ends, starts_ic, ends_ic; } const affixes[] = {
        {"abc", 1, 0, 1, 0}, {"def", 0, 1, 0, 1}, {"", 1, 1, 1, 1}, {"abcdef", 1, 1, 1, 1}, {"abd", 0, 0, 0, 0},
        {"abcdefg", 0, 0, 0, 0}, {"xabcdef", 0, 0, 0, 0}, {lstr_t(t.ptr(), 2), 1, 1, 1, 1}, {"ABC", 0, 0, 1, 0},
        {"DeF", 0, 0, 0, 1}, {"DeX", 0, 0, 0, 0}};
    for (auto const& a : affixes) {
        EXPECT_EQ(t.starts(a.p), a.starts) << S(a.p);
        EXPECT_EQ(t.ends(a.p), a.ends) << S(a.p);
        EXPECT_EQ(t.starts_ic(a.p), a.starts_ic) << S(a.p);
        EXPECT_EQ(t.ends_ic(a.p), a.ends_ic) << S(a.p);
    }
}

// Both comparisons on unsigned bytes; the case-insensitive one compares upper forms: '[' sorts between 'A' and 'a'.
TEST(LstrTest, Comparison) {
    struct { lstr_t a, b; int cmp, ic; } const pairs[] = {
        {"ab", "abc", -1, -1}, {"abc", "ab", 1, 1}, {"abc", "abc", 0, 0}, {"abd", "abcz", 1, 1}, {lstr_t(), "", 0, 0},
        {"\xc8", "\x64", 1, 1}, {L("a\0b"), L("a\0c"), -1, -1}, {L("a\0b"), L("a\0b"), 0, 0}, {"ABC", "abc", -1, 0},
        {"ABD", "abc", -1, 1}, {"AB", "abc", -1, -1}, {"a", "b", -1, -1}, {"[", "a", -1, 1}};
    for (auto const& p : pairs) {
        SCOPED_TRACE(S(p.a) + " vs " + S(p.b));
        EXPECT_EQ(p.a.cmp(p.b), p.cmp);
        EXPECT_EQ(p.a.ic_cmp(p.b), p.ic);
        EXPECT_EQ(p.a.lt(p.b), p.cmp < 0);
        EXPECT_EQ(p.a.eq(p.b), p.cmp == 0);
        EXPECT_EQ(p.a.ic_lt(p.b), p.ic < 0);
        EXPECT_EQ(p.a.ic_eq(p.b), p.ic == 0);
    }
    struct { char const *a, *b; unsigned long n; int want; } const cstrings[] = {
        {"Hello", "hELLO", ~0UL, 0}, {"abc", "abd", ~0UL, -1}, {"ab", "abc", ~0UL, -1}, {"abc", "ab", ~0UL, 1},
        {"", "", ~0UL, 0}, {"\xc8", "d", ~0UL, 1}, {"abX", "ABy", 2, 0}, {"abX", "ABy", 3, -1}, {"a", "b", 0, 0},
        {"ab", "abc", 5, -1}, {"ab", "AB", 5, 0}};
    for (auto const& c : cstrings)
        EXPECT_EQ(c.n == ~0UL ? lstr_t::strcasecmp(c.a, c.b) : lstr_t::strncasecmp(c.a, c.b, c.n), c.want)
            << c.a << " " << c.b << " " << c.n;
}

// Each row cuts from text once per character of modes ('s' strict, 'n' not): the tokens, then what is left.
TEST(LstrTest, Cutting) {
    struct { cut_t cut; lstr_t text, arg; char const* modes; char const* want; } const cases[] = {
        {by_char, "a,", ",", "s", "a|"}, {r_by_char, "a.", ".", "s", "|a"},  // strict: a final separator still cuts
        {by_char, "a,,b", ",", "nnnn", "a||b||"}, {by_char, "abc", ",", "snn", "|abc||"},
        {r_by_char, "a.b.c", ".", "n", "c|a.b"}, {r_by_char, "abc", ".", "sn", "|abc|"},
        {by_set, " a b", " ", "nnn", "|a|b|"}, {by_set, "abc", " ", "s", "|abc"},
        {by_set, "abc \t ", " \t", "s", "|abc"},  // trailing separators dropped
        {by_set, "abc \t def", " \t", "s", "abc|def"}, {by_set, "abc  ", " ", "n", "abc|"},
        {by_set, "   ", " ", "s", "|"}, {by_set, "a\xff\xfe" "b", "\xfe\xff", "n", "a|b"},  // bytes >= 128 separate
        {r_by_set, "a  b,c", " ,", "nss", "c|b||a"}, {r_by_set, "  b", " ", "s", "|b"},  // separators reach the start
        {r_by_set, "  b", " ", "n", "b|"}, {r_by_set, "a b ", " ", "n", "|a b"},
        {by_eol, "line1\r\n\r\nline2", "", "ssn", "line1||line2|"}, {by_eol, "a\tb\n", "", "n", "a\tb|"},
        {by_eol, "\n\nx\n\r", "", "ns", "||x"},  // a leading ending gives one empty line
        {by_sep, "a::b::c", "::", "n", "a|b::c"}, {r_by_sep, "a::b::c", "::", "n", "c|a::b"},
        {by_sep, "abc", "::", "sn", "|abc|"}, {r_by_sep, "abc", "::", "s", "|abc"},
        {r_by_sep, "abc", "abcd", "n", "abc|"},  // separator longer than the slice
        {by_sep, "abc", "", "s", "abc|"}, {r_by_sep, "abc", "", "s", "abc|"},  // an empty separator takes all
        {by_sep, "a::", "::", "s", "a|"}, {r_by_sep, "aaa", "aa", "n", "|a"},  // the last occurrence starts at 1
        {by_sep_ic, "oneANDtwoandthree", "and", "s", "one|twoandthree"},
        {r_by_sep_ic, "oneANDtwoandthree", "AnD", "s", "three|oneANDtwo"},
        {by_sep_ic, "oneANDtwo", "xyz", "s", "|oneANDtwo"}, {r_by_sep_ic, "oneANDtwo", "xyz", "sn", "|oneANDtwo|"}};
    for (auto const& c : cases) {
        lstr_t s = c.text;
        std::string got;
        for (char const* m = c.modes; *m != '\0'; ++m) got += S(c.cut(s, c.arg, *m == 's')) + "|";
        EXPECT_EQ(got + S(s), c.want) << S(c.text) << " by " << S(c.arg) << " " << c.modes;
    }
    lstr_t s("abcdef");
    EXPECT_EQ(S(s.word(2ul)), "ab");
    EXPECT_EQ(S(s.word(10ul)), "cdef");
    EXPECT_TRUE(s.empty());
}

TEST(LstrTest, TrimmingSkippingAndCounting) {
    lstr_t s("xxaxx");
    EXPECT_EQ(S(s.drop('x')), "axx");
    EXPECT_EQ(S(s.r_drop('x')), "a");
    EXPECT_EQ(S(lstr_t(",;a;b,;").drop(",;").r_drop(";,")), "a;b");
    EXPECT_TRUE(lstr_t("xxx").drop('x').empty());
    EXPECT_EQ(S(lstr_t(" \r\n\t\fa b\f\t\n\r ").trim()), "a b");
    EXPECT_EQ(S(lstr_t("\va\v").trim()), "\va\v");  // vertical tab is not a separator
    EXPECT_TRUE(lstr_t(" \t ").trim().empty());

    lstr_t w("  a  b c");
    EXPECT_EQ(S(w.skip_words(2, ' ')), "c");
    EXPECT_TRUE(w.skip_words(5, ' ').empty());
    EXPECT_EQ(S(lstr_t("a b").skip_words(0, ' ')), "a b");

    struct { lstr_t text, sep; unsigned long n; } const counts[] = {  // "": the default set
        {" a b", "", 3}, {"a b ", "", 2}, {"", "", 0}, {"a\r\n\t\fb", "", 2}, {"a b,c", ",", 2}};
    for (auto const& c : counts) EXPECT_EQ(c.text.words(c.sep), c.n) << S(c.text);
    std::vector<lstr_t> out{lstr_t("kept")};
    EXPECT_EQ(lstr_t(",x,,y").words(out, ","), 3u);
    std::vector<std::string> got;
    for (lstr_t const& w : out) got.push_back(S(w));
    EXPECT_THAT(got, testing::ElementsAre("kept", "", "x", "y"));
}

// In the C locale (or a UTF-8 one) single bytes >= 128 are not characters: only ASCII letters change.
TEST(LstrTest, CaseTablesAndUnknownCodeSet) {
    for (unsigned v : {0u, 64u, 65u, 90u, 91u, 96u, 97u, 122u, 123u, 0xc9u, 0xe9u, 0xffu}) {
        EXPECT_EQ(lstr_t::upcase[v], v >= 'a' && v <= 'z' ? v - 32 : v) << v;
        EXPECT_EQ(lstr_t::locase[v], v >= 'A' && v <= 'Z' ? v + 32 : v) << v;
    }
    try {
        kern::ICU_setlocale("de_DE.no-such-code-set");
        ADD_FAILURE() << "an unknown code set was taken";
    } catch (icu_exception_shell_t const& e) {
        EXPECT_THAT(e.what(), testing::StartsWith("unknown code set \"no-such-code-set\" because of U_"));
    }
}

// The tables follow the locale: in Turkish ISO-8859-9, 'i' goes up to the dotted capital (0xdd) and 'I' down to
// the dotless small i (0xfd); the sharp s (0xdf) upper-cases to two letters and keeps its entry.
TEST(LstrTest, InitCaseFollowsLocale) {
    EXPECT_EXIT(
        {
            kern::ICU_setlocale("tr_TR.ISO-8859-9");
            lstr_t::init_case();
            bool ok = lstr_t::upcase[static_cast<unsigned char>('i')] == 0xdd &&
                      lstr_t::locase[static_cast<unsigned char>('I')] == 0xfd &&
                      lstr_t::upcase[0xe7] == 0xc7 && lstr_t::locase[0xc7] == 0xe7 &&
                      lstr_t::upcase[0xdf] == 0xdf && lstr_t("i").ic_eq("\xdd");
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            setenv("LANG", "de_DE.ISO-8859-1", 1);
            unsetenv("LC_ALL");
            unsetenv("LC_CTYPE");
            kern::ICU_ctor();
            lstr_t::init_case();
            std::exit(lstr_t::upcase[0xe9] == 0xc9 && lstr_t::upcase[0x69] == 'I' ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
