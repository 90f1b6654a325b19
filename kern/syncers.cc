// syncers.cc: mutexes, condition variables, semaphores, events and
// reader/writer locks over POSIX threads, each counting what it does.
#include "syncers.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sched.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "exceptions.h"
#include "loggers.h"
#include "numeric-triades.h"
#include "syncers-int.h"
#include "utilities.h"

namespace sd = kern::syncers::detail;

namespace {

// --- statistic counters ------------------------------------------------------
//
// A process-wide counter bumped by every lock and unlock would bounce one
// cache line between the cores of two threads that share nothing else. So
// every thread that counts claims a slot of its own: one cache-line-aligned
// block holding all the counters. The owner alone writes its block, with a
// plain load and store (no locked instruction); readers add up the blocks.
// A slot goes back to the pool when its thread ends, keeping its values,
// which the next owner continues: the totals never lose a count. Threads
// beyond the pool share the last block through atomic additions. Counting
// from a signal handler that interrupts its own thread's count could lose
// one; no primitive here may be used from a signal handler anyway.

constexpr unsigned own_slots = 128;
constexpr unsigned shared_slot = own_slots;

struct alignas(64) slot_t {
    std::atomic<q_uint64_t> cell[sd::counter_count];
};

slot_t s_slots[own_slots + 1];
// Bit i set: slot i has an owner. Claimed with acquire and given back with
// release, so that a new owner sees every count of the previous one.
std::atomic<q_uint64_t> s_owned[own_slots / 64];

// 0: no slot yet; i + 1: slot i (shared_slot + 1 once the thread counts
// through the shared slot). thread_cells mirrors an own slot.
__thread unsigned t_slot __attribute__((tls_model("initial-exec")));

void give_back_slot(void*) noexcept {
    unsigned const s = t_slot - 1;
    // Whatever this thread still counts while it ends goes to the shared slot.
    sd::thread_cells = nullptr;
    t_slot = shared_slot + 1;
    if (s < own_slots) {
        s_owned[s / 64].fetch_and(~(q_uint64_t(1) << (s % 64)), std::memory_order_release);
    }
}

// Only the forking thread lives on in a child: every other slot is free.
void reclaim_slots_in_child() noexcept {
    for (auto& word : s_owned) word.store(0, std::memory_order_relaxed);
    unsigned const s = t_slot - 1;
    if (s < own_slots) {
        s_owned[s / 64].store(q_uint64_t(1) << (s % 64), std::memory_order_relaxed);
    }
}

// The thread-exit hook that gives a slot back. A key destructor runs after
// the thread's C++ thread_local destructors (which may still lock), and
// setting a key below the 32 first ones does not allocate. The key is made
// on first use through pthread_once, which takes no lock of the C library's:
// the first count may come from the allocator called under the lock of
// exit-handler or fork-handler registration, so registering a handler of
// our own on that path would wait for ever.
pthread_once_t s_key_once = PTHREAD_ONCE_INIT;
pthread_key_t s_key;
// Atomic: the library's teardown clears it while detached threads that are
// still running may claim a slot.
std::atomic<bool> s_key_ok{false};

void make_key() noexcept { s_key_ok.store(pthread_key_create(&s_key, &give_back_slot) == 0); }

// Built by this file's initialiser, off the counting path: reclaims the
// slots in a forked child and, when the library goes, deletes the key, whose
// destructor lives in the library.
struct slot_key_guard_t {
    slot_key_guard_t() noexcept { pthread_atfork(nullptr, nullptr, &reclaim_slots_in_child); }
    ~slot_key_guard_t() {
        pthread_once(&s_key_once, &make_key);
        if (s_key_ok.exchange(false)) pthread_key_delete(s_key);
    }
} s_slot_key_guard;

void claim_slot() noexcept {
    // Whatever is counted while the slot is claimed goes to the shared slot
    // rather than claiming again.
    t_slot = shared_slot + 1;
    pthread_once(&s_key_once, &make_key);
    unsigned slot = shared_slot;
    for (unsigned w = 0; w < own_slots / 64 && slot == shared_slot; ++w) {
        q_uint64_t bits = s_owned[w].load(std::memory_order_relaxed);
        while (bits != ~q_uint64_t(0)) {
            unsigned const bit = static_cast<unsigned>(__builtin_ctzll(~bits));
            if (s_owned[w].compare_exchange_weak(bits, bits | (q_uint64_t(1) << bit),
                                                 std::memory_order_acquire,
                                                 std::memory_order_relaxed)) {
                slot = w * 64 + bit;
                break;
            }
        }
    }
    if (slot == shared_slot) return;
    // Set before the key: should setting it allocate, the nested count finds
    // the slot already in place.
    t_slot = slot + 1;
    sd::thread_cells = s_slots[slot].cell;
    if (!s_key_ok || pthread_setspecific(s_key, &s_slots[slot]) != 0) {
        // Without an exit hook the slot would stay claimed for ever; give it
        // back now and count through the shared slot.
        give_back_slot(nullptr);
    }
}

// A scope guard for the inner mutex of the composite primitives. Not
// xlocker_t: that one is polymorphic, and its out-of-line base destructor
// would cost a call on every operation.
class hold_t {
public:
    explicit hold_t(mutex_t& m) : m_(m) { m_.xlock(); }
    ~hold_t() { m_.unlock(); }
    hold_t(hold_t const&) = delete;
    hold_t& operator=(hold_t const&) = delete;

private:
    mutex_t& m_;
};

// --- failures ------------------------------------------------------------------

// Stores rc as the thread's error number and returns its text.
std::string error_text(int rc) {
    set_last_error(rc);
    error_saver_t saved;
    return get_last_error(saved);
}

[[noreturn]] __attribute__((cold, noinline)) void mutex_init_failed(int rc) {
    QVL_THROW(mutex_exception, "unable to initialize mutex because of %s", error_text(rc).c_str());
}

[[noreturn]] __attribute__((cold, noinline)) void condvar_wait_failed(bool timed, int rc) {
    QVL_THROW(condvar_exception, "pthread_cond_%swait retcode %d", timed ? "timed" : "", rc);
}

// Ends the process after a start-up failure without running any exit
// handler: the library cannot work without its mutex attribute.
[[noreturn]] void abort_startup() {
    fflush(stderr);
    _exit(1);
}

}  // namespace

// --- counters ----------------------------------------------------------------------

namespace kern {
namespace syncers {
namespace detail {

__thread std::atomic<q_uint64_t>* thread_cells __attribute__((tls_model("initial-exec")));

void add_slow(counter_id_t id, q_uint64_t n) noexcept {
    if (t_slot == 0) claim_slot();
    if (std::atomic<q_uint64_t>* const cells = thread_cells) {
        cells[id].store(cells[id].load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    } else {
        s_slots[shared_slot].cell[id].fetch_add(n, std::memory_order_relaxed);
    }
}

counter_t::counter_t(counter_id_t id) noexcept : id_(static_cast<int>(id)), value_(0) {
    for (slot_t& slot : s_slots) slot.cell[id].store(0, std::memory_order_relaxed);
}

q_uint64_t counter_t::load(std::memory_order) const noexcept {
    if (id_ < 0) return value_;
    q_uint64_t sum = 0;
    for (slot_t const& slot : s_slots) sum += slot.cell[id_].load(std::memory_order_relaxed);
    return sum;
}

}  // namespace detail
}  // namespace syncers
}  // namespace kern

// --- mutex_t ------------------------------------------------------------------------

mutex_t::init_t::init_t() : attr(nullptr) {
    char const* env = getenv("QVLSRV_MUTEX_TYPE");
    int kind = PTHREAD_MUTEX_ERRORCHECK;
    char const* name = "default errorcheck";
    if (env) {
        char* copy = strdup(env);
        lstr_t const text(env);
        static char const* const names[] = {"normal", "recursive", "errorcheck", "adaptive"};
        static int const kinds[] = {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_RECURSIVE,
                                    PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_ADAPTIVE_NP};
        unsigned i = 0;
        while (i < 4 && !text.ic_eq(names[i])) ++i;
        if (i < 4 && copy) {
            kind = kinds[i];
            name = copy;
        } else {
            ::free(copy);
        }
    }
    mutex_t::type_name = name;
    mutex_t::type = kind;

    // Both messages end without a line break.
    int rc = pthread_mutexattr_init(&mutex_t::attr);
    if (rc != 0) {
        fprintf(stderr, "*ABORT* Unable to initialize mutex attribute because of %s", error_text(rc).c_str());
        abort_startup();
    }
    attr = &mutex_t::attr;
    rc = pthread_mutexattr_settype(attr, kind);
    if (rc != 0) {
        fprintf(stderr, "*ABORT* Unable to set mutex type to #%u (%s) because of %s", static_cast<unsigned>(kind),
                mutex_t::type_name, error_text(rc).c_str());
        abort_startup();
    }
}

mutex_t::init_t::~init_t() {
    if (attr) pthread_mutexattr_destroy(attr);
    attr = nullptr;
}

int mutex_t::type = PTHREAD_MUTEX_ERRORCHECK;
char const* mutex_t::type_name = "default errorcheck";
pthread_mutexattr_t mutex_t::attr;

mutex_t::mutex_t() {
    sd::count(sd::mutex_ctor);
    // Before start-up and after teardown the attribute is gone: such a mutex
    // gets the system's default kind.
    int const rc = pthread_mutex_init(&m_, initializer.attr);
    if (rc != 0) mutex_init_failed(rc);
}

mutex_t::~mutex_t() {
    sd::count(sd::mutex_dtor);
    pthread_mutex_destroy(&m_);
}

void mutex_t::lock_failed(int rc) {
    QVL_THROW(mutex_exception, "unable to lock mutex because of %s", error_text(rc).c_str());
}

bool mutex_t::try_lock_failed(int rc) {
    if (rc == EBUSY) return false;
    QVL_THROW(mutex_exception, "unable to try to lock mutex because od %s", error_text(rc).c_str());
}

void mutex_t::unlock_failed(int rc) {
    QVL_THROW(mutex_exception, "unable to unlock mutex because od %s", error_text(rc).c_str());
}

// --- condvar_t ----------------------------------------------------------------------

condvar_t::condvar_t(bool broadcast) : broadcast(broadcast) {
    sd::count(sd::condvar_ctor);
    if (pthread_cond_init(&c_, nullptr) != 0) {
        QVL_THROW(condvar_exception, "unable to initialize conditional variable");
    }
}

condvar_t::~condvar_t() {
    sd::count(sd::condvar_dtor);
    pthread_cond_destroy(&c_);
}

void condvar_t::signal() {
    sd::count(sd::condvar_free);
    int const rc = broadcast ? pthread_cond_broadcast(&c_) : pthread_cond_signal(&c_);
    if (rc != 0) {
        QVL_THROW(condvar_exception, "unable to %s conditional variable", broadcast ? "broadcast" : "signal");
    }
}

void condvar_t::wait(mutex_t& m) {
    sd::count(sd::condvar_take);
    if (pthread_cond_wait(&c_, &m.m_) != 0) {
        QVL_THROW(condvar_exception, "unable to wait on conditional variable");
    }
}

bool condvar_t::wait(mutex_t& m, timestamp_t deadline) {
    sd::count(sd::condvar_take);
    if (deadline.is_infinite()) {
        int const rc = pthread_cond_wait(&c_, &m.m_);
        if (rc != 0) condvar_wait_failed(false, rc);
        return true;
    }
    // A deadline before 1970 has passed: its sub-second part would be
    // negative, which the system refuses.
    timespec until = {0, 0};
    if (deadline.value >= kern::time::unix_epoch_ticks) {
        until.tv_sec = deadline.unixtime();
        until.tv_nsec = static_cast<long>(deadline.getround(-8, 8) * 10);
    }
    int const rc = pthread_cond_timedwait(&c_, &m.m_, &until);
    if (rc == 0) return true;
    if (rc == ETIMEDOUT) return false;
    condvar_wait_failed(true, rc);
}

// A time-out that takes the deadline past the last tick waits for ever: the
// wrapped sum would be long past.
timestamp_t sd::deadline_after(timegap_t timeout) noexcept {
    q_int64_t end;
    if (__builtin_add_overflow(kern::time::now().value, timeout.value, &end)) {
        return timeout.value > 0 ? timestamp_t::infinite() : timestamp_t();
    }
    return timestamp_t(end);
}

// --- semaphore_t --------------------------------------------------------------------

semaphore_t::semaphore_t(int initial) : count(initial) {
    sd::count(sd::semaphore_ctor);
}

semaphore_t::~semaphore_t() {
    sd::count(sd::semaphore_dtor);
}

bool semaphore_t::try_wait() {
    sd::count(sd::semaphore_take);
    hold_t hold(lock);
    // Non-zero, not positive: a negative count hands out units too.
    if (count == 0) return false;
    --count;
    return true;
}

bool semaphore_t::wait(timestamp_t deadline) {
    sd::count(sd::semaphore_take);
    hold_t hold(lock);
    while (count == 0) {
        if (!lock.wait(deadline)) return false;
    }
    --count;
    return true;
}

bool semaphore_t::wait(timegap_t timeout) {
    sd::count(sd::semaphore_take);
    if (!timeout.is_infinite()) return wait(sd::deadline_after(timeout));
    hold_t hold(lock);
    while (count == 0) lock.wait();
    --count;
    return true;
}

void semaphore_t::post() {
    sd::count(sd::semaphore_free);
    hold_t hold(lock);
    ++count;
    lock.signal();
}

// --- event_t ------------------------------------------------------------------------

event_t::event_t(bool initially_signalled, bool manual_reset)
    : signalled(initially_signalled), manual_reset(manual_reset) {
    sd::count(sd::event_ctor);
}

event_t::~event_t() {
    sd::count(sd::event_dtor);
}

void event_t::signal() {
    sd::count(sd::event_free);
    hold_t hold(lock);
    signalled = true;
    // One waiter, also for a manual-reset event: later arrivals pass while
    // the event stays set.
    lock.signal();
}

void event_t::reset() {
    hold_t hold(lock);
    signalled = false;
}

bool event_t::try_wait() {
    sd::count(sd::event_take);
    hold_t hold(lock);
    if (!signalled) return false;
    if (!manual_reset) signalled = false;
    return true;
}

bool event_t::wait(timestamp_t deadline) {
    sd::count(sd::event_take);
    hold_t hold(lock);
    while (!signalled) {
        if (!lock.wait(deadline)) return false;
    }
    if (!manual_reset) signalled = false;
    return true;
}

bool event_t::wait(timegap_t timeout) {
    sd::count(sd::event_take);
    if (!timeout.is_infinite()) return wait(sd::deadline_after(timeout));
    hold_t hold(lock);
    while (!signalled) lock.wait();
    if (!manual_reset) signalled = false;
    return true;
}

// --- rwlock_t -----------------------------------------------------------------------

rwlock_t::rwlock_t() : readers(true), writers(false), readers_waiting(0), writers_waiting(0), state(0) {
    sd::count(sd::rwlock_ctor);
}

rwlock_t::~rwlock_t() {
    sd::count(sd::rwlock_dtor);
}

void rwlock_t::slock() {
    sd::count(sd::rwlock_stake);
    hold_t hold(guard);
    while (state < 0 || (write_prefered && writers_waiting > 0)) {
        ++readers_waiting;
        readers.wait(guard);
        --readers_waiting;
    }
    ++state;
}

bool rwlock_t::try_slock() {
    sd::count(sd::rwlock_stake);
    hold_t hold(guard);
    if (state < 0 || (write_prefered && writers_waiting > 0)) return false;
    ++state;
    return true;
}

void rwlock_t::xlock() {
    sd::count(sd::rwlock_xtake);
    hold_t hold(guard);
    while (state != 0) {
        ++writers_waiting;
        writers.wait(guard);
        --writers_waiting;
    }
    state = -1;
}

bool rwlock_t::try_xlock() {
    sd::count(sd::rwlock_xtake);
    hold_t hold(guard);
    if (state != 0) return false;
    state = -1;
    return true;
}

void rwlock_t::unlock() {
    sd::count(sd::rwlock_free);
    hold_t hold(guard);
    if (state > 0) {
        --state;
    } else if (state == -1) {
        state = 0;
    }
    if (write_prefered) {
        // While a writer waits, readers stay asleep; the writer gets the
        // lock when the last holder leaves.
        if (writers_waiting > 0) {
            if (state == 0) writers.signal();
        } else if (readers_waiting > 0) {
            readers.signal();
        }
    } else if (readers_waiting > 0) {
        readers.signal();
    } else if (writers_waiting > 0 && state == 0) {
        writers.signal();
    }
}

// --- locks kept usable across fork() -------------------------------------------------

namespace kern {
namespace syncers {
namespace detail {

struct fork_access_t {
    static pthread_mutex_t& of(mutex_t& m) noexcept { return m.m_; }
    static pthread_cond_t& of(condvar_t& c) noexcept { return c.c_; }
};

}  // namespace detail
}  // namespace syncers
}  // namespace kern

namespace {

// A registered lock, and what the prepare handler made of it. For a
// read/write lock, mutex is its guard.
struct fork_lock_t {
    enum state_t { left, taken, own, skipped };
    mutex_t* mutex;
    rwlock_t* rwlock;
    state_t state;
};

// The registry: a plain POSIX mutex, statically initialised and never
// destroyed, guards the list; the list is released at exit (fork_registry_t),
// and nothing is registered after that.
pthread_mutex_t s_fork_guard = PTHREAD_MUTEX_INITIALIZER;
std::vector<fork_lock_t>* s_fork_locks = nullptr;
bool s_fork_closed = false;

pthread_mutex_t& posix(fork_lock_t const& l) noexcept { return sd::fork_access_t::of(*l.mutex); }

pid_t current_tid() noexcept { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// The kernel id of the thread holding m, 0 when it is free: the C library
// records the owner of a mutex of every kind.
pid_t& owner_of(pthread_mutex_t& m) noexcept { return m.__data.__owner; }

void release_taken(std::vector<fork_lock_t>& locks) noexcept {
    for (fork_lock_t& l : locks) {
        if (l.state != fork_lock_t::taken) continue;
        pthread_mutex_unlock(&posix(l));
        l.state = fork_lock_t::left;
    }
}

// Takes every lock that is left, and answers true; false when it has waited
// for one a millisecond in vain, holding none then. It waits for one lock
// at a time and holds none of the others meanwhile: the library's threads
// take these locks in orders that no single order agrees with (a logger's
// failure handler that logs through another logger crosses loggers), so a
// thread that holds one of them while waiting for another must never find
// this one in its way. The caller holds the registry's guard, which a
// thread holding a registered lock may be waiting for (a failure handler
// that builds a logger): hence the bounded wait.
bool take_all(std::vector<fork_lock_t>& locks) noexcept {
    size_t wait_for = locks.size();
    for (;;) {
        if (wait_for < locks.size()) {
            fork_lock_t& l = locks[wait_for];
            struct timespec until;
            clock_gettime(CLOCK_REALTIME, &until);
            until.tv_nsec += 1000000;
            if (until.tv_nsec >= 1000000000) until.tv_sec += 1, until.tv_nsec -= 1000000000;
            int const rc = pthread_mutex_timedlock(&posix(l), &until);
            if (rc == ETIMEDOUT) return false;
            l.state = rc == 0 ? fork_lock_t::taken : fork_lock_t::skipped;
        }
        wait_for = locks.size();
        for (size_t i = 0; i < locks.size() && wait_for == locks.size(); ++i) {
            fork_lock_t& l = locks[i];
            if (l.state != fork_lock_t::left) continue;
            int const rc = pthread_mutex_trylock(&posix(l));
            if (rc == 0) {
                l.state = fork_lock_t::taken;
            } else if (rc == EBUSY) {
                wait_for = i;
            } else {
                l.state = fork_lock_t::skipped;
            }
        }
        if (wait_for == locks.size()) return true;
        release_taken(locks);
    }
}

void fork_prepare() noexcept {
    for (;;) {
        pthread_mutex_lock(&s_fork_guard);
        if (!s_fork_locks) return;
        pid_t const self = current_tid();
        for (fork_lock_t& l : *s_fork_locks)
            l.state = owner_of(posix(l)) == self ? fork_lock_t::own : fork_lock_t::left;
        if (take_all(*s_fork_locks)) return;
        pthread_mutex_unlock(&s_fork_guard);
        sched_yield();
    }
}

void fork_parent() noexcept {
    if (s_fork_locks) release_taken(*s_fork_locks);
    pthread_mutex_unlock(&s_fork_guard);
}

// A read/write lock in a child: free, with nobody waiting. Its condition
// variables are made anew, as they still count the parent's waiters.
void reset_in_child(rwlock_t& l) noexcept {
    pthread_cond_init(&sd::fork_access_t::of(l.readers), nullptr);
    pthread_cond_init(&sd::fork_access_t::of(l.writers), nullptr);
    l.readers_waiting = 0;
    l.writers_waiting = 0;
    l.state = 0;
}

// Every lock that the forking thread holds (it took them, or held them
// already) now names the thread's new id as its owner: an error-checking or
// recursive mutex refuses an unlock by any other id. The taken ones are
// released; the others stay held by the thread.
void fork_child() noexcept {
    if (s_fork_locks) {
        pid_t const self = current_tid();
        for (fork_lock_t& l : *s_fork_locks) {
            if (l.state == fork_lock_t::taken || l.state == fork_lock_t::own) owner_of(posix(l)) = self;
            if (l.state == fork_lock_t::taken) {
                if (l.rwlock) reset_in_child(*l.rwlock);
                pthread_mutex_unlock(&posix(l));
            }
            l.state = fork_lock_t::left;
        }
    }
    // A normal mutex: released by whoever calls, as here by the new id.
    pthread_mutex_unlock(&s_fork_guard);
}

void register_fork_handlers() noexcept { pthread_atfork(&fork_prepare, &fork_parent, &fork_child); }

// Releases the list at exit (or when the library is unloaded).
struct fork_registry_t {
    ~fork_registry_t() {
        pthread_mutex_lock(&s_fork_guard);
        delete s_fork_locks;
        s_fork_locks = nullptr;
        s_fork_closed = true;
        pthread_mutex_unlock(&s_fork_guard);
    }
} s_fork_registry;

}  // namespace

namespace kern {
namespace syncers {
namespace detail {

namespace {

void add_fork_lock(mutex_t& m, rwlock_t* rw) noexcept {
    static pthread_once_t handlers = PTHREAD_ONCE_INIT;
    pthread_once(&handlers, &register_fork_handlers);
    pthread_mutex_lock(&s_fork_guard);
    try {
        if (!s_fork_closed) {
            if (!s_fork_locks) s_fork_locks = new std::vector<fork_lock_t>;
            std::vector<fork_lock_t>& locks = *s_fork_locks;
            // Registered twice, a lock would be waited for by its own taker.
            if (std::none_of(locks.begin(), locks.end(), [&m](fork_lock_t const& l) { return l.mutex == &m; }))
                locks.push_back(fork_lock_t{&m, rw, fork_lock_t::left});
        }
    } catch (std::exception const&) {
        // Left out: the lock works as before, only not across fork().
    }
    pthread_mutex_unlock(&s_fork_guard);
}

}  // namespace

mutex_t& fork_safe(mutex_t& m) noexcept {
    add_fork_lock(m, nullptr);
    return m;
}

rwlock_t& fork_safe(rwlock_t& l) noexcept {
    add_fork_lock(l.guard, &l);
    return l;
}

void fork_forget(rwlock_t& l) noexcept { fork_forget(l.guard); }

void fork_forget(mutex_t& m) noexcept {
    pthread_mutex_lock(&s_fork_guard);
    if (s_fork_locks) {
        std::vector<fork_lock_t>& locks = *s_fork_locks;
        locks.erase(std::remove_if(locks.begin(), locks.end(), [&m](fork_lock_t const& l) { return l.mutex == &m; }),
                    locks.end());
    }
    pthread_mutex_unlock(&s_fork_guard);
}

}  // namespace detail
}  // namespace syncers
}  // namespace kern

// --- report -------------------------------------------------------------------------

namespace {

// The decimal text of a counter figure.
std::string figure(q_uint64_t value) {
    std::string text;
    add_number_to_string(static_cast<unsigned long long>(value), text);
    return text;
}

}  // namespace

void log_syncers_stat() {
    namespace d = kern::syncers::detail;
    if_logger_t* log = if_logger_t::Log;
    if (!log) return;
    // Each line reads its counters afresh; a report may mix moments.
    if (log->is_logged(if_logger_t::NOTICE)) {
        q_uint64_t const ctor = d::mutex::ctor, take = d::mutex::take;
        log->log(if_logger_t::NOTICE, "[Sync] Mutex: %s total, %s locks; %s existing, %s locked now",
                 figure(ctor).c_str(), figure(take).c_str(), figure(ctor - d::mutex::dtor).c_str(),
                 figure(take - d::mutex::free).c_str());
    }
    if (log->is_logged(if_logger_t::NOTICE)) {
        q_uint64_t const ctor = d::condvar::ctor;
        log->log(if_logger_t::NOTICE, "[Sync] Condvar: %s existing; %s total, %s signals, %s waits",
                 figure(ctor - d::condvar::dtor).c_str(), figure(ctor).c_str(),
                 figure(d::condvar::free).c_str(), figure(d::condvar::take).c_str());
    }
    if (log->is_logged(if_logger_t::NOTICE)) {
        q_uint64_t const ctor = d::event::ctor;
        log->log(if_logger_t::NOTICE, "[Sync] Event: %s existing; %s total, %s signals, %s waits",
                 figure(ctor - d::event::dtor).c_str(), figure(ctor).c_str(), figure(d::event::free).c_str(),
                 figure(d::event::take).c_str());
    }
    if (log->is_logged(if_logger_t::NOTICE)) {
        q_uint64_t const ctor = d::semaphore::ctor;
        log->log(if_logger_t::NOTICE, "[Sync] Semaphore: %s existing; %s total, %s posts, %s waits",
                 figure(ctor - d::semaphore::dtor).c_str(), figure(ctor).c_str(),
                 figure(d::semaphore::free).c_str(), figure(d::semaphore::take).c_str());
    }
    if (log->is_logged(if_logger_t::NOTICE)) {
        q_uint64_t const ctor = d::rwlock::ctor;
        log->log(if_logger_t::NOTICE, "[Sync] R/W Lock: %s existing; %s total, %s signals, %s s-waits, %s x-waits",
                 figure(ctor - d::rwlock::dtor).c_str(), figure(ctor).c_str(), figure(d::rwlock::free).c_str(),
                 figure(d::rwlock::stake).c_str(), figure(d::rwlock::xtake).c_str());
    }
}
