// The slice's tokenizer against the standard library: word(set, false) over
// a 1 MiB line of random words separated by runs of blanks and tabs, and the
// same split done with std::string_view find_first_of / substr.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <random>
#include <string>
#include <string_view>

#include "amtypes.h"

namespace {

char const k_seps[] = " \t";

std::string const& line() {
    static std::string const text = [] {
        std::mt19937 gen(12345);
        std::uniform_int_distribution<int> word_len(1, 12), letter('a', 'z'), gap(1, 3), sep(0, 1);
        std::string s;
        s.reserve((1u << 20) + 32);
        while (s.size() < (1u << 20)) {
            for (int i = word_len(gen); i > 0; --i) s.push_back(static_cast<char>(letter(gen)));
            for (int i = gap(gen); i > 0; --i) s.push_back(k_seps[sep(gen)]);
        }
        return s;
    }();
    return text;
}

std::size_t count_lstr(std::size_t& bytes) {
    lstr_t rest(line());
    lstr_t const set(k_seps, 2);
    std::size_t n = 0;
    while (!rest.empty()) {
        lstr_t const w = rest.word(set, false);
        bytes += w.length();
        ++n;
    }
    return n;
}

std::size_t count_view(std::size_t& bytes) {
    std::string_view const sv(line());
    std::string_view const set(k_seps, 2);
    std::size_t n = 0;
    std::size_t pos = 0;
    while (pos < sv.size()) {
        std::size_t end = sv.find_first_of(set, pos);
        if (end == std::string_view::npos) end = sv.size();
        std::string_view const w = sv.substr(pos, end - pos);
        bytes += w.size();
        ++n;
        pos = sv.find_first_not_of(set, end);
        if (pos == std::string_view::npos) break;
    }
    return n;
}

// Both loops must see the same tokens before their speeds mean anything.
bool same_tokens() {
    std::size_t a = 0, b = 0;
    return count_lstr(a) == count_view(b) && a == b;
}

void BM_LstrWordSet(benchmark::State& state) {
    if (!same_tokens()) state.SkipWithError("token counts differ");
    std::size_t tokens = 0;
    for (auto _ : state) {
        std::size_t bytes = 0;
        tokens = count_lstr(bytes);
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["tokens"] = static_cast<double>(tokens);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line().size()));
}
BENCHMARK(BM_LstrWordSet);

void BM_StringViewFindFirstOf(benchmark::State& state) {
    if (!same_tokens()) state.SkipWithError("token counts differ");
    std::size_t tokens = 0;
    for (auto _ : state) {
        std::size_t bytes = 0;
        tokens = count_view(bytes);
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["tokens"] = static_cast<double>(tokens);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line().size()));
}
BENCHMARK(BM_StringViewFindFirstOf);

}  // namespace
