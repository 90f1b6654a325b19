// _kern.cc: library start-up.
//
// Every process-wide object of the library is defined in this one file, in
// the order in which it must be built; C++ constructs the statics of one
// translation unit in definition order and destroys them in reverse, and
// each registers its teardown right after it is built. To add a start-up
// object, define it at its place in this list. This file is linked last so
// that the constant tables of the other sources are in place first.
#include <cstdio>
#include <cstdlib>

#include "amtypes.h"
#include "exceptions.h"
#include "loggers.h"
#include "syncers.h"
#include "unicode.h"

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

// (steps 8 to 13 go here)

// The process logger: a descriptor logger on standard error until the
// program calls init_logger. At exit it is deleted and the process logger
// falls back to the simple logger, so the rest of the teardown can log.
if_logger_t* if_logger_t::Log = fd_logger_t::create_();
static logger_init_t const s_logger_teardown;
// The bootstrap logger (never destroyed; see loggers.cc).
logger_init_t::simple& logger_init_t::s_simple_ = logger_init_t::instance();
