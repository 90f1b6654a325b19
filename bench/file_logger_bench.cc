// The file logger side by side with the descriptor logger and gzip:
//   fd_logger           log_INFO through a descriptor logger on a file (the
//                       floor: the file logger is this plus its checks);
//   file_logger         the same lines through a file logger that never
//                       rotates: the once-a-second check, the clock read and
//                       the rotation test are all it adds;
//   file_logger_rotate  rotation every 1 MiB with compression on. A writer
//                       at full speed makes log text faster than zlib at
//                       level 9 compresses it, so each rotation waits for
//                       the previous compression: this measures the
//                       compressor. Its CPU time is the writer's own;
//   file_logger_rotate_plain  the same without compression: the cost of the
//                       renames and reopens;
//   *_paced             a writer that does about a microsecond of other work
//                       per line (still some 60 MB/s of log), without and
//                       with rotation and compression: what rotation costs
//                       when the compressor keeps up;
//   file_logger_checked the file logger with a clock that moves a second a
//                       line, so that every line runs the check (fstat of
//                       the file, stat of its path): the check's own cost,
//                       which real time spreads over a second of lines;
//   file_logger_checked_floor  the same with a floor of free space set, which
//                       adds a statvfs to every check;
//   pack / gzip_9       compressing a 10 MiB log file, by the logger's pack
//                       (zlib level 9 in 16 KiB blocks) and by the gzip -9
//                       command.
// Each message differs from the one before, so repeat folding never drops a
// line. Lines are about 100 bytes, as in the logs of the product.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "loggers.h"

namespace {

constexpr int k_lines = 400000;
char const k_dir[] = "/tmp/qvlkern-file-logger-bench";
char const k_fmt[] = "request %d served from cache node %s in %d us";

if_logger_t* g_logger = nullptr;
if_logger_t* g_saved_log = nullptr;
int g_fd = -1;

std::string path(char const* leaf) { return std::string(k_dir) + "/" + leaf; }

void clean_dir() { std::system((std::string("rm -rf ") + k_dir).c_str()); }

void start(if_logger_t* l) {
    g_logger = l;
    // As after init_logger: the logger's own lines are formatted by itself.
    g_saved_log = if_logger_t::Log;
    if_logger_t::Log = l;
}

void finish(benchmark::State const&) {
    if_logger_t::Log = g_saved_log;
    delete g_logger;  // a file logger waits for its last compression here
    g_logger = nullptr;
    if (g_fd >= 0) ::close(g_fd);
    g_fd = -1;
    clean_dir();
}

void make_fd_logger(benchmark::State const&) {
    clean_dir();
    ::mkdir(k_dir, 0755);
    g_fd = ::open(path("agent.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0640);
    start(fd_logger_t::create(g_fd));
}

void make_file_logger(benchmark::State const&) {
    clean_dir();
    ::mkdir(k_dir, 0755);
    start(file_logger_t::create(path("agent.log").c_str(), "NONE"));
}

void make_rotating_logger(benchmark::State const&) {
    clean_dir();
    ::mkdir(k_dir, 0755);
    start(file_logger_t::create(path("agent.log").c_str(), "10z,1m"));
}

void make_plain_rotating_logger(benchmark::State const&) {
    clean_dir();
    ::mkdir(k_dir, 0755);
    start(file_logger_t::create(path("agent.log").c_str(), "10p,1m"));
}

void write_lines(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        g_logger->log_INFO(k_fmt, i, "eu-west-7", i % 997);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}

// About a microsecond of work of the program's own between two lines.
void write_lines_paced(benchmark::State& state) {
    int i = 0;
    unsigned work = 1;
    for (auto _ : state) {
        for (int k = 0; k < 400; ++k) {
            work = work * 2654435761u + unsigned(k);
            benchmark::DoNotOptimize(work);
        }
        g_logger->log_INFO(k_fmt, i, "eu-west-7", i % 997);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_fd_logger(benchmark::State& state) { write_lines(state); }
BENCHMARK(BM_fd_logger)->Setup(make_fd_logger)->Teardown(finish)->Iterations(k_lines)->UseRealTime();

void BM_file_logger(benchmark::State& state) { write_lines(state); }
BENCHMARK(BM_file_logger)->Setup(make_file_logger)->Teardown(finish)->Iterations(k_lines)->UseRealTime();

void BM_file_logger_rotate(benchmark::State& state) { write_lines(state); }
BENCHMARK(BM_file_logger_rotate)->Setup(make_rotating_logger)->Teardown(finish)->Iterations(k_lines)->UseRealTime();

void BM_file_logger_rotate_plain(benchmark::State& state) { write_lines(state); }
BENCHMARK(BM_file_logger_rotate_plain)
    ->Setup(make_plain_rotating_logger)
    ->Teardown(finish)
    ->Iterations(k_lines)
    ->UseRealTime();

// A clock a second further on at every reading: every line is checked.
std::atomic<q_int64_t> g_ticks{0};
timestamp_t moving_clock() {
    return timestamp_t(g_ticks.fetch_add(kern::time::ticks_per_second) + kern::time::unix_epoch_ticks);
}
file_logger_impl_t::clock_fn_t g_saved_clock = nullptr;

void make_checked_logger(benchmark::State const& state) {
    make_file_logger(state);
    g_saved_clock = file_logger_impl_t::clock;
    file_logger_impl_t::clock = moving_clock;
}

void make_checked_floor_logger(benchmark::State const& state) {
    make_checked_logger(state);
    file_logger_t::set_disk_limits(g_logger, -1, 1);
}

void finish_checked(benchmark::State const& state) {
    finish(state);
    file_logger_impl_t::clock = g_saved_clock;
}

void BM_file_logger_checked(benchmark::State& state) { write_lines(state); }
BENCHMARK(BM_file_logger_checked)
    ->Setup(make_checked_logger)
    ->Teardown(finish_checked)
    ->Iterations(k_lines)
    ->UseRealTime();

void BM_file_logger_checked_floor(benchmark::State& state) { write_lines(state); }
BENCHMARK(BM_file_logger_checked_floor)
    ->Setup(make_checked_floor_logger)
    ->Teardown(finish_checked)
    ->Iterations(k_lines)
    ->UseRealTime();

void BM_file_logger_paced(benchmark::State& state) { write_lines_paced(state); }
BENCHMARK(BM_file_logger_paced)->Setup(make_file_logger)->Teardown(finish)->Iterations(k_lines)->UseRealTime();

void BM_file_logger_rotate_paced(benchmark::State& state) { write_lines_paced(state); }
BENCHMARK(BM_file_logger_rotate_paced)
    ->Setup(make_rotating_logger)
    ->Teardown(finish)
    ->Iterations(k_lines)
    ->UseRealTime();

// --- compression ------------------------------------------------------------------

constexpr size_t k_pack_size = 10u << 20;
std::string g_source;

// A 10 MiB log written by a descriptor logger: real prefixes, varied lines.
void make_source(benchmark::State const&) {
    clean_dir();
    ::mkdir(k_dir, 0755);
    g_source = path("source.log");
    int const fd = ::open(g_source.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0640);
    if_logger_t* const l = fd_logger_t::create(fd);
    static char const* const nodes[] = {"eu-west-7", "us-east-1", "ap-south-2", "eu-central-1"};
    struct stat st = {};
    for (int i = 0; st.st_size < off_t(k_pack_size); ++i) {
        l->log_INFO(k_fmt, i * 7919 % 100003, nodes[i % 4], i % 997);
        if (i % 7 == 0) l->log_TRACE("session %08x closed after %d requests", unsigned(i) * 2654435761u, i % 31);
        if (i % 1000 == 0) ::fstat(fd, &st);
    }
    delete l;
    ::ftruncate(fd, off_t(k_pack_size));
    ::close(fd);
}

void copy_source(std::string const& to) {
    std::system(("cp " + g_source + " " + to).c_str());
}

void BM_pack(benchmark::State& state) {
    file_logger_impl_t logger(path("pack-own.log").c_str(), "NONE", "");
    rwlock_t lock;
    std::string const from = path("agent.1.log"), to = path("agent.1.log.gz");
    for (auto _ : state) {
        state.PauseTiming();
        copy_source(from);
        state.ResumeTiming();
        logger.pack(file_logger_impl_t::rotation_hold_t(new xlocker_t<rwlock_t>(lock)), from, to);
    }
    struct stat st = {};
    ::stat(to.c_str(), &st);
    state.counters["ratio"] = double(k_pack_size) / double(st.st_size);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(k_pack_size));
}
BENCHMARK(BM_pack)->Setup(make_source)->Teardown(finish)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_gzip_9(benchmark::State& state) {
    std::string const from = path("agent.1.log"), to = path("agent.1.log.gz");
    std::string const command = "gzip -9 -c " + from + " > " + to;
    for (auto _ : state) {
        state.PauseTiming();
        copy_source(from);
        state.ResumeTiming();
        if (std::system(command.c_str()) != 0) state.SkipWithError("gzip failed");
    }
    struct stat st = {};
    ::stat(to.c_str(), &st);
    state.counters["ratio"] = double(k_pack_size) / double(st.st_size);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(k_pack_size));
}
BENCHMARK(BM_gzip_9)->Setup(make_source)->Teardown(finish)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
