// The Unicode services against facts of the languages (a reader of each can
// check them), UTF-8 validity against Unicode's definition of well-formed,
// and the errors. The library's locale is process-wide: checks under a named
// locale run in a child process.
#include "unicode.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "exceptions.h"
#include "test-support.h"

namespace {

// Runs check in a child process whose library locale is locale (none: the
// test's own); it answers "" or what went wrong, which the child prints.
void in_locale(char const* locale, std::function<std::string()> const& check) {
    if (!locale) {
        EXPECT_EQ(check(), "");
        return;
    }
    EXPECT_EXIT(
        {
            kern::ICU_setlocale(locale);
            std::string const wrong = check();
            std::fputs(wrong.c_str(), stderr);
            _exit(wrong.empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "")
        << locale;
}

// What call throws as an ICU failure, or "(nothing thrown)".
std::string icu_error(std::function<void()> const& call) { return test_support::thrown<icu_exception_shell_t>(call); }

std::string joined(std::vector<lstr_t> const& pieces) {
    std::string r;
    for (lstr_t const& p : pieces) r.append(p.ptr(), p.length()).append("|");
    return r;
}

TEST(Unicode, CaseMapping) {
    typedef void (*map_t)(lstr_t const&, std::string&);
    struct { char const* locale; map_t map; char const *in, *out; } const rows[] = {
        {nullptr, upper_string_uc, "Stra\u00dfe", "STRASSE"},
        {nullptr, upper_string_uc, "abc-XYZ 09~", "ABC-XYZ 09~"},  // ASCII, no ICU
        {nullptr, lower_string_uc, "abc-XYZ 09~", "abc-xyz 09~"},
        {"de_DE.UTF-8", upper_string_uc, "istanbul", "ISTANBUL"},
        {"tr_TR.UTF-8", upper_string_uc, "istanbul", "\u0130STANBUL"},
        {"tr_TR.UTF-8", lower_string_uc, "ISPARTA", "\u0131sparta"},
        // sigma ending a word is final, inside it is not
        {nullptr, lower_string_uc, "\u03a3\u039f\u03a6\u039f\u03a3 \u039d\u039f\u03a3", "\u03c3\u03bf\u03c6\u03bf\u03c2 \u03bd\u03bf\u03c2"},
        {nullptr, title_string, "hELLO wORLD, don't", "Hello World, Don't"},
        {"nl_NL.UTF-8", title_string, "ijsland", "IJsland"},
        {nullptr, upper_string_uc, "", ""},
    };
    for (auto const& r : rows)
        in_locale(r.locale, [&] {
            std::string got = "kept:";
            r.map(r.in, got);
            return got == std::string("kept:") + r.out ? "" : r.in + (" gave " + got);
        });
}

TEST(Unicode, Collation) {
    struct { char const* locale; decltype(&q_strcmp_uc) cmp; char const *a, *b; int sign; } const rows[] = {
        {"sv_SE.UTF-8", q_strcmp_uc, "\u00e4", "z", 1},  // Swedish: ä is a letter after z
        {"de_DE.UTF-8", q_strcmp_uc, "\u00e4", "z", -1},  // German: ä goes with a
        {"en_US.UTF-8", q_strcmp_uc, "a", "B", -1},  // not byte order
        {"en_US.UTF-8", q_strcmp_uc, "e\u0301", "\u00e9", 0},  // the same letter in two spellings
        {"en_US.UTF-8", q_strcasecmp_uc, "STRA\u1e9eE", "stra\u00dfe", 0},  // capital and small sharp s
        {nullptr, q_strcasecmp_uc, "STRASSE", "stra\u00dfe", 0},
        {nullptr, q_strcasecmp_uc, "\u00c9COLE", "\u00e9cole", 0},
        {"tr_TR.UTF-8", q_strcasecmp_uc, "ISPARTA", "\u0131sparta", 0},  // I is the capital of dotless ı
        {"tr_TR.UTF-8", q_strcasecmp_uc, "\u0130zmir", "izmir", 0},
        {"tr_TR.UTF-8", q_strcasecmp_uc, "I", "i", -1},  // ı before i in the alphabet
        {"en_US.UTF-8", q_strcasecmp_uc, "RESUME", "r\u00e9sum\u00e9", -1},  // accents still count
    };
    for (auto const& r : rows)
        in_locale(r.locale, [&] {
            int const got = r.cmp(r.a, r.b);
            return got == r.sign ? "" : std::string(r.a) + " vs " + r.b + " gave " + std::to_string(got);
        });
    in_locale("en_US.UTF-8", [] {
        // n counts glyphs: the decomposed É is one
        int const r4 = q_strncasecmp_uc("E\u0301clair", "\u00c9CLAT", 4), r5 = q_strncasecmp_uc("E\u0301clair", "\u00c9CLAT", 5);
        return r4 == 0 && r5 == -1 && q_strncasecmp_uc("x", "y", 0) == 0 ? "" : "prefix comparison";
    });
    std::pair<char const*, char const*> const sorts[] = {{"sv_SE.UTF-8", "apa|bok|zebra|\u00e4rlig|\u00f6l|"},
                                                         {"de_DE.UTF-8", "apa|\u00e4rlig|bok|\u00f6l|zebra|"}};
    for (auto const& [locale, sorted] : sorts)
        in_locale(locale, [&, sorted = sorted] {
            std::vector<std::string> words = {"zebra", "\u00f6l", "\u00e4rlig", "bok", "apa"};
            q_strsort_uc(words);
            std::vector<lstr_t> slices(words.begin(), words.end());
            std::reverse(slices.begin(), slices.end());
            q_strsort_uc(slices);
            std::string const got = joined(std::vector<lstr_t>(words.begin(), words.end()));
            return got == sorted && joined(slices) == got ? "" : got;
        });
}

TEST(Unicode, Breaking) {
    struct { void (*brk)(lstr_t const&, std::vector<lstr_t>&); char const *in, *pieces; } const rows[] = {
        // family of four joined by ZWJ; two flags; e with acute and dot below; CR LF
        {break_glyph, "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466!", "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466|!|"},
        {break_glyph, "\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7", "\U0001F1E9\U0001F1EA|\U0001F1EB\U0001F1F7|"},
        {break_glyph, "e\u0301\u0323x\r\n", "e\u0301\u0323|x|\r\n|"},
        {break_word, "Hello, world! 42 times; don't.", "Hello|world|42|times|don't|"},
        // "hello" + polite particle; "language Thai easy little bit"
        {break_word, "\u0e2a\u0e27\u0e31\u0e2a\u0e14\u0e35\u0e04\u0e23\u0e31\u0e1a", "\u0e2a\u0e27\u0e31\u0e2a\u0e14\u0e35|\u0e04\u0e23\u0e31\u0e1a|"},
        {break_word, "\u0e20\u0e32\u0e29\u0e32\u0e44\u0e17\u0e22\u0e07\u0e48\u0e32\u0e22\u0e19\u0e34\u0e14\u0e40\u0e14\u0e35\u0e22\u0e27",
         "\u0e20\u0e32\u0e29\u0e32|\u0e44\u0e17\u0e22|\u0e07\u0e48\u0e32\u0e22|\u0e19\u0e34\u0e14|\u0e40\u0e14\u0e35\u0e22\u0e27|"},
        // "Japanese" + particle + "text"
        {break_word, "\u65e5\u672c\u8a9e\u306e\u30c6\u30ad\u30b9\u30c8", "\u65e5\u672c\u8a9e|\u306e|\u30c6\u30ad\u30b9\u30c8|"},
        {break_line, "The quick (brown) fox-like dog.\nNext", "The |quick |(brown) |fox-|like |dog.\n|Next|"},
        {break_word, "", ""},
    };
    for (auto const& r : rows) {
        std::vector<lstr_t> out{lstr_t("kept")};
        r.brk(r.in, out);
        EXPECT_EQ(joined(out), std::string("kept|") + r.pieces) << r.in;
    }
}

// Each thread has its own case map, collator and break iterators, none of
// which ICU lets two threads share.
TEST(Unicode, ThreadsAtOnce) {
    std::atomic<int> wrong(0);
    test_support::on_threads(4, [&](int) {
        for (int i = 0; i < 300; ++i) {
            std::vector<lstr_t> words;
            break_word("Zw\u00f6lf Boxk\u00e4mpfer jagen Viktor", words);
            wrong += words.size() != 4 || upper_string_uc("gro\u00df") != "GROSS" ||
                     q_strcasecmp_uc("\u00c9COLE", "\u00e9cole") != 0;
        }
    });
    EXPECT_EQ(wrong, 0);
}

TEST(Unicode, CodePagesRoundTrip) {
    struct { char const *codepage, *utf8, *local; } const rows[] = {
        {"windows-1251", "\u041f\u0440\u0438\u0432\u0435\u0442, \u043c\u0438\u0440", "\xcf\xf0\xe8\xe2\xe5\xf2, \xec\xe8\xf0"},
        {"Shift_JIS", "\u65e5\u672c\u8a9e\u30c6\u30ad\u30b9\u30c8 ok", "\x93\xfa\x96\x7b\x8c\xea\x83\x65\x83\x4c\x83\x58\x83\x67 ok"},
        {"ISO-2022-JP", "\u65e5\u672c", "\x1b$BF|K\\\x1b(B"},  // stateful: closed at the end
        {"UTF-8", "\u00e9\U0001F600", "\u00e9\U0001F600"},
    };
    for (auto const& r : rows) {
        std::string local = "k", back = "k";
        utf8_2_local(r.utf8, local, r.codepage);
        local_2_utf8(r.local, back, r.codepage);
        std::u16string wide, direct;
        local_2_unicode(r.local, wide, r.codepage);
        from_utf8_to_unicode(r.utf8, direct);
        std::string local_again, utf8_again;
        unicode_2_local(wide, local_again, r.codepage);
        from_unicode_to_utf8(direct, utf8_again);
        EXPECT_EQ(local, std::string("k") + r.local) << r.codepage;
        EXPECT_EQ(back, std::string("k") + r.utf8) << r.codepage;
        EXPECT_TRUE(wide == direct && local_again == r.local && utf8_again == r.utf8) << r.codepage;
    }
    // The library's code page is the locale's code set.
    in_locale("ru_RU.CP1251", [] {
        std::string out;
        local_2_utf8("\xcf\xf0\xe8", out);
        utf8_2_local("\u0432\u0435\u0442", out);
        return out == "\u041f\u0440\u0438\xe2\xe5\xf2" ? "" : out;
    });
}

TEST(Unicode, Utf8Validity) {
    // Code points at each length boundary and around the surrogates, one by one and in one text (from U+0000).
    std::string all(1, '\0');
    for (char const* c : {"\x7f", "\u0080", "\u07ff", "\u0800", "\ud7ff", "\ue000", "\ufffd", "\uffff", "\U00010000",
                          "\U0010ffff"}) {
        EXPECT_TRUE(is_valid_utf8(c)) << c;
        all += c;
    }
    std::u16string wide;
    from_utf8_to_unicode(all, wide);
    std::string back;
    from_unicode_to_utf8(wide, back);
    EXPECT_TRUE(is_valid_utf8(all) && back == all);
    // Cut inside a character, a text is invalid; between two, valid.
    std::string const mixed = "a\u00e9\u4e2d\U0001F600";
    for (std::size_t k = 0; k <= mixed.size(); ++k)
        EXPECT_EQ(is_valid_utf8(lstr_t(mixed.data(), k)), k == 0 || k == 1 || k == 3 || k == 6 || k == 10) << k;
    // Damage around the 32-byte block edges, a bad byte or the end cut in,
    // is reported at the start of its sequence.
    std::string base;
    for (int i = 0; i < 8; ++i) base += "a\u00e9\u4e2d\U0001F600 ";
    for (std::size_t k : {0, 1, 2, 4, 7, 9, 30, 31, 32, 33, 63, 64, 65, 86, 87}) {
        std::size_t start = k;
        while ((base[start] & 0xC0) == 0x80) --start;
        std::string hit = base, cut = base.substr(0, k) + std::string(40, 'x');
        hit[k] = '\xff';
        for (std::string const* t : {&hit, &cut}) {
            if (t == &cut && start == k) continue;  // cut between characters: well-formed
            std::u16string out;
            EXPECT_FALSE(is_valid_utf8(*t)) << k;
            EXPECT_THAT(icu_error([&] { from_utf8_to_unicode(*t, out); }),
                        testing::HasSubstr("at byte " + std::to_string(start) + " ")) << k;
        }
    }
    struct { char const* text; unsigned at; } const bad[] = {  // at: the first bad byte
        {"\xc0\x80", 0},          {"\xc1\xbf", 0},          {"\xe0\x9f\xbf", 0},  // overlong
        {"\xf0\x8f\xbf\xbf", 0},  {"\xed\xa0\x80", 0},      {"\xed\xbf\xbf", 0},  // overlong, surrogates
        {"\xf4\x90\x80\x80", 0},  {"\xf5\x80\x80\x80", 0},  {"ab\xff", 2},        // above U+10FFFF
        {"\x80", 0},              {"a\xe2\x28\xa1", 1},     {"\xf0\x9f\x98", 0},  // stray, bad, truncated
        {"abcdefghijklmnopqrstuvwxyz\xc3", 26},  {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\xe2\x82", 18},
    };
    for (auto const& b : bad) {
        EXPECT_FALSE(is_valid_utf8(b.text)) << b.text;
        std::u16string out = u"kept";
        EXPECT_EQ(icu_error([&] { from_utf8_to_unicode(b.text, out); }),
                  "text is not valid UTF-8 at byte " + std::to_string(b.at) + " because of U_INVALID_CHAR_FOUND");
        EXPECT_TRUE(out == u"kept");
    }
}

TEST(Unicode, Errors) {
    struct { std::function<void(std::string&)> call; char const* what; } const rows[] = {
        {[](std::string& o) { upper_string_uc("ok \xed\xa0\x80", o); }, "text is not valid UTF-8 at byte 3 because of U_INVALID_CHAR_FOUND"},
        {[](std::string&) { q_strcmp_uc("a", "\xc0\xaf"); }, "text is not valid UTF-8 at byte 0 because of U_INVALID_CHAR_FOUND"},
        {[](std::string&) { std::vector<lstr_t> v{"a", "b\xe2\x82"}; q_strsort_uc(v); }, "text is not valid UTF-8 at byte 1 because of U_INVALID_CHAR_FOUND"},
        {[](std::string&) { std::vector<lstr_t> v; break_glyph("ab\xf8", v); }, "text is not valid UTF-8 at byte 2 because of U_INVALID_CHAR_FOUND"},
        {[](std::string& o) { utf8_2_local("a\u4e2d", o, "windows-1251"); }, "unable to convert U+4E2D to \"windows-1251\" because of U_INVALID_CHAR_FOUND"},
        {[](std::string& o) { local_2_utf8("a\x81\x20", o, "Shift_JIS"); }, "unable to convert text from \"Shift_JIS\" at byte 1 because of U_ILLEGAL_CHAR_FOUND"},
        {[](std::string& o) { local_2_utf8("\x82\xa0\x81", o, "Shift_JIS"); }, "unable to convert text from \"Shift_JIS\" at byte 2 because of U_TRUNCATED_CHAR_FOUND"},
        {[](std::string& o) { local_2_utf8("a\xbf", o, "ISO-8859-8"); }, "unable to convert text from \"ISO-8859-8\" at byte 1 because of U_INVALID_CHAR_FOUND"},
        {[](std::string& o) { local_2_utf8("", o, "no-such"); }, "unable to open the converter of \"no-such\" because of U_FILE_ACCESS_ERROR"},
        {[](std::string& o) { from_unicode_to_utf8(u"ab\xd800" u"c", o); }, "unable to convert U+D800 at unit 2 to UTF-8 because of U_INVALID_CHAR_FOUND"},
        {[](std::string& o) { unicode_2_local(u"a\xdc00", o, "windows-1251"); }, "unable to convert U+DC00 to \"windows-1251\" because of U_ILLEGAL_CHAR_FOUND"},
    };
    for (auto const& r : rows) {
        std::string out = "kept";
        EXPECT_EQ(icu_error([&] { r.call(out); }), r.what);
        EXPECT_EQ(out, "kept") << r.what;
    }
}

}  // namespace
