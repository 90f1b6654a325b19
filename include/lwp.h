// lwp.h: light-weight processes, the library's threads.
//
// An LWP is a POSIX thread that runs one job, carries a name and is an entry
// of the thread registry (runnable.h) for its whole life. Callers hold it by
// lwp_t::shared; the thread holds its own reference while it runs, so the
// caller may drop its pointer at once:
//
//   lwp_t::shared t = lwp_t::start("compress", boost::bind(&compress, path), false);
//   ...
//   if (!t->join(timegap_t(5, 0))) { ... still running after 5 s ... }
//   t->join(timegap_t::infinite());
//
// The thread registers its entry, runs the job (every exception it throws is
// dropped without a word: a job that must report failures does so itself),
// runs runnable_t::cleanup_all() and signals that it has finished. A daemon
// starts all its threads this way, so that each one is listed and named.
//
// join(timeout) answers true once the thread is joined; a finite time-out
// waits for the finished signal first and answers false when it runs out.
// A detached LWP cannot be joined: join answers false with errno EINVAL.
// The destructor neither joins nor detaches: a joinable LWP dropped without
// a successful join leaves its thread's system resources behind, so join it
// or start it detached.
//
// Thread safety: start may be called from any thread, and so may join, by
// several threads at once: the POSIX join is made once, and every caller
// whose wait ends after it answers true.
//
// Choices left open elsewhere and made here:
//  - The job is a boost::function<void ()>; an empty one throws inside the
//    thread, where it is dropped like any other exception.
//  - The entry is listed once the LWP object is complete and taken out at
//    the start of its destruction, so listings never see a half-built or
//    half-destroyed LWP.
//  - If the thread cannot adopt its entry (its clock cannot be had), the
//    job is not run but the clean-up and the finished signal still are, so
//    join succeeds and the object is freed.
//  - A job that ends its thread with pthread_exit still gets the clean-up
//    and the finished signal.
//  - Concurrent joins: a timed joiner woken by the finished signal (which
//    wakes one waiter) signals it again for the next one, and one whose
//    time-out runs out after another caller joined answers true. The POSIX
//    join is made under a mutex of the LWP's own, so joins made at the same
//    moment, untimed ones included, never join the thread twice.
#ifndef QVLKERN_LWP_H
#define QVLKERN_LWP_H

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include "kern-config.h"
#include "runnable.h"
#include "time-objs.h"

class QVL_API lwp_t : public virtual kern_n::runnable_t {
public:
    typedef boost::shared_ptr<lwp_t> shared;

    ~lwp_t() override;

    // Waits at most timeout (timegap_t::infinite(): for ever) for the
    // thread's end; true when it has been joined.
    virtual bool join(timegap_t timeout) = 0;

    // Starts a thread named name running job. Throws lwp_exception
    // "unable to create LWP \"<name>\" because of <error>".
    static shared start(char const* name, boost::function<void()> job, bool detached);

protected:
    lwp_t();
};

namespace kern {
namespace lwp {
// The one implementation of lwp_t (lwp.cc).
class impl;
}  // namespace lwp
}  // namespace kern

#endif  // QVLKERN_LWP_H
