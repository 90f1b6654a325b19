// syncers.h: the library's locking vocabulary, with process-wide statistics.
//
// mutex_t        a POSIX mutex of the process-wide kind (QVLSRV_MUTEX_TYPE,
//                error-checking unless set otherwise): not re-entrant by
//                default, a relock by the owner throws.
// condvar_t      a condition variable that wakes one waiter, or all of them
//                when built with broadcast = true.
// condlock_t     a single-waiter condvar_t and its mutex_t in one object.
// semaphore_t    a counting semaphore.
// event_t        an auto- or manual-reset event; signal() wakes ONE waiter in
//                both modes (waiters arriving while a manual event stays set
//                pass at once).
// rwlock_t       a reader/writer lock, not re-entrant, with no recorded
//                owner: any thread may unlock it. Its preference is
//                process-wide: rwlock_t::write_prefered is true (writers
//                win) exactly when QVLSRV_RWLOCK_READPREFERED is present at
//                load; the flag's name is the reverse of the variable's.
// xlocker_t<T>   holds T::xlock() for its scope.
// late_locker_t<T> a holder filled in after construction, released once.
//
//   xlocker_t<mutex_t> hold(guard);   // guard.unlock() at the end of scope
//   if (!sem.wait(timegap_t(5, 0))) { ... timed out ... }
//
// Every operation counts itself in kern::syncers::detail (see below) and
// log_syncers_stat() prints the totals. A lock that would block (try_*) and
// a wait that times out answer false; every other failure of the POSIX layer
// throws mutex_exception_shell_t or condvar_exception_shell_t.
//
// Thread safety: every primitive is meant to be shared between threads; the
// composite ones guard their fields with their own inner mutex only. The
// public data members are exposed for inspection and are guarded by that
// inner mutex; do not write them. A holder belongs to one thread at a time.
// Counters may be read at any time from any thread.
//
// Choices left open elsewhere and made here:
//  - late_locker_t<T> is filled either by xlock(T&), which takes the lock
//    itself, or by adopt(T&) for a lock that the filling function already
//    holds; release() and the destructor unlock it at most once.
//  - The statistic counters are spread over per-thread cache-line slots so
//    that threads working on distinct primitives never share a written
//    cache line; each exported name is a counter_t object that reads as the
//    exact q_uint64_t total (see counter_t). A thread claims its slot at
//    its first count and gives it back when it ends.
//  - mutex_t's lock and unlock are inline (count, then the POSIX call), so
//    that a mutex_t costs about what a bare pthread mutex does.
//  - xlocker_t<T> takes the object by reference or by pointer.
//  - A relative time-out so long that now plus the time-out passes the last
//    tick (about the year 2923) waits for ever, like timegap_t::infinite(),
//    instead of wrapping into a moment long past; a deadline before 1970
//    (a hugely negative time-out) is over at once. Neither throws.
#ifndef QVLKERN_SYNCERS_H
#define QVLKERN_SYNCERS_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "amtypes.h"
#include "kern-config.h"
#include "time-objs.h"

namespace kern {
namespace syncers {
namespace detail {

// Identifies a counter in the per-thread slots. The allocation wrappers'
// counters (unx-utils-alloc.h) live in the same slots, so that a thread
// writes one block of its own for both.
enum counter_id_t : unsigned {
    mutex_ctor, mutex_dtor, mutex_take, mutex_free,
    event_ctor, event_dtor, event_take, event_free,
    semaphore_ctor, semaphore_dtor, semaphore_take, semaphore_free,
    condvar_ctor, condvar_dtor, condvar_take, condvar_free,
    rwlock_ctor, rwlock_dtor, rwlock_stake, rwlock_xtake, rwlock_free,
    alloc_malloc_calls, alloc_malloc_size, alloc_malloc_time,
    alloc_realloc_calls, alloc_realloc_time,
    alloc_memalign_calls, alloc_memalign_size, alloc_memalign_time,
    alloc_free_calls, alloc_free_size, alloc_free_time,
    alloc_bucket_0,  // then the 31 other buckets of the allocation sizes
    counter_count = alloc_bucket_0 + 32
};

// The calling thread's own counter cells, indexed by counter_id_t; null
// until the thread first counts, and for threads without a slot of their
// own. Only the owning thread writes them.
extern QVL_API __thread std::atomic<q_uint64_t>* thread_cells __attribute__((tls_model("initial-exec")));

// Claims the thread's slot on first use, or adds through the shared slot.
QVL_API void add_slow(counter_id_t id, q_uint64_t n) noexcept;

// Adds n to a counter: a plain load and store in the thread's own cache
// line, no locked instruction. Inline so that a lock costs one call, the
// POSIX one.
inline void add(counter_id_t id, q_uint64_t n) noexcept {
    std::atomic<q_uint64_t>* const cells = thread_cells;
    if (__builtin_expect(cells != nullptr, 1)) {
        cells[id].store(cells[id].load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    } else {
        add_slow(id, n);
    }
}

inline void count(counter_id_t id) noexcept { add(id, 1); }

// The fork handlers' access to the POSIX objects (syncers.cc).
struct fork_access_t;

}  // namespace detail
}  // namespace syncers
}  // namespace kern

class QVL_API mutex_t : public virtual noncopyable_t, public virtual if_root_t {
public:
    // Sets up the process-wide mutex attribute from QVLSRV_MUTEX_TYPE. Built
    // exactly once, at library start-up; ends the process with status 1 when
    // the attribute cannot be made.
    class QVL_API init_t {
    public:
        init_t();
        ~init_t();
        init_t(init_t const&) = delete;
        init_t& operator=(init_t const&) = delete;

        // &mutex_t::attr once it is set up; null before and after.
        pthread_mutexattr_t* attr;
    };

    mutex_t();
    ~mutex_t() override;

    // Blocks until the mutex is held; throws on a system failure (a relock
    // of a default error-checking mutex by its owner is one).
    void xlock() {
        kern::syncers::detail::count(kern::syncers::detail::mutex_take);
        int const rc = pthread_mutex_lock(&m_);
        if (__builtin_expect(rc != 0, 0)) lock_failed(rc);
    }
    // True when taken, false when another thread holds it.
    bool try_xlock() {
        kern::syncers::detail::count(kern::syncers::detail::mutex_take);
        int const rc = pthread_mutex_trylock(&m_);
        if (__builtin_expect(rc == 0, 1)) return true;
        return try_lock_failed(rc);
    }
    void unlock() {
        kern::syncers::detail::count(kern::syncers::detail::mutex_free);
        int const rc = pthread_mutex_unlock(&m_);
        if (__builtin_expect(rc != 0, 0)) unlock_failed(rc);
    }

    // The pthread kind of every mutex_t: 0 normal, 1 recursive, 2
    // error-checking (default), 3 adaptive.
    static int type;
    // The variable's text as written, or "default errorcheck".
    static char const* type_name;
    // The attribute every mutex_t is initialised with.
    static pthread_mutexattr_t attr;
    // The start-up object that prepares attr.
    static init_t initializer;

private:
    friend class condvar_t;
    friend struct kern::syncers::detail::fork_access_t;
    // The throwing ends of the inline operations; try_lock_failed answers
    // false for EBUSY.
    [[noreturn]] static void lock_failed(int rc);
    static bool try_lock_failed(int rc);
    [[noreturn]] static void unlock_failed(int rc);

    pthread_mutex_t m_;
};

class QVL_API condvar_t : public virtual noncopyable_t, public virtual if_root_t {
public:
    // broadcast: signal() wakes every waiter instead of one.
    explicit condvar_t(bool broadcast);
    ~condvar_t() override;

    void signal();
    // The caller holds m. Waits without limit.
    void wait(mutex_t& m);
    // Waits until signalled (true) or until the absolute deadline passes
    // (false). timestamp_t's largest value waits for ever.
    bool wait(mutex_t& m, timestamp_t deadline);

    bool const broadcast;

private:
    friend struct kern::syncers::detail::fork_access_t;
    pthread_cond_t c_;
};

// A single-waiter condition variable with its own mutex; xlock()/unlock()
// act on the mutex, wait() waits on it. The mutex is destroyed first.
class QVL_API condlock_t : public condvar_t, public mutex_t {
public:
    condlock_t() : condvar_t(false), mutex_t() {}

    using condvar_t::wait;
    // The caller holds this lock.
    void wait() { condvar_t::wait(*this); }
    bool wait(timestamp_t deadline) { return condvar_t::wait(*this, deadline); }
};

class QVL_API semaphore_t : public virtual noncopyable_t, public virtual if_root_t {
public:
    explicit semaphore_t(int initial);
    ~semaphore_t() override;

    // Takes one unit when count is not 0. A semaphore built with a negative
    // count therefore hands out units too, and goes further negative.
    bool try_wait();
    // Waits for a unit until the absolute deadline; false on time-out.
    bool wait(timestamp_t deadline);
    // The same with a relative time-out; timegap_t's largest value waits for
    // ever. A finite time-out counts as two waits in the statistics.
    bool wait(timegap_t timeout);
    // Adds one unit and wakes one waiter.
    void post();

    condlock_t lock;
    std::int32_t count;
};

class QVL_API event_t : public virtual noncopyable_t, public virtual if_root_t {
public:
    event_t(bool initially_signalled, bool manual_reset);
    ~event_t() override;

    // Sets the event and wakes one waiter, also for a manual-reset event.
    void signal();
    void reset();
    // True when set; an auto-reset event is cleared by the waiter it lets
    // through.
    bool try_wait();
    bool wait(timestamp_t deadline);
    // A finite time-out counts as two waits in the statistics.
    bool wait(timegap_t timeout);

    condlock_t lock;
    bool signalled;
    bool manual_reset;
};

class QVL_API rwlock_t : public virtual noncopyable_t, public virtual if_root_t {
public:
    rwlock_t();
    ~rwlock_t() override;

    void slock();
    bool try_slock();
    void xlock();
    bool try_xlock();
    // Releases one shared hold or the exclusive hold; on a free lock it does
    // nothing.
    void unlock();

    mutex_t guard;
    condvar_t readers;  // broadcast
    condvar_t writers;  // one at a time
    std::int32_t readers_waiting;
    std::int32_t writers_waiting;
    // 0 free, -1 held exclusively, n > 0 held shared n times.
    std::int32_t state;

    // True: writers are preferred (readers wait while a writer waits).
    // False (default): readers pass while the lock is shared.
    static bool write_prefered;
};

// Holds *t locked from construction to destruction.
template <class T>
class QVL_API xlocker_t : public virtual if_root_t {
public:
    explicit xlocker_t(T& t) : locked_(&t) { t.xlock(); }
    explicit xlocker_t(T* t) : locked_(t) { t->xlock(); }
    ~xlocker_t() override { locked_->unlock(); }
    xlocker_t(xlocker_t const&) = delete;
    xlocker_t& operator=(xlocker_t const&) = delete;

    T* get() const noexcept { return locked_; }

private:
    T* locked_;
};

// Starts empty; a function that takes a lock on the caller's behalf fills
// it, and release() or the destructor unlocks it once.
template <class T>
class QVL_API late_locker_t : public virtual if_root_t {
public:
    late_locker_t() noexcept : locked_(nullptr) {}
    ~late_locker_t() override { release(); }
    late_locker_t(late_locker_t const&) = delete;
    late_locker_t& operator=(late_locker_t const&) = delete;

    // Releases what is held, then locks t and holds it.
    void xlock(T& t) {
        release();
        t.xlock();
        locked_ = &t;
    }
    // Releases what is held, then holds t, which the caller has locked.
    void adopt(T& t) {
        release();
        locked_ = &t;
    }
    // Unlocks the held object, if any, and forgets it. The pointer is
    // cleared before the unlock so that a failing unlock is not retried.
    void release() {
        if (T* t = locked_) {
            locked_ = nullptr;
            t->unlock();
        }
    }
    T* get() const noexcept { return locked_; }

private:
    T* locked_;
};

namespace kern {
namespace syncers {
namespace detail {

// One process-wide 64-bit statistic counter. Increments go, without a locked
// instruction, to a cache-line slot owned by the counting thread (threads
// beyond the slot count share one slot with atomic additions); reading sums
// the slots. A read is exact: every increment that happened before the read
// is in it, and increments racing with it may or may not be.
//
// A copy is a snapshot: it keeps the total of the moment it was made, as a
// copied integer would (`auto before = mutex::take;` then
// `mutex::take - before`).
class QVL_API counter_t {
public:
    // Binds the counter to its cells and clears them (library start-up).
    explicit counter_t(counter_id_t id) noexcept;
    counter_t(counter_t const& o) noexcept : id_(-1), value_(o.load()) {}
    counter_t& operator=(counter_t const&) = delete;

    q_uint64_t load(std::memory_order = std::memory_order_seq_cst) const noexcept;
    operator q_uint64_t() const noexcept { return load(); }  // NOLINT: reads as a number

private:
    int id_;  // -1 for a snapshot
    q_uint64_t value_;
};

// Counters in the order the report lists them; all zero at load.
namespace mutex {
extern QVL_API counter_t ctor;  // constructions
extern QVL_API counter_t dtor;  // destructions
extern QVL_API counter_t take;  // xlock() and try_xlock(), whatever the outcome
extern QVL_API counter_t free;  // unlock()
}  // namespace mutex
namespace event {
extern QVL_API counter_t ctor;
extern QVL_API counter_t dtor;
extern QVL_API counter_t take;  // try_wait() and wait(...)
extern QVL_API counter_t free;  // signal(); reset() counts nothing
}  // namespace event
namespace semaphore {
extern QVL_API counter_t ctor;
extern QVL_API counter_t dtor;
extern QVL_API counter_t take;  // try_wait() and wait(...)
extern QVL_API counter_t free;  // post()
}  // namespace semaphore
namespace condvar {
extern QVL_API counter_t ctor;
extern QVL_API counter_t dtor;
extern QVL_API counter_t take;  // wait(...)
extern QVL_API counter_t free;  // signal()
}  // namespace condvar
namespace rwlock {
extern QVL_API counter_t ctor;
extern QVL_API counter_t dtor;
extern QVL_API counter_t stake;  // slock() and try_slock()
extern QVL_API counter_t xtake;  // xlock() and try_xlock()
extern QVL_API counter_t free;   // unlock()
}  // namespace rwlock

}  // namespace detail
}  // namespace syncers
}  // namespace kern

// Writes the five "[Sync]" statistic lines through if_logger_t::Log at the
// NOTICE level; a line is skipped when that level is off.
QVL_API void log_syncers_stat();

#endif  // QVLKERN_SYNCERS_H
