// Light-weight processes and the thread registry side by side with their
// peers: a start/join of an empty job against std::thread, and an entry's
// registration and deregistration with 1, 100 and 10,000 live entries
// against a vector registry that finds the entry by pointer to erase it.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "lwp.h"
#include "runnable.h"

namespace {

void BM_std_thread_start_join(benchmark::State& state) {
    for (auto _ : state) {
        std::thread t([] {});
        t.join();
    }
}
BENCHMARK(BM_std_thread_start_join)->UseRealTime();

void BM_lwp_start_join(benchmark::State& state) {
    for (auto _ : state) {
        lwp_t::shared t = lwp_t::start("bench", [] {}, false);
        t->join(timegap_t::infinite());
    }
}
BENCHMARK(BM_lwp_start_join)->UseRealTime();

// Listed once complete, taken out before it is destroyed.
struct entry_t : kern_n::runnable_t {
    entry_t() { register_in_list(); }
    ~entry_t() override { deregister_from_list(); }
    char const* type() const override { return "bench"; }
};

// Construction registers, destruction deregisters: the pair a thread pays.
void BM_registry_register_deregister(benchmark::State& state) {
    std::vector<std::unique_ptr<entry_t>> live;
    for (int64_t i = 1; i < state.range(0); ++i) live.emplace_back(new entry_t);
    for (auto _ : state) {
        entry_t e;
        benchmark::DoNotOptimize(&e);
    }
    state.counters["live"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_registry_register_deregister)->Arg(1)->Arg(100)->Arg(10000);

// The peer: a vector of entry pointers under the same kind of mutex; the
// newest entry is found from the front and erased, as a thread that ends
// last would be.
void BM_vector_register_deregister(benchmark::State& state) {
    mutex_t guard;
    std::vector<void*> list;
    std::vector<int> live(static_cast<size_t>(state.range(0)));
    for (int64_t i = 1; i < state.range(0); ++i) list.push_back(&live[static_cast<size_t>(i)]);
    for (auto _ : state) {
        int self = 0;
        guard.xlock();
        list.erase(std::remove(list.begin(), list.end(), &self), list.end());
        guard.unlock();
        guard.xlock();
        list.push_back(&self);
        guard.unlock();
        guard.xlock();
        list.erase(std::find(list.begin(), list.end(), &self));
        guard.unlock();
    }
    state.counters["live"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_vector_register_deregister)->Arg(1)->Arg(100)->Arg(10000);

}  // namespace
