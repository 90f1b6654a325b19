// random.h: ISAAC random numbers and unique identifiers.
//
// random_t is the ISAAC generator (32-bit words, 256-word state, the
// reference algorithm and seeding), seeded from the caller's 256 words or
// from /dev/urandom. sysrnd is the process-wide instance that library
// start-up builds; it is shared behind its own mutex, so any thread may draw
// from it. get_uuid writes a new identifier as 36 characters: the kernel's
// (/proc/sys/kernel/random/uuid), or, with QVLSRV_INTERNAL_UUID set or that
// file unreadable, one from the time-based internal generator.
//
//   q_uint32_t roll = sysrnd.rand();
//   random_t mine;                      // unshared: no lock, one thread
//   char id[37];
//   get_uuid(id);                       // "be1d6940-6e93-44ab-acd2-b6924337ad6b"
//
// A draw is a decrement and an array read, and once every 256 draws a
// refill of the block; a shared generator adds its lock, a generator
// counts its draws and their time only while run-time statistics are on
// (code-exec-time.h).
//
// Thread safety: a random_t without a mutex belongs to one thread at a time;
// with one, every draw is serialised through it. get_uuid may be called from
// any thread.
//
// The identifier generator lives here, beside the generator it draws its
// node and clock sequence from, and its counters (kern::guid::stat) beside
// the generator's own (kern::random::stat).
//
// Choices made here where the behaviour was open:
//  - The C library's rand(), which fills the seed when /dev/urandom cannot
//    be read, is seeded once by library start-up and not here.
//  - The internal identifier generator is guarded by a mutex, so that
//    identifiers drawn by concurrent threads differ too: within a process
//    the time value never goes back, and two identifiers with one time
//    value differ in the clock sequence.
//  - A process made by fork() takes the two node bytes that come from the
//    process id anew, so that parent and child do not draw equal
//    identifiers.
//  - A kernel file holding fewer than 36 characters counts as a read
//    failure ("short data has been readed from file \"%s\"").
//  - init_int_uuid tests the kernel file with access(2); when it is not
//    readable and the internal generator was not asked for, it says so at
//    DEBUG level.
//  - A draw's time includes the wait for a shared generator's mutex.
#ifndef QVLKERN_RANDOM_H
#define QVLKERN_RANDOM_H

#include <atomic>

#include "amtypes.h"
#include "code-exec-time.h"

class mutex_t;

class QVL_API random_t : private noncopyable_t {
public:
    static constexpr unsigned words = 256;

    // Seeds from 256 words of /dev/urandom, or of the C library's rand()
    // when that cannot be opened or gives fewer bytes. lock (not owned) is
    // taken around every draw when not null.
    explicit random_t(mutex_t* lock = nullptr);
    // Seeds from the 256 words at seed.
    random_t(unsigned int const* seed, mutex_t* lock = nullptr);

    // ISAAC's seeding from the words in the results block; afterwards the
    // whole first block is unread.
    void init() noexcept;

    // The next value. A block is handed out from its last word to its
    // first; the 257th draw refills it.
    q_uint32_t rand() {
        // The lock first: a shared generator's counter is read only under it.
        if (__builtin_expect(lock_ == nullptr && counter_ != 0 && kern::runtime::stat::mode_s_ == 0, 1))
            return results_[--counter_];
        return rand_slow();
    }

private:
    // ISAAC's core step over the whole block.
    void refill() noexcept;
    // rand() with a refill, under the lock, or with the statistics.
    q_uint32_t rand_slow();

    q_uint32_t counter_;  // unread results left
    q_uint32_t results_[words];
    q_uint32_t memory_[words];
    q_uint32_t a_, b_, c_;
    mutex_t* lock_;
};

// The process-wide generator, shared behind a mutex of its own; built at
// library start-up.
extern QVL_API random_t sysrnd;

namespace kern {
namespace random {
namespace stat {
extern QVL_API std::atomic<q_uint64_t> calls;  // draws, while statistics are on
extern QVL_API std::atomic<q_uint64_t> time;   // ticks spent in constructors and draws
}  // namespace stat
}  // namespace random

namespace uuid {
// True when QVLSRV_INTERNAL_UUID was present at start-up.
extern QVL_API bool use_internal_generator;
}  // namespace uuid

namespace guid {
namespace stat {
extern QVL_API std::atomic<q_uint64_t> calls;  // get_uuid calls, while statistics are on
extern QVL_API std::atomic<q_uint64_t> time;   // ticks spent in them
}  // namespace stat
}  // namespace guid
}  // namespace kern

extern "C" {
// Reads QVLSRV_INTERNAL_UUID and seeds the internal generator: a 16-bit
// clock sequence and the node (two bytes from the process id with the top
// bit set, four from sysrnd). Called by library start-up.
QVL_API void init_int_uuid();
// Writes 36 characters and a NUL into out (37 bytes at least). Never throws.
// The first 10 failures to read the kernel file are logged as warnings.
// An internal identifier is "tttttttt-tttt-tt1t-sSss-nnnnnnnnnnnn": the
// time value (100-nanosecond units since 1582-10-15) as bytes 0 to 6 lowest
// first and the low nibble of byte 7, the version digit 1, the clock
// sequence's bits 12-13 as one digit (0 to 3: no variant bits) and its bits
// 0-11, and the node (its first byte 8 to f). The byte order differs from
// the published time-based layout, deliberately: consumers parse it so.
QVL_API void get_uuid(char* out) noexcept;
}

#endif  // QVLKERN_RANDOM_H
