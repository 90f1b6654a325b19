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
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "_kern.h"
#include "amtypes.h"
#include "dynamic_library.h"
#include "exceptions.h"
#include "loggers.h"
#include "numstrings.h"
#include "runnable.h"
#include "syncers.h"
#include "unicode.h"
#include "unx-utils-alloc.h"
#include "unx-utils.h"

namespace {

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
// sequence counter, the list and its guard.
boost::function<void()> kern_n::runnable_t::extra_thread_cleanup;
sigset_t kern_n::runnable_t::blocked_signals = kern_n::runnable_t::make_blocked_signals();
std::string kern_n::runnable_t::unknown_name("noname");
pthread_key_t kern_n::runnable_t::self_key = kern_n::runnable_t::make_thread_key();
pthread_key_t kern_n::runnable_t::tls_key = kern_n::runnable_t::make_thread_key();
std::atomic<q_uint32_t> kern_n::runnable_t::SeqIdCnt(0);
kern_n::runnable_list_t kern_n::runnable_t::runnables;
mutex_t kern_n::runnable_t::runnables_guard;

// (the signal-child flag goes here)

// The process logger: a descriptor logger on standard error until the
// program calls init_logger. At exit it is deleted and the process logger
// falls back to the simple logger, so the rest of the teardown can log.
if_logger_t* if_logger_t::Log = fd_logger_t::create_();
static logger_init_t const s_logger_teardown;
// The bootstrap logger (never destroyed; see loggers.cc).
logger_init_t::simple& logger_init_t::s_simple_ = logger_init_t::instance();

// Module name locks: the guard of the table, then the five slots, each
// filled on first use and released one by one at exit.
mutex_t kern::dynalib::s_dso_giant_lock;
kern::dynalib::sh_fast_mutex_t kern::dynalib::s_dso_locks[kern::dynalib::dso_lock_count];

// Module cache: "[DynaLib]" messages when QVLSRV_DEBUG_DYNALIB is present;
// disabled (no storage) until set_enabled; idle time to live from
// QVLSRV_DYNALIB_TTL, in seconds, saturated at the most a time value holds
// (a larger count would wrap below zero and drop every idle module at once).
// At exit the storage goes before its guard.
bool kern::dynalib::DEBUG = getenv("QVLSRV_DEBUG_DYNALIB") != nullptr;
mutex_t kern::dynalib::cache::s_storage_guard;
kern::dynalib::cache::sh_storage_t kern::dynalib::cache::s_storage;
timegap_t kern::dynalib::cache::s_time_to_live(
    static_cast<long>(std::min<unsigned long>(env_get_number("QVLSRV_DYNALIB_TTL", 60),
                                              INT64_MAX / kern::time::ticks_per_second)), 0);
std::string kern::dynalib::cache::s_libdir;

// Account caches: the guard of the id-to-user-name cache, its name, then the
// same for groups. The cached ids are constants of unx-utils.cc, set at load.
mutex_t unxs_n::unx_sec_user_guard;
std::string unxs_n::unx_sec_user;
mutex_t unxs_n::unx_sec_group_guard;
std::string unxs_n::unx_sec_group;

// (random seed guard, platform description, random counters, system
// random source, UUID state and time zone, fatal-signal
// guard go here. The run-time statistics mode and
// the quotation counters are plain zero-initialised values defined beside
// their code: they need no construction, so their place in the order is
// only nominal.)

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

// What runnable_t::sleep waits on; nothing signals it.
event_t kern_runnable_sleep_event(false, false);

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
