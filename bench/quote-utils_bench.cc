// Quoting and dequoting throughput on a 1 MiB log-like text, side by side
// with memcpy of the same bytes. Each benchmark reports its bytes per second
// and, as the counter "of_memcpy", its fraction of memcpy's rate measured in
// the same run. Both rates are taken on the thread's processor clock, like
// the bytes per second, so that a busy machine skews them alike.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quote-utils.h"

namespace {

double cpu_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::size_t const k_size = 1 << 20;

// Log lines: mostly printable words with blanks, ", " between fields, a
// few "," and "%" inside values, lines ending in LF or CR LF, now and then
// a non-ASCII byte.
std::string const& log_text() {
    static std::string const text = [] {
        static char const* const words[] = {"INFO", "[Logger]", "user=alice", "action=login",
                                            "status=ok", "bytes=1234", "path=/var/log/x",
                                            "load=42%", "id=7,8", "retry", "connection",
                                            "closed", "by", "peer", "caf\xC3\xA9"};
        std::mt19937 rng(7);
        std::uniform_int_distribution<int> word(0, 14), sep(0, 9), fields(4, 12);
        std::string t;
        t.reserve(k_size + 256);
        while (t.size() < k_size) {
            t += "2024-06-11 12:34:56.789";
            for (int i = fields(rng); i > 0; --i) {
                t += sep(rng) < 3 ? ", " : " ";
                t += words[word(rng)];
            }
            t += sep(rng) < 5 ? "\r\n" : "\n";
        }
        t.resize(k_size);
        return t;
    }();
    return text;
}

// memcpy's rate on the text in bytes per second, over a few hundred rounds.
double memcpy_rate() {
    static double const rate = [] {
        std::string const& src = log_text();
        std::vector<char> dst(src.size());
        double total = 0;
        for (int round = 0; round < 200; ++round) {
            double const t0 = cpu_seconds();
            std::memcpy(dst.data(), src.data(), src.size());
            benchmark::DoNotOptimize(dst.data());
            benchmark::ClobberMemory();
            total += cpu_seconds() - t0;
        }
        return static_cast<double>(src.size()) * 200 / total;
    }();
    return rate;
}

// Runs body once per iteration, timing it alongside the library's own timer
// so that the fraction of memcpy can be reported.
template <typename F>
void measure(benchmark::State& state, F body) {
    double const peer = memcpy_rate();
    double seconds = 0;
    for (auto _ : state) {
        double const t0 = cpu_seconds();
        body();
        seconds += cpu_seconds() - t0;
    }
    double const bytes = static_cast<double>(k_size) * static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["of_memcpy"] = bytes / seconds / peer;
}

void BM_memcpy(benchmark::State& state) {
    std::string const& src = log_text();
    std::vector<char> dst(src.size());
    measure(state, [&] {
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    });
}

void BM_quote_string(benchmark::State& state) {
    std::string const& src = log_text();
    std::string out;
    measure(state, [&] {
        out.clear();
        quote_string(src.data(), src.size(), out);
        benchmark::DoNotOptimize(out.data());
    });
}

void BM_quote_buffer(benchmark::State& state) {
    std::string const& src = log_text();
    std::vector<char> out(calc_quoted_string_size(src.data(), src.size()));
    measure(state, [&] {
        // Sizing is part of the writer's cost, as a caller pays it.
        benchmark::DoNotOptimize(calc_quoted_string_size(src.data(), src.size()));
        benchmark::DoNotOptimize(quote_string(src.data(), src.size(), out.data()));
    });
}

void BM_dequote_string(benchmark::State& state) {
    std::string quoted;
    quote_string(log_text().data(), log_text().size(), quoted);
    std::string out;
    measure(state, [&] {
        dequote_string(lstr_t(quoted), out);
        benchmark::DoNotOptimize(out.data());
    });
    // Throughput in bytes of the decoded text, like the writers'.
    if (out != log_text()) state.SkipWithError("round trip failed");
}

void BM_calc_quoted_string_size(benchmark::State& state) {
    std::string const& src = log_text();
    measure(state, [&] { benchmark::DoNotOptimize(calc_quoted_string_size(src.data(), src.size())); });
}

}  // namespace

BENCHMARK(BM_memcpy)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_quote_string)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_quote_buffer)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_dequote_string)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_calc_quoted_string_size)->Unit(benchmark::kMicrosecond);
