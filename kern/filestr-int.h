// filestr-int.h: descriptor helpers shared inside the library, not exported.
#ifndef QVLKERN_FILESTR_INT_H
#define QVLKERN_FILESTR_INT_H

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <ctime>

namespace kern_n {
namespace detail {

// Calls f until it answers something other than -1 with errno EINTR.
template <class F>
auto retry_eintr(F f) -> decltype(f()) {
    decltype(f()) r;
    do {
        r = f();
    } while (r == -1 && errno == EINTR);
    return r;
}

// open(2) with O_CLOEXEC added, retried while interrupted.
int open_retry(char const* path, int flags, mode_t mode = 0) noexcept;
// read(2) retried while interrupted.
ssize_t read_retry(int fd, void* buf, std::size_t n) noexcept;
// One write(2), retried while interrupted. With to_pipe, SIGPIPE is held
// off for the call: a pipe without a reader answers EPIPE and the process
// goes on.
ssize_t write_retry(int fd, void const* buf, std::size_t n, bool to_pipe) noexcept;

// Keeps the library's writes to a pipe or socket whose reader has gone from
// ending the process: SIGPIPE is blocked for the calling thread while the
// guard lives, and the one that a write raised (directed at this thread) is
// taken off before the mask comes back: after a write failing with EPIPE,
// and also after a write that got some bytes through before the reader left,
// for which the kernel raises it as well. A SIGPIPE that
// was pending for the thread before is left to the program: one can be
// pending only where the thread blocked the signal already, as a pending
// signal that is not blocked has been delivered.
class sigpipe_guard_t {
public:
    explicit sigpipe_guard_t(bool active)
        : active_(active), blocked_before_(false), pending_before_(false), raised_(false) {
        if (!active_) return;
        sigset_t pipe_only = only_sigpipe();
        pthread_sigmask(SIG_BLOCK, &pipe_only, &saved_);
        blocked_before_ = sigismember(&saved_, SIGPIPE) == 1;
        if (!blocked_before_) return;
        sigset_t pending;
        pending_before_ = ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }
    ~sigpipe_guard_t() {
        if (!active_) return;
        int const saved_errno = errno;
        sigset_t pending;
        if (!pending_before_ &&
            (raised_ || (::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1))) {
            sigset_t pipe_only = only_sigpipe();
            struct timespec const none = {0, 0};
            while (::sigtimedwait(&pipe_only, nullptr, &none) == -1 && errno == EINTR) continue;
        }
        if (!blocked_before_) pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
        errno = saved_errno;
    }
    sigpipe_guard_t(sigpipe_guard_t const&) = delete;
    sigpipe_guard_t& operator=(sigpipe_guard_t const&) = delete;

    // Tells the error of a failed write: EPIPE came with a SIGPIPE.
    void failed(int error) { raised_ = raised_ || error == EPIPE; }

private:
    static sigset_t only_sigpipe() {
        sigset_t s;
        sigemptyset(&s);
        sigaddset(&s, SIGPIPE);
        return s;
    }

    bool const active_;
    bool blocked_before_;
    bool pending_before_;
    bool raised_;
    sigset_t saved_;
};

// A descriptor closed at the end of the scope. close(2) is never retried:
// Linux frees the descriptor also when it reports EINTR, and a second close
// could hit a descriptor that another thread has just been given.
class fd_holder_t {
public:
    explicit fd_holder_t(int fd) noexcept : fd_(fd) {}
    ~fd_holder_t() {
        if (fd_ != -1) ::close(fd_);
    }
    fd_holder_t(fd_holder_t const&) = delete;
    fd_holder_t& operator=(fd_holder_t const&) = delete;

    int get() const noexcept { return fd_; }
    // Closes now; close(2)'s result.
    int close() noexcept {
        int const fd = fd_;
        fd_ = -1;
        return fd == -1 ? 0 : ::close(fd);
    }

private:
    int fd_;
};

}  // namespace detail
}  // namespace kern_n

#endif  // QVLKERN_FILESTR_INT_H
