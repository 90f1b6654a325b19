// A malloc/free pair of 64 bytes through the library's counting wrappers
// side by side with the C library's own functions called directly, on one
// thread and on two threads each allocating, with statistics off and on.
// The "naive" peer adds to the C library's pair what process-wide atomic
// counters of calls and bytes would cost: the layout the per-thread slots
// avoid.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include "code-exec-time.h"
#include "unx-utils-alloc.h"

extern "C" void* __libc_malloc(std::size_t);
extern "C" void __libc_free(void*);

namespace {

// Called through volatile pointers so that the compiler keeps every pair.
void* (*volatile g_malloc)(std::size_t) = malloc;
void (*volatile g_free)(void*) = free;
void* (*volatile g_libc_malloc)(std::size_t) = __libc_malloc;
void (*volatile g_libc_free)(void*) = __libc_free;

template <void* (*volatile* alloc)(std::size_t), void (*volatile* release)(void*)>
void pairs(benchmark::State& state, kern::runtime::stat::mode_t mode) {
    if (!kern::alloc::wrapped()) state.SkipWithError("built without the allocation wrappers");
    void* (*const a)(std::size_t) = *alloc;
    void (*const r)(void*) = *release;
    if (state.thread_index() == 0) kern::runtime::stat::mode_s_ = mode;
    for (auto _ : state) {
        void* const p = a(64);
        benchmark::DoNotOptimize(p);
        r(p);
    }
    if (state.thread_index() == 0) kern::runtime::stat::mode_s_ = 0;
}

// Calls and bytes of malloc and of free on one cache line, as plain
// process-wide counters would be.
struct alignas(64) naive_counters_t {
    std::atomic<unsigned long> calls[2];
    std::atomic<unsigned long> bytes[2];
} g_naive;

void* naive_malloc(std::size_t size) {
    void* const p = __libc_malloc(size);
    g_naive.calls[0].fetch_add(1, std::memory_order_relaxed);
    g_naive.bytes[0].fetch_add(malloc_usable_size(p), std::memory_order_relaxed);
    return p;
}
void naive_free(void* p) {
    g_naive.calls[1].fetch_add(1, std::memory_order_relaxed);
    g_naive.bytes[1].fetch_add(malloc_usable_size(p), std::memory_order_relaxed);
    __libc_free(p);
}
void* (*volatile g_naive_malloc)(std::size_t) = naive_malloc;
void (*volatile g_naive_free)(void*) = naive_free;

void BM_libc_pair(benchmark::State& state) { pairs<&g_libc_malloc, &g_libc_free>(state, 0); }
void BM_naive_pair(benchmark::State& state) { pairs<&g_naive_malloc, &g_naive_free>(state, 0); }
void BM_wrapped_pair(benchmark::State& state) { pairs<&g_malloc, &g_free>(state, 0); }
void BM_wrapped_pair_stat_thread(benchmark::State& state) { pairs<&g_malloc, &g_free>(state, 1); }
void BM_wrapped_pair_stat_real(benchmark::State& state) { pairs<&g_malloc, &g_free>(state, 2); }

BENCHMARK(BM_libc_pair);
BENCHMARK(BM_wrapped_pair);
BENCHMARK(BM_libc_pair)->Threads(2);
BENCHMARK(BM_wrapped_pair)->Threads(2);
BENCHMARK(BM_naive_pair)->Threads(2);
BENCHMARK(BM_wrapped_pair_stat_thread);
BENCHMARK(BM_wrapped_pair_stat_real);

}  // namespace
