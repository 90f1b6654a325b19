// The number formatters against std::to_chars; hexadecimal, pointer, grouped and size texts; appending.
#include "numeric-triades.h"

#include <gtest/gtest.h>

#include <charconv>
#include <climits>
#include <cstring>
#include <limits>
#include <random>

namespace {

template <typename T>
std::string reference(T v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

// The text appended after an "x", checking that the string itself is returned.
template <typename T>
std::string formatted(T v) {
    std::string s("x");
    EXPECT_EQ(&add_number_to_string(v, s), &s);
    return s.substr(1);
}

// Both forms against std::to_chars; the buffer form (int and wider) writes neither a NUL nor anything past the text.
template <typename T>
void check_value(T v) {
    std::string const want = reference(v);
    EXPECT_EQ(formatted(v), want) << +v;
    if constexpr (sizeof(T) >= sizeof(int)) {
        char buf[24];
        std::memset(buf, '#', sizeof buf);
        int const n = add_number_to_string(v, buf);
        EXPECT_EQ(std::string(buf, static_cast<std::size_t>(n) + 1), want + '#') << +v;
    }
}

// Boundaries, powers of ten around each digit-count change and their negations, random values of every width.
template <typename... T>
void check_types(std::mt19937_64& rng) {
    ([&rng] {
        using L = std::numeric_limits<T>;
        for (T v : {T(0), T(1), T(9), T(10), T(99), T(100), L::max(), T(L::max() - 1), L::min(), T(L::min() + 1)})
            check_value(v);
        for (long double p = 1; p <= static_cast<long double>(L::max()); p *= 10) {
            for (int d = -1; d <= 1; ++d) {
                auto const v = static_cast<T>(static_cast<unsigned long long>(p) + d);
                check_value(v);
                check_value(static_cast<T>(-v));
            }
        }
        for (int i = 0; i < 2000 && !::testing::Test::HasFailure(); ++i)
            check_value(static_cast<T>(rng() >> (rng() % 64)));
    }(), ...);
}

TEST(NumberFormatting, MatchesToCharsForEveryType) {
    std::mt19937_64 rng(12345);
    check_types<unsigned char, char, unsigned short, short, unsigned int, int, unsigned long, long, unsigned long long,
                long long>(rng);
}

TEST(NumberFormatting, HexPointerAndDouble) {
    EXPECT_EQ(formatted(reinterpret_cast<void const*>(0x1f)), "0x000000000000001F");
    EXPECT_EQ(formatted(reinterpret_cast<void const*>(~0ULL)), "0xFFFFFFFFFFFFFFFF");
    EXPECT_EQ(hex_string(255u) + hex_string(0xDEADBEEFu), "000000FFDEADBEEF");
    EXPECT_EQ(hex_string(255ull) + hex_string(0x1234ul), "00000000000000FF0000000000001234");
    EXPECT_EQ(formatted(1.5), "1.500000");
    EXPECT_EQ(formatted(-2.5), "-2.500000");
    std::string const big = formatted(std::numeric_limits<double>::max());
    EXPECT_EQ(big.size(), 316u);  // 309 integer digits, point, six fraction digits
    EXPECT_EQ(big.substr(309), ".000000");
}

TEST(NumberFormatting, TriadesAndKilobytes) {
    // The sign is a character of the first group; a width not above the length adds no padding.
    struct { lstr_t in; unsigned long width; char const* want; } const groups[] = {
        {lstr_t(), 0, ""}, {"", 3, "   "}, {"12", 5, "   12"}, {"1234", 0, "1'234"}, {"123", 0, "123"},
        {"123456", 0, "123'456"}, {"1234567", 0, "1'234'567"}, {"1234567", 9, "1'234'567"}, {"1234567", 4, "1'234'567"},
        {"1234567", 11, "  1'234'567"}, {"-123", 0, "-'123"}, {"ab cd", 0, "ab' cd"}};
    for (auto const& g : groups) EXPECT_EQ(kern::numbers::produce_triades(g.in, g.width), g.want) << g.want;

    // The fraction digit is the remainder in 1024ths over 100, shown above 99.
    unsigned long const K = 1024, M = K * K, G = M * K, T = G * K;
    struct { unsigned long value; bool with_b; char const* want; } const sizes[] = {
        {0, true, "0B"}, {500, false, "500B"}, {500, true, "500B"}, {1023, true, "1023B"}, {K, false, "1K"},
        {K, true, "1KB"}, {1100, false, "1K"}, {1123, false, "1K"}, {1124, false, "1.1K"}, {1536, false, "1.5K"},
        {1536, true, "1.5KB"}, {2047, false, "1.10K"}, {M - 1, false, "1023.10K"}, {M, false, "1M"},
        {3 * M, false, "3M"}, {G, true, "1GB"}, {T - 1, false, "1023.10G"}, {T, false, "1T"},
        {T * 2048, true, "2048TB"}, {ULONG_MAX, false, "16777215.10T"}};
    for (auto const& s : sizes) EXPECT_EQ(kilobytes(s.value, s.with_b), s.want) << s.value;
}

TEST(NumberFormatting, Store0AndAppendOperators) {
    char out[3] = {'#', '#', '#'};
    auto store = [&out](int& v) {
        int const n = decimal_convertor_t<int, 2>::store0(v, out);
        return std::to_string(n) + ":" + std::string(out, 3) + ":" + std::to_string(v);
    };
    int v = 1234, seven = 7;
    EXPECT_EQ(store(v), "2:34#:12");
    EXPECT_EQ(store(v), "2:12#:0");
    EXPECT_EQ(store(v), "2:00#:0");
    EXPECT_EQ(store(seven), "2:07#:0");

    std::string const tail("!");
    std::string s;
    s << "a" << lstr_t("bc", 1) << tail << 'x' << static_cast<unsigned char>('y') << static_cast<short>(-3)
      << static_cast<unsigned short>(65535) << -7 << 8u << -9L << 10UL << -11LL << 12ULL;
    EXPECT_EQ(s, "ab!xy-365535-78-910-1112");
    s.clear();
    s << 0.5f << ' ' << 2.25 << ' ' << reinterpret_cast<void*>(0xab) << static_cast<char const*>(nullptr);
    EXPECT_EQ(s, "0.500000 2.250000 0x00000000000000AB");
}

}  // namespace
