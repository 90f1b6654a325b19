// 17-digit time stamp text, both ways, against the C library's strftime and
// strptime (with gmtime_r / timegm) producing and reading the same fields.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstring>
#include <string>
#include <vector>

#include "time-objs.h"

namespace {

constexpr q_int64_t kSec = kern::time::ticks_per_second;

// 1024 stamps spread over 1970..2100 with milliseconds.
std::vector<timestamp_t> const& stamps() {
    static std::vector<timestamp_t> const v = [] {
        std::vector<timestamp_t> r;
        q_uint64_t x = 88172645463325252ULL;
        for (int i = 0; i < 1024; ++i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            q_int64_t const secs = static_cast<q_int64_t>(x % 4102444800ULL);
            r.push_back(timestamp_t(kern::time::unix_epoch_ticks + secs * kSec + static_cast<q_int64_t>(x % 1000) * 100000));
        }
        return r;
    }();
    return v;
}

std::vector<std::string> const& texts() {
    static std::vector<std::string> const v = [] {
        std::vector<std::string> r;
        for (timestamp_t const& t : stamps()) r.push_back(std::string(t));
        return r;
    }();
    return v;
}

void BM_ToText_Lib(benchmark::State& state) {
    auto const& in = stamps();
    std::size_t i = 0;
    for (auto _ : state) {
        std::string s = in[i++ & 1023];
        benchmark::DoNotOptimize(s);
    }
}
BENCHMARK(BM_ToText_Lib);

void BM_ToText_Libc(benchmark::State& state) {
    auto const& in = stamps();
    std::size_t i = 0;
    for (auto _ : state) {
        q_int64_t const u = in[i++ & 1023].value - kern::time::unix_epoch_ticks;
        time_t const secs = u / kSec;
        int const ms = static_cast<int>(u % kSec / 100000);
        struct tm tm;
        gmtime_r(&secs, &tm);
        char buf[24];
        std::size_t n = strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &tm);
        buf[n++] = static_cast<char>('0' + ms / 100);
        buf[n++] = static_cast<char>('0' + ms / 10 % 10);
        buf[n++] = static_cast<char>('0' + ms % 10);
        std::string s(buf, n);
        benchmark::DoNotOptimize(s);
    }
}
BENCHMARK(BM_ToText_Libc);

void BM_FromText_Lib(benchmark::State& state) {
    auto const& in = texts();
    std::size_t i = 0;
    for (auto _ : state) {
        timestamp_t const t(in[i++ & 1023]);
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(BM_FromText_Lib);

void BM_FromText_Libc(benchmark::State& state) {
    auto const& in = texts();
    std::size_t i = 0;
    for (auto _ : state) {
        std::string const& s = in[i++ & 1023];
        char head[15];
        std::memcpy(head, s.data(), 14);
        head[14] = 0;
        struct tm tm;
        std::memset(&tm, 0, sizeof tm);
        strptime(head, "%Y%m%d%H%M%S", &tm);
        int const ms = (s[14] - '0') * 100 + (s[15] - '0') * 10 + (s[16] - '0');
        q_int64_t const t = kern::time::unix_epoch_ticks + static_cast<q_int64_t>(timegm(&tm)) * kSec + ms * 100000;
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(BM_FromText_Libc);

// A round of the RFC 1123 form for scale.
void BM_Rfc1123_RoundTrip_Lib(benchmark::State& state) {
    auto const& in = stamps();
    std::size_t i = 0;
    std::string s;
    for (auto _ : state) {
        s.clear();
        in[i++ & 1023].rfc1123_date(s);
        timestamp_t const t{lstr_t(s)};
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(BM_Rfc1123_RoundTrip_Lib);

void BM_Rfc1123_RoundTrip_Libc(benchmark::State& state) {
    auto const& in = stamps();
    std::size_t i = 0;
    for (auto _ : state) {
        time_t const secs = (in[i++ & 1023].value - kern::time::unix_epoch_ticks) / kSec;
        struct tm tm;
        gmtime_r(&secs, &tm);
        char buf[40];
        strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S GMT", &tm);
        struct tm back;
        std::memset(&back, 0, sizeof back);
        strptime(buf, "%a, %d %b %Y %H:%M:%S GMT", &back);
        time_t const t = timegm(&back);
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(BM_Rfc1123_RoundTrip_Libc);

}  // namespace
