// _kern.h: library start-up services that programs call.
//
// The library builds its process-wide objects when the loader maps it (see
// kern/_kern.cc for the order) and reads its QVLSRV_* settings then, once;
// later changes of the environment do not reach them. What remains callable
// is the library banner and two environment helpers:
//
//   printf("%s\n", kern_signature());   // "Quarvel OS Abstraction Layer Version 1.0.0 (, Linux/x64)"
//   unsigned long ttl = env_get_number("MY_TTL", 60);   // "2k" gives 2048
//
// Settings read at start-up:
//   QVLSRV_MUTEX_TYPE           kind of every mutex_t (syncers.h)
//   QVLSRV_RWLOCK_READPREFERED  presence: rwlock_t::write_prefered = true
//   QVLSRV_NO_LASTREPEAT        presence: fd_logger_t::last_repeated_avail = false
//   QVLSRV_DEBUG_DYNALIB        presence: kern::dynalib::DEBUG = true
//   QVLSRV_DYNALIB_TTL          idle seconds of a cached module, default 60
//   QVLSRV_INTERNAL_UUID        presence: get_uuid makes identifiers itself (random.h)
//
// Thread safety: kern_signature may be called from any thread. The two
// environment helpers are as safe as the C library's getenv and setenv:
// do not change the environment while other threads read it.
//
// Choices left open elsewhere and made here:
//  - The version inside the banner is the project version the build passes
//    as QVLKERN_VERSION_STRING.
//  - All process-wide objects live in one translation unit, kern/_kern.cc,
//    which is linked last so that its initialiser runs after those of the
//    other sources.
//  - The banner is written into static storage that is never torn down, so
//    the pointer stays readable during the whole teardown too.
//  - Detached threads may still run while main returns or exit() tears the
//    library down. What they may touch is built at its place in the order
//    but never destroyed: the thread registry's guard and the name of
//    unknown threads, the module cache's guards, name locks and storage
//    pointer (the storage itself is released at exit under its guard), and
//    the sleep event (destroying it would wait for ever for a sleeper). The
//    process logger is retired rather than deleted while other threads
//    remain (loggers.h). None of this is allocated, so unloading the
//    library leaves nothing behind.
//  - fork() leaves every library lock that a child may need usable in the
//    child: the loggers' locks, the thread registry's guard, the module
//    cache's guards and name locks, the account caches' guards and the sleep
//    event's lock. The fork's prepare handler takes them all (waiting for
//    one at a time, holding none of the others meanwhile, so it never
//    deadlocks with a thread that takes them in another order), and the
//    parent and child handlers release them. In the child the locks are
//    first handed to the forking thread's new id, which an error-checking
//    mutex would otherwise refuse as not its owner.
#ifndef QVLKERN__KERN_H
#define QVLKERN__KERN_H

#include "kern-config.h"

// The library banner; the same pointer on every call.
extern "C" QVL_API char const* kern_signature();

// The variable read as a count: decimal digits with an optional K, M or G
// suffix (binary multiples, either case) as its last character; def when it
// is unset or not such a number. Overflow of the multiplication is not
// checked.
QVL_API unsigned long env_get_number(char const* name, unsigned long def);

// setenv(name, value, overwrite = 1); answers setenv's result.
QVL_API int set_envvar(char const* name, char const* value);

#endif  // QVLKERN__KERN_H
