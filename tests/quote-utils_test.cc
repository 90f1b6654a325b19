// Tests of the quoted-string format: exact texts both ways, round trips of
// random bytes against a byte-at-a-time writer, the size function and the
// statistics counters.
#include "quote-utils.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <random>
#include <string>

#include "code-exec-time.h"
#include "exceptions.h"

namespace {

std::string quote(std::string const& s) {
    std::string out;
    quote_string(s.data(), s.size(), out);
    return out;
}

// The decoded text, or the exception's message followed by "|" and what was
// left in the output.
std::string dequote(std::string const& q) {
    std::string out("stale");
    try {
        dequote_string(lstr_t(q), out);
    } catch (quoted_format_exception_shell_t const& e) {
        return e.what() + ("|" + out);
    }
    return out;
}

// The writer's rules applied one byte at a time, to check the fast paths.
std::string reference_quote(std::string const& s) {
    std::string q = s.empty() ? "%Z" : "";
    for (std::size_t i = 0; i < s.size(); ++i) {
        unsigned char const b = static_cast<unsigned char>(s[i]);
        std::string const two = s.substr(i, 2);
        std::size_t const letter = std::string("% \r\n\t").find(static_cast<char>(b));
        if (two == "\r\n" || two == ", ") {
            q += two == ", " ? "%M" : "%L";
            ++i;
        } else if (letter != std::string::npos) {
            q += std::string("%") + "PSRNT"[letter];
        } else if (b < 0x21 || b > 0x7E) {
            q += std::string("%") + "0123456789ABCDEF"[b >> 4] + "0123456789ABCDEF"[b & 15];
        } else {
            q += static_cast<char>(b);
        }
    }
    return q;
}

// Random bytes drawn mostly from the troublesome ones, so that pairs, runs
// and lone halves of pairs all occur, with plain stretches long enough for
// the block paths.
std::string random_bytes(std::mt19937& rng) {
    static char const tricky[] = {'\r', '\n', ',', ' ', '%', '\t', 'Z', 'L', 'M', 'a'};
    std::uniform_int_distribution<int> len(0, 120), pick(0, 9), byte(0, 255);
    std::string s;
    for (int i = len(rng); i > 0; --i) {
        int const k = pick(rng);
        if (k < 4)
            s += tricky[pick(rng)];
        else if (k < 6)
            s += static_cast<char>(byte(rng));
        else
            s.append(static_cast<std::size_t>(pick(rng) * k), 'x');
    }
    return s;
}

TEST(Quote, Units) {
    EXPECT_EQ("%Z", quote(""));
    EXPECT_EQ("a%Mb", quote("a, b"));
    EXPECT_EQ("a,b", quote("a,b"));
    EXPECT_EQ("a%S,b", quote("a ,b"));
    EXPECT_EQ("%M%M,", quote(", , ,"));
    EXPECT_EQ("%L", quote("\r\n"));
    EXPECT_EQ("%N%R", quote("\n\r"));
    EXPECT_EQ("%R%L%N", quote("\r\r\n\n"));
    EXPECT_EQ("100%P", quote("100%"));
    EXPECT_EQ("%E9%7F%00%0B%FF%T%S!~", quote(std::string("\xE9\x7F\0\x0B\xFF\t !~", 9)));

    // The char* form writes exactly the counted bytes and no more.
    std::string const s = "log line, with\tsome\r\nbytes \xC3\xA9 100%";
    char buf[128];
    std::memset(buf, '#', sizeof buf);
    unsigned long const n = quote_string(s.data(), s.size(), buf);
    EXPECT_EQ(calc_quoted_string_size(s.data(), s.size()), n);
    EXPECT_EQ(quote(s), std::string(buf, n));
    EXPECT_EQ('#', buf[n]);
    EXPECT_EQ(2u, calc_quoted_string_size("", 0));
    EXPECT_EQ(2u, quote_string("", 0, buf));

    // The std::string form appends, also when quoting part of itself.
    std::string out = "x y";
    quote_string(out.data(), out.size(), out);
    EXPECT_EQ("x yx%Sy", out);
}

TEST(Dequote, UnitsAndErrors) {
    EXPECT_EQ("", dequote(""));
    EXPECT_EQ("", dequote("%Z"));
    EXPECT_EQ("\xE9\xE9", dequote("%e9%E9"));
    EXPECT_EQ("abc%", dequote("abc%P"));
    EXPECT_EQ(std::string("% \r\n\t\r\n, \0\xAB", 11), dequote("%P%S%R%N%T%L%M%00%aB"));
    EXPECT_EQ("a b\x01,", dequote("a b\x01,"));  // unescaped bytes pass as they stand
    std::string self = "a%Sb";
    dequote_string(lstr_t(self), self);
    EXPECT_EQ("a b", self);

    EXPECT_EQ("single % at end: \"abc%\"|abc", dequote("abc%"));
    EXPECT_EQ("single char after %: \"abc%4\"|abc", dequote("abc%4"));
    EXPECT_EQ("single char after %: \"%p\"|", dequote("%p"));
    EXPECT_EQ("single char after %: \"x%Z\"|x", dequote("x%Z"));
    EXPECT_EQ("invalid quoted string \"%p0\" at 0|", dequote("%p0"));
    EXPECT_EQ("invalid quoted string \"ab%Sc%0g\" at 5|ab c", dequote("ab%Sc%0g"));
    // "%Z" means the empty string only as the whole input; letters are
    // upper case only, so "%s" begins a hexadecimal unit.
    EXPECT_EQ("invalid quoted string \"%Z%Z\" at 0|", dequote("%Z%Z"));
    EXPECT_EQ("invalid quoted string \"%sx\" at 0|", dequote("%sx"));
    // Faults inside and after the block path.
    std::string const plain(100, 'x');
    EXPECT_EQ("invalid quoted string \"" + plain + "%G0" + plain + "\" at 100|" + plain,
              dequote(plain + "%G0" + plain));
    EXPECT_EQ("single % at end: \"" + plain + plain + "%\"|" + plain + plain, dequote(plain + plain + "%"));
}

TEST(Quote, RandomRoundTrips) {
    std::mt19937 rng(20240611);
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    for (int i = 0; i < 20000; ++i) {
        std::string const s = i == 0 ? all : random_bytes(rng);
        std::string const q = quote(s);
        ASSERT_EQ(reference_quote(s), q) << i;
        ASSERT_EQ(calc_quoted_string_size(s.data(), s.size()), q.size()) << i;
        // Only 0x21..0x7E, and every "%" begins a letter or two hex digits.
        for (std::size_t k = 0; k < q.size(); ++k) {
            unsigned char const b = static_cast<unsigned char>(q[k]);
            ASSERT_TRUE(b >= 0x21 && b <= 0x7E) << i;
            if (b != '%') continue;
            ASSERT_LT(k + 1, q.size()) << q;
            if (std::strchr("PSTNRLMZ", q[++k]) != nullptr) continue;
            ASSERT_TRUE(k + 1 < q.size() && std::isxdigit(static_cast<unsigned char>(q[k])) &&
                        std::isxdigit(static_cast<unsigned char>(q[k + 1])))
                << q;
            ++k;
        }
        ASSERT_EQ(s, dequote(q)) << i;
    }
}

TEST(Quote, StatisticsFollowTheMode) {
    namespace qs = kern::quote::stat::quote;
    namespace ds = kern::quote::stat::dequote;
    kern::runtime::stat::mode_t const saved = kern::runtime::stat::mode_s_;
    std::string big(1 << 16, 'a'), q, sink;
    char buf[8];
    for (kern::runtime::stat::mode_t mode : {0, 1, 2}) {
        kern::runtime::stat::mode_s_ = mode;
        q_uint64_t const c = qs::calls, s = qs::size, t = qs::time;
        q_uint64_t const dc = ds::calls, dsz = ds::size, dt = ds::time;
        q.clear();
        quote_string("a b", 3, buf);
        quote_string(big.data(), big.size(), q);
        calc_quoted_string_size(big.data(), big.size());  // not a call
        dequote_string(lstr_t(q), big);
        EXPECT_THROW(dequote_string(lstr_t("%"), sink), quoted_format_exception_shell_t);
        ASSERT_EQ(big.size(), q.size());
        int const on = mode != 0;
        EXPECT_EQ(c + 2 * on, qs::calls.load());
        EXPECT_EQ(s + (3 + q.size()) * on, qs::size.load());
        EXPECT_EQ(dc + 2 * on, ds::calls.load());
        EXPECT_EQ(dsz + (q.size() + 1) * on, ds::size.load());
        // Quoting 64 KiB takes more than one tick on either clock.
        EXPECT_EQ(on, t + dt < qs::time.load() + ds::time.load());
    }
    kern::runtime::stat::mode_s_ = saved;
}

}  // namespace
