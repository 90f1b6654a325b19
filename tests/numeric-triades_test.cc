#include "numeric-triades.h"

#include <gtest/gtest.h>

#include <charconv>
#include <climits>
#include <cstring>
#include <limits>
#include <random>
#include <string>

namespace {

template <typename T>
std::string reference(T v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

template <typename T>
std::string formatted(T v) {
    std::string s("x");
    EXPECT_EQ(&add_number_to_string(v, s), &s);
    return s.substr(1);
}

// Boundaries, powers of ten around each digit-count change, and random
// values of every width are all compared with std::to_chars.
template <typename T>
void check_type(std::mt19937_64& rng) {
    using L = std::numeric_limits<T>;
    T const fixed[] = {T(0), T(1), T(9), T(10), T(99), T(100), L::max(), T(L::max() - 1), L::min(), T(L::min() + 1)};
    for (T v : fixed) EXPECT_EQ(formatted(v), reference(v)) << +v;
    for (long double p = 1; p <= static_cast<long double>(L::max()); p *= 10) {
        for (int d = -1; d <= 1; ++d) {
            auto const v = static_cast<T>(static_cast<unsigned long long>(p) + d);
            EXPECT_EQ(formatted(v), reference(v));
            if constexpr (L::is_signed) {
                EXPECT_EQ(formatted(T(-v)), reference(T(-v)));
            }
        }
    }
    for (int i = 0; i < 20000; ++i) {
        // random bit widths, so short values are as frequent as long ones
        auto const v = static_cast<T>(rng() >> (rng() % 64));
        ASSERT_EQ(formatted(v), reference(v)) << +v;
    }
}

template <typename T>
void check_buffer_form(std::mt19937_64& rng) {
    using L = std::numeric_limits<T>;
    auto one = [](T v) {
        char buf[24];
        std::memset(buf, '#', sizeof buf);
        int const n = add_number_to_string(v, buf);
        std::string const want = reference(v);
        EXPECT_EQ(std::string(buf, static_cast<std::size_t>(n)), want);
        EXPECT_EQ(buf[n], '#') << "no NUL nor anything past the text";
    };
    one(0);
    one(L::max());
    one(L::min());
    for (int i = 0; i < 2000; ++i) one(static_cast<T>(rng() >> (rng() % 64)));
}

}  // namespace

TEST(NumberFormatting, MatchesToCharsForEveryType) {
    std::mt19937_64 rng(12345);
    check_type<unsigned char>(rng);
    check_type<char>(rng);
    check_type<unsigned short>(rng);
    check_type<short>(rng);
    check_type<unsigned int>(rng);
    check_type<int>(rng);
    check_type<unsigned long>(rng);
    check_type<long>(rng);
    check_type<unsigned long long>(rng);
    check_type<long long>(rng);

    EXPECT_EQ(formatted(0), "0");
    EXPECT_EQ(formatted(INT_MIN), "-2147483648");
    EXPECT_EQ(formatted(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(formatted(ULLONG_MAX), "18446744073709551615");
    EXPECT_EQ(formatted(static_cast<char>(-128)), "-128");
    EXPECT_EQ(formatted(static_cast<short>(-32768)), "-32768");
    EXPECT_EQ(formatted(-5), "-5");
    EXPECT_EQ(formatted(-10), "-10");
    EXPECT_EQ(formatted(-100), "-100");
    EXPECT_EQ(formatted(-105L), "-105");
}

TEST(NumberFormatting, BufferFormsReturnLengthWithoutNul) {
    std::mt19937_64 rng(777);
    check_buffer_form<int>(rng);
    check_buffer_form<unsigned int>(rng);
    check_buffer_form<long>(rng);
    check_buffer_form<unsigned long>(rng);
    check_buffer_form<long long>(rng);
    check_buffer_form<unsigned long long>(rng);

    char buf[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(add_number_to_string(-5, buf), 2);
    EXPECT_EQ(std::string(buf, 3), "-5#");
    char wide[24];
    EXPECT_EQ(add_number_to_string(LLONG_MIN, wide), 20);
    EXPECT_EQ(add_number_to_string(ULLONG_MAX, wide), 20);
}

TEST(NumberFormatting, HexPointerAndDouble) {
    std::string s("p=");
    add_number_to_string(reinterpret_cast<void const*>(0x1f), s);
    EXPECT_EQ(s, "p=0x000000000000001F");
    s.clear();
    add_number_to_string(reinterpret_cast<void const*>(~0ULL), s);
    EXPECT_EQ(s, "0xFFFFFFFFFFFFFFFF");

    EXPECT_EQ(hex_string(255u), "000000FF");
    EXPECT_EQ(hex_string(255ull), "00000000000000FF");
    EXPECT_EQ(hex_string(0xDEADBEEFu), "DEADBEEF");
    EXPECT_EQ(hex_string(~0ull), "FFFFFFFFFFFFFFFF");
    EXPECT_EQ(hex_string(0x1234ul), "0000000000001234");

    s.clear();
    add_number_to_string(1.5, s);
    EXPECT_EQ(s, "1.500000");
    s.clear();
    add_number_to_string(-2.5, s);
    EXPECT_EQ(s, "-2.500000");
    s.clear();
    add_number_to_string(std::numeric_limits<double>::max(), s);
    EXPECT_EQ(s.size(), 316u);  // 309 integer digits, point, six fraction digits
    EXPECT_EQ(s.substr(s.size() - 7), ".000000");
}

TEST(NumberFormatting, Triades) {
    using kern::numbers::produce_triades;
    EXPECT_EQ(produce_triades(lstr_t(), 0), "");
    EXPECT_EQ(produce_triades("", 3), "   ");
    EXPECT_EQ(produce_triades("12", 5), "   12");
    EXPECT_EQ(produce_triades("1234", 0), "1'234");
    EXPECT_EQ(produce_triades("123", 0), "123");
    EXPECT_EQ(produce_triades("123456", 0), "123'456");
    EXPECT_EQ(produce_triades("1234567", 0), "1'234'567");
    EXPECT_EQ(produce_triades("1234567", 9), "1'234'567");  // width equal to length: no pad
    EXPECT_EQ(produce_triades("1234567", 4), "1'234'567");
    EXPECT_EQ(produce_triades("1234567", 11), "  1'234'567");
    EXPECT_EQ(produce_triades("-123", 0), "-'123");  // the sign is a character of the first group
    EXPECT_EQ(produce_triades("ab cd", 0), "ab' cd");
}

TEST(NumberFormatting, Kilobytes) {
    EXPECT_EQ(kilobytes(0, true), "0B");
    EXPECT_EQ(kilobytes(500, false), "500B");
    EXPECT_EQ(kilobytes(500, true), "500B");
    EXPECT_EQ(kilobytes(1023, true), "1023B");
    EXPECT_EQ(kilobytes(1024, false), "1K");
    EXPECT_EQ(kilobytes(1024, true), "1KB");
    EXPECT_EQ(kilobytes(1100, false), "1K");     // remainder 76: no fraction
    EXPECT_EQ(kilobytes(1123, false), "1K");     // remainder 99: still none
    EXPECT_EQ(kilobytes(1124, false), "1.1K");   // remainder 100
    EXPECT_EQ(kilobytes(1536, false), "1.5K");
    EXPECT_EQ(kilobytes(1536, true), "1.5KB");
    EXPECT_EQ(kilobytes(2047, false), "1.10K");
    EXPECT_EQ(kilobytes(1024UL * 1024 - 1, false), "1023.10K");
    EXPECT_EQ(kilobytes(1024UL * 1024, false), "1M");
    EXPECT_EQ(kilobytes(3UL * 1024 * 1024, false), "3M");
    EXPECT_EQ(kilobytes(1024UL * 1024 * 1024, true), "1GB");
    EXPECT_EQ(kilobytes(1024UL * 1024 * 1024 * 1024 - 1, false), "1023.10G");
    EXPECT_EQ(kilobytes(1024UL * 1024 * 1024 * 1024, false), "1T");
    EXPECT_EQ(kilobytes(1024UL * 1024 * 1024 * 1024 * 2048, true), "2048TB");
    EXPECT_EQ(kilobytes(ULONG_MAX, false), "16777215.10T");
}

TEST(NumberFormatting, Store0) {
    char out[3] = {'#', '#', '#'};
    int v = 1234;
    EXPECT_EQ((decimal_convertor_t<int, 2>::store0(v, out)), 2);
    EXPECT_EQ(std::string(out, 3), "34#");
    EXPECT_EQ(v, 12);
    decimal_convertor_t<int, 2>::store0(v, out);
    EXPECT_EQ(std::string(out, 2), "12");
    EXPECT_EQ(v, 0);
    decimal_convertor_t<int, 2>::store0(v, out);
    EXPECT_EQ(std::string(out, 2), "00");
    v = 7;
    decimal_convertor_t<int, 2>::store0(v, out);
    EXPECT_EQ(std::string(out, 2), "07");
}

TEST(NumberFormatting, AppendOperators) {
    std::string const tail("!");
    std::string s;
    s << "a" << lstr_t("bc", 1) << tail << 'x' << static_cast<unsigned char>('y') << static_cast<short>(-3)
      << static_cast<unsigned short>(65535) << -7 << 8u << -9L << 10UL << -11LL << 12ULL;
    EXPECT_EQ(s, "ab!xy-365535-78-910-1112");
    s.clear();
    s << 0.5f << ' ' << 2.25 << ' ' << reinterpret_cast<void*>(0xab) << static_cast<char const*>(nullptr);
    EXPECT_EQ(s, "0.500000 2.250000 0x00000000000000AB");
}
