// The descriptor logger side by side with its peers, writing INFO lines to a
// file with one and with two threads:
//   plain_write   write(2) of lines formatted beforehand (the floor: what
//                 the system call alone costs);
//   fd_logger     log_INFO through a descriptor logger: time stamp, ids,
//                 formatting, repeat check and the locked write;
//   spdlog        spdlog's basic file sink flushing every line (the C
//                 library's stream, flushed at each line as a log must be).
// Every message differs from the one before, so repeat folding never
// drops a line. Also: the cost of a call whose class is filtered out.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "loggers.h"

#ifdef QVLKERN_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr int k_lines = 1000000;
char const k_path[] = "/tmp/qvlkern-loggers-bench.log";
char const k_fmt[] = "request %d served from cache node %s in %d us";

int g_fd = -1;
if_logger_t* g_logger = nullptr;
std::vector<std::string> g_lines;

int open_target() { return ::open(k_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }

void close_target(benchmark::State const&) {
    delete g_logger;
    g_logger = nullptr;
    if (g_fd >= 0) ::close(g_fd);
    g_fd = -1;
    ::unlink(k_path);
}

// Lines as the logger would write them, formatted once: a prefix of the
// logger's layout and a message of about 60 characters.
void make_lines(benchmark::State const&) {
    g_fd = open_target();
    if (!g_lines.empty()) return;
    g_lines.reserve(k_lines);
    char buf[160];
    for (int i = 0; i < k_lines; ++i) {
        int n = std::snprintf(buf, sizeof buf, "20141202.133605.07 inf [04711 04713] noname request %d served "
                                               "from cache node %s in %d us\n",
                              i, "eu-west-7", i % 997);
        g_lines.emplace_back(buf, size_t(n));
    }
}

void BM_plain_write(benchmark::State& state) {
    int const per = k_lines / state.threads();
    size_t i = size_t(state.thread_index()) * size_t(per);
    for (auto _ : state) {
        std::string const& l = g_lines[i++];
        if (::write(g_fd, l.data(), l.size()) < 0) state.SkipWithError("write failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_plain_write)->Setup(make_lines)->Teardown(close_target)->Iterations(k_lines)->UseRealTime();
BENCHMARK(BM_plain_write)->Setup(make_lines)->Teardown(close_target)->Iterations(k_lines / 2)->Threads(2)->UseRealTime();

void make_logger(benchmark::State const&) {
    g_fd = open_target();
    g_logger = fd_logger_t::create(g_fd);
}

void BM_fd_logger(benchmark::State& state) {
    int i = state.thread_index() * (k_lines / state.threads());
    for (auto _ : state) {
        g_logger->log_INFO(k_fmt, i, "eu-west-7", i % 997);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_fd_logger)->Setup(make_logger)->Teardown(close_target)->Iterations(k_lines)->UseRealTime();
BENCHMARK(BM_fd_logger)->Setup(make_logger)->Teardown(close_target)->Iterations(k_lines / 2)->Threads(2)->UseRealTime();

#ifdef QVLKERN_HAVE_SPDLOG
std::shared_ptr<spdlog::logger> g_spdlog;

void make_spdlog(benchmark::State const&) {
    g_spdlog = spdlog::basic_logger_mt("bench", k_path, true);
    // The same fields as the library's prefix.
    g_spdlog->set_pattern("%Y%m%d.%H%M%S.%e %L [%P %t] %n %v");
    g_spdlog->flush_on(spdlog::level::info);
}

void drop_spdlog(benchmark::State const& s) {
    spdlog::drop("bench");
    g_spdlog.reset();
    close_target(s);
}

void BM_spdlog_flush_each(benchmark::State& state) {
    int i = state.thread_index() * (k_lines / state.threads());
    for (auto _ : state) {
        g_spdlog->info("request {} served from cache node {} in {} us", i, "eu-west-7", i % 997);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_spdlog_flush_each)->Setup(make_spdlog)->Teardown(drop_spdlog)->Iterations(k_lines)->UseRealTime();
BENCHMARK(BM_spdlog_flush_each)
    ->Setup(make_spdlog)
    ->Teardown(drop_spdlog)
    ->Iterations(k_lines / 2)
    ->Threads(2)
    ->UseRealTime();
#endif

// --- where the time goes: everything but the system call --------------------------

// A logger on no descriptor formats, folds and drops each line.
void BM_fd_logger_no_write(benchmark::State& state) {
    if_logger_t* l = fd_logger_t::create(-1);
    int i = 0;
    for (auto _ : state) {
        l->log_INFO(k_fmt, i, "eu-west-7", i % 997);
        ++i;
    }
    delete l;
}
BENCHMARK(BM_fd_logger_no_write);

// The printf formatting of the message alone, the floor of the above.
void BM_snprintf_message(benchmark::State& state) {
    char buf[1024];
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buf, sizeof buf, k_fmt, i, "eu-west-7", i % 997));
        ++i;
    }
}
BENCHMARK(BM_snprintf_message);

// --- a call whose class is off -----------------------------------------------------

void BM_filtered_out_call(benchmark::State& state) {
    if_logger_t* l = fd_logger_t::create(-1);
    int i = 0;
    for (auto _ : state) {
        l->log_DEBUG(k_fmt, i, "eu-west-7", i);
        ++i;
    }
    delete l;
}
BENCHMARK(BM_filtered_out_call);

// The caller's own test, as code that builds costly arguments does it.
void BM_is_logged_test(benchmark::State& state) {
    if_logger_t* l = fd_logger_t::create(-1);
    for (auto _ : state) benchmark::DoNotOptimize(l->is_logged(if_logger_t::DEBUG));
    delete l;
}
BENCHMARK(BM_is_logged_test);

}  // namespace
