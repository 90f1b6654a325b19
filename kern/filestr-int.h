// filestr-int.h: descriptor helpers shared inside the library, not exported.
#ifndef QVLKERN_FILESTR_INT_H
#define QVLKERN_FILESTR_INT_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

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
