// random.cc: ISAAC random numbers and unique identifiers.
#include "random.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "exceptions.h"
#include "filestr-int.h"
#include "filestr.h"
#include "loggers.h"
#include "random-int.h"
#include "syncers.h"

bool kern::uuid::use_internal_generator = false;

// --- ISAAC ---------------------------------------------------------------------------

namespace {

constexpr q_uint32_t golden_ratio = 0x9e3779b9;

// ISAAC's scramble of the eight seeding words.
inline void mix(q_uint32_t (&w)[8]) noexcept {
    w[0] ^= w[1] << 11; w[3] += w[0]; w[1] += w[2];
    w[1] ^= w[2] >> 2;  w[4] += w[1]; w[2] += w[3];
    w[2] ^= w[3] << 8;  w[5] += w[2]; w[3] += w[4];
    w[3] ^= w[4] >> 16; w[6] += w[3]; w[4] += w[5];
    w[4] ^= w[5] << 10; w[7] += w[4]; w[5] += w[6];
    w[5] ^= w[6] >> 4;  w[0] += w[5]; w[6] += w[7];
    w[6] ^= w[7] << 8;  w[1] += w[6]; w[7] += w[0];
    w[7] ^= w[0] >> 9;  w[2] += w[7]; w[0] += w[1];
}

// Adds from[i..i+7] into the words, mixes, and stores them in to[i..i+7],
// for every group of eight.
inline void seed_pass(q_uint32_t (&w)[8], q_uint32_t const* from, q_uint32_t* to) noexcept {
    for (unsigned i = 0; i < random_t::words; i += 8) {
        for (unsigned k = 0; k < 8; ++k) w[k] += from[i + k];
        mix(w);
        for (unsigned k = 0; k < 8; ++k) to[i + k] = w[k];
    }
}

}  // namespace

random_t::random_t(mutex_t* lock) : lock_(lock) {
    kern::runtime::stat::scoped_time_t timing(kern::random::stat::time);
    kern_n::detail::fd_holder_t fd(kern_n::detail::open_retry("/dev/urandom", O_RDONLY | O_NOCTTY));
    ssize_t const got = fd.get() == -1 ? -1 : kern_n::detail::read_retry(fd.get(), results_, sizeof results_);
    if (got != static_cast<ssize_t>(sizeof results_)) {
        // Weak, but it never fails: start-up seeded the C library's
        // generator from the process, the thread and the clock.
        for (q_uint32_t& r : results_) r = static_cast<q_uint32_t>(std::rand());
    }
    init();
}

random_t::random_t(unsigned int const* seed, mutex_t* lock) : lock_(lock) {
    kern::runtime::stat::scoped_time_t timing(kern::random::stat::time);
    std::memcpy(results_, seed, sizeof results_);
    init();
}

void random_t::init() noexcept {
    a_ = b_ = c_ = 0;
    q_uint32_t w[8] = {golden_ratio, golden_ratio, golden_ratio, golden_ratio,
                       golden_ratio, golden_ratio, golden_ratio, golden_ratio};
    for (int i = 0; i < 4; ++i) mix(w);
    seed_pass(w, results_, memory_);
    // Over the memory once more, so that every seed word reaches every
    // memory word.
    seed_pass(w, memory_, memory_);
    refill();
    counter_ = words;
}

void random_t::refill() noexcept {
    q_uint32_t a = a_, b = b_ + ++c_;
    q_uint32_t* const m = memory_;
    // j's partner word k is half the block away: (j + 128) mod 256.
    auto const step = [&](unsigned j, unsigned k, q_uint32_t mixed) {
        q_uint32_t const x = m[j];
        a = mixed + m[k];
        q_uint32_t const y = m[(x >> 2) & 255] + a + b;
        m[j] = y;
        b = m[(y >> 10) & 255] + x;
        results_[j] = b;
    };
    // Four steps per round, one for each of the accumulator's shifts.
    for (unsigned i = 0; i < words; i += 4) {
        unsigned const k = i ^ 128;
        step(i, k, a ^ (a << 13));
        step(i + 1, k + 1, a ^ (a >> 6));
        step(i + 2, k + 2, a ^ (a << 2));
        step(i + 3, k + 3, a ^ (a >> 16));
    }
    a_ = a;
    b_ = b;
}

q_uint32_t random_t::rand_slow() {
    kern::runtime::stat::scoped_time_t timing(kern::random::stat::time);
    if (timing.on()) kern::random::stat::calls.fetch_add(1, std::memory_order_relaxed);
    late_locker_t<mutex_t> hold;
    if (lock_ != nullptr) hold.xlock(*lock_);
    if (counter_ == 0) {
        refill();
        counter_ = words;
    }
    return results_[--counter_];
}

// --- identifiers ---------------------------------------------------------------------

namespace {

char const k_uuid_file[] = "/proc/sys/kernel/random/uuid";
char const k_hex[] = "0123456789abcdef";

// Node bytes 0 and 1: (pid << 7) ^ pid, the first with its top bit set.
void set_pid_node(unsigned char* node) noexcept {
    unsigned const pid = static_cast<unsigned>(::getpid());
    unsigned const v = (pid << 7) ^ pid;
    node[0] = static_cast<unsigned char>(v | 0x80);
    node[1] = static_cast<unsigned char>(v >> 8);
}

// A process made by fork() must not repeat its parent's identifiers. Only
// the calling thread survives a fork, so nothing else touches the state.
void refresh_node_after_fork() noexcept { set_pid_node(kern::uuid::state.node); }

// Copies the kernel's identifier into out; false (after logging the first
// ten failures) when the file cannot be read.
bool kernel_uuid(char* out) noexcept {
    try {
        std::string text;
        read_entire_file(text, k_uuid_file);
        if (text.size() < 36)
            QVL_THROW(io_error_exception, "short data has been readed from file \"%s\"", k_uuid_file);
        std::memcpy(out, text.data(), 36);
        out[36] = '\0';
        return true;
    } catch (...) {
        if (kern::uuid::state.read_failures.fetch_add(1, std::memory_order_relaxed) >= 10) return false;
        try {
            std::string why = "unknown exception";
            try {
                throw;
            } catch (std::exception const& e) {
                why = e.what();
            } catch (...) {
            }
            if_logger_t::Log->log_WARNING("[UUID] Unable to read file \"%s\" because of %s", k_uuid_file, why.c_str());
        } catch (...) {
        }
        return false;
    }
}

// Advances the clock sequence and the time value; v is the time value to
// write, t the time of day in 100-nanosecond units since 1582-10-15.
void step_state(kern::uuid::state_t& s, q_uint64_t t, q_uint64_t& v, q_uint32_t& seq) noexcept {
    seq = ++s.clock_seq;
    if (t != s.last_time) {
        q_int64_t const ahead = static_cast<q_int64_t>(s.last_time) + static_cast<std::int32_t>(s.adjust);
        q_int64_t const now = static_cast<q_int64_t>(t);
        s.adjust = now < ahead ? static_cast<q_uint32_t>(ahead + 1 - now) : 0;
        s.last_time = t;
    } else {
        ++s.adjust;
    }
    v = t + static_cast<q_uint64_t>(static_cast<q_int64_t>(static_cast<std::int32_t>(s.adjust)));
}

void put_byte(char*& p, unsigned b) noexcept {
    *p++ = k_hex[(b >> 4) & 15];
    *p++ = k_hex[b & 15];
}

void internal_uuid(char* out) noexcept {
    struct timeval tv;
    ::gettimeofday(&tv, nullptr);
    q_uint64_t const t = static_cast<q_uint64_t>(tv.tv_sec) * 10000000ULL + static_cast<q_uint64_t>(tv.tv_usec) * 10 +
                         0x01B21DD213814000ULL;
    kern::uuid::state_t& s = kern::uuid::state;
    q_uint64_t v;
    q_uint32_t seq;
    unsigned char node[6];
    try {
        xlocker_t<mutex_t> hold(s.guard);
        step_state(s, t, v, seq);
        std::memcpy(node, s.node, sizeof node);
    } catch (...) {
        // The guard failed (it does not in practice): an identifier is still
        // due, so it is drawn without it.
        step_state(s, t, v, seq);
        std::memcpy(node, s.node, sizeof node);
    }
    char* p = out;
    for (int k = 0; k < 4; ++k) put_byte(p, static_cast<unsigned>(v >> (8 * k)));
    *p++ = '-';
    for (int k = 4; k < 6; ++k) put_byte(p, static_cast<unsigned>(v >> (8 * k)));
    *p++ = '-';
    put_byte(p, static_cast<unsigned>(v >> 48));
    *p++ = '1';
    *p++ = k_hex[(v >> 56) & 15];
    *p++ = '-';
    *p++ = k_hex[(seq >> 12) & 3];
    *p++ = k_hex[(seq >> 8) & 15];
    put_byte(p, seq);
    *p++ = '-';
    for (unsigned char b : node) put_byte(p, b);
    *p = '\0';
}

}  // namespace

extern "C" void init_int_uuid() {
    kern::uuid::use_internal_generator = std::getenv("QVLSRV_INTERNAL_UUID") != nullptr;
    kern::uuid::state_t& s = kern::uuid::state;
    {
        xlocker_t<mutex_t> hold(s.guard);
        s.clock_seq = sysrnd.rand() & 0xFFFF;
        set_pid_node(s.node);
        for (int k = 2; k < 6; ++k) s.node[k] = static_cast<unsigned char>(sysrnd.rand());
    }
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, refresh_node_after_fork); });
    // Without the variable the kernel file is always tried first; this test
    // only tells the reader of a debug log what to expect.
    if (!kern::uuid::use_internal_generator && ::access(k_uuid_file, R_OK) != 0 &&
        if_logger_t::Log->is_logged(if_logger_t::DEBUG))
        if_logger_t::Log->log_DEBUG("[UUID] File \"%s\" is not readable: identifiers come from the internal "
                                    "generator while it stays so", k_uuid_file);
}

extern "C" void get_uuid(char* out) noexcept {
    kern::runtime::stat::scoped_time_t timing(kern::guid::stat::time);
    if (timing.on()) kern::guid::stat::calls.fetch_add(1, std::memory_order_relaxed);
    if (kern::uuid::use_internal_generator || !kernel_uuid(out)) internal_uuid(out);
}
