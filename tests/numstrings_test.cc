// The number readers: the decimal scanner, the strtol-based lstr_t::toi family, hexadecimal, out-of-range.
#include "numstrings.h"

#include <gmock/gmock.h>

#include <charconv>
#include <cstdio>
#include <random>

#include "exceptions.h"
#include "numeric-triades.h"
#include "numstrings-int.h"

namespace {

using reader_t = std::string (*)(lstr_t);
using namespace kern_n::detail;

// The readers under test, each giving its value as text.
std::string num(lstr_t s) { return std::to_string(string_to_num(s)); }
std::string strict(lstr_t s) { return std::to_string(string_to_num_strict(s)); }
std::string u64(lstr_t s) { return std::to_string(string_to_uint64(s)); }
std::string i64(lstr_t s) { return std::to_string(string_to_int64(s)); }
std::string dbl(lstr_t s) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.15g", string_to_double(s) + 0.0);  // -0 reads as 0
    return buf;
}
std::string hex(lstr_t s) { return hex_string(hex_string_to_num(s)); }
template <unsigned B> std::string toi(lstr_t s) { return std::to_string(s.toi(B)); }
template <unsigned B> std::string to64(lstr_t s) { return std::to_string(s.to64(B)); }
template <unsigned B> std::string toul(lstr_t s) { return std::to_string(s.toul(B)); }
template <unsigned B> std::string tou64(lstr_t s) { return std::to_string(s.tou64(B)); }
template <class T, long V, int D, int P>
std::string digit(lstr_t s) { return std::to_string(add_digit<T>(V, D, s, P)); }
template <bool Signed, unsigned Size> std::string range(lstr_t s) { raise_number_out_of_range(s, Signed, Size); }

// What each reader gives for its input: the value, or the reason of the number_format_exception it throws from file.
struct case_t { reader_t read; lstr_t in; std::string want; };
void check(char const* file, std::initializer_list<case_t> cases) {
    for (case_t const& c : cases) {
        std::string got;
        try {
            got = c.read(c.in);
        } catch (number_format_exception_shell_t const& e) {
            EXPECT_NE(nullptr, dynamic_cast<number_format_exception const*>(e.impl));
            EXPECT_THAT(e.impl != nullptr ? e.impl->file : "", ::testing::EndsWith(file)) << c.in.to_string();
            got = e.what();
        }
        EXPECT_EQ(c.want, got) << c.in.to_string();
    }
}

char const *const kScanner = "/numstrings-int.cc", *const kCvt = "/amtypes.cc", *const kNamed = "/numstrings.cc";
std::string const hx = "illegal char 0x", over = "integer overflow detected in string \"";

// The scanner's message for a byte it refuses (%s stops at NUL, like its %.*s).
std::string illegal(unsigned char c, std::string const& in, int pos) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "illegal char \\x%02x in string \"%s\" at position %d", c, in.c_str(), pos);
    return buf;
}

// Unsigned readers that take a sign negate in two's complement; positions count from after the sign; no blank skipped.
TEST(NumStrings, EmptyInputSignsAndStrayBytes) {
    check(kScanner, {
        {num, "", "empty string"}, {dbl, lstr_t(), "empty string"}, {toi<10>, "", "empty string"}, {num, "-", "0"},
        {i64, "+", "0"}, {dbl, "-", "0"}, {tou64<10>, "+", "0"}, {num, "-1", "4294967295"}, {num, "+7", "7"},
        {toul<10>, "-1", "18446744073709551615"}, {tou64<10>, "-2", "18446744073709551614"},
        {toi<10>, "-42", "-42"}, {to64<10>, "+42", "42"}, {num, "1\xff", illegal(0xff, "1\xff", 1)},
        {u64, "-1", illegal('-', "-1", 0)}, {strict, "+1", illegal('+', "+1", 0)}, {i64, "--1", illegal('-', "--1", 0)},
        {i64, "1-2", illegal('-', "1-2", 1)}, {i64, "-1 ", illegal(' ', "-1 ", 1)}, {num, " 1", illegal(' ', " 1", 0)},
    });
    EXPECT_EQ(4294967291u, kern_n::string_to_number<unsigned int>("-5", true, true));

    // Any stray byte is found at its exact position whatever the run around it.
    for (unsigned char bad : {0x00, 0x2f, 0x3a, 0xff})
        for (int len : {1, 2, 8, 9, 16, 17, 19})
            for (int pos = 0; pos < len; ++pos) {
                std::string text(static_cast<unsigned long>(len), '7');
                text[static_cast<unsigned long>(pos)] = static_cast<char>(bad);
                if (len <= 9) check(kScanner, {{strict, text, illegal(bad, text, pos)}});
                check(kScanner, {{to64<10>, text, illegal(bad, text, pos)}});
            }
}

// Without an exponent a fraction is dropped; with one and a separator the integer is computed in floating point and
// the sign applied twice ("-1.5e1" is 5). A marker (and sign) ending the slice is exponent 0; with its sign it counts
// as one step. Only a wrap that makes the value smaller is seen; exponent digits overflow int at the digit; integer
// scaling is exact up to 10^9 and refused from 10^10 on, either sign.
TEST(NumStrings, FractionExponentAndOverflow) {
    std::string const apply = "\" at exponent applying";
    check(kScanner, {
        {num, "12,5", "12"}, {i64, "12.9", "12"}, {u64, "3.", "3"}, {i64, ".9", "0"}, {i64, "2E+3", "2000"},
        {i64, "25e-1", "2"}, {i64, "-25e-1", "-2"}, {i64, "-2e3", "-2000"}, {i64, "1.5e1", "15"}, {i64, "-1.5e1", "5"},
        {num, "1,25e2", "125"}, {num, "4e9", "4000000000"}, {dbl, "-1.5e1", "-15"}, {dbl, "1,25", "1.25"},
        {[](lstr_t s) { return std::to_string(s.tod()); }, "-2,5", "-2.500000"}, {dbl, ".5", "0.5"},
        {dbl, "-0.25E+2", "-25"}, {dbl, "1.25e-2", "0.0125"}, {dbl, "1e300", "1e+300"}, {i64, "5e+", "5"},
        {i64, "5E-", "5"}, {i64, lstr_t("5e-3", 2), "5"}, {i64, lstr_t("5e-3", 3), "5"}, {dbl, "2.5e", "2.5"},
        {strict, "12.5", illegal('.', "12.5", 2)}, {toi<10>, "1e5", illegal('e', "1e5", 1)},
        {dbl, "1.2,3", illegal(',', "1.2,3", 3)}, {dbl, "1e2e3", illegal('e', "1e2e3", 3)},
        {dbl, "1e2.5", illegal('.', "1e2.5", 3)}, {dbl, "1e-2.5", illegal('.', "1e-2.5", 3)},
        {i64, "1e+-2", illegal('-', "1e+-2", 2)},

        {i64, "9223372036854775807", "9223372036854775807"}, {i64, "-9223372036854775807", "-9223372036854775807"},
        {i64, "9223372036854775808", over + "9223372036854775808\" at position 18"},
        {i64, "-9223372036854775808", over + "-9223372036854775808\" at position 18"},
        {num, "4294967295", "4294967295"}, {num, "4294967296", over + "4294967296\" at position 9"},
        {strict, "04294967296", over + "04294967296\" at position 10"},
        {u64, "18446744073709551615", "18446744073709551615"},
        {u64, "18446744073709551616", over + "18446744073709551616\" at position 19"},
        {toi<10>, "2147483647", "2147483647"}, {toi<10>, "2147483648", over + "2147483648\" at position 9"},
        {dbl, "1e3000000000", over + "1e3000000000\" at position 11"}, {i64, "1e9", "1000000000"}, {i64, "1e-9", "0"},
        {num, "-0.5e1", "4294967291"}, {dbl, "1e10", "10000000000"}, {i64, "1e10", over + "1e10" + apply},
        {i64, "1e-10", over + "1e-10" + apply}, {num, "5e9", over + "5e9" + apply},
        {i64, "1.5e30", over + "1.5e30" + apply}, {num, "-1.5e1", over + "-1.5e1" + apply},
        {i64, "9223372036854775807e1", over + "9223372036854775807e1" + apply},
        {digit<int, 214748364, 7, 0>, "x", "2147483647"}, {digit<unsigned, 429496729, 5, 0>, "x", "4294967295"},
        {digit<double, 12, 5, 0>, "x", "125.000000"}, {digit<int, 214748364, 8, 4>, "x", over + "x\" at position 4"},
        {digit<unsigned long, 1844674407370955161L, 6, 1>, "x", over + "x\" at position 1"},
    });
    EXPECT_NO_THROW(string_to_int64("25000000000000000000"));
    check(kNamed, {
        {range<true, 1>, "300", "signed char number value \"300\" is out of range"},
        {range<false, 2>, "-1", "unsigned short number value \"-1\" is out of range"},
        {range<true, 4>, "9", "signed int number value \"9\" is out of range"},
        {range<false, 8>, "9", "unsigned long number value \"9\" is out of range"},
        {range<true, 3>, "9", "signed 24-bit number value \"9\" is out of range"},
    });
}

// Plain decimal integers of every width and length agree with from_chars.
template <typename T>
void agree_with_from_chars(std::mt19937_64& rng, std::initializer_list<reader_t> readers) {
    for (int i = 0; i < 2000; ++i) {
        T const v = static_cast<T>(rng());
        std::string const text = std::to_string(v).substr(0, 1 + rng() % 20 + (v < 0 ? 1 : 0));
        T expected{};
        ASSERT_EQ(std::errc(), std::from_chars(text.data(), text.data() + text.size(), expected).ec) << text;
        for (std::size_t k = 0; k < readers.size(); ++k)
            ASSERT_EQ(std::to_string(expected), readers.begin()[k](text)) << text << ", reader " << k;
    }
}

TEST(NumStrings, AgreesWithFromChars) {
    std::mt19937_64 rng(20240611);
    agree_with_from_chars<int>(rng, {toi<10>});
    agree_with_from_chars<long>(rng, {i64, to64<10>});
    agree_with_from_chars<unsigned int>(rng, {num, strict});
    agree_with_from_chars<unsigned long>(rng, {u64, toul<10>, tou64<10>});
}

// Other bases follow the C library's rules (blanks and a sign); only the slice is read; an int result is cut
// unchecked. The hexadecimal reader keeps the last eight digits.
TEST(NumStrings, OtherBasesAndHexadecimal) {
    std::string const long64 = std::string(63, '0') + "f", long65 = "0" + long64;
    check(kCvt, {
        {toi<16>, "0x1A", "26"}, {toi<16>, "1a", "26"}, {toi<0>, "0x10", "16"}, {toi<0>, "010", "8"},
        {toi<0>, "10", "10"}, {toi<8>, "12", "10"}, {toi<8>, " \t7", "7"}, {to64<16>, "-ff", "-255"},
        {toul<16>, "-1", "18446744073709551615"}, {tou64<16>, "ffffffffffffffff", "18446744073709551615"},
        {toi<16>, "100000000", "0"}, {toi<16>, lstr_t("123456", 3), "291"}, {toi<16>, long64, "15"},
        {toi<16>, "", "scanned number empty"}, {toi<37>, "1", "number \"1\" conversion error"},
        {toi<8>, "12z", "invalid symbol \\x7A in scanned number \"12z\" at position #3"},
        {toul<0>, "1 ", "invalid symbol \\x20 in scanned number \"1 \" at position #2"},
        {to64<16>, "8000000000000000", "scanned number \"8000000000000000\" out of range"},
        {tou64<16>, "1ffffffffffffffff", "scanned number \"1ffffffffffffffff\" out of range"},
        {toi<16>, long65, "too long scanned number \"" + long65 + "\""},
        {to64<0>, long65, "too long scanned number \"" + long65 + "\""},
    });
    check(kNamed, {
        {hex, "1fF", "000001FF"}, {hex, "aBcDeF09", "ABCDEF09"}, {hex, "123456789", "23456789"},
        {hex, "1FFFFFFFF", "FFFFFFFF"}, {hex, lstr_t("123", 2), "00000012"}, {hex, "", "empty string"},
        {hex, "0x1", hx + "78 in string \"0x1\" at position 1"}, {hex, " 1", hx + "20 in string \" 1\" at position 0"},
        {hex, "-1", hx + "2d in string \"-1\" at position 0"}, {hex, "fg", hx + "67 in string \"fg\" at position 1"},
    });
}

}  // namespace
