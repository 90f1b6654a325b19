// unx-utils-daemon.cc: the termination waiter, its stop token, and the
// service manager's notifications.
#include "unx-utils-daemon.h"

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "exceptions.h"
#include "filestr-int.h"
#include "loggers.h"
#include "syncers-int.h"
#include "syncers.h"
#include "unx-utils-signal.h"
#include "utilities.h"

namespace kern {
namespace daemon {

using kern_n::detail::fd_holder_t;
using kern_n::detail::retry_eintr;

// --- the stop token ---------------------------------------------------------------

struct stop_token_t::impl {
    impl() : woken(true), wake_fd(-1) {}
    ~impl() {
        if (wake_fd != -1) ::close(wake_fd);
    }

    mutex_t guard;
    condvar_t woken;  // broadcast: every waiter goes
    std::atomic<int> reason{not_stopped};
    // The termination waiter's eventfd, or -1 for a token of its own.
    int wake_fd;
};

stop_token_t::stop_token_t() : impl_(new impl) {}

bool stop_token_t::stop_requested() const noexcept { return reason() != not_stopped; }

int stop_token_t::reason() const noexcept { return impl_->reason.load(std::memory_order_acquire); }

bool stop_token_t::wait(timegap_t timeout) const {
    if (stop_requested()) return true;
    timestamp_t const deadline =
        timeout.is_infinite() ? timestamp_t::infinite() : kern::syncers::detail::deadline_after(timeout);
    xlocker_t<mutex_t> hold(impl_->guard);
    while (!stop_requested()) {
        if (!impl_->woken.wait(impl_->guard, deadline)) return stop_requested();
    }
    return true;
}

void stop_token_t::request_stop(int why) const {
    {
        xlocker_t<mutex_t> hold(impl_->guard);
        int expected = not_stopped;
        if (!impl_->reason.compare_exchange_strong(expected, why < 0 ? 0 : why, std::memory_order_acq_rel)) return;
        impl_->woken.signal();
    }
    if (impl_->wake_fd != -1) {
        std::uint64_t const one = 1;
        // Only EAGAIN can fail it (the counter full), and then it is set.
        retry_eintr([&] { return ::write(impl_->wake_fd, &one, sizeof one); });
    }
}

// --- the termination waiter ----------------------------------------------------------

namespace {

// The monotonic clock in nanoseconds: a time-out is not stretched or cut by
// a change of the wall clock.
std::int64_t monotonic_ns() noexcept {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void log_debug(char const* fmt, char const* what, unsigned from) {
    if_logger_t* const log = if_logger_t::Log;
    if (log && log->is_logged(if_logger_t::DEBUG)) log->log_DEBUG(fmt, what, from);
}

}  // namespace

struct termination_waiter_t::impl {
    impl(bool reopen, boost::function<void()> const& hup)
        : reopen_logs(reopen),
          on_hup(hup),
          token(boost::shared_ptr<stop_token_t::impl>(new stop_token_t::impl)),
          signal_fd(-1) {}
    ~impl() {
        if (signal_fd != -1) ::close(signal_fd);
    }

    // Takes every pending signal of the set; false once none is left. A
    // termination stops the token; a hang-up runs its actions.
    bool take_signal() {
        struct signalfd_siginfo info;
        ssize_t const n = retry_eintr([&] { return ::read(signal_fd, &info, sizeof info); });
        if (n != static_cast<ssize_t>(sizeof info)) return false;
        int const signo = static_cast<int>(info.ssi_signo);
        log_debug("[UNIX] %s received from pid %u", q_signalname(signo), info.ssi_pid);
        if (signo != SIGHUP) {
            token.request_stop(signo);
            return true;
        }
        hangups.fetch_add(1, std::memory_order_relaxed);
        if (reopen_logs) file_logger_t::request_reopen();
        if (on_hup) on_hup();
        return true;
    }

    bool const reopen_logs;
    boost::function<void()> const on_hup;
    stop_token_t token;
    sigset_t saved_mask;
    int signal_fd;
    std::atomic<unsigned> hangups{0};
};

sigset_t termination_waiter_t::signals() noexcept {
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGTERM, SIGINT, SIGQUIT, SIGHUP}) sigaddset(&set, s);
    return set;
}

termination_waiter_t::termination_waiter_t(bool reopen_logs, boost::function<void()> const& on_hup)
    : impl_(new impl(reopen_logs, on_hup)) {
    int const wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake == -1) {
        QVL_THROW(io_error_exception, "unable to create the stop event because of %s", get_last_error().c_str());
    }
    impl_->token.impl_->wake_fd = wake;
    sigset_t const set = signals();
    int const rc = pthread_sigmask(SIG_BLOCK, &set, &impl_->saved_mask);
    if (rc != 0) {
        set_last_error(rc);
        QVL_THROW(thread_exception, "unable to block the termination signals because of %s", get_last_error().c_str());
    }
    impl_->signal_fd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (impl_->signal_fd == -1) {
        error_saver_t saved;
        pthread_sigmask(SIG_SETMASK, &impl_->saved_mask, nullptr);
        QVL_THROW(io_error_exception, "unable to create the signal descriptor because of %s",
                  get_last_error(saved).c_str());
    }
}

termination_waiter_t::~termination_waiter_t() {
    try {
        while (impl_->take_signal()) continue;
    } catch (...) {
        // The SIGHUP function's failure has nobody to go to now.
    }
    pthread_sigmask(SIG_SETMASK, &impl_->saved_mask, nullptr);
}

stop_token_t termination_waiter_t::token() const { return impl_->token; }

void termination_waiter_t::stop() { impl_->token.request_stop(0); }

unsigned termination_waiter_t::hangups() const noexcept { return impl_->hangups.load(std::memory_order_relaxed); }

int termination_waiter_t::wait(timegap_t timeout) {
    bool const endless = timeout.is_infinite();
    // A negative time-out is over at once; one too long to count waits for ever.
    std::int64_t const ns = timeout.value <= 0 ? 0 : timeout.value > INT64_MAX / 10 ? INT64_MAX : timeout.value * 10;
    std::int64_t deadline = 0;
    if (!endless && __builtin_add_overflow(monotonic_ns(), ns, &deadline)) deadline = INT64_MAX;
    int const wake_fd = impl_->token.impl_->wake_fd;
    for (;;) {
        while (impl_->take_signal()) continue;
        if (impl_->token.stop_requested()) return impl_->token.reason();
        struct timespec left;
        if (!endless) {
            std::int64_t const rest = deadline - monotonic_ns();
            if (rest <= 0) return timed_out;
            left.tv_sec = static_cast<time_t>(rest / 1000000000);
            left.tv_nsec = static_cast<long>(rest % 1000000000);
        }
        struct pollfd fds[2] = {{impl_->signal_fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
        if (::ppoll(fds, 2, endless ? nullptr : &left, nullptr) == -1 && errno != EINTR) {
            QVL_THROW(io_error_exception, "unable to wait for the termination signals because of %s",
                      get_last_error().c_str());
        }
        std::uint64_t count;
        if (fds[1].revents & POLLIN) retry_eintr([&] { return ::read(wake_fd, &count, sizeof count); });
    }
}

// --- the service manager ---------------------------------------------------------------

namespace {

// The manager's socket address from NOTIFY_SOCKET: a path, or an abstract
// name after '@'.
socklen_t notify_address(char const* name, struct sockaddr_un& to) {
    std::memset(&to, 0, sizeof to);
    to.sun_family = AF_UNIX;
    std::size_t const length = std::strlen(name);
    if (length == 0 || (name[0] != '/' && name[0] != '@')) {
        QVL_THROW(api_exception,
                  "NOTIFY_SOCKET \"%s\" is neither an absolute path nor an abstract socket name starting with '@'",
                  name);
    }
    if (length > sizeof to.sun_path) {
        QVL_THROW(api_exception, "NOTIFY_SOCKET \"%s\" is longer than the %u bytes of a socket address", name,
                  static_cast<unsigned>(sizeof to.sun_path));
    }
    std::memcpy(to.sun_path, name, length);
    // An abstract name starts with a zero byte and has no terminator.
    if (name[0] == '@') to.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length);
}

// Decimal digits only, within limit; false for anything else.
bool read_decimal(char const* text, std::uint64_t limit, std::uint64_t& value) {
    value = 0;
    if (!*text) return false;
    for (char const* p = text; *p; ++p) {
        if (*p < '0' || *p > '9') return false;
        if (__builtin_mul_overflow(value, 10, &value) || __builtin_add_overflow(value, *p - '0', &value)) return false;
    }
    return value <= limit;
}

}  // namespace

bool notify(std::string const& state) {
    char const* const name = std::getenv("NOTIFY_SOCKET");
    if (!name) return false;
    struct sockaddr_un to;
    socklen_t const to_length = notify_address(name, to);
    fd_holder_t fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() == -1) {
        QVL_THROW(io_error_exception, "unable to create a socket to notify \"%s\" because of %s", name,
                  get_last_error().c_str());
    }
    ssize_t const sent = retry_eintr([&] {
        return ::sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr const*>(&to),
                        to_length);
    });
    if (sent != static_cast<ssize_t>(state.size())) {
        if (sent >= 0) errno = EMSGSIZE;  // a datagram goes whole or not at all
        QVL_THROW(io_error_exception, "unable to notify \"%s\" of \"%s\" because of %s", name, state.c_str(),
                  get_last_error().c_str());
    }
    return true;
}

bool notify_ready() { return notify("READY=1"); }

bool notify_status(std::string const& text) {
    std::string state = "STATUS=" + text;
    for (char& c : state) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return notify(state);
}

bool notify_stopping() { return notify("STOPPING=1"); }

bool notify_watchdog() { return notify("WATCHDOG=1"); }

timegap_t watchdog_interval() {
    char const* const usec = std::getenv("WATCHDOG_USEC");
    if (!usec) return timegap_t();
    if (char const* const pid = std::getenv("WATCHDOG_PID")) {
        std::uint64_t owner;
        if (!read_decimal(pid, INT32_MAX, owner) || owner == 0) {
            QVL_THROW(api_exception, "WATCHDOG_PID \"%s\" is not a process id", pid);
        }
        if (owner != static_cast<std::uint64_t>(::getpid())) return timegap_t();
    }
    // A tick is 10 ns; the manager's "infinity" (2^64 - 1) is out of range.
    std::uint64_t value;
    if (!read_decimal(usec, INT64_MAX / 100, value) || value == 0) {
        QVL_THROW(api_exception, "WATCHDOG_USEC \"%s\" is not a number of microseconds from 1 to %lld", usec,
                  static_cast<long long>(INT64_MAX / 100));
    }
    return timegap_t(static_cast<q_int64_t>(value) * 100);
}

}  // namespace daemon
}  // namespace kern
