// code-exec-time.h: run-time statistics and two small measuring tools.
//
// kern::runtime::stat::mode_s_ is the process-wide statistics switch: the
// library's services (allocation, quoting, random numbers, UUIDs) add the
// time they spend to their counters only while it is not 0, on the clock it
// names. cpu_time_sum_t::thread_cpu_time reads that clock; scoped_time_t
// adds the time of a scope to a counter in one line:
//
//   {
//       kern::runtime::stat::scoped_time_t timing(kern::random::stat::time);
//       ... the measured work ...
//   }
//
// exec_time_t times a stretch of code in real and processor time;
// cache_stat_t records a cache's efficiency:
//
//   kern::runtime::exec_time_t t;
//   work();
//   log("took %s", t.format().c_str());   // "01.250 (00.900 CPU)"
//
// Thread safety: the mode is a plain variable meant to be set once by the
// program before work starts; the library only reads it. Counters are
// atomics. An exec_time_t or a cache_stat_t belongs to one thread at a time.
//
// Choices made here where the behaviour was open:
//  - exec_time_t::format joins the parts as "<real> (<cpu> CPU)"; the
//    processor part is left out below one millisecond.
//  - cache_stat_t::statistics does not call calculate_statistics: callers
//    do that first. A saving too large for 32 bits is held at INT32_MAX.
#ifndef QVLKERN_CODE_EXEC_TIME_H
#define QVLKERN_CODE_EXEC_TIME_H

#include <atomic>
#include <cstdint>
#include <string>

#include "kern-config.h"
#include "time-objs.h"

namespace kern {
namespace runtime {
namespace stat {

// 0: off; 1: time on the calling thread's processor clock; any other value:
// time on the monotonic wall clock.
typedef std::int32_t mode_t;
extern QVL_API mode_t mode_s_;

// "disabled" for 0, "thread" for 1, "real" for anything else.
QVL_API char const* type() noexcept;

}  // namespace stat
}  // namespace runtime
}  // namespace kern

struct QVL_API cpu_time_sum_t {
    // The thread's processor clock (mode 1) or the monotonic clock (any other
    // mode) in 10-nanosecond ticks; 0 when the clock cannot be read.
    static q_uint64_t thread_cpu_time(kern::runtime::stat::mode_t mode) noexcept;
};

namespace kern {
namespace runtime {
namespace stat {

// Adds the time spent between its construction and destruction to a counter,
// when statistics are on at construction (and on the clock chosen then). The
// difference is added only when positive. Costs one load while they are off.
class scoped_time_t {
public:
    explicit scoped_time_t(std::atomic<q_uint64_t>& sum) noexcept
        : sum_(sum), mode_(mode_s_), start_(mode_ != 0 ? cpu_time_sum_t::thread_cpu_time(mode_) : 0) {}
    ~scoped_time_t() {
        if (mode_ == 0) return;
        q_uint64_t const end = cpu_time_sum_t::thread_cpu_time(mode_);
        if (end > start_) sum_.fetch_add(end - start_, std::memory_order_relaxed);
    }
    scoped_time_t(scoped_time_t const&) = delete;
    scoped_time_t& operator=(scoped_time_t const&) = delete;

    // Whether this scope is being measured.
    bool on() const noexcept { return mode_ != 0; }

private:
    std::atomic<q_uint64_t>& sum_;
    mode_t const mode_;
    q_uint64_t const start_;
};

}  // namespace stat

// Times a stretch of code from its construction to finalize() (or the first
// format()), in real time and in the thread's processor time.
class QVL_API exec_time_t {
public:
    exec_time_t();

    // Fixes the figures: real and processor time used since construction.
    // A second call is ignored.
    void finalize();
    // elapsed_time of the real time, then, from one millisecond of processor
    // time up, the processor time: "01.250 (00.900 CPU)". Finalises first
    // when needed, so formatting twice gives the same text.
    std::string format();

    bool finalized() const noexcept { return finalized_; }
    // The figures; meaningful once finalised.
    timegap_t real_time() const noexcept { return timegap_t(real_); }
    timegap_t cpu_time() const noexcept { return timegap_t(cpu_); }

private:
    // Start moment, then elapsed ticks once finalised.
    q_int64_t real_;
    // Thread processor clock at start, then processor ticks used.
    q_int64_t cpu_;
    bool finalized_;
};

}  // namespace runtime
}  // namespace kern

// Efficiency of a cache: the caller fills vsize, rsize, hits and calls; the
// rest is computed by calculate_statistics.
struct QVL_API cache_stat_t {
    q_uint64_t mvsize = 0;  // largest stored size seen
    q_uint64_t mrsize = 0;  // largest raw size seen
    q_uint64_t vsize = 0;   // current stored size
    q_uint64_t rsize = 0;   // current raw size
    std::int32_t msaved = 0;  // largest saving seen, percent
    std::int32_t saved = 0;   // current saving, percent
    q_uint64_t hits = 0;
    q_uint64_t calls = 0;

    // Updates the maxima and the savings; returns saved, which is
    // (rsize - vsize) * 100 / vsize when rsize > vsize and vsize is not 0,
    // else 0.
    int calculate_statistics() noexcept;
    // "hits: H, calls: C, vsize: V, rsize: R, mvsize: MV, mrsize: MR,
    // saved: S%, msaved: MS%", the sizes as kilobytes(size, true).
    std::string statistics() const;
};

#endif  // QVLKERN_CODE_EXEC_TIME_H
