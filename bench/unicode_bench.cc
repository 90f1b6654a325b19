// UTF-8 validation and case mapping side by side with ICU doing the same on
// the same text in the same run: is_valid_utf8 against u_strFromUTF8 asked
// only for the length (ICU's own validation), lower_string_uc and
// upper_string_uc against ucasemap_utf8ToLower/ToUpper. Each library
// benchmark reports its bytes per second and, as the counter "of_icu", its
// rate over ICU's, both taken on the thread's processor clock.
//
// Texts: "ascii" (log lines), "mostly_ascii" (the same with a word such as
// "café" now and then), "mixed" (a sentence each in Russian, Greek,
// Chinese, Japanese, Arabic, Thai, Hindi, German and English with emoji).
// The first argument picks the text, the second its size in bytes.
#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>

#include <unicode/ucasemap.h>
#include <unicode/ustring.h>

#include "unicode.h"

namespace {

double cpu_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

char const* const k_kinds[] = {"ascii", "mostly_ascii", "mixed"};

std::string make_text(int kind, std::size_t size) {
    static char const* const sentences[] = {
        "\u0421\u044a\u0435\u0448\u044c \u0436\u0435 \u0435\u0449\u0451 \u044d\u0442\u0438\u0445 \u043c\u044f\u0433\u043a\u0438\u0445 "
        "\u0444\u0440\u0430\u043d\u0446\u0443\u0437\u0441\u043a\u0438\u0445 \u0431\u0443\u043b\u043e\u043a. ",
        "\u039e\u03b5\u03c3\u03ba\u03b5\u03c0\u03ac\u03b6\u03c9 \u03c4\u03b7\u03bd \u03c8\u03c5\u03c7\u03bf\u03c6\u03b8\u03cc\u03c1\u03b1 "
        "\u03b2\u03b4\u03b5\u03bb\u03c5\u03b3\u03bc\u03af\u03b1. ",
        "\u654f\u6377\u7684\u68d5\u8272\u72d0\u72f8\u8df3\u8fc7\u4e86\u61d2\u72d7\u3002",
        "\u3044\u308d\u306f\u306b\u307b\u3078\u3068\u3061\u308a\u306c\u308b\u3092\u3002",
        "\u0646\u0635 \u062d\u0643\u064a\u0645 \u0644\u0647 \u0633\u0631 \u0642\u0627\u0637\u0639. ",
        "\u0e40\u0e1b\u0e47\u0e19\u0e21\u0e19\u0e38\u0e29\u0e22\u0e4c\u0e2a\u0e38\u0e14\u0e1b\u0e23\u0e30\u0e40\u0e2a\u0e23\u0e34\u0e10 ",
        "\u090b\u0937\u093f\u092f\u094b\u0902 \u0915\u094b \u0938\u0924\u093e\u0928\u0947 \u0935\u093e\u0932\u0947. ",
        "Zw\u00f6lf Boxk\u00e4mpfer jagen Viktor quer \u00fcber den gro\u00dfen Sylter Deich. ",
        "The quick brown fox \U0001F98A jumps over the lazy dog \U0001F436. ",
    };
    static char const* const words[] = {"INFO", "[Logger]", "user=alice", "action=login", "status=ok",
                                        "bytes=1234", "path=/var/log/x", "retry", "connection", "closed",
                                        "by", "peer", "caf\u00e9"};
    std::mt19937 rng(7);
    std::string t;
    while (t.size() < size) {
        if (kind == 2) {
            t += sentences[rng() % 9];
            continue;
        }
        t += "2024-06-11 12:34:56.789";
        for (int i = 4 + static_cast<int>(rng() % 8); i > 0; --i) t.append(" ").append(words[rng() % (kind ? 13 : 12)]);
        t += "\n";
    }
    t.resize(size);
    while (!t.empty() && (static_cast<unsigned char>(t.back()) & 0xC0) == 0x80) t.pop_back();  // whole characters
    if (!t.empty() && static_cast<unsigned char>(t.back()) >= 0xC0) t.pop_back();
    return t;
}

std::string const& text(int kind, std::size_t size) {
    static std::map<std::pair<int, std::size_t>, std::string> cache;
    std::string& t = cache[{kind, size}];
    if (t.empty()) t = make_text(kind, size);
    return t;
}

// Bytes per second of body, run a few hundred times.
template <typename F>
double rate_of(std::size_t bytes, F body) {
    int const rounds = static_cast<int>(std::max<std::size_t>(200, (64u << 20) / bytes));
    double const t0 = cpu_seconds();
    for (int round = 0; round < rounds; ++round) body();
    return static_cast<double>(bytes) * rounds / (cpu_seconds() - t0);
}

// Runs body on some 64 KiB of text per iteration (a short text many times,
// so that reading the clock does not count) and reports its rate over the
// peer's.
template <typename F>
void measure(benchmark::State& state, std::size_t bytes, double peer, F body) {
    std::size_t const reps = std::max<std::size_t>(1, (64u << 10) / bytes);
    double seconds = 0;
    for (auto _ : state) {
        double const t0 = cpu_seconds();
        for (std::size_t r = 0; r < reps; ++r) body();
        seconds += cpu_seconds() - t0;
    }
    double const total = static_cast<double>(bytes * reps) * static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(total));
    state.counters["of_icu"] = total / seconds / peer;
}

int32_t icu_validate(std::string const& t) {
    UErrorCode st = U_ZERO_ERROR;
    int32_t len = 0;
    u_strFromUTF8(nullptr, 0, &len, t.data(), static_cast<int32_t>(t.size()), &st);
    return st == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(st) ? len : -1;
}

void BM_icu_validate(benchmark::State& state) {
    std::string const& t = text(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    state.SetLabel(k_kinds[state.range(0)]);
    measure(state, t.size(), 1.0, [&] { benchmark::DoNotOptimize(icu_validate(t)); });
    state.counters.erase("of_icu");
}

void BM_is_valid_utf8(benchmark::State& state) {
    std::string const& t = text(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    state.SetLabel(k_kinds[state.range(0)]);
    double const peer = rate_of(t.size(), [&] { benchmark::DoNotOptimize(icu_validate(t)); });
    measure(state, t.size(), peer, [&] { benchmark::DoNotOptimize(is_valid_utf8(t)); });
    if (!is_valid_utf8(t)) state.SkipWithError("text refused");
}

// ICU's own UTF-8 case mapping, as the peer of the library's.
template <bool Upper>
void BM_icu_case(benchmark::State& state) {
    std::string const& t = text(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    state.SetLabel(k_kinds[state.range(0)]);
    UErrorCode st = U_ZERO_ERROR;
    UCaseMap* cm = ucasemap_open("", 0, &st);
    std::string out(t.size() * 2, '\0');
    measure(state, t.size(), 1.0, [&] {
        UErrorCode e = U_ZERO_ERROR;
        int32_t const n = static_cast<int32_t>(t.size()), cap = static_cast<int32_t>(out.size());
        benchmark::DoNotOptimize(Upper ? ucasemap_utf8ToUpper(cm, &out[0], cap, t.data(), n, &e)
                                       : ucasemap_utf8ToLower(cm, &out[0], cap, t.data(), n, &e));
    });
    state.counters.erase("of_icu");
    ucasemap_close(cm);
}

template <bool Upper>
void BM_case_uc(benchmark::State& state) {
    std::string const& t = text(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    state.SetLabel(k_kinds[state.range(0)]);
    UErrorCode st = U_ZERO_ERROR;
    UCaseMap* cm = ucasemap_open("", 0, &st);
    std::string peer_out(t.size() * 2, '\0');
    double const peer = rate_of(t.size(), [&] {
        UErrorCode e = U_ZERO_ERROR;
        int32_t const n = static_cast<int32_t>(t.size()), cap = static_cast<int32_t>(peer_out.size());
        benchmark::DoNotOptimize(Upper ? ucasemap_utf8ToUpper(cm, &peer_out[0], cap, t.data(), n, &e)
                                       : ucasemap_utf8ToLower(cm, &peer_out[0], cap, t.data(), n, &e));
    });
    ucasemap_close(cm);
    std::string out;
    measure(state, t.size(), peer, [&] {
        out.clear();
        Upper ? upper_string_uc(t, out) : lower_string_uc(t, out);
        benchmark::DoNotOptimize(out.data());
    });
}

void text_args(benchmark::internal::Benchmark* b) {
    for (int kind : {0, 1, 2}) b->Args({kind, 1 << 20});
}

void case_args(benchmark::internal::Benchmark* b) {
    for (int kind : {0, 2})
        for (int size : {32, 64 << 10}) b->Args({kind, size});
}

}  // namespace

BENCHMARK(BM_icu_validate)->Apply(text_args)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_is_valid_utf8)->Apply(text_args)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_icu_case, false)->Apply(case_args);
BENCHMARK_TEMPLATE(BM_case_uc, false)->Apply(case_args);
BENCHMARK_TEMPLATE(BM_icu_case, true)->Apply(case_args);
BENCHMARK_TEMPLATE(BM_case_uc, true)->Apply(case_args);
