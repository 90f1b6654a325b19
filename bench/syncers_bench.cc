// The library's primitives side by side with the raw POSIX objects they
// wrap. The "naive" peers add what one process-wide atomic counter per
// operation would cost: the layout the slotted counters avoid.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>

#include "syncers.h"

namespace {

struct alignas(64) raw_mutex_t {
    raw_mutex_t() { pthread_mutex_init(&m, &mutex_t::attr); }
    ~raw_mutex_t() { pthread_mutex_destroy(&m); }
    pthread_mutex_t m;
};

struct alignas(64) lib_mutex_t {
    mutex_t m;
};

// Two process-wide counters on one cache line, as take and free would be.
struct alignas(64) naive_counters_t {
    std::atomic<unsigned long> take{0};
    std::atomic<unsigned long> free{0};
} g_naive;

// --- one thread, its own mutex ------------------------------------------------

void BM_raw_mutex(benchmark::State& state) {
    raw_mutex_t raw;
    for (auto _ : state) {
        pthread_mutex_lock(&raw.m);
        pthread_mutex_unlock(&raw.m);
    }
}
BENCHMARK(BM_raw_mutex);

void BM_mutex_t(benchmark::State& state) {
    lib_mutex_t lib;
    for (auto _ : state) {
        lib.m.xlock();
        lib.m.unlock();
    }
}
BENCHMARK(BM_mutex_t);

// --- two threads, each with its own mutex --------------------------------------

raw_mutex_t g_raw[2];
lib_mutex_t g_lib[2];

void BM_raw_mutex_own_per_thread(benchmark::State& state) {
    pthread_mutex_t* m = &g_raw[state.thread_index()].m;
    for (auto _ : state) {
        pthread_mutex_lock(m);
        pthread_mutex_unlock(m);
    }
}
BENCHMARK(BM_raw_mutex_own_per_thread)->Threads(2)->UseRealTime();

void BM_naive_counted_mutex_own_per_thread(benchmark::State& state) {
    pthread_mutex_t* m = &g_raw[state.thread_index()].m;
    for (auto _ : state) {
        g_naive.take.fetch_add(1, std::memory_order_relaxed);
        pthread_mutex_lock(m);
        g_naive.free.fetch_add(1, std::memory_order_relaxed);
        pthread_mutex_unlock(m);
    }
}
BENCHMARK(BM_naive_counted_mutex_own_per_thread)->Threads(2)->UseRealTime();

void BM_mutex_t_own_per_thread(benchmark::State& state) {
    mutex_t& m = g_lib[state.thread_index()].m;
    for (auto _ : state) {
        m.xlock();
        m.unlock();
    }
}
BENCHMARK(BM_mutex_t_own_per_thread)->Threads(2)->UseRealTime();

// --- reader/writer locks, shared hold ------------------------------------------

void BM_raw_rwlock_shared(benchmark::State& state) {
    static pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
    for (auto _ : state) {
        pthread_rwlock_rdlock(&rw);
        pthread_rwlock_unlock(&rw);
    }
}
BENCHMARK(BM_raw_rwlock_shared)->Threads(1)->Threads(2)->UseRealTime();

void BM_rwlock_t_shared(benchmark::State& state) {
    static rwlock_t rw;
    for (auto _ : state) {
        rw.slock();
        rw.unlock();
    }
}
BENCHMARK(BM_rwlock_t_shared)->Threads(1)->Threads(2)->UseRealTime();

// --- reading a counter -----------------------------------------------------------

void BM_counter_read(benchmark::State& state) {
    for (auto _ : state) {
        q_uint64_t v = kern::syncers::detail::mutex::take;
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_counter_read);

}  // namespace
