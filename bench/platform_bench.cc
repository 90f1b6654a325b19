// The platform description, built once per process start: constructing a
// platform_base_t and writing info (without a probe program) to a logger
// that keeps nothing, beside the bare system queries they rest on (uname,
// sysinfo and the issue file read).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "loggers.h"
#include "platform.h"

namespace {

struct null_logger_t : if_logger_t {
    null_logger_t() : if_logger_t(NOTICE), saved(Log) { Log = this; }
    ~null_logger_t() override { Log = saved; }
    bool is_stderr() const override { return false; }
    size_t write(char const*) override { return 0; }
    if_logger_t* saved;
};

void BM_system_queries(benchmark::State& state) {
    for (auto _ : state) {
        struct utsname u;
        struct sysinfo si;
        char buf[512];
        benchmark::DoNotOptimize(uname(&u));
        benchmark::DoNotOptimize(sysinfo(&si));
        int const fd = open("/etc/issue.net", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            benchmark::DoNotOptimize(read(fd, buf, sizeof buf));
            close(fd);
        }
    }
}
BENCHMARK(BM_system_queries);

void BM_platform_base_construct(benchmark::State& state) {
    for (auto _ : state) {
        platform_base_t p;
        benchmark::DoNotOptimize(p.description);
    }
}
BENCHMARK(BM_platform_base_construct);

void BM_platform_construct_and_info(benchmark::State& state) {
    null_logger_t log;
    char* argv[] = {const_cast<char*>("./agent"), const_cast<char*>("--config"), const_cast<char*>("a b.conf")};
    for (auto _ : state) {
        platform_base_t p;
        p.info(3, argv, "/nonexistent");
    }
}
BENCHMARK(BM_platform_construct_and_info);

}  // namespace
