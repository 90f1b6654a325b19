// syncers-int.h: locks that stay usable in the children of fork(), and the
// deadline of a relative wait; not exported.
//
// A child of fork() has only the thread that forked. A lock that another
// thread of the parent held at that moment stays held in the child for
// ever, and the data it guards may be half updated. So the library's locks
// that a child may need (each logger's, the thread registry's, the module
// cache's) are registered here: the fork's prepare handler takes every one
// of them, and the parent and child handlers release them. In the child
// the forking thread has a new id, which an error-checking mutex would not
// take for its owner's: the child handler first hands the locks to the new
// id. A lock that the forking thread held before the fork stays held by it,
// under its new id.
//
//   fork_safe(file_mutex_);     // in the constructor, after what can throw
//   fork_forget(file_mutex_);   // in the destructor
//
// A read/write lock registered here is free in the child, whoever held it.
#ifndef QVLKERN_SYNCERS_INT_H
#define QVLKERN_SYNCERS_INT_H

#include "syncers.h"

#pragma GCC visibility push(hidden)

namespace kern {
namespace syncers {
namespace detail {

// Registers m (once; a second call changes nothing) and answers it. Never
// throws: should the registry not grow, m is left out. The library calls
// these two holding no registered lock, for which a fork may be waiting.
mutex_t& fork_safe(mutex_t& m) noexcept;
// Takes m out of the registry; call it before m is destroyed.
void fork_forget(mutex_t& m) noexcept;
// The same for a read/write lock, which the child gets free, with nobody
// waiting: its holders and waiters were threads of the parent (the
// compression of a rotated log holds one for as long as it runs).
rwlock_t& fork_safe(rwlock_t& l) noexcept;
void fork_forget(rwlock_t& l) noexcept;

// Where a relative wait of a finite time-out ends (for ever when the sum
// would pass the last tick).
timestamp_t deadline_after(timegap_t timeout) noexcept;

}  // namespace detail
}  // namespace syncers
}  // namespace kern

#pragma GCC visibility pop

#endif  // QVLKERN_SYNCERS_INT_H
