// Tests of the statistics switch, the processor clock, the execution timer
// and cache statistics.
#include "code-exec-time.h"

#include <gtest/gtest.h>
#include <time.h>

#include <regex>
#include <string>

#include "numeric-triades.h"

namespace {

q_uint64_t monotonic_ticks() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<q_uint64_t>(ts.tv_sec) * 100000000 + static_cast<q_uint64_t>(ts.tv_nsec) / 10;
}

// Spends at least the given processor ticks on this thread.
void burn(q_uint64_t ticks) {
    q_uint64_t const start = cpu_time_sum_t::thread_cpu_time(1);
    volatile unsigned sink = 0;
    while (cpu_time_sum_t::thread_cpu_time(1) - start < ticks)
        for (int i = 0; i < 1000; ++i) sink = sink + i;
}

TEST(RuntimeStat, ModesClocksAndScopedTime) {
    namespace rs = kern::runtime::stat;
    rs::mode_t const saved = rs::mode_s_;
    EXPECT_EQ(0, saved);  // off at load
    char const* const names[] = {"real", "disabled", "thread", "real"};
    for (rs::mode_t mode = -1; mode <= 2; ++mode) {
        rs::mode_s_ = mode;
        EXPECT_STREQ(names[mode + 1], rs::type());
    }
    // Any mode but 1 reads the monotonic clock, in ticks.
    for (rs::mode_t mode : {0, 2, -1}) {
        q_uint64_t const before = monotonic_ticks();
        q_uint64_t const t = cpu_time_sum_t::thread_cpu_time(mode);
        EXPECT_LE(before, t);
        EXPECT_LE(t, monotonic_ticks());
    }
    // Mode 1 reads this thread's processor time, which work moves; a
    // scoped timer adds it only while the mode is on.
    std::atomic<q_uint64_t> sum{0};
    for (rs::mode_t mode : {0, 1}) {
        rs::mode_s_ = mode;
        q_uint64_t const c0 = cpu_time_sum_t::thread_cpu_time(1);
        {
            rs::scoped_time_t t(sum);
            EXPECT_EQ(mode != 0, t.on());
            burn(100000);
        }
        EXPECT_GE(cpu_time_sum_t::thread_cpu_time(1), c0 + 100000);
        EXPECT_EQ(mode != 0, sum.load() >= 100000) << sum.load();
    }
    rs::mode_s_ = saved;
}

TEST(ExecTime, FormatsOnceAndAlike) {
    std::regex const shape(R"(^(\d+-)?(\d\d:)*\d\d\.\d+( \((\d+-)?(\d\d:)*\d\d\.\d+ CPU\))?$)");
    kern::runtime::exec_time_t quick;
    EXPECT_FALSE(quick.finalized());
    std::string const first = quick.format();
    EXPECT_TRUE(quick.finalized());
    EXPECT_TRUE(std::regex_match(first, shape)) << first;
    burn(200000);
    // Formatting again does not finalise again: same figures.
    EXPECT_EQ(first, quick.format());
    quick.finalize();
    EXPECT_EQ(first, quick.format());

    kern::runtime::exec_time_t busy;
    burn(300000);  // 3 ms of processor time
    busy.finalize();
    EXPECT_GE(busy.cpu_time().ticks(), 300000);
    std::string const text = busy.format();
    EXPECT_TRUE(std::regex_match(text, shape)) << text;
    EXPECT_NE(std::string::npos, text.find(" CPU)")) << text;
}

TEST(CacheStat, SavingsAndText) {
    cache_stat_t c;
    EXPECT_EQ(0, c.calculate_statistics());  // all zero: no division
    c.rsize = 500;
    EXPECT_EQ(0, c.calculate_statistics());  // vsize 0
    EXPECT_EQ(500u, c.mrsize);
    c.vsize = 100;
    c.rsize = 250;
    EXPECT_EQ(150, c.calculate_statistics());
    c.vsize = 100;
    c.rsize = 120;
    EXPECT_EQ(20, c.calculate_statistics());
    EXPECT_EQ(20, c.saved);
    EXPECT_EQ(150, c.msaved);
    c.vsize = 3;
    c.rsize = 4;
    EXPECT_EQ(33, c.calculate_statistics());  // integer division
    c.vsize = 400;
    c.rsize = 300;
    EXPECT_EQ(0, c.calculate_statistics());  // no saving when raw is smaller
    EXPECT_EQ(400u, c.mvsize);
    EXPECT_EQ(500u, c.mrsize);
    // A product beyond 64 bits, and a saving beyond 32 bits.
    c.vsize = 1;
    c.rsize = ~0ULL;
    EXPECT_EQ(2147483647, c.calculate_statistics());
    c.vsize = 1ULL << 60;
    c.rsize = (1ULL << 61) + (1ULL << 59);
    EXPECT_EQ(150, c.calculate_statistics());

    cache_stat_t s;
    s.hits = 3;
    s.calls = 4;
    s.vsize = 100;
    s.rsize = 250;
    s.calculate_statistics();
    s.vsize = 2048;
    s.rsize = 1000;
    s.calculate_statistics();
    EXPECT_EQ("hits: 3, calls: 4, vsize: " + kilobytes(2048, true) +
                  ", rsize: 1000B, mvsize: " + kilobytes(2048, true) +
                  ", mrsize: 1000B, saved: 0%, msaved: 150%",
              s.statistics());
}

}  // namespace
