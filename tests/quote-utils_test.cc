// Tests of the quoted-string format: exact texts both ways, round trips of
// random bytes, the size function and the statistics counters.
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

std::string dequote(std::string const& q) {
    std::string out("stale");
    dequote_string(lstr_t(q), out);
    return out;
}

// The message of the exception dequote_string throws for q, and what was
// left in the output.
std::string dequote_error(std::string const& q, std::string* left = nullptr) {
    std::string out("stale");
    try {
        dequote_string(lstr_t(q), out);
    } catch (quoted_format_exception_shell_t const& e) {
        if (left) *left = out;
        return e.what();
    }
    return "no exception";
}

// The writer's rules applied one byte at a time, to check the fast paths.
std::string reference_quote(std::string const& s) {
    if (s.empty()) return "%Z";
    std::string q;
    for (std::size_t i = 0; i < s.size(); ++i) {
        unsigned char const b = static_cast<unsigned char>(s[i]);
        char const next = i + 1 < s.size() ? s[i + 1] : 0;
        if (b == '\r' && next == '\n') {
            q += "%L";
            ++i;
        } else if (b == ',' && next == ' ') {
            q += "%M";
            ++i;
        } else if (b == '%' || b == ' ' || b == '\r' || b == '\n' || b == '\t') {
            q += '%';
            q += "PSRNT"[std::string("% \r\n\t").find(static_cast<char>(b))];
        } else if (b < 0x21 || b > 0x7E) {
            q += '%';
            q += "0123456789ABCDEF"[b >> 4];
            q += "0123456789ABCDEF"[b & 15];
        } else {
            q += static_cast<char>(b);
        }
    }
    return q;
}

// Random bytes drawn mostly from the troublesome ones, so that pairs,
// runs and lone halves of pairs all occur, with stretches of plain text
// long enough for the 16-byte paths.
std::string random_bytes(std::mt19937& rng) {
    static char const tricky[] = {'\r', '\n', ',', ' ', '%', '\t', 'Z', 'L', 'M', 'a'};
    std::uniform_int_distribution<int> len(0, 80), pick(0, 9), byte(0, 255);
    std::string s;
    int const n = len(rng);
    for (int i = 0; i < n; ++i) {
        int const k = pick(rng);
        if (k < 4)
            s += tricky[pick(rng)];
        else if (k < 6)
            s += static_cast<char>(byte(rng));
        else
            s.append(static_cast<std::size_t>(pick(rng)), 'x');
    }
    return s;
}

TEST(Quote, Units) {
    EXPECT_EQ("%Z", quote(""));
    EXPECT_EQ("a%Mb", quote("a, b"));
    EXPECT_EQ("a,b", quote("a,b"));
    EXPECT_EQ("a%S,b", quote("a ,b"));
    EXPECT_EQ("x,", quote("x,"));
    EXPECT_EQ("%M%M,", quote(", , ,"));
    EXPECT_EQ("%L", quote("\r\n"));
    EXPECT_EQ("%N%R", quote("\n\r"));
    EXPECT_EQ("ab%R", quote("ab\r"));
    EXPECT_EQ("%R%L%N", quote("\r\r\n\n"));
    EXPECT_EQ("100%P", quote("100%"));
    EXPECT_EQ("%E9%7F%00%0B%FF%T%S", quote(std::string("\xE9\x7F\0\x0B\xFF\t ", 7)));
    EXPECT_EQ("!~\"Z", quote("!~\"Z"));
    // Long enough for the 16-byte path, with units at chunk edges.
    EXPECT_EQ("0123456789abcde%Mfghijklmnopqrstu%L", quote("0123456789abcde, fghijklmnopqrstu\r\n"));

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
    std::string out = "k=";
    quote_string("a b", 3, out);
    EXPECT_EQ("k=a%Sb", out);
    out = "x y";
    quote_string(out.data(), out.size(), out);
    EXPECT_EQ("x yx%Sy", out);
}

TEST(Dequote, UnitsAndErrors) {
    EXPECT_EQ("", dequote(""));
    EXPECT_EQ("", dequote("%Z"));
    EXPECT_EQ("\xE9", dequote("%e9"));
    EXPECT_EQ("\xE9", dequote("%E9"));
    EXPECT_EQ("abc%", dequote("abc%P"));
    EXPECT_EQ(std::string("% \r\n\t\r\n, \0\xAB", 11), dequote("%P%S%R%N%T%L%M%00%aB"));
    // Unescaped blanks and control bytes pass as they stand.
    EXPECT_EQ("a b\x01,", dequote("a b\x01,"));
    EXPECT_EQ("0123456789abcdef0123456789abcdef%", dequote("0123456789abcdef0123456789abcdef%P"));
    // Dequoting a string into itself.
    std::string self = "a%Sb";
    dequote_string(lstr_t(self), self);
    EXPECT_EQ("a b", self);

    std::string left;
    EXPECT_EQ("single % at end: \"abc%\"", dequote_error("abc%", &left));
    EXPECT_EQ("abc", left);
    EXPECT_EQ("single % at end: \"%\"", dequote_error("%"));
    EXPECT_EQ("single char after %: \"abc%4\"", dequote_error("abc%4", &left));
    EXPECT_EQ("abc", left);
    EXPECT_EQ("single char after %: \"%p\"", dequote_error("%p"));
    EXPECT_EQ("single char after %: \"x%Z\"", dequote_error("x%Z"));
    EXPECT_EQ("invalid quoted string \"%p0\" at 0", dequote_error("%p0"));
    EXPECT_EQ("invalid quoted string \"ab%Sc%0g\" at 5", dequote_error("ab%Sc%0g", &left));
    EXPECT_EQ("ab c", left);
    // "%Z" means the empty string only as the whole input.
    EXPECT_EQ("invalid quoted string \"%Z%Z\" at 0", dequote_error("%Z%Z"));
    // Letter codes are upper case only; "%s" starts a hexadecimal unit.
    EXPECT_EQ("invalid quoted string \"%sx\" at 0", dequote_error("%sx"));
    // A fault past the 16-byte path.
    EXPECT_EQ("invalid quoted string \"0123456789abcdef01%G0\" at 18",
              dequote_error("0123456789abcdef01%G0", &left));
    EXPECT_EQ("0123456789abcdef01", left);
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
        for (char c : q) {
            unsigned char const b = static_cast<unsigned char>(c);
            ASSERT_TRUE(b >= 0x21 && b <= 0x7E) << i;
        }
        // No bare "%": each begins a letter unit or two hexadecimal digits.
        for (std::size_t k = q.find('%'); k != std::string::npos; k = q.find('%', k + 2)) {
            ASSERT_LT(k + 1, q.size()) << q;
            bool const hex = std::isxdigit(static_cast<unsigned char>(q[k + 1])) != 0;
            ASSERT_TRUE(hex || std::strchr("PSTNRLMZ", q[k + 1]) != nullptr) << q;
            if (hex) {
                ASSERT_TRUE(k + 2 < q.size() && std::isxdigit(static_cast<unsigned char>(q[++k])));
            }
        }
        ASSERT_EQ(s, dequote(q)) << i;
    }
}

TEST(Quote, StatisticsFollowTheMode) {
    namespace qs = kern::quote::stat::quote;
    namespace ds = kern::quote::stat::dequote;
    kern::runtime::stat::mode_t const saved = kern::runtime::stat::mode_s_;
    std::string big(1 << 16, 'a');
    std::string q;

    kern::runtime::stat::mode_s_ = 0;
    q_uint64_t const c0 = qs::calls, s0 = qs::size, t0 = qs::time;
    q_uint64_t const dc0 = ds::calls, ds0 = ds::size, dt0 = ds::time;
    quote_string(big.data(), big.size(), q);
    dequote_string(lstr_t(q), big);
    EXPECT_EQ(c0, qs::calls.load());
    EXPECT_EQ(s0, qs::size.load());
    EXPECT_EQ(t0, qs::time.load());
    EXPECT_EQ(dc0, ds::calls.load());
    EXPECT_EQ(ds0, ds::size.load());
    EXPECT_EQ(dt0, ds::time.load());

    for (kern::runtime::stat::mode_t mode : {1, 2}) {
        kern::runtime::stat::mode_s_ = mode;
        q_uint64_t const c1 = qs::calls, s1 = qs::size, dc1 = ds::calls, ds1 = ds::size;
        char buf[8];
        quote_string("a b", 3, buf);
        q.clear();
        quote_string(big.data(), big.size(), q);
        EXPECT_EQ(c1 + 2, qs::calls.load());
        EXPECT_EQ(s1 + 3 + big.size(), qs::size.load());
        calc_quoted_string_size(big.data(), big.size());
        EXPECT_EQ(c1 + 2, qs::calls.load());
        dequote_string(lstr_t(q), big);
        EXPECT_THROW(dequote_string(lstr_t("%"), big), quoted_format_exception_shell_t);
        EXPECT_EQ(dc1 + 2, ds::calls.load());
        EXPECT_EQ(ds1 + q.size() + 1, ds::size.load());
    }
    // Some of those calls took at least a tick on one clock or the other.
    EXPECT_GT(qs::time.load() + ds::time.load(), t0 + dt0);
    kern::runtime::stat::mode_s_ = saved;
}

}  // namespace
