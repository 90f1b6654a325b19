// random_t's draw beside a plain reference ISAAC loop and std::mt19937, a
// draw through a shared generator's mutex, and identifiers from the
// kernel's file, the internal generator and (when present) libuuid.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <thread>

#include "random.h"
#include "syncers.h"

#ifdef QVLKERN_HAVE_LIBUUID
#include <uuid/uuid.h>
#endif

namespace {

// ISAAC in its published form: the block refilled by a function of its
// own with the unrolled step macro over the two halves, the draw a
// decrement and a read, last word first.
struct ref_isaac_t {
    std::uint32_t randrsl[256] = {}, mm[256] = {}, aa = 0, bb = 0, cc = 0, randcnt = 0;

#define ind(x) (*(std::uint32_t*)((unsigned char*)mm + ((x) & (255 << 2))))
#define rngstep(mix)                  \
    {                                 \
        x = *m;                       \
        a = (a ^ (mix)) + *(m2++);    \
        *(m++) = y = ind(x) + a + b;  \
        *(r++) = b = ind(y >> 8) + x; \
    }
    __attribute__((noinline)) void isaac() {
        std::uint32_t a = aa, b = bb + (++cc), x, y, *m = mm, *m2 = mm + 128, *r = randrsl, *mend = m2;
        for (; m < mend;) { rngstep(a << 13); rngstep(a >> 6); rngstep(a << 2); rngstep(a >> 16); }
        for (m2 = mm; m2 < mend;) { rngstep(a << 13); rngstep(a >> 6); rngstep(a << 2); rngstep(a >> 16); }
        bb = b;
        aa = a;
    }
#undef rngstep
#undef ind
    std::uint32_t next() { return !randcnt-- ? (isaac(), randcnt = 255, randrsl[randcnt]) : randrsl[randcnt]; }
};

unsigned int g_seed[256];

void BM_random_t_rand(benchmark::State& state) {
    random_t r(g_seed);
    for (auto _ : state) benchmark::DoNotOptimize(r.rand());
}
BENCHMARK(BM_random_t_rand);

void BM_reference_isaac(benchmark::State& state) {
    ref_isaac_t r;
    for (auto _ : state) benchmark::DoNotOptimize(r.next());
}
BENCHMARK(BM_reference_isaac);

void BM_std_mt19937(benchmark::State& state) {
    std::mt19937 r(5489u);
    for (auto _ : state) benchmark::DoNotOptimize(r());
}
BENCHMARK(BM_std_mt19937);

mutex_t g_lock;
random_t g_shared(g_seed, &g_lock);

// One thread alone on the shared generator, then two taking turns.
void BM_random_t_rand_shared_mutex(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(g_shared.rand());
}
BENCHMARK(BM_random_t_rand_shared_mutex)->Threads(1)->Threads(2);

void BM_get_uuid_kernel_file(benchmark::State& state) {
    char id[37];
    kern::uuid::use_internal_generator = false;
    for (auto _ : state) {
        get_uuid(id);
        benchmark::DoNotOptimize(id);
    }
}
BENCHMARK(BM_get_uuid_kernel_file);

void BM_get_uuid_internal(benchmark::State& state) {
    char id[37];
    kern::uuid::use_internal_generator = true;
    for (auto _ : state) {
        get_uuid(id);
        benchmark::DoNotOptimize(id);
    }
    kern::uuid::use_internal_generator = false;
}
BENCHMARK(BM_get_uuid_internal);

#ifdef QVLKERN_HAVE_LIBUUID
void BM_libuuid_generate_time(benchmark::State& state) {
    uuid_t u;
    char id[37];
    for (auto _ : state) {
        uuid_generate_time(u);
        uuid_unparse_lower(u, id);
        benchmark::DoNotOptimize(id);
    }
}
BENCHMARK(BM_libuuid_generate_time);
#endif

}  // namespace
