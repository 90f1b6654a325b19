// immortal-int.h: process-wide objects that are never destroyed; not
// exported.
//
// Returning from main or calling exit() runs the teardown while detached
// threads may still be logging, listing themselves or loading modules. What
// such a thread may touch (a lock, the name of unknown threads) is built
// here, in static storage that no teardown destroys, so it stays valid until
// the process is gone. Nothing is allocated for the storage itself: when the
// library is unloaded, the storage goes with it and no leak is left.
//
//   namespace { kern_n::detail::immortal_t<mutex_t> s_guard; }
//   mutex_t& some_guard = s_guard.make();
#ifndef QVLKERN_IMMORTAL_INT_H
#define QVLKERN_IMMORTAL_INT_H

#include <new>
#include <utility>

#pragma GCC visibility push(hidden)

namespace kern_n {
namespace detail {

// Room for one T, built by make() (once) and never destroyed.
template <class T>
class immortal_t {
public:
    template <class... A>
    T& make(A&&... args) {
        return *new (storage_) T(std::forward<A>(args)...);
    }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace detail
}  // namespace kern_n

#pragma GCC visibility pop

#endif  // QVLKERN_IMMORTAL_INT_H
