// Tests of the number readers: the decimal scanner through every named entry
// point, the strtol-based converter behind lstr_t::toi and friends, the
// hexadecimal reader and the out-of-range helper.
#include "numstrings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <charconv>
#include <cstdio>
#include <climits>
#include <cstdint>
#include <random>
#include <string>

#include "exceptions.h"
#include "numstrings-int.h"

namespace {

using ::testing::EndsWith;

// Runs f, which must throw number_format_exception_shell_t with exactly text,
// thrown from the source file named by file.
template <typename F>
void expect_failure(F f, std::string const& text, char const* file) {
    try {
        f();
        ADD_FAILURE() << "no exception; expected \"" << text << "\"";
    } catch (number_format_exception_shell_t const& e) {
        EXPECT_EQ(text, e.what());
        ASSERT_NE(nullptr, e.impl);
        EXPECT_NE(nullptr, dynamic_cast<number_format_exception const*>(e.impl));
        EXPECT_THAT(e.impl->file, EndsWith(file));
    }
}

#define EXPECT_FAILURE(expr, text, file)           \
    do {                                           \
        SCOPED_TRACE(#expr);                       \
        expect_failure([&] { (void)(expr); }, text, file); \
    } while (0)

char const* const kScanner = "kern/numstrings-int.cc";
char const* const kCvt = "kern/amtypes.cc";
char const* const kHex = "kern/numstrings.cc";
char const* const kNamed = "kern/numstrings.cc";

TEST(NumStrings, EmptyInputAndLoneSign) {
    EXPECT_FAILURE(string_to_num(""), "empty string", kScanner);
    EXPECT_FAILURE(string_to_double(lstr_t()), "empty string", kScanner);
    EXPECT_FAILURE(lstr_t("").toi(10), "empty string", kScanner);
    EXPECT_FAILURE(lstr_t("").toi(16), "scanned number empty", kCvt);
    EXPECT_FAILURE(hex_string_to_num(""), "empty string", kHex);

    EXPECT_EQ(0u, string_to_num("-"));
    EXPECT_EQ(0, string_to_int64("+"));
    EXPECT_EQ(0.0, string_to_double("-"));
    EXPECT_EQ(0, lstr_t("-").toi(10));
    EXPECT_EQ(0u, lstr_t("+").tou64(10));
}

TEST(NumStrings, SignRulesOfEachReader) {
    // The unsigned readers that take a sign negate in two's complement.
    EXPECT_EQ(4294967295u, string_to_num("-1"));
    EXPECT_EQ(4294967291u, kern_n::string_to_number<unsigned int>("-5", true, true));
    EXPECT_EQ(ULONG_MAX, lstr_t("-1").toul(10));
    EXPECT_EQ(UINT64_MAX - 1, lstr_t("-2").tou64(10));
    EXPECT_EQ(-42, lstr_t("-42").toi(10));
    EXPECT_EQ(42, lstr_t("+42").to64(10));
    EXPECT_EQ(7u, string_to_num("+7"));

    EXPECT_FAILURE(string_to_uint64("-1"), "illegal char \\x2d in string \"-1\" at position 0", kScanner);
    EXPECT_FAILURE(string_to_num_strict("+1"), "illegal char \\x2b in string \"+1\" at position 0", kScanner);
    EXPECT_FAILURE(string_to_int64("--1"), "illegal char \\x2d in string \"--1\" at position 0", kScanner);
    EXPECT_FAILURE(string_to_int64("1-2"), "illegal char \\x2d in string \"1-2\" at position 1", kScanner);
    // Positions count from after the sign; no blank is ever skipped.
    EXPECT_FAILURE(string_to_num(" 1"), "illegal char \\x20 in string \" 1\" at position 0", kScanner);
    EXPECT_FAILURE(string_to_int64("-1 "), "illegal char \\x20 in string \"-1 \" at position 1", kScanner);
    EXPECT_FAILURE(string_to_num("1\xff"), "illegal char \\xff in string \"1\xff\" at position 1", kScanner);
}

// Every stray byte, near the digit range or not, is found at its exact
// position whatever the length of the run around it.
TEST(NumStrings, StrayByteAtEveryPosition) {
    for (unsigned char bad : {0x00, 0x2f, 0x3a, 0x40, 0x7f, 0xc0, 0xfa, 0xff}) {
        for (int len = 1; len <= 19; ++len) {
            for (int pos = 0; pos < len; ++pos) {
                std::string text(static_cast<unsigned long>(len), '7');
                text[static_cast<unsigned long>(pos)] = static_cast<char>(bad);
                char expected[128];
                std::snprintf(expected, sizeof expected, "illegal char \\x%02x in string \"%s\" at position %d",
                              bad, text.c_str(), pos);
                // (%s stops at a NUL byte, as the message's own %.*s does.)
                std::string const message(expected);
                SCOPED_TRACE(message);
                if (len <= 9) expect_failure([&] { string_to_num_strict(text); }, message, kScanner);
                expect_failure([&] { lstr_t(text).to64(10); }, message, kScanner);
            }
        }
    }
}

TEST(NumStrings, FractionAndExponent) {
    EXPECT_EQ(12u, string_to_num("12,5"));
    EXPECT_EQ(12, string_to_int64("12.9"));
    EXPECT_EQ(3u, string_to_uint64("3."));
    EXPECT_EQ(0, string_to_int64(".9"));
    EXPECT_EQ(2000, string_to_int64("2e3"));
    EXPECT_EQ(2000, string_to_int64("2E+3"));
    EXPECT_EQ(2, string_to_int64("25e-1"));
    EXPECT_EQ(-2, string_to_int64("-25e-1"));
    EXPECT_EQ(-2000, string_to_int64("-2e3"));
    EXPECT_EQ(15, string_to_int64("1.5e1"));
    EXPECT_EQ(5, string_to_int64("-1.5e1"));  // the sign is applied twice on this path
    EXPECT_EQ(125u, string_to_num("1,25e2"));
    EXPECT_EQ(0, string_to_int64("5e-9"));
    EXPECT_EQ(4000000000u, string_to_num("4e9"));

    EXPECT_DOUBLE_EQ(-15.0, string_to_double("-1.5e1"));
    EXPECT_DOUBLE_EQ(1.25, string_to_double("1,25"));
    EXPECT_DOUBLE_EQ(-2.5, lstr_t("-2,5").tod());
    EXPECT_DOUBLE_EQ(0.5, string_to_double(".5"));
    EXPECT_DOUBLE_EQ(-25.0, string_to_double("-0.25E+2"));
    EXPECT_DOUBLE_EQ(0.0125, string_to_double("1.25e-2"));
    EXPECT_DOUBLE_EQ(1e300, string_to_double("1e300"));

    // A marker (with its sign) at the end of the slice is exponent 0; the
    // scanner does not look at the byte that follows the slice.
    EXPECT_EQ(5, string_to_int64("5e"));
    EXPECT_EQ(5, string_to_int64("5e+"));
    EXPECT_EQ(5, string_to_int64("5E-"));
    EXPECT_EQ(5, string_to_int64(lstr_t("5e-3", 2)));
    EXPECT_EQ(5, string_to_int64(lstr_t("5e-3", 3)));
    EXPECT_DOUBLE_EQ(2.5, string_to_double("2.5e"));

    EXPECT_FAILURE(string_to_num_strict("12.5"), "illegal char \\x2e in string \"12.5\" at position 2", kScanner);
    EXPECT_FAILURE(lstr_t("1e5").toi(10), "illegal char \\x65 in string \"1e5\" at position 1", kScanner);
    EXPECT_FAILURE(string_to_double("1.2,3"), "illegal char \\x2c in string \"1.2,3\" at position 3", kScanner);
    EXPECT_FAILURE(string_to_double("1e2e3"), "illegal char \\x65 in string \"1e2e3\" at position 3", kScanner);
    EXPECT_FAILURE(string_to_double("1e2.5"), "illegal char \\x2e in string \"1e2.5\" at position 3", kScanner);
    // The marker and its sign count as one step.
    EXPECT_FAILURE(string_to_double("1e-2.5"), "illegal char \\x2e in string \"1e-2.5\" at position 3", kScanner);
    EXPECT_FAILURE(string_to_int64("1e+-2"), "illegal char \\x2d in string \"1e+-2\" at position 2", kScanner);
}

TEST(NumStrings, Overflow) {
    char const* const scan = kScanner;
    EXPECT_EQ(INT64_MAX, string_to_int64("9223372036854775807"));
    EXPECT_EQ(-INT64_MAX, string_to_int64("-9223372036854775807"));
    EXPECT_FAILURE(string_to_int64("9223372036854775808"),
                   "integer overflow detected in string \"9223372036854775808\" at position 18", scan);
    EXPECT_FAILURE(string_to_int64("-9223372036854775808"),
                   "integer overflow detected in string \"-9223372036854775808\" at position 18", scan);
    EXPECT_EQ(UINT32_MAX, string_to_num("4294967295"));
    EXPECT_FAILURE(string_to_num("4294967296"),
                   "integer overflow detected in string \"4294967296\" at position 9", scan);
    EXPECT_FAILURE(string_to_num_strict("04294967296"),
                   "integer overflow detected in string \"04294967296\" at position 10", scan);
    EXPECT_EQ(UINT64_MAX, string_to_uint64("18446744073709551615"));
    EXPECT_FAILURE(string_to_uint64("18446744073709551616"),
                   "integer overflow detected in string \"18446744073709551616\" at position 19", scan);
    EXPECT_EQ(INT_MAX, lstr_t("2147483647").toi(10));
    EXPECT_FAILURE(lstr_t("2147483648").toi(10),
                   "integer overflow detected in string \"2147483648\" at position 9", scan);
    // Only a wrap that makes the value smaller is seen, by design.
    EXPECT_NO_THROW(string_to_int64("25000000000000000000"));

    // Exponent digits overflow int; the position is that of the digit.
    EXPECT_FAILURE(string_to_double("1e3000000000"),
                   "integer overflow detected in string \"1e3000000000\" at position 11", scan);

    // Scaling: exact up to 10^9, refused from 10^10 on, either sign.
    EXPECT_EQ(1000000000, string_to_int64("1e9"));
    EXPECT_EQ(0, string_to_int64("1e-9"));
    EXPECT_FAILURE(string_to_int64("1e10"),
                   "integer overflow detected in string \"1e10\" at exponent applying", scan);
    EXPECT_FAILURE(string_to_int64("1e-10"),
                   "integer overflow detected in string \"1e-10\" at exponent applying", scan);
    EXPECT_FAILURE(string_to_num("5e9"),
                   "integer overflow detected in string \"5e9\" at exponent applying", scan);
    EXPECT_FAILURE(string_to_int64("9223372036854775807e1"),
                   "integer overflow detected in string \"9223372036854775807e1\" at exponent applying", scan);
    EXPECT_FAILURE(string_to_int64("1.5e30"),
                   "integer overflow detected in string \"1.5e30\" at exponent applying", scan);
    EXPECT_FAILURE(string_to_num("-1.5e1"),
                   "integer overflow detected in string \"-1.5e1\" at exponent applying", scan);
    EXPECT_EQ(4294967291u, string_to_num("-0.5e1"));
    EXPECT_DOUBLE_EQ(1e10, string_to_double("1e10"));
}

TEST(NumStrings, DetailHelpers) {
    lstr_t const s("x");
    EXPECT_EQ(2147483647, kern_n::detail::add_digit<int>(214748364, 7, s, 0));
    EXPECT_FAILURE(kern_n::detail::add_digit<int>(214748364, 8, s, 4),
                   "integer overflow detected in string \"x\" at position 4", kScanner);
    EXPECT_EQ(4294967295u, kern_n::detail::add_digit<unsigned int>(429496729, 5, s, 0));
    EXPECT_FAILURE(kern_n::detail::add_digit<unsigned long>(1844674407370955161UL, 6, s, 1),
                   "integer overflow detected in string \"x\" at position 1", kScanner);
    EXPECT_EQ(125.0, kern_n::detail::add_digit<double>(12.0, 5, s, 0));
    EXPECT_EQ(1000.0, kern_n::detail::pow10<int>(3));
    EXPECT_DOUBLE_EQ(0.01, kern_n::detail::pow10<int>(-2));

    using kern_n::detail::raise_number_out_of_range;
    EXPECT_FAILURE(raise_number_out_of_range("300", true, 1), "signed char number value \"300\" is out of range", kNamed);
    EXPECT_FAILURE(raise_number_out_of_range("-1", false, 2), "unsigned short number value \"-1\" is out of range", kNamed);
    EXPECT_FAILURE(raise_number_out_of_range("9", true, 4), "signed int number value \"9\" is out of range", kNamed);
    EXPECT_FAILURE(raise_number_out_of_range("9", false, 8), "unsigned long number value \"9\" is out of range", kNamed);
    EXPECT_FAILURE(raise_number_out_of_range("9", false, 16), "unsigned 128-bit number value \"9\" is out of range", kNamed);
    EXPECT_FAILURE(raise_number_out_of_range("9", true, 3), "signed 24-bit number value \"9\" is out of range", kNamed);
}

// Plain decimal integers of every width and length agree with from_chars.
template <typename T, typename F>
void check_against_from_chars(std::mt19937_64& rng, char const* name, F read) {
    SCOPED_TRACE(name);
    for (int i = 0; i < 20000; ++i) {
        int const digits = 1 + static_cast<int>(rng() % 20);
        T v = static_cast<T>(rng());
        std::string text = std::to_string(v);
        if (static_cast<int>(text.size()) > digits + (v < 0 ? 1 : 0))
            text = text.substr(0, static_cast<unsigned long>(digits + (v < 0 ? 1 : 0)));
        if (text == "-") text = "-0";
        T expected{};
        auto const r = std::from_chars(text.data(), text.data() + text.size(), expected);
        ASSERT_EQ(std::errc(), r.ec) << text;
        ASSERT_EQ(expected, static_cast<T>(read(lstr_t(text)))) << text;
    }
}

TEST(NumStrings, AgreesWithFromChars) {
    std::mt19937_64 rng(20240611);
    check_against_from_chars<int>(rng, "toi", [](lstr_t s) { return s.toi(10); });
    check_against_from_chars<unsigned int>(rng, "string_to_num", [](lstr_t s) { return string_to_num(s); });
    check_against_from_chars<unsigned int>(rng, "string_to_num_strict",
                                           [](lstr_t s) { return string_to_num_strict(s); });
    check_against_from_chars<long>(rng, "string_to_int64", [](lstr_t s) { return string_to_int64(s); });
    check_against_from_chars<long>(rng, "to64", [](lstr_t s) { return s.to64(10); });
    check_against_from_chars<unsigned long>(rng, "string_to_uint64", [](lstr_t s) { return string_to_uint64(s); });
    check_against_from_chars<unsigned long>(rng, "toul", [](lstr_t s) { return s.toul(10); });
    check_against_from_chars<unsigned long>(rng, "tou64", [](lstr_t s) { return s.tou64(10); });
}

TEST(NumStrings, OtherBases) {
    EXPECT_EQ(26, lstr_t("0x1A").toi(16));
    EXPECT_EQ(26, lstr_t("1a").toi(16));
    EXPECT_EQ(16, lstr_t("0x10").toi(0));
    EXPECT_EQ(8, lstr_t("010").toi(0));
    EXPECT_EQ(10, lstr_t("10").toi(0));
    EXPECT_EQ(10, lstr_t("12").toi(8));
    EXPECT_EQ(7, lstr_t(" \t7").toi(8));  // the C library's rules: blanks and a sign
    EXPECT_EQ(-255, lstr_t("-ff").to64(16));
    EXPECT_EQ(ULONG_MAX, lstr_t("-1").toul(16));
    EXPECT_EQ(UINT64_MAX, lstr_t("ffffffffffffffff").tou64(16));
    EXPECT_EQ(0, lstr_t("100000000").toi(16));  // cut to int without a check
    EXPECT_EQ(0x123, lstr_t("123456", 3).toi(16));  // only the slice is read

    EXPECT_FAILURE(lstr_t("12z").toi(8), "invalid symbol \\x7A in scanned number \"12z\" at position #3", kCvt);
    EXPECT_FAILURE(lstr_t("1 ").toul(0), "invalid symbol \\x20 in scanned number \"1 \" at position #2", kCvt);
    EXPECT_FAILURE(lstr_t("8000000000000000").to64(16),
                   "scanned number \"8000000000000000\" out of range", kCvt);
    EXPECT_FAILURE(lstr_t("1ffffffffffffffff").tou64(16),
                   "scanned number \"1ffffffffffffffff\" out of range", kCvt);
    EXPECT_FAILURE(lstr_t("1").toi(37), "number \"1\" conversion error", kCvt);

    std::string const long64 = std::string(63, '0') + "f";
    EXPECT_EQ(15, lstr_t(long64).toi(16));
    std::string const long65 = "0" + long64;
    EXPECT_FAILURE(lstr_t(long65).toi(16), "too long scanned number \"" + long65 + "\"", kCvt);
    EXPECT_FAILURE(lstr_t(long65).to64(0), "too long scanned number \"" + long65 + "\"", kCvt);
}

TEST(NumStrings, Hexadecimal) {
    EXPECT_EQ(511u, hex_string_to_num("1fF"));
    EXPECT_EQ(0xABCDEF09u, hex_string_to_num("aBcDeF09"));
    EXPECT_EQ(0x23456789u, hex_string_to_num("123456789"));
    EXPECT_EQ(0xFFFFFFFFu, hex_string_to_num("1FFFFFFFF"));
    EXPECT_EQ(0x12u, hex_string_to_num(lstr_t("123", 2)));
    // Positions are zero-based.
    EXPECT_FAILURE(hex_string_to_num("0x1"), "illegal char 0x78 in string \"0x1\" at position 1", kHex);
    EXPECT_FAILURE(hex_string_to_num(" 1"), "illegal char 0x20 in string \" 1\" at position 0", kHex);
    EXPECT_FAILURE(hex_string_to_num("-1"), "illegal char 0x2d in string \"-1\" at position 0", kHex);
    EXPECT_FAILURE(hex_string_to_num("fg"), "illegal char 0x67 in string \"fg\" at position 1", kHex);
}

}  // namespace
