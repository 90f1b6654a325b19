// Tests of the string slice and of the case mapping that fills its tables.
#include "amtypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

#include "exceptions.h"
#include "unicode.h"

static_assert(std::is_trivially_copyable<lstr_t>::value, "a slice is copied as two words");
static_assert(sizeof(lstr_t) == 16, "length then pointer");

namespace {

using testing::ElementsAre;
using testing::EndsWith;

std::string S(lstr_t const& s) { return s.to_string(); }

// A slice over a literal that may hold NUL bytes.
template <std::size_t N>
lstr_t L(char const (&a)[N]) { return lstr_t(a, N - 1); }

TEST(LstrTest, ConstructionAndConversion) {
    EXPECT_TRUE(lstr_t(static_cast<char const*>(nullptr)).empty());
    EXPECT_EQ(S(lstr_t(static_cast<char const*>(nullptr))), "");
    std::string const owner("a\0b", 3);
    lstr_t const s(owner);
    EXPECT_EQ(s.length(), 3u);
    EXPECT_EQ(s.ptr(), owner.data());
    EXPECT_EQ(s.to_string(), owner);                     // embedded NUL kept
    EXPECT_EQ(lstr_t("MiXeD\xc9").to_lower_string(), "mixed\xc9");  // ASCII only in the C locale
    EXPECT_EQ(lstr_t("MiXeD").to_upper_string(), "MIXED");
    EXPECT_EQ(lstr_t().to_upper_string(), "");
}

TEST(LstrTest, Searching) {
    lstr_t const s = L("ab\0cab");
    EXPECT_TRUE(s.contain('\0'));
    EXPECT_FALSE(s.contain('z'));
    EXPECT_FALSE(lstr_t().contain('a'));
    EXPECT_EQ(s.find('b'), 1u);
    EXPECT_EQ(s.r_find('b'), 5u);
    EXPECT_EQ(s.find('z'), lstr_t::npos);
    EXPECT_EQ(lstr_t().find('a'), lstr_t::npos);
    EXPECT_EQ(lstr_t().r_find('a'), lstr_t::npos);

    EXPECT_TRUE(s.contain(lstr_t()));                    // empty needle
    EXPECT_TRUE(s.contain(L("\0ca")));
    EXPECT_FALSE(s.contain(lstr_t("ab\0cabx", 7)));      // longer
    EXPECT_TRUE(s.contain(lstr_t(s.ptr(), 2)));          // same start
    EXPECT_TRUE(lstr_t("xABy").contain_ic("ab"));
    EXPECT_FALSE(lstr_t("xABy").contain("ab"));
    EXPECT_TRUE(s.contain_one("zyb"));
    EXPECT_FALSE(s.contain_one("xyz"));
    EXPECT_FALSE(s.contain_one(""));

    EXPECT_EQ(s.find_word(lstr_t()), lstr_t::npos);
    EXPECT_EQ(s.find_word("ab"), 0u);
    EXPECT_EQ(s.find_word(L("\0c")), 2u);
    EXPECT_EQ(s.find_word("abx"), lstr_t::npos);
    EXPECT_EQ(lstr_t("ab").find_word("abc"), lstr_t::npos);
    EXPECT_EQ(lstr_t("xxaBc").find_word_ic("AbC"), 2u);
    EXPECT_EQ(lstr_t("xxaBc").find_word_ic("bcd"), lstr_t::npos);
    EXPECT_EQ(lstr_t("abc").find_word_ic(""), lstr_t::npos);
}

TEST(LstrTest, PrefixAndSuffix) {
    lstr_t const s("abcdef");
    EXPECT_TRUE(s.starts("abc"));
    EXPECT_FALSE(s.starts("abd"));
    EXPECT_FALSE(s.starts("abcdefg"));
    EXPECT_TRUE(s.starts(""));
    EXPECT_TRUE(s.ends("def"));
    EXPECT_FALSE(s.ends("abc"));
    EXPECT_FALSE(s.ends("xabcdef"));
    EXPECT_TRUE(s.ends(""));
    // A slice that begins where this begins counts as a suffix.
    EXPECT_TRUE(s.ends(lstr_t(s.ptr(), 2)));
    EXPECT_TRUE(s.ends_ic(lstr_t(s.ptr(), 2)));
    EXPECT_TRUE(s.starts_ic("ABC"));
    EXPECT_TRUE(s.ends_ic("DeF"));
    EXPECT_FALSE(s.ends_ic("DeX"));
}

TEST(LstrTest, Comparison) {
    EXPECT_EQ(lstr_t("ab").cmp("abc"), -1);
    EXPECT_EQ(lstr_t("abc").cmp("ab"), 1);
    EXPECT_EQ(lstr_t("abc").cmp("abc"), 0);
    EXPECT_EQ(lstr_t("abd").cmp("abcz"), 1);
    EXPECT_EQ(lstr_t().cmp(""), 0);
    EXPECT_EQ(lstr_t("\xc8").cmp("\x64"), 1);            // 200 after 100
    EXPECT_EQ(lstr_t("\x64").ic_cmp("\xc8"), -1);
    EXPECT_EQ(L("a\0b").cmp(L("a\0c")), -1);
    EXPECT_TRUE(lstr_t("ab").lt("abc"));
    EXPECT_FALSE(lstr_t("abc").lt("abc"));
    EXPECT_TRUE(lstr_t("ABC").ic_eq("abc"));
    EXPECT_FALSE(lstr_t("ABC").eq("abc"));
    EXPECT_FALSE(lstr_t("ab").ic_eq("abc"));
    EXPECT_EQ(lstr_t("ABD").ic_cmp("abc"), 1);
    EXPECT_EQ(lstr_t("AB").ic_cmp("abc"), -1);
    EXPECT_TRUE(lstr_t("AB").ic_lt("abc"));
    EXPECT_FALSE(lstr_t("abc").ic_lt("ABC"));
    EXPECT_TRUE(L("a\0b") == L("a\0b"));
    EXPECT_TRUE(lstr_t("a") != lstr_t("b"));
    EXPECT_TRUE(lstr_t("a") < lstr_t("b"));
    // '[' (0x5b) sorts after 'A' but before 'a': comparing upper forms.
    EXPECT_EQ(lstr_t("[").ic_cmp("a"), 1);

    EXPECT_EQ(lstr_t::strcasecmp("Hello", "hELLO"), 0);
    EXPECT_EQ(lstr_t::strcasecmp("abc", "abd"), -1);
    EXPECT_EQ(lstr_t::strcasecmp("ab", "abc"), -1);
    EXPECT_EQ(lstr_t::strcasecmp("abc", "ab"), 1);
    EXPECT_EQ(lstr_t::strcasecmp("", ""), 0);
    EXPECT_EQ(lstr_t::strcasecmp("\xc8", "d"), 1);
    EXPECT_EQ(lstr_t::strncasecmp("abX", "ABy", 2), 0);
    EXPECT_EQ(lstr_t::strncasecmp("abX", "ABy", 3), -1);
    EXPECT_EQ(lstr_t::strncasecmp("a", "b", 0), 0);
    EXPECT_EQ(lstr_t::strncasecmp("ab", "abc", 5), -1);
    EXPECT_EQ(lstr_t::strncasecmp("ab", "AB", 5), 0);
}

TEST(LstrTest, Trimming) {
    lstr_t s("xxaxx");
    EXPECT_EQ(S(s.drop('x')), "axx");
    EXPECT_EQ(S(s.r_drop('x')), "a");
    lstr_t t(",;a;b,;");
    EXPECT_EQ(S(t.drop(",;").r_drop(";,")), "a;b");
    lstr_t all("xxx");
    EXPECT_TRUE(all.drop('x').empty());
    EXPECT_EQ(S(lstr_t(" \r\n\t\fa b\f\t\n\r ").trim()), "a b");
    EXPECT_EQ(S(lstr_t("\va\v").trim()), "\va\v");       // vertical tab is not a separator
    EXPECT_TRUE(lstr_t(" \t ").trim().empty());
    EXPECT_EQ(S(lstr_t::default_separators), " \r\n\t\f");
}

TEST(LstrTest, WordByCountAndChar) {
    lstr_t s("abcdef");
    EXPECT_EQ(S(s.word(2ul)), "ab");
    EXPECT_EQ(S(s.word(10ul)), "cdef");
    EXPECT_TRUE(s.empty());

    lstr_t c("a,,b");
    EXPECT_EQ(S(c.word(',', false)), "a");
    EXPECT_EQ(S(c.word(',', false)), "");
    EXPECT_EQ(S(c.word(',', false)), "b");
    EXPECT_TRUE(c.empty());
    lstr_t e("a,");
    EXPECT_EQ(S(e.word(',', true)), "a");                // strict still cuts before a final c
    EXPECT_TRUE(e.empty());
    lstr_t n("abc");
    EXPECT_TRUE(n.word(',', true).empty());
    EXPECT_EQ(S(n), "abc");
    EXPECT_EQ(S(n.word(',', false)), "abc");
    EXPECT_TRUE(n.empty());
    EXPECT_TRUE(n.word(',', false).empty());

    lstr_t r("a.b.c");
    EXPECT_EQ(S(r.r_word('.', false)), "c");
    EXPECT_EQ(S(r), "a.b");
    lstr_t r2("a.");
    EXPECT_EQ(S(r2.r_word('.', true)), "");
    EXPECT_EQ(S(r2), "a");
    lstr_t r3("abc");
    EXPECT_TRUE(r3.r_word('.', true).empty());
    EXPECT_EQ(S(r3), "abc");
    EXPECT_EQ(S(r3.r_word('.', false)), "abc");
    EXPECT_TRUE(r3.empty());
}

TEST(LstrTest, WordBySet) {
    lstr_t s(" a b");
    EXPECT_EQ(S(s.word(" ", false)), "");
    EXPECT_EQ(S(s.word(" ", false)), "a");
    EXPECT_EQ(S(s.word(" ", false)), "b");
    EXPECT_TRUE(s.empty());

    lstr_t a("abc");
    EXPECT_TRUE(a.word(" ", true).empty());
    EXPECT_EQ(S(a), "abc");
    lstr_t b("abc \t ");
    EXPECT_TRUE(b.word(" \t", true).empty());
    EXPECT_EQ(S(b), "abc");                              // trailing separators dropped
    lstr_t c("abc \t def");
    EXPECT_EQ(S(c.word(" \t", true)), "abc");
    EXPECT_EQ(S(c), "def");
    lstr_t d("abc  ");
    EXPECT_EQ(S(d.word(" ", false)), "abc");
    EXPECT_TRUE(d.empty());
    lstr_t blanks("   ");
    EXPECT_TRUE(blanks.word(" ", true).empty());
    EXPECT_TRUE(blanks.empty());
    lstr_t hi("a\xff\xfe" "b");                          // bytes >= 128 as separators
    EXPECT_EQ(S(hi.word("\xfe\xff", false)), "a");
    EXPECT_EQ(S(hi), "b");

    lstr_t r("a  b,c");
    EXPECT_EQ(S(r.r_word(" ,", false)), "c");
    EXPECT_EQ(S(r), "a  b");
    EXPECT_EQ(S(r.r_word(" ,", true)), "b");
    EXPECT_EQ(S(r), "a");
    EXPECT_TRUE(r.r_word(" ,", true).empty());
    EXPECT_EQ(S(r), "a");
    lstr_t lead("  b");
    EXPECT_TRUE(lead.r_word(" ", true).empty());
    EXPECT_EQ(S(lead), "b");                             // separators reach the start
    lstr_t lead2("  b");
    EXPECT_EQ(S(lead2.r_word(" ", false)), "b");
    EXPECT_TRUE(lead2.empty());
    lstr_t tail("a b ");
    EXPECT_EQ(S(tail.r_word(" ", false)), "");
    EXPECT_EQ(S(tail), "a b");
}

TEST(LstrTest, WordByEol) {
    lstr_t s("line1\r\n\r\nline2");
    EXPECT_EQ(S(s.word_by_eol(true)), "line1");
    EXPECT_EQ(S(s), "line2");
    EXPECT_TRUE(s.word_by_eol(true).empty());
    EXPECT_EQ(S(s), "line2");
    EXPECT_EQ(S(s.word_by_eol(false)), "line2");
    EXPECT_TRUE(s.empty());
    lstr_t t("\n\nx\n\r");
    EXPECT_EQ(S(t.word_by_eol(false)), "");              // a leading ending gives one empty line
    EXPECT_EQ(S(t.word_by_eol(true)), "");
    EXPECT_EQ(S(t), "x");
    lstr_t u("a\tb\n");
    EXPECT_EQ(S(u.word_by_eol(false)), "a\tb");
    EXPECT_TRUE(u.empty());
}

TEST(LstrTest, WordBySeparatorString) {
    lstr_t s("a::b::c");
    EXPECT_EQ(S(s.word_word("::", false)), "a");
    EXPECT_EQ(S(s), "b::c");
    lstr_t r("a::b::c");
    EXPECT_EQ(S(r.r_word_word("::", false)), "c");
    EXPECT_EQ(S(r), "a::b");
    lstr_t n("abc");
    EXPECT_TRUE(n.word_word("::", true).empty());
    EXPECT_EQ(S(n), "abc");
    EXPECT_TRUE(n.r_word_word("::", true).empty());
    EXPECT_EQ(S(n), "abc");
    EXPECT_EQ(S(n.word_word("::", false)), "abc");
    EXPECT_TRUE(n.empty());
    lstr_t m("abc");
    EXPECT_EQ(S(m.r_word_word("abcd", false)), "abc");   // separator longer than the slice
    EXPECT_TRUE(m.empty());
    lstr_t e("abc");
    EXPECT_EQ(S(e.word_word("", true)), "abc");          // an empty separator takes all
    EXPECT_TRUE(e.empty());
    lstr_t re("abc");
    EXPECT_EQ(S(re.r_word_word("", true)), "abc");
    EXPECT_TRUE(re.empty());
    lstr_t end("a::");
    EXPECT_EQ(S(end.word_word("::", true)), "a");
    EXPECT_TRUE(end.empty());
    lstr_t over("aaa");                                  // the last occurrence starts at 1
    EXPECT_EQ(S(over.r_word_word("aa", false)), "");
    EXPECT_EQ(S(over), "a");

    lstr_t ic("oneANDtwoandthree");
    EXPECT_EQ(S(ic.word_word_ic("and", true)), "one");
    EXPECT_EQ(S(ic), "twoandthree");
    lstr_t ric("oneANDtwoandthree");
    EXPECT_EQ(S(ric.r_word_word_ic("AnD", true)), "three");
    EXPECT_EQ(S(ric), "oneANDtwo");
    EXPECT_TRUE(ric.word_word_ic("xyz", true).empty());
    EXPECT_EQ(S(ric), "oneANDtwo");
    EXPECT_TRUE(ric.r_word_word_ic("xyz", true).empty());
    EXPECT_EQ(S(ric.r_word_word_ic("xyz", false)), "oneANDtwo");
    EXPECT_TRUE(ric.empty());
}

TEST(LstrTest, SkipWordsAndCounting) {
    lstr_t s("  a  b c");
    EXPECT_EQ(S(s.skip_words(2, ' ')), "c");
    EXPECT_TRUE(s.skip_words(5, ' ').empty());
    lstr_t z("a b");
    EXPECT_EQ(S(z.skip_words(0, ' ')), "a b");

    EXPECT_EQ(lstr_t(" a b").words(""), 3u);
    EXPECT_EQ(lstr_t("a b ").words(""), 2u);
    EXPECT_EQ(lstr_t("").words(""), 0u);
    EXPECT_EQ(lstr_t("a\r\n\t\fb").words(""), 2u);       // the default set
    EXPECT_EQ(lstr_t("a b,c").words(","), 2u);
    std::vector<lstr_t> out{lstr_t("kept")};
    EXPECT_EQ(lstr_t(",x,,y").words(out, ","), 3u);
    std::vector<std::string> got;
    for (lstr_t const& w : out) got.push_back(S(w));
    EXPECT_THAT(got, ElementsAre("kept", "", "x", "y"));
}

TEST(LstrTest, Hashing) {
    EXPECT_EQ(lstr_t("ab").calc_hash32(), 3105u);
    EXPECT_EQ(lstr_t("ab").calc_hash64(), 3105u);
    EXPECT_EQ(lstr_t("").calc_hash32(), 0u);
    EXPECT_EQ(lstr_t("").calc_hash64(), 0u);
    EXPECT_EQ(lstr_t("\xff").calc_hash32(), 255u);       // unsigned bytes
    std::string const text(40, '\xfe');
    q_uint32_t h32 = 0xfe;
    q_uint64_t h64 = 0xfe;
    for (std::size_t i = 1; i < text.size(); ++i) {
        h32 = h32 * 31u + 0xfeu;
        h64 = h64 * 31u + 0xfeu;
    }
    EXPECT_EQ(lstr_t(text).calc_hash32(), h32);
    EXPECT_EQ(lstr_t(text).calc_hash64(), h64);
    EXPECT_NE(q_uint64_t(lstr_t(text).calc_hash32()), lstr_t(text).calc_hash64());  // both wrapped
}

TEST(LstrTest, CaseTablesAndMapping) {
    // The test runs in the C locale (or a UTF-8 one): single bytes >= 128
    // are not characters there, so only ASCII letters change.
    for (unsigned v = 0; v < 256; ++v) {
        unsigned char const up = (v >= 'a' && v <= 'z') ? v - 32 : v;
        unsigned char const lo = (v >= 'A' && v <= 'Z') ? v + 32 : v;
        EXPECT_EQ(lstr_t::upcase[v], up) << v;
        EXPECT_EQ(lstr_t::locase[v], lo) << v;
    }
    EXPECT_EQ(upper_string_uc("abc\xc3\xa9"), "ABC\xc3\x89");
    EXPECT_EQ(upper_string_uc("stra\xc3\x9f" "e"), "STRASSE");
    EXPECT_EQ(lower_string_uc("ABC"), "abc");
    EXPECT_EQ(upper_string_uc(""), "");
    try {
        upper_string_uc("\xff");
        ADD_FAILURE() << "an invalid byte was mapped";
    } catch (icu_exception_shell_t const& e) {
        EXPECT_THAT(e.what(), testing::StartsWith("unable to convert text to Unicode because of U_"));
    }
    try {
        kern::ICU_setlocale("de_DE.no-such-code-set");
        ADD_FAILURE() << "an unknown code set was taken";
    } catch (icu_exception_shell_t const& e) {
        EXPECT_THAT(e.what(), testing::StartsWith("unknown code set \"no-such-code-set\" because of U_"));
    }
}

// The tables follow the locale: in Turkish ISO-8859-9, 'i' goes up to the
// dotted capital (0xdd) and 'I' down to the dotless small i (0xfd); the
// sharp s (0xdf) upper-cases to two letters and keeps its entry.
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
