// Tests of message formatting, system error texts and the small text helpers.
#include "utilities.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "code-exec-time.h"
#include "random.h"

namespace {

std::string make(std::size_t n) {
    std::string s(n, 'x');
    for (std::size_t i = 0; i < n; i += 7) s[i] = static_cast<char>('a' + i % 26);
    return s;
}

TEST(Formatting, SizeBoundariesAndFailure) {
    for (std::size_t n : {0u, 1u, 1023u, 1024u, 1025u, 4000u}) {
        // At 1024 characters the formatter's NUL replaces the last, the size stays.
        std::string const want = n == 1024 ? make(1023) + '\0' : make(n);
        std::string out("previous contents");
        q_format(out, "%s", make(n).c_str());
        EXPECT_EQ(out, want) << n;
        EXPECT_EQ(q_format("%s", make(n).c_str()), want) << n;
    }
    EXPECT_EQ(q_format("%d-%s-%05.1f|%c", -12, "ab", 3.14159, 'z'), "-12-ab-003.1|z");
    EXPECT_EQ(q_format("%d%s%d", 1, make(2000).c_str(), 2), "1" + make(2000) + "2");  // read by both passes
    std::string out;
    // Arguments inside out itself: short and long, growing it or fitting its room, one pass or two.
    for (std::size_t n : {3u, 100u, 1500u})
        for (std::size_t room : {0u, 4000u}) {
            out.reserve(room);
            out = make(n);
            q_format(out, "<%s|%s>", out.c_str(), out.c_str() + 1);
            EXPECT_EQ(out, "<" + make(n) + "|" + make(n).substr(1) + ">") << n << " " << room;
        }
    // A wide character the C locale cannot encode fails the first pass.
    out = "old";
    wchar_t const bad[] = {0x4e2d, 0};
    q_format(out, "%ls", bad);
    EXPECT_EQ(out.size(), 1024u);
}

TEST(SystemErrors, TextSaverAndSplit) {
    std::string const noent = std::string(std::strerror(ENOENT)) + " (errno=2)";
    EXPECT_EQ((set_last_error(0), get_last_error()), "No errors detected");
    set_last_error(ENOENT);
    {
        error_saver_t saved;
        errno = EINVAL;  // clobbered by unrelated code...
        EXPECT_EQ(get_last_error(saved), noent);
    }
    EXPECT_EQ(errno, ENOENT);  // ...and restored when the saver goes
    EXPECT_EQ(get_last_error(), noent);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ((set_last_error(99999), get_last_error()), "Unknown error 99999 (errno=99999)");
    EXPECT_EQ((set_last_error(-3), get_last_error()), "Unknown error -3 (errno=-3)");

    struct { char const* in; char const* out; } const cases[] = {
        {"", ""}, {"plain text", "plain text"}, {"first; second; third", "first\r\nsecond\r\nthird"},
        {"a because of ENOENT", "a\r\nbecause of ENOENT"}, {"b and unix error is 98", "b\r\nand unix error is 98"},
        {"a because of b and unix error is c; d", "a\r\nbecause of b\r\nand unix error is c\r\nd"},
        {"a because of because of b", "a\r\nbecause of\r\nbecause of b"}, {"; ", "\r\n"},
        {" because of x", "\r\nbecause of x"}, {"a; ", "a\r\n"},  // markers at the very ends
        // The search resumes one character into a new segment: a marker right there is not cut.
        {"a; because of b", "a\r\nbecause of b"}, {"a;  and unix error is x", "a\r\n and unix error is x"},
        {"x; ; y", "x\r\n; y"}, {"a because of; b", "a\r\nbecause of\r\nb"},
        {"because of;x  because", "because of;x  because"}};  // near misses
    for (auto const& c : cases) EXPECT_EQ(split_error(c.in), c.out) << c.in;
}

TEST(Strings, TrimAndWords) {
    auto trimmed = [](std::string s) { trim_string(s); return s; };
    std::pair<char const*, char const*> const trims[] = {{"\r\n\t\f\v ", ""}, {" ", ""}, {"\vx", "x"},
        {"a\f", "a"}, {" \t a b \r\n", "a b"}, {"", ""}, {"a", "a"}, {"a b", "a b"}};
    for (auto const& t : trims) {
        EXPECT_EQ(trimmed(t.first), t.second) << t.first;
        EXPECT_EQ(need_trim_string(t.first), std::string(t.first) != t.second) << t.first;
    }
    std::string untouched("keep me as I am, long enough not to be a short string");
    char const* data = untouched.data();
    trim_string(untouched);
    EXPECT_EQ(untouched.data(), data);

    std::pair<char const*, unsigned long> const fields[] = {{"", 0}, {"a", 1}, {"a,,b", 3}, {",", 2}};
    for (auto const& f : fields) EXPECT_EQ(how_words(f.first, ','), f.second) << f.first;
    EXPECT_EQ(how_words(std::string("a\0b", 3), '\0'), 2u);

    char text[] = "a b\tc\nd\\e\\\\f";
    decorate_spaces(text, 5);
    EXPECT_STREQ(text, "a_b_c\nd\\e\\\\f");  // only the first five characters
    rotate_slashes_real(lstr_t(text + 7, 5));
    EXPECT_STREQ(text, "a_b_c\nd/e//f");
}

// Lengths within [min, max], letters and digits only, appended, every draw from sysrnd.
TEST(Strings, RandomIdentifiers) {
    struct { int min, max; std::size_t lo, hi; } const cases[] = {
        {8, 8, 8, 8}, {3, 7, 3, 7}, {0, 1, 0, 1}, {5, 2, 5, 5}, {-4, -4, 0, 0}, {-2, 1, 0, 1}};
    kern::runtime::stat::mode_s_ = 1;
    for (auto const& c : cases) {
        std::set<std::size_t> lengths;
        for (int i = 0; i < 400; ++i) {
            std::string s("pre");
            auto const draws = kern::random::stat::calls.load();
            random_string(s, c.min, c.max);
            ASSERT_EQ(s.compare(0, 3, "pre"), 0);
            lengths.insert(s.size() - 3);
            EXPECT_EQ(kern::random::stat::calls - draws, s.size() - 3 + (c.max > c.min)) << c.min << " " << c.max;
            for (char ch : s) EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(ch))) << s;
        }
        EXPECT_EQ(*lengths.begin(), c.lo) << c.min << " " << c.max;  // both ends reached
        EXPECT_EQ(*lengths.rbegin(), c.hi) << c.min << " " << c.max;
    }
    kern::runtime::stat::mode_s_ = 0;
    std::string a, b;
    random_string(a, 40, 40);
    random_string(b, 40, 40);
    EXPECT_NE(a, b);
}

TEST(Numbers, DumpsHexDigitsAndWeight) {
    char const bytes[] = {'a', '=', 0x01, static_cast<char>(0xff), ' ', '~', 0x7f, '?'};
    EXPECT_EQ(dump_mem(bytes, 3), "3b =?ASCII?Q?a===01?=");
    EXPECT_EQ(dump_mem(bytes, sizeof bytes), "8b =?ASCII?Q?a===01=FF ~=7F?" "?=");  // "??=": no trigraph
    EXPECT_EQ(dump_mem(nullptr, 0), "0b =?ASCII?Q?" "?=");
    EXPECT_EQ(hex_dump_just_mem(bytes, 4), "613d01ff");
    EXPECT_EQ(hex_dump_just_mem(nullptr, 0), "");
    EXPECT_EQ(hex_dump_mem(bytes, 4, false), "4 613d01ff");
    EXPECT_EQ(hex_dump_mem(bytes, 4, true), "0000000000000004 613d01ff");
    EXPECT_EQ(hex_dump_mem(bytes, 0, false), "0 ");

    for (auto [c, v] : {std::pair{'0', 0u}, {'9', 9u}, {'a', 10u}, {'F', 15u}, {'f', 15u}, {'g', ~0u}, {'G', ~0u},
                        {'/', ~0u}, {':', ~0u}, {'@', ~0u}, {'`', ~0u}, {'\0', ~0u}, {'\xff', ~0u}})
        EXPECT_EQ(from_hex_dig(static_cast<unsigned char>(c)), v) << c;
    EXPECT_EQ(hweight(~0u), 32u);
    EXPECT_EQ(hweight(0u), 0u);
    EXPECT_EQ(hweight(0x80000001u), 2u);
}

}  // namespace
