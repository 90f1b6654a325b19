// The quoted-string format: exact texts, random round trips against a byte-at-a-time writer, the counters.
#include "quote-utils.h"

#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

#include "code-exec-time.h"
#include "exceptions.h"

namespace {

std::string quote(std::string const& s) {
    std::string out;
    quote_string(s.data(), s.size(), out);
    return out;
}

// The decoded text, or the exception's message, "|" and what was left in out.
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
        std::size_t const letter = std::string("% \r\n\t").find(s[i]);
        if (s.compare(i, 2, "\r\n") == 0 || s.compare(i, 2, ", ") == 0) q += s[i++] == ',' ? "%M" : "%L";
        else if (letter != std::string::npos) q += std::string("%") + "PSRNT"[letter];
        else if (b < 0x21 || b > 0x7E) q += std::string("%") + "0123456789ABCDEF"[b >> 4] + "0123456789ABCDEF"[b & 15];
        else q += s[i];
    }
    return q;
}

// Mostly troublesome bytes, so that pairs, runs and lone halves of pairs occur; plain stretches for the block paths.
std::string random_bytes(std::mt19937& rng) {
    std::string s;
    for (unsigned i = rng() % 121; i > 0; --i) {
        unsigned const k = rng() % 10;
        if (k < 4) s += "\r\n, %\tZLMa"[rng() % 10];
        else if (k < 6) s += static_cast<char>(rng());
        else s.append(rng() % 10 * k, 'x');
    }
    return s;
}

TEST(Quote, ExactTextsBothWays) {
    std::pair<std::string, char const*> const cases[] = {
        {"", "%Z"}, {"a, b", "a%Mb"}, {"a ,b", "a%S,b"}, {", , ,", "%M%M,"}, {"\r\n", "%L"}, {"100%", "100%P"},
        {"\n\r", "%N%R"}, {"\r\r\n\n", "%R%L%N"}, {std::string("\xE9\x7F\0\x0B\xFF\t !~", 9), "%E9%7F%00%0B%FF%T%S!~"}};
    for (auto const& c : cases) EXPECT_EQ(c.second, quote(c.first));
    std::string out = "x y";
    quote_string(out.data(), out.size(), out);
    EXPECT_EQ("x yx%Sy", out);  // the std::string form appends, also when quoting part of itself

    // "%Z" means the empty string only as the whole input; letters are upper case only, so "%s" begins a hexadecimal
    // unit; unescaped bytes pass as they stand.
    std::string const plain(100, 'x');  // faults inside and after the block path
    std::pair<std::string, std::string> const back[] = {
        {"", ""}, {"%Z", ""}, {"%e9%E9", "\xE9\xE9"}, {"abc%P", "abc%"}, {"a b\x01,", "a b\x01,"},
        {"%P%S%R%N%T%L%M%00%aB", std::string("% \r\n\t\r\n, \0\xAB", 11)},
        {"abc%", "single % at end: \"abc%\"|abc"}, {"abc%4", "single char after %: \"abc%4\"|abc"},
        {"%p", "single char after %: \"%p\"|"}, {"x%Z", "single char after %: \"x%Z\"|x"},
        {"%p0", "invalid quoted string \"%p0\" at 0|"}, {"ab%Sc%0g", "invalid quoted string \"ab%Sc%0g\" at 5|ab c"},
        {"%Z%Z", "invalid quoted string \"%Z%Z\" at 0|"}, {"%sx", "invalid quoted string \"%sx\" at 0|"},
        {plain + "%G0" + plain, "invalid quoted string \"" + plain + "%G0" + plain + "\" at 100|" + plain},
        {plain + plain + "%", "single % at end: \"" + plain + plain + "%\"|" + plain + plain}};
    for (auto const& c : back) EXPECT_EQ(c.second, dequote(c.first)) << c.first;
    std::string self = "a%Sb";
    dequote_string(lstr_t(self), self);  // reading itself
    EXPECT_EQ("a b", self);
}

// All forms and the size agree with the reference; the char* form writes no more.
TEST(Quote, RandomRoundTrips) {
    std::mt19937 rng(20240611);
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    for (int i = 0; i < 3000; ++i) {
        std::string const s = i == 0 ? all : random_bytes(rng);
        std::string const q = quote(s);
        ASSERT_EQ(reference_quote(s), q) << i;
        ASSERT_EQ(calc_quoted_string_size(s.data(), s.size()), q.size()) << i;
        std::vector<char> buf(q.size() + 1, '#');
        ASSERT_EQ(quote_string(s.data(), s.size(), buf.data()), q.size()) << i;
        ASSERT_EQ(std::string(buf.begin(), buf.end()), q + '#') << i;
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
        for (std::atomic<q_uint64_t>* c : {&qs::calls, &qs::size, &qs::time, &ds::calls, &ds::size, &ds::time}) *c = 0;
        q.clear();
        quote_string("a b", 3, buf);
        quote_string(big.data(), big.size(), q);
        calc_quoted_string_size(big.data(), big.size());  // not a call
        dequote_string(lstr_t(q), big);
        EXPECT_THROW(dequote_string(lstr_t("%"), sink), quoted_format_exception_shell_t);
        std::vector<q_uint64_t> const got{qs::calls, qs::size, ds::calls, ds::size};
        q_uint64_t const on = mode != 0;
        EXPECT_EQ(got, (std::vector<q_uint64_t>{2 * on, (3 + q.size()) * on, 2 * on, (q.size() + 1) * on})) << mode;
        EXPECT_EQ(on != 0, qs::time + ds::time > 0);  // quoting 64 KiB takes more than one tick on either clock
    }
    kern::runtime::stat::mode_s_ = saved;
}

}  // namespace
