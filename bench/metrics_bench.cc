// The whole exposition with 50 registered threads parked, side by side with
// a peer that puts the same text into a std::string with one snprintf per
// line, formatting its numbers. The peer reads no counter and no /proc file:
// the ratio is what gathering costs on top of the text. Each benchmark reports its bytes per second and, as the counter
// "of_snprintf", its rate as a fraction of the peer's measured in the same
// run, both on the thread's processor clock.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "lwp.h"
#include "metrics.h"

namespace {

using kern::metrics::format_t;

double cpu_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// 50 light-weight processes, each listed and named, parked until the
// program ends.
void park_threads() {
    static event_t* const go = new event_t(false, true);
    static bool const parked = [] {
        for (int i = 0; i < 50; ++i) {
            std::string const name = "worker-" + std::to_string(i);
            lwp_t::start(name.c_str(), [] { go->wait(timegap_t::infinite()); }, true);
        }
        return true;
    }();
    (void)parked;
}

// One line of the exposition as the peer writes it: the text before the
// value, and the value as a whole number or with decimals; comments have
// no value.
struct line_t {
    std::string head;
    bool sample;
    unsigned long long whole, frac;
    int digits;
};

std::vector<line_t> const& peer_lines() {
    static std::vector<line_t> const lines = [] {
        park_threads();
        std::string text;
        kern::metrics::append(text, format_t::openmetrics);
        std::vector<line_t> out;
        for (std::size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
            std::string const line = text.substr(at, nl - at);
            if (line[0] == '#') {
                out.push_back({line, false, 0, 0, 0});
                continue;
            }
            std::size_t const space = line.rfind(' '), dot = line.find('.', space);
            std::string const value = line.substr(space + 1);
            out.push_back({line.substr(0, space), true, std::stoull(value),
                           dot == std::string::npos ? 0 : std::stoull(line.substr(dot + 1)),
                           dot == std::string::npos ? 0 : static_cast<int>(line.size() - dot - 1)});
        }
        return out;
    }();
    return lines;
}

void peer(std::string& out) {
    char buf[512];
    for (line_t const& l : peer_lines()) {
        int const n = !l.sample      ? std::snprintf(buf, sizeof buf, "%s\n", l.head.c_str())
                      : l.digits == 0 ? std::snprintf(buf, sizeof buf, "%s %llu\n", l.head.c_str(), l.whole)
                                      : std::snprintf(buf, sizeof buf, "%s %llu.%0*llu\n", l.head.c_str(), l.whole,
                                                      l.digits, l.frac);
        out.append(buf, static_cast<std::size_t>(n));
    }
}

// The peer's rate in bytes per second, over a few hundred rounds.
double peer_rate() {
    static double const rate = [] {
        std::string out;
        double total = 0;
        std::size_t bytes = 0;
        for (int round = 0; round < 500; ++round) {
            out.clear();
            double const t0 = cpu_seconds();
            peer(out);
            benchmark::DoNotOptimize(out.data());
            total += cpu_seconds() - t0;
            bytes += out.size();
        }
        return static_cast<double>(bytes) / total;
    }();
    return rate;
}

template <typename F>
void measure(benchmark::State& state, F body) {
    double const rate = peer_rate();
    double seconds = 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        double const t0 = cpu_seconds();
        bytes += body();
        seconds += cpu_seconds() - t0;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["of_snprintf"] = static_cast<double>(bytes) / seconds / rate;
}

void BM_snprintf_peer(benchmark::State& state) {
    std::string out;
    measure(state, [&] {
        out.clear();
        peer(out);
        benchmark::DoNotOptimize(out.data());
        return out.size();
    });
}

void BM_append(benchmark::State& state) {
    park_threads();
    std::string out;
    auto const format = static_cast<format_t>(state.range(0));
    measure(state, [&] {
        out.clear();
        kern::metrics::append(out, format);
        benchmark::DoNotOptimize(out.data());
        return out.size();
    });
}

}  // namespace

BENCHMARK(BM_snprintf_peer)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_append)->Arg(static_cast<int>(format_t::openmetrics))->Arg(static_cast<int>(format_t::prometheus_text))
    ->Unit(benchmark::kMicrosecond);
