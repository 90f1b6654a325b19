// Decimal appending of 64-bit values and message formatting, each side by
// side with its standard peers.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "numeric-triades.h"
#include "utilities.h"

namespace {

constexpr std::size_t k_values = 1024;

std::vector<std::uint64_t> const& values(int mix) {
    static std::vector<std::uint64_t> const mixes[2] = {
        [] {
            std::mt19937_64 rng(1);
            std::vector<std::uint64_t> v(k_values);
            for (auto& x : v) x = rng() % 1000;
            return v;
        }(),
        [] {
            std::mt19937_64 rng(2);
            std::vector<std::uint64_t> v(k_values);
            for (auto& x : v) x = rng();
            return v;
        }(),
    };
    return mixes[mix];
}

template <typename Append>
void run(benchmark::State& state, Append append) {
    auto const& v = values(static_cast<int>(state.range(0)));
    std::string s;
    s.reserve(k_values * 21);
    for (auto _ : state) {
        s.clear();
        for (std::uint64_t x : v) append(x, s);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * v.size()));
    state.SetLabel(state.range(0) == 0 ? "small < 1000" : "full width");
}

void BM_add_number_to_string(benchmark::State& state) {
    run(state, [](std::uint64_t x, std::string& s) { add_number_to_string(x, s); });
}

void BM_to_chars_append(benchmark::State& state) {
    run(state, [](std::uint64_t x, std::string& s) {
        char buf[20];
        auto const r = std::to_chars(buf, buf + sizeof buf, x);
        s.append(buf, r.ptr);
    });
}

void BM_snprintf_append(benchmark::State& state) {
    run(state, [](std::uint64_t x, std::string& s) {
        char buf[24];
        int const n = std::snprintf(buf, sizeof buf, "%lu", static_cast<unsigned long>(x));
        s.append(buf, static_cast<std::size_t>(n));
    });
}

BENCHMARK(BM_add_number_to_string)->Arg(0)->Arg(1);
BENCHMARK(BM_to_chars_append)->Arg(0)->Arg(1);
BENCHMARK(BM_snprintf_append)->Arg(0)->Arg(1);

// A typical log message.
#define LOG_FORMAT "[Logger] rotated \"%s\" to \"%s\": %lu bytes in %d files, pid %d, %s"
#define LOG_ARGS "/var/log/agent/agent.log", "/var/log/agent/agent.log.3", 10485760UL, 4, 31337, "ok"

void BM_q_format(benchmark::State& state) {
    for (auto _ : state) {
        std::string s = q_format(LOG_FORMAT, LOG_ARGS);
        benchmark::DoNotOptimize(s.data());
    }
}

void BM_snprintf_copy(benchmark::State& state) {
    for (auto _ : state) {
        char buf[1024];
        int const n = std::snprintf(buf, sizeof buf, LOG_FORMAT, LOG_ARGS);
        std::string s(buf, static_cast<std::size_t>(n));
        benchmark::DoNotOptimize(s.data());
    }
}

BENCHMARK(BM_q_format);
BENCHMARK(BM_snprintf_copy);

}  // namespace
