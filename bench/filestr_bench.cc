// Whole-file reads beside std::ifstream reading the same file (sized by
// seeking to its end, the quickest form), and lstr2file beside
// fopen/fwrite/fclose. Files live in $BENCH_DIR, /tmp by default.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "filestr.h"

namespace {

std::string path_of(char const* name) {
    char const* const dir = std::getenv("BENCH_DIR");
    return std::string(dir ? dir : "/tmp") + "/filestr_bench." + std::to_string(getpid()) + "." + name;
}

// A file of the benchmark's size, removed afterwards.
struct file_t {
    std::string path;
    explicit file_t(std::size_t size) : path(path_of(std::to_string(size).c_str())) {
        lstr2file(path, std::string(size, 'r'), 0);
    }
    ~file_t() { unlink(path.c_str()); }
};

void BM_read_entire_file(benchmark::State& state) {
    file_t const f(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::string s;
        read_entire_file(s, f.path.c_str());
        benchmark::DoNotOptimize(s.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_read_entire_file)->Arg(4096)->Arg(1 << 20);

void BM_ifstream_read(benchmark::State& state) {
    file_t const f(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::ifstream in(f.path, std::ios::binary);
        in.seekg(0, std::ios::end);
        std::string s(static_cast<std::size_t>(in.tellg()), '\0');
        in.seekg(0);
        in.read(&s[0], static_cast<std::streamsize>(s.size()));
        benchmark::DoNotOptimize(s.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ifstream_read)->Arg(4096)->Arg(1 << 20);

std::string const g_data(4096, 'w');

void BM_lstr2file_4k(benchmark::State& state) {
    std::string const path = path_of("w");
    for (auto _ : state) lstr2file(path, g_data, 0);
    unlink(path.c_str());
}
BENCHMARK(BM_lstr2file_4k);

void BM_fopen_fwrite_fclose_4k(benchmark::State& state) {
    std::string const path = path_of("w");
    for (auto _ : state) {
        FILE* f = std::fopen(path.c_str(), "we");
        std::fwrite(g_data.data(), 1, g_data.size(), f);
        std::fclose(f);
    }
    unlink(path.c_str());
}
BENCHMARK(BM_fopen_fwrite_fclose_4k);

}  // namespace
