// Decimal reading speed: the library's scanner (string_to_int64 and
// lstr_t::toi(10)) against strtoll / strtol and std::from_chars on the same
// random inputs. Each iteration reads the whole input set once.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "amtypes.h"
#include "numstrings.h"

namespace {

// NUL-terminated numbers with 1 to max_digits digits, about a third of them
// negative; kept in one buffer so that every reader sees the same bytes.
struct inputs_t {
    std::string buffer;
    std::vector<lstr_t> slices;

    explicit inputs_t(int max_digits) {
        std::mt19937_64 rng(12345);
        std::vector<std::pair<unsigned long, unsigned long>> spans;
        for (int i = 0; i < 4096; ++i) {
            int const digits = 1 + static_cast<int>(rng() % static_cast<unsigned>(max_digits));
            unsigned long const start = buffer.size();
            if (rng() % 3 == 0) buffer += '-';
            // A 19-digit number stays below 9e18, inside the 64-bit range.
            buffer += static_cast<char>('1' + rng() % (digits == 19 ? 8 : 9));
            for (int d = 1; d < digits; ++d) buffer += static_cast<char>('0' + rng() % 10);
            spans.emplace_back(start, buffer.size() - start);
            buffer += '\0';
        }
        for (auto const& s : spans) slices.emplace_back(buffer.data() + s.first, s.second);
    }
};

inputs_t const& wide() {
    static inputs_t const in(19);
    return in;
}

inputs_t const& narrow() {
    static inputs_t const in(9);
    return in;
}

template <typename F>
void run(benchmark::State& state, inputs_t const& in, F read) {
    for (auto _ : state) {
        long sum = 0;
        for (lstr_t const& s : in.slices) sum += read(s);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<long>(state.iterations() * in.slices.size()));
}

void BM_int64_string_to_int64(benchmark::State& state) {
    run(state, wide(), [](lstr_t const& s) { return string_to_int64(s); });
}
void BM_int64_strtoll(benchmark::State& state) {
    run(state, wide(), [](lstr_t const& s) { return std::strtoll(s.ptr(), nullptr, 10); });
}
void BM_int64_from_chars(benchmark::State& state) {
    run(state, wide(), [](lstr_t const& s) {
        long v = 0;
        std::from_chars(s.begin(), s.end(), v);
        return v;
    });
}

void BM_int_toi10(benchmark::State& state) {
    run(state, narrow(), [](lstr_t const& s) { return static_cast<long>(s.toi(10)); });
}
void BM_int_strtol(benchmark::State& state) {
    run(state, narrow(), [](lstr_t const& s) { return static_cast<long>(static_cast<int>(std::strtol(s.ptr(), nullptr, 10))); });
}
void BM_int_from_chars(benchmark::State& state) {
    run(state, narrow(), [](lstr_t const& s) {
        int v = 0;
        std::from_chars(s.begin(), s.end(), v);
        return static_cast<long>(v);
    });
}

BENCHMARK(BM_int64_string_to_int64);
BENCHMARK(BM_int64_strtoll);
BENCHMARK(BM_int64_from_chars);
BENCHMARK(BM_int_toi10);
BENCHMARK(BM_int_strtol);
BENCHMARK(BM_int_from_chars);

}  // namespace
