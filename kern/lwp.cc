// lwp.cc: light-weight processes: a POSIX thread per job, entered in the
// thread registry for its whole life.
#include "lwp.h"

#include <cxxabi.h>
#include <errno.h>
#include <pthread.h>

#include <atomic>

#include "exceptions.h"
#include "syncers.h"
#include "utilities.h"

namespace kern {
namespace lwp {

class impl : public virtual kern_n::runnable_t, public virtual lwp_t {
public:
    static lwp_t::shared start(char const* name, boost::function<void()> const& job, bool detached);

    ~impl() override;

    char const* type() const override { return "lwp"; }
    bool join(timegap_t timeout) override;

private:
    impl(char const* name, boost::function<void()> const& job);

    // The new thread's entry; arg is the impl.
    static void* thunk(void* arg);
    // The thread's last acts on the object, also when the job ends the
    // thread with pthread_exit: clean-up and the finished signal, under the
    // entry's mutex.
    struct finisher_t {
        impl* p;
        ~finisher_t();
    };

    boost::function<void()> job;
    // Keeps the object alive from start until the thread takes it over.
    lwp_t::shared self;
    // Set once the thread's clean-up is done; manual reset.
    event_t finished;
    // 0 for a detached LWP.
    pthread_t thread;
    std::atomic<bool> joined;
    // Held across the POSIX join, so that concurrent joins make it once.
    mutex_t join_guard;
};

// The entry is listed only once the object is complete, and taken out first
// thing on destruction: a walker on another thread never calls type() on a
// half-built or half-destroyed object.
impl::impl(char const* name, boost::function<void()> const& job)
    : runnable_t(deferred_t()), job(job), finished(false, true), thread(0), joined(false) {
    if (name) this->name = name;
    register_in_list();
}

impl::~impl() { deregister_from_list(); }

lwp_t::shared impl::start(char const* name, boost::function<void()> const& job, bool detached) {
    impl* const p = new impl(name, job);
    lwp_t::shared result(p);
    // Until this lock goes, the new thread waits in thunk: handle, thread
    // and self are complete before it reads them.
    xlocker_t<mutex_t> hold(p->guard);
    p->self = result;

    pthread_t th = 0;
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc == 0) {
        pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
        if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        rc = pthread_create(&th, &attr, &impl::thunk, p);
        pthread_attr_destroy(&attr);
    }
    if (rc != 0) {
        __atomic_store_n(&p->handle, ~q_uint64_t(0), __ATOMIC_RELAXED);
        // No thread will take this reference over; keeping it would keep
        // the object alive for ever.
        p->self.reset();
        set_last_error(rc);
        QVL_THROW(lwp_exception, "unable to create LWP \"%s\" because of %s", p->name.c_str(),
                  get_last_error().c_str());
    }
    p->thread = detached ? 0 : th;
    __atomic_store_n(&p->handle, static_cast<q_uint64_t>(th), __ATOMIC_RELAXED);
    return result;
}

void* impl::thunk(void* arg) {
    impl* const p = static_cast<impl*>(arg);
    lwp_t::shared owner;
    bool adopted = false;
    {
        bool locked = false;
        try {
            p->guard.xlock();
            locked = true;
            pthread_setspecific(kern_n::runnable_t::self_key, static_cast<kern_n::runnable_t*>(p));
            p->set_ids();
            adopted = true;
        } catch (...) {
            // Without its ids the thread does not run the job; it still
            // finishes below so that joins succeed and the object is freed.
        }
        owner.swap(p->self);
        if (locked) {
            try {
                p->guard.unlock();
            } catch (...) {
            }
        }
    }
    // Destroyed before owner: the object outlives the thread's last use.
    finisher_t const finish = {p};
    if (adopted) {
        try {
            p->job();
        } catch (...) {
            // A job reports its own failures; nothing escapes a thread. But
            // pthread_exit and cancellation unwind with a foreign exception
            // (no C++ type) that must go on; catching abi::__forced_unwind
            // by reference instead would bind a reference to no object.
            if (!abi::__cxa_current_exception_type()) throw;
        }
    }
    return nullptr;
}

impl::finisher_t::~finisher_t() {
    bool locked = false;
    try {
        p->guard.xlock();
        locked = true;
    } catch (...) {
    }
    kern_n::runnable_t::cleanup_all();
    try {
        p->finished.signal();
    } catch (...) {
    }
    if (locked) {
        try {
            p->guard.unlock();
        } catch (...) {
        }
    }
}

bool impl::join(timegap_t timeout) {
    if (joined.load()) return true;
    if (thread == 0) {
        set_last_error(EINVAL);
        return false;
    }
    if (!timeout.is_infinite()) {
        bool const ended = finished.wait(timeout);
        // The finished signal wakes one waiter: each one it wakes wakes the
        // next, so no timed joiner sleeps on after the thread's end.
        if (ended) finished.signal();
        // A wait that ran out after another caller joined still answers true.
        if (!ended || joined.load()) return joined.load();
    }
    xlocker_t<mutex_t> hold(join_guard);
    if (joined.load()) return true;
    int const rc = pthread_join(thread, nullptr);
    if (rc == 0) {
        joined.exchange(true);
    } else {
        set_last_error(rc);
    }
    return joined.load();
}

}  // namespace lwp
}  // namespace kern

lwp_t::lwp_t() : runnable_t(deferred_t()) {}

lwp_t::~lwp_t() {}

lwp_t::shared lwp_t::start(char const* name, boost::function<void()> job, bool detached) {
    return kern::lwp::impl::start(name, job, detached);
}
