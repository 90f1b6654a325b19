// The statistics switch, the processor clock, the execution timer and cache statistics.
#include "code-exec-time.h"

#include <gtest/gtest.h>
#include <time.h>

#include <regex>
#include <tuple>

#include "numeric-triades.h"

namespace rs = kern::runtime::stat;

static q_uint64_t ticks_of(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<q_uint64_t>(ts.tv_sec) * 100000000 + static_cast<q_uint64_t>(ts.tv_nsec) / 10;
}

// Spends at least the given processor ticks on this thread.
static void burn(q_uint64_t ticks) {
    q_uint64_t const end = ticks_of(CLOCK_THREAD_CPUTIME_ID) + ticks;
    while (ticks_of(CLOCK_THREAD_CPUTIME_ID) < end) continue;
}

TEST(RuntimeStat, ModesClocksAndScopedTime) {
    EXPECT_EQ(0, rs::mode_s_);  // off at load
    char const* const names[] = {"real", "disabled", "thread", "real"};
    for (rs::mode_t mode = -1; mode <= 2; ++mode) {
        rs::mode_s_ = mode;
        EXPECT_STREQ(names[mode + 1], rs::type());
        // Mode 1 reads this thread's processor clock, any other the monotonic one.
        clockid_t const clock = mode == 1 ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
        q_uint64_t const before = ticks_of(clock), t = cpu_time_sum_t::thread_cpu_time(mode);
        EXPECT_TRUE(before <= t && t <= ticks_of(clock)) << mode << ": " << t;
        // A scoped timer adds the time of its scope only while the mode is on.
        std::atomic<q_uint64_t> sum{0};
        {
            rs::scoped_time_t timing(sum);
            EXPECT_EQ(mode != 0, timing.on());
            burn(100000);
        }
        EXPECT_EQ(mode != 0, sum.load() >= 100000) << mode << ": " << sum.load();
    }
    rs::mode_s_ = 0;
}

TEST(ExecTime, FormatsOnceAndAlike) {
    std::regex const shape(R"(^(\d+-)?(\d\d:)*\d\d\.\d+( \((\d+-)?(\d\d:)*\d\d\.\d+ CPU\))?$)");
    kern::runtime::exec_time_t quick, busy;
    EXPECT_FALSE(quick.finalized());
    std::string const first = quick.format();
    EXPECT_TRUE(quick.finalized() && std::regex_match(first, shape)) << first;
    burn(300000);  // 3 ms of processor time
    // Neither a second format() nor finalize() finalises again: same figures.
    quick.finalize();
    EXPECT_EQ(first, quick.format());
    busy.finalize();
    EXPECT_GE(busy.cpu_time().ticks(), 300000);
    std::string const text = busy.format();
    EXPECT_TRUE(std::regex_match(text, shape) && text.find(" CPU)") != std::string::npos) << text;
}

TEST(CacheStat, SavingsAndText) {
    typedef std::tuple<int, int, q_uint64_t, q_uint64_t> after_t;  // saved, then the maxima msaved, mvsize, mrsize
    struct { q_uint64_t v, r; after_t after; } const steps[] = {
        {0, 0, {0, 0, 0, 0}}, {0, 500, {0, 0, 0, 500}},  // vsize 0: no division
        {100, 250, {150, 150, 100, 500}}, {100, 120, {20, 150, 100, 500}},
        {3, 4, {33, 150, 100, 500}}, {400, 300, {0, 150, 400, 500}},  // integer division; none when raw is smaller
        {1, ~0ULL, {2147483647, 2147483647, 400, ~0ULL}},  // a saving beyond 32 bits
        {1ULL << 60, (1ULL << 61) + (1ULL << 59), {150, 2147483647, 1ULL << 60, ~0ULL}},  // a product beyond 64 bits
    };
    cache_stat_t c;
    for (auto const& s : steps) {
        c.vsize = s.v;
        c.rsize = s.r;
        EXPECT_EQ(std::get<0>(s.after), c.calculate_statistics());
        EXPECT_EQ(s.after, after_t(c.saved, c.msaved, c.mvsize, c.mrsize)) << s.v << "/" << s.r;
    }
    cache_stat_t const t{4096, 1000, 2048, 999, 150, 7, 3, 4};
    EXPECT_EQ("hits: 3, calls: 4, vsize: " + kilobytes(2048, true) + ", rsize: 999B, mvsize: " + kilobytes(4096, true) +
                  ", mrsize: 1000B, saved: 7%, msaved: 150%",
              t.statistics());
}
