// code-exec-time.cc: run-time statistics switch, processor clock, execution
// timer and cache statistics.
#include "code-exec-time.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "numeric-triades.h"
#include "utilities.h"

namespace kern {
namespace runtime {
namespace stat {

// Off at load; a program switches it on from its own configuration.
mode_t mode_s_ = 0;

char const* type() noexcept {
    switch (mode_s_) {
    case 0: return "disabled";
    case 1: return "thread";
    default: return "real";
    }
}

}  // namespace stat
}  // namespace runtime
}  // namespace kern

q_uint64_t cpu_time_sum_t::thread_cpu_time(kern::runtime::stat::mode_t mode) noexcept {
    struct timespec ts;
    // Straight to the kernel: the C library wrapper may itself be measured.
    clockid_t const clock = mode == 1 ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
    if (syscall(SYS_clock_gettime, clock, &ts) != 0) return 0;
    return static_cast<q_uint64_t>(ts.tv_sec) * kern::time::ticks_per_second +
           static_cast<q_uint64_t>(ts.tv_nsec) / 10;
}

namespace kern {
namespace runtime {

exec_time_t::exec_time_t()
    : real_(kern::time::now().ticks()),
      cpu_(static_cast<q_int64_t>(cpu_time_sum_t::thread_cpu_time(1))),
      finalized_(false) {}

void exec_time_t::finalize() {
    if (finalized_) return;
    real_ = kern::time::now().ticks() - real_;
    cpu_ = static_cast<q_int64_t>(cpu_time_sum_t::thread_cpu_time(1)) - cpu_;
    finalized_ = true;
}

std::string exec_time_t::format() {
    finalize();
    std::string text = elapsed_time(real_time());
    if (cpu_time().get(-3, 0) >= 1) {
        text += " (";
        text += elapsed_time(cpu_time());
        text += " CPU)";
    }
    return text;
}

}  // namespace runtime
}  // namespace kern

int cache_stat_t::calculate_statistics() noexcept {
    if (vsize > mvsize) mvsize = vsize;
    if (rsize > mrsize) mrsize = rsize;
    if (rsize > vsize && vsize != 0) {
        // In 128 bits: the product may not fit in 64.
        unsigned __int128 const pct = static_cast<unsigned __int128>(rsize - vsize) * 100 / vsize;
        saved = pct > INT_MAX ? INT_MAX : static_cast<std::int32_t>(pct);
    } else {
        saved = 0;
    }
    if (saved > msaved) msaved = saved;
    return saved;
}

std::string cache_stat_t::statistics() const {
    std::string line("hits: ");
    add_number_to_string(static_cast<unsigned long long>(hits), line);
    line += ", calls: ";
    add_number_to_string(static_cast<unsigned long long>(calls), line);
    line += ", vsize: ";
    line += kilobytes(vsize, true);
    line += ", rsize: ";
    line += kilobytes(rsize, true);
    line += ", mvsize: ";
    line += kilobytes(mvsize, true);
    line += ", mrsize: ";
    line += kilobytes(mrsize, true);
    line += ", saved: ";
    add_number_to_string(static_cast<int>(saved), line);
    line += "%, msaved: ";
    add_number_to_string(static_cast<int>(msaved), line);
    line += "%";
    return line;
}
