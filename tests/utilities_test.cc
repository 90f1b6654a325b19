#include "utilities.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

std::string make(std::size_t n) {
    std::string s(n, 'x');
    for (std::size_t i = 0; i < n; i += 7) s[i] = static_cast<char>('a' + i % 26);
    return s;
}

}  // namespace

TEST(Formatting, SizeBoundaries) {
    for (std::size_t n : {0u, 1u, 1023u, 1025u, 4000u}) {
        std::string const want = make(n);
        std::string out("previous contents");
        q_format(out, "%s", want.c_str());
        EXPECT_EQ(out, want) << n;
        EXPECT_EQ(q_format("%s", want.c_str()), want) << n;
    }
    // Exactly 1024 characters: the formatter's NUL replaces the last one and
    // the size stays 1024.
    std::string const full = make(1024);
    std::string out;
    q_format(out, "%s", full.c_str());
    ASSERT_EQ(out.size(), 1024u);
    EXPECT_EQ(out.compare(0, 1023, full, 0, 1023), 0);
    EXPECT_EQ(out[1023], '\0');
    EXPECT_EQ(q_format("%s", full.c_str()), out);

    EXPECT_EQ(q_format("%d-%s-%05.1f|%c", -12, "ab", 3.14159, 'z'), "-12-ab-003.1|z");
    // Arguments consumed by both passes.
    EXPECT_EQ(q_format("%d%s%d", 1, make(2000).c_str(), 2), "1" + make(2000) + "2");
}

TEST(Formatting, FailedFirstPassLeavesTheBuffer) {
    // A wide character that the C locale cannot encode makes the formatter
    // fail; the output is left at 1024 characters.
    std::string out("old");
    wchar_t const bad[] = {0x4e2d, 0};
    q_format(out, "%ls", bad);
    EXPECT_EQ(out.size(), 1024u);
}

TEST(SystemErrors, TextAndSaver) {
    set_last_error(0);
    {
        error_saver_t saved;
        EXPECT_EQ(get_last_error(saved), "No errors detected");
    }
    set_last_error(ENOENT);
    EXPECT_EQ(errno, ENOENT);
    {
        error_saver_t saved;
        errno = EINVAL;  // clobbered by unrelated code...
        EXPECT_EQ(get_last_error(saved), std::string(std::strerror(ENOENT)) + " (errno=2)");
    }
    EXPECT_EQ(errno, ENOENT);  // ...and restored when the saver goes
    EXPECT_EQ(get_last_error(), std::string(std::strerror(ENOENT)) + " (errno=2)");
    EXPECT_EQ(errno, ENOENT);

    set_last_error(99999);
    EXPECT_EQ(get_last_error(), "Unknown error 99999 (errno=99999)");
    set_last_error(-3);
    EXPECT_EQ(get_last_error(), "Unknown error -3 (errno=-3)");
}

TEST(SystemErrors, SplitError) {
    EXPECT_EQ(split_error(""), "");
    EXPECT_EQ(split_error("plain text"), "plain text");
    EXPECT_EQ(split_error("open failed because of No such file"), "open failed\r\nbecause of No such file");
    EXPECT_EQ(split_error("bind failed and unix error is 98"), "bind failed\r\nand unix error is 98");
    EXPECT_EQ(split_error("first; second; third"), "first\r\nsecond\r\nthird");
    EXPECT_EQ(split_error("a because of b and unix error is c; d"),
              "a\r\nbecause of b\r\nand unix error is c\r\nd");
    EXPECT_EQ(split_error("a because of because of b"), "a\r\nbecause of\r\nbecause of b");
    // Markers at the very ends.
    EXPECT_EQ(split_error(" because of x"), "\r\nbecause of x");
    EXPECT_EQ(split_error("a; "), "a\r\n");
    EXPECT_EQ(split_error("; "), "\r\n");
    // A marker overlapping the previous one, or right at a segment's start,
    // is not cut: the search resumes one character into the new segment.
    EXPECT_EQ(split_error("a; because of b"), "a\r\nbecause of b");
    EXPECT_EQ(split_error("a;  and unix error is x"), "a\r\n and unix error is x");
    EXPECT_EQ(split_error("x; ; y"), "x\r\n; y");
    EXPECT_EQ(split_error("a because of; b"), "a\r\nbecause of\r\nb");
    // Near misses.
    EXPECT_EQ(split_error("because of;x  because"), "because of;x  because");
}

TEST(Strings, TrimAndWords) {
    EXPECT_FALSE(need_trim_string(""));
    EXPECT_TRUE(need_trim_string(" "));
    EXPECT_FALSE(need_trim_string("a"));
    EXPECT_TRUE(need_trim_string("\va"));
    EXPECT_TRUE(need_trim_string("a\f"));
    EXPECT_FALSE(need_trim_string("a b"));

    for (char const* only : {" \t", "\r\n\t\f\v ", " "}) {
        std::string s(only);
        trim_string(s);
        EXPECT_TRUE(s.empty()) << only;
    }
    std::string s(" \t a b \r\n");
    trim_string(s);
    EXPECT_EQ(s, "a b");
    std::string untouched("keep me as I am, long enough not to be a short string");
    char const* data = untouched.data();
    trim_string(untouched);
    EXPECT_EQ(untouched.data(), data);
    std::string lead("\vx");
    trim_string(lead);
    EXPECT_EQ(lead, "x");

    EXPECT_EQ(how_words("", ','), 0u);
    EXPECT_EQ(how_words("a", ','), 1u);
    EXPECT_EQ(how_words("a,,b", ','), 3u);
    EXPECT_EQ(how_words(",", ','), 2u);
    EXPECT_EQ(how_words(std::string("a\0b", 3), '\0'), 2u);

    char text[] = "a b\tc\nd\\e\\\\f";
    decorate_spaces(text, 5);
    EXPECT_STREQ(text, "a_b_c\nd\\e\\\\f");  // only the first five characters
    rotate_slashes_real(lstr_t(text + 7, 5));
    EXPECT_STREQ(text, "a_b_c\nd/e//f");
}

TEST(MemoryDumps, Forms) {
    char const bytes[] = {'a', '=', 0x01, static_cast<char>(0xff), ' ', '~', 0x7f, '?'};
    EXPECT_EQ(dump_mem(bytes, 3), "3b =?ASCII?Q?a===01?=");
    EXPECT_EQ(dump_mem(bytes, sizeof bytes), "8b =?ASCII?Q?a===01=FF ~=7F?" "?=");  // split: "??=" would read as a trigraph
    EXPECT_EQ(dump_mem(nullptr, 0), "0b =?ASCII?Q?" "?=");

    EXPECT_EQ(hex_dump_just_mem(bytes, 4), "613d01ff");
    EXPECT_EQ(hex_dump_just_mem(nullptr, 0), "");
    EXPECT_EQ(hex_dump_mem(bytes, 4, false), "4 613d01ff");
    EXPECT_EQ(hex_dump_mem(bytes, 4, true), "0000000000000004 613d01ff");
    EXPECT_EQ(hex_dump_mem(bytes, 0, false), "0 ");
}

TEST(Numbers, HexDigitsAndWeight) {
    for (int c = 0; c < 256; ++c) {
        unsigned int want = ~0u;
        if (c >= '0' && c <= '9') want = static_cast<unsigned>(c - '0');
        if (c >= 'a' && c <= 'f') want = static_cast<unsigned>(c - 'a' + 10);
        if (c >= 'A' && c <= 'F') want = static_cast<unsigned>(c - 'A' + 10);
        EXPECT_EQ(from_hex_dig(static_cast<unsigned char>(c)), want) << c;
    }
    EXPECT_EQ(from_hex_dig('g'), 4294967295u);

    EXPECT_EQ(hweight(0), 0u);
    EXPECT_EQ(hweight(~0u), 32u);
    unsigned int x = 0x9E3779B9u;
    for (int i = 0; i < 1000; ++i, x = x * 1664525u + 1013904223u)
        EXPECT_EQ(hweight(x), static_cast<unsigned>(__builtin_popcount(x)));
}
