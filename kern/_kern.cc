// _kern.cc: library start-up.
//
// Every process-wide object of the library is defined in this one file, in
// the order in which it must be built; C++ constructs the statics of one
// translation unit in definition order and destroys them in reverse, and
// each registers its teardown right after it is built. To add a start-up
// object, define it at its place in this list. This file is linked last so
// that the constant tables of the other sources are in place first.
//
// The order: Unicode services, case tables, mutex kind, synchronisation
// counters, exception call-stack key, reader/writer and repeat-folding
// flags, thread registry, signal-child flag, process logger, bootstrap
// logger, module name locks, module cache, user and group guards, random
// seed guard, platform description, run-time and random counters, system
// random source, UUID state and time zone, fatal-signal guard, quotation and
// allocation counters, sleep event, banner. A comment in parentheses keeps
// the place of objects not written yet. No exported function may be called
// before the last of them is built.
//
// What a thread that runs on while the process ends may touch (the thread
// registry's guard and the name of unknown threads, the module cache's
// locks and storage, the sleep event) is built at its place in this order
// but never destroyed (immortal-int.h); the process logger is retired
// rather than deleted when other threads remain (see logger_init_t). The
// locks among them are registered for fork() (syncers-int.h), so that a
// child finds them free whatever the parent's other threads were doing.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "_kern.h"
#include "amtypes.h"
#include "dynamic_library.h"
#include "exceptions.h"
#include "immortal-int.h"
#include "loggers.h"
#include "numstrings.h"
#include "platform.h"
#include "random-int.h"
#include "random.h"
#include "runnable.h"
#include "syncers-int.h"
#include "syncers.h"
#include "unicode.h"
#include "unx-utils-alloc.h"
#include "unx-utils-signal.h"
#include "unx-utils.h"

namespace {

using kern::syncers::detail::fork_safe;
using kern_n::detail::immortal_t;

// Unicode services, in the locale the process's environment names.
struct unicode_t {
    unicode_t() { kern::ICU_ctor(); }
    ~unicode_t() { kern::ICU_dtor(); }
} const s_unicode;

// Case tables of the string slice, from the locale's case mapping.
struct case_tables_t {
    case_tables_t() { lstr_t::init_case(); }
} const s_case_tables;

}  // namespace

// The kind of every mutex_t, from QVLSRV_MUTEX_TYPE.
mutex_t::init_t mutex_t::initializer;

// Synchronisation counters; constructing one clears it.
namespace kern {
namespace syncers {
namespace detail {
namespace mutex {
counter_t ctor(mutex_ctor), dtor(mutex_dtor), take(mutex_take), free(mutex_free);
}
namespace event {
counter_t ctor(event_ctor), dtor(event_dtor), take(event_take), free(event_free);
}
namespace semaphore {
counter_t ctor(semaphore_ctor), dtor(semaphore_dtor), take(semaphore_take), free(semaphore_free);
}
namespace condvar {
counter_t ctor(condvar_ctor), dtor(condvar_dtor), take(condvar_take), free(condvar_free);
}
namespace rwlock {
counter_t ctor(rwlock_ctor), dtor(rwlock_dtor), stake(rwlock_stake), xtake(rwlock_xtake), free(rwlock_free);
}
}  // namespace detail
}  // namespace syncers
}  // namespace kern

// The thread-specific slot holding each thread's exception call stack.
pthread_key_t callstack_t::key = qexception_initializer();

// Presence of QVLSRV_RWLOCK_READPREFERED makes every rwlock_t prefer
// writers (sic: the flag's name is the reverse of the variable's).
bool rwlock_t::write_prefered = getenv("QVLSRV_RWLOCK_READPREFERED") != nullptr;
// Presence of QVLSRV_NO_LASTREPEAT stops descriptor loggers folding repeats.
bool fd_logger_t::last_repeated_avail = getenv("QVLSRV_NO_LASTREPEAT") == nullptr;

// Thread registry: the other subsystems' per-thread clean-up (empty), the
// signals daemons keep off their workers, the name of unregistered threads,
// the thread's entry and store keys (a failure makes loading fail), the
// sequence counter, the list and its guard. The name and the guard are
// never destroyed: every thread that logs reads the one, and every thread
// that ends takes the other.
boost::function<void()> kern_n::runnable_t::extra_thread_cleanup;
sigset_t kern_n::runnable_t::blocked_signals = kern_n::runnable_t::make_blocked_signals();
static immortal_t<std::string> s_unknown_name;
std::string& kern_n::runnable_t::unknown_name = s_unknown_name.make("noname");
pthread_key_t kern_n::runnable_t::self_key = kern_n::runnable_t::make_thread_key();
pthread_key_t kern_n::runnable_t::tls_key = kern_n::runnable_t::make_thread_key();
std::atomic<q_uint32_t> kern_n::runnable_t::SeqIdCnt(0);
kern_n::runnable_list_t kern_n::runnable_t::runnables;
static immortal_t<mutex_t> s_runnables_guard;
mutex_t& kern_n::runnable_t::runnables_guard = fork_safe(s_runnables_guard.make());

// How many do-not-wait-on-SIGCHLD switches are alive: none.
std::atomic<q_uint32_t> kern::signal::ignore_sigchild(0);

// The process logger: a descriptor logger on standard error until the
// program calls init_logger. At exit it is deleted (retired while other
// threads remain) and the process logger falls back to the simple logger,
// so the rest of the teardown can log.
if_logger_t* if_logger_t::Log = fd_logger_t::create_();
static logger_init_t const s_logger_teardown;
// The bootstrap logger (never destroyed; see loggers.cc).
logger_init_t::simple& logger_init_t::s_simple_ = logger_init_t::instance();

// Module name locks: the guard of the table, then the five slots, each
// filled on first use and released one by one at exit. The guard and the
// mutexes that the slots hand out are never destroyed (dynamic_library.cc).
static immortal_t<mutex_t> s_dso_giant_lock;
mutex_t& kern::dynalib::s_dso_giant_lock = fork_safe(::s_dso_giant_lock.make());
kern::dynalib::sh_fast_mutex_t kern::dynalib::s_dso_locks[kern::dynalib::dso_lock_count];

// Module cache: "[DynaLib]" messages when QVLSRV_DEBUG_DYNALIB is present;
// disabled (no storage) until set_enabled; idle time to live from
// QVLSRV_DYNALIB_TTL, in seconds, saturated at the most a time value holds
// (a larger count would wrap below zero and drop every idle module at once).
// At exit the storage is released under its guard; the guard and the empty
// pointer stay for threads that still open or release modules.
bool kern::dynalib::DEBUG = getenv("QVLSRV_DEBUG_DYNALIB") != nullptr;
static immortal_t<mutex_t> s_storage_guard;
mutex_t& kern::dynalib::cache::s_storage_guard = fork_safe(::s_storage_guard.make());
static immortal_t<kern::dynalib::cache::sh_storage_t> s_storage;
kern::dynalib::cache::sh_storage_t& kern::dynalib::cache::s_storage = ::s_storage.make();
static struct storage_teardown_t {
    ~storage_teardown_t() {
        kern::dynalib::cache::sh_storage_t released;  // goes after the guard
        xlocker_t<mutex_t> hold(kern::dynalib::cache::s_storage_guard);
        released.swap(kern::dynalib::cache::s_storage);
    }
} const s_storage_teardown;
timegap_t kern::dynalib::cache::s_time_to_live(
    static_cast<long>(std::min<unsigned long>(env_get_number("QVLSRV_DYNALIB_TTL", 60),
                                              INT64_MAX / kern::time::ticks_per_second)), 0);
std::string kern::dynalib::cache::s_libdir;

// Account caches: the guard of the id-to-user-name cache, its name, then the
// same for groups. The cached ids are constants of unx-utils.cc, set at load.
// The guards are never destroyed, like the other locks registered for fork().
static immortal_t<mutex_t> s_user_guard;
mutex_t& unxs_n::unx_sec_user_guard = fork_safe(s_user_guard.make());
std::string unxs_n::unx_sec_user;
static immortal_t<mutex_t> s_group_guard;
mutex_t& unxs_n::unx_sec_group_guard = fork_safe(s_group_guard.make());
std::string unxs_n::unx_sec_group;

namespace {

// The guard of the system random source, built before the source itself;
// never destroyed and free in a child of fork(), like the other guards.
immortal_t<mutex_t> s_sysrnd_guard_storage;
mutex_t& s_sysrnd_guard = fork_safe(s_sysrnd_guard_storage.make());

// Spreads the bits of a process or thread id over a 64-bit word.
q_uint64_t seed_mix(q_uint64_t x) noexcept { return (x << 27) ^ (x << 21) ^ x ^ (x << 17) ^ (x << 7); }

// The C library's generator, which fills a random_t's seed when
// /dev/urandom cannot be read: seeded from the process, the loading thread
// and the clock's 100-nanosecond count within its tenth of a second.
struct crand_seed_t {
    crand_seed_t() {
        q_uint64_t const p = static_cast<q_uint64_t>(getpid());
        q_uint64_t const t = static_cast<q_uint64_t>(syscall(SYS_gettid));
        q_uint64_t const clock = static_cast<q_uint64_t>(kern::time::now().ticks() / 10) % 1000000;
        srand(static_cast<unsigned>(seed_mix(p) ^ clock ^ (seed_mix(t) << 16)));
    }
} const s_crand_seed;

}  // namespace

// The running kernel's version numbers, then the platform description,
// which depends on nothing else made here.
q_uint32_t platform_linux_version_1 = platform_base_t::release_number(0);
q_uint32_t platform_linux_version_2 = platform_base_t::release_number(1);
q_uint32_t platform_linux_version_3 = platform_base_t::release_number(2);
platform_base_t platform_t::base;

// Random and identifier counters. They, like the run-time statistics mode
// and the quotation counters defined beside their code, are constant-
// initialised: their place in the order is only nominal.
std::atomic<q_uint64_t> kern::random::stat::calls{0};
std::atomic<q_uint64_t> kern::random::stat::time{0};
std::atomic<q_uint64_t> kern::guid::stat::calls{0};
std::atomic<q_uint64_t> kern::guid::stat::time{0};

// The system random source, seeded from /dev/urandom.
random_t sysrnd(&s_sysrnd_guard);

// The identifier generator's state, seeded from the environment and
// sysrnd; then the process's time zone.
kern::uuid::state_t kern::uuid::state;
static mutex_t const& s_uuid_guard = fork_safe(kern::uuid::state.guard);
static struct uuid_and_zone_t {
    uuid_and_zone_t() {
        init_int_uuid();
        tzset();
    }
} const s_uuid_and_zone;

// Guards the fatal-signal report's state for programs that share it.
static immortal_t<mutex_t> s_post_mortem_guard;
mutex_t& post_morten_dump_flag_guard = fork_safe(s_post_mortem_guard.make());

// The run-time statistics mode and the quotation counters are plain
// zero-initialised values defined beside their code: they need no
// construction, so their place in the order is only nominal.

// Allocation counters and the size histogram; constructing one clears what
// the wrappers counted while the process was being loaded.
namespace kern {
namespace alloc {
namespace stat {
namespace d = kern::syncers::detail;
namespace malloc {
counter_t calls(d::alloc_malloc_calls), size(d::alloc_malloc_size), time(d::alloc_malloc_time);
}
namespace realloc {
counter_t calls(d::alloc_realloc_calls), time(d::alloc_realloc_time);
}
namespace memalign {
counter_t calls(d::alloc_memalign_calls), size(d::alloc_memalign_size), time(d::alloc_memalign_time);
}
namespace free {
counter_t calls(d::alloc_free_calls), size(d::alloc_free_size), time(d::alloc_free_time);
}
namespace sizes {
#define QVL_BUCKET(i) counter_t(d::counter_id_t(d::alloc_bucket_0 + (i)))
#define QVL_BUCKETS(i) QVL_BUCKET(i), QVL_BUCKET(i + 1), QVL_BUCKET(i + 2), QVL_BUCKET(i + 3)
counter_t malloc[32] = {QVL_BUCKETS(0),  QVL_BUCKETS(4),  QVL_BUCKETS(8),  QVL_BUCKETS(12),
                        QVL_BUCKETS(16), QVL_BUCKETS(20), QVL_BUCKETS(24), QVL_BUCKETS(28)};
#undef QVL_BUCKETS
#undef QVL_BUCKET
}  // namespace sizes
}  // namespace stat
}  // namespace alloc
}  // namespace kern

// What runnable_t::sleep waits on; nothing signals it. Never destroyed: a
// thread may sleep on it while the process ends.
static immortal_t<event_t> s_sleep_event;
event_t& kern_runnable_sleep_event = s_sleep_event.make(false, false);
static mutex_t const& s_sleep_event_lock = fork_safe(kern_runnable_sleep_event.lock);

// The library banner, last. A constant in the library's image: it needs no
// teardown and reads the same before start-up and after it.
#ifndef QVLKERN_VERSION_STRING
#define QVLKERN_VERSION_STRING "unknown"
#endif
static char const s_banner[] = "Quarvel OS Abstraction Layer Version " QVLKERN_VERSION_STRING " (, " "Linux" "/x64)";

// --- start-up services ----------------------------------------------------------------

extern "C" char const* kern_signature() { return s_banner; }

unsigned long env_get_number(char const* name, unsigned long def) {
    char const* const value = name ? getenv(name) : nullptr;
    if (!value) return def;
    lstr_t text(value);
    // A K, M or G right after the digits is a binary multiple; it is cut
    // off only when it ends the text, so "2kb" stays unreadable.
    unsigned long multiplier = 1;
    unsigned long i = 0;
    while (i < text.length() && text[i] >= '0' && text[i] <= '9') ++i;
    if (i < text.length()) {
        switch (text[i]) {
        case 'K': case 'k': multiplier = 1024UL; break;
        case 'M': case 'm': multiplier = 1048576UL; break;
        case 'G': case 'g': multiplier = 1073741824UL; break;
        default: break;
        }
        if (multiplier != 1 && i + 1 == text.length()) text.remove_suffix(1);
    }
    try {
        return static_cast<unsigned long>(string_to_uint64(text)) * multiplier;
    } catch (...) {
        return def;
    }
}

int set_envvar(char const* name, char const* value) { return setenv(name, value, 1); }
