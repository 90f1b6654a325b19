// Running commands side by side with their peers: execute of true waited for
// against posix_spawnp + waitpid of the same program, each at the soft limit
// on open files as it is and raised as far as the hard limit lets it (1048576
// where allowed); and closing every descriptor above 2 under the raised
// limit by close_range, by the /proc/self/fd listing (a kernel before 5.9)
// and by the plain loop over every number.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform.h"
#include "utilities-exec.h"

namespace {

// Sets the soft limit to want, or to the hard limit when that is lower and
// cannot be raised; answers the limit in force.
rlim_t set_open_files_limit(rlim_t want) {
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (want > rl.rlim_max) {
        struct rlimit raised = {want, want};
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) return want;
    }
    rl.rlim_cur = want < rl.rlim_max ? want : rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    return rl.rlim_cur;
}

void BM_execute_true(benchmark::State& state) {
    state.counters["limit"] = static_cast<double>(set_open_files_limit(static_cast<rlim_t>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(execute("true", "", true));
}
BENCHMARK(BM_execute_true)->Arg(1024)->Arg(1048576)->UseRealTime();

void BM_posix_spawnp_true(benchmark::State& state) {
    state.counters["limit"] = static_cast<double>(set_open_files_limit(static_cast<rlim_t>(state.range(0))));
    char* argv[] = {const_cast<char*>("true"), nullptr};
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawnp(&pid, "true", nullptr, nullptr, argv, environ) != 0) state.SkipWithError("spawn");
        int status;
        waitpid(pid, &status, 0);
    }
}
BENCHMARK(BM_posix_spawnp_true)->Arg(1024)->Arg(1048576)->UseRealTime();

// Arg 0: close_range; 1: the /proc listing the library falls back to.
void BM_close_all_nonstardard_handles(benchmark::State& state) {
    state.counters["limit"] = static_cast<double>(set_open_files_limit(1048576));
    unsigned const saved = platform_linux_version_1;
    if (state.range(0) == 1) platform_linux_version_1 = 2;
    for (auto _ : state) close_all_nonstardard_handles();
    platform_linux_version_1 = saved;
}
BENCHMARK(BM_close_all_nonstardard_handles)->Arg(0)->Arg(1);

void BM_close_every_number(benchmark::State& state) {
    int const limit = static_cast<int>(set_open_files_limit(1048576));
    state.counters["limit"] = limit;
    for (auto _ : state)
        for (int fd = 3; fd < limit; ++fd) close(fd);
}
BENCHMARK(BM_close_every_number);

}  // namespace
