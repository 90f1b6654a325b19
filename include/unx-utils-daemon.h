// unx-utils-daemon.h: what a daemon needs around its work: waiting for the
// signals that end or reload it, a stop token its workers wait on, and the
// service manager's readiness, status, stopping and watchdog notifications.
//
// A daemon names its main thread, builds the waiter before it starts any
// worker (the workers inherit the blocked signals), says it is ready, and
// waits; the workers wait on the token between pieces of work:
//
//   int main() {
//       kern_n::runnable_t::set_self_name("main");
//       init_logger("INFO", "/var/log/agent.log", "10z,10m", nullptr);
//       kern::daemon::termination_waiter_t waiter;       // SIGHUP re-opens the logs
//       kern::daemon::stop_token_t const stop = waiter.token();
//       lwp_t::shared w = lwp_t::start("worker", [stop] {
//           while (!stop.wait(timegap_t(1, 0))) do_some_work();
//       }, false);
//       kern::daemon::notify_ready();                   // nothing outside systemd
//       timegap_t const dog = kern::daemon::watchdog_interval();
//       int sig;
//       while ((sig = waiter.wait(dog.ticks() ? timegap_t(dog.ticks() / 2) : timegap_t::infinite())) ==
//              kern::daemon::termination_waiter_t::timed_out)
//           kern::daemon::notify_watchdog();
//       kern::daemon::notify_stopping();
//       w->join(timegap_t::infinite());
//   }
//
// The waiter takes the signals through a signalfd, never through a handler,
// so what it runs on SIGHUP (the file loggers' re-open request, a caller's
// function) runs on the waiting thread like any other code. A programmatic
// stop (stop_token_t::request_stop, termination_waiter_t::stop) from any
// thread wakes the waiter through an eventfd: nothing is ever sent to the
// process, so no signal is left pending once the waiter is gone.
//
// The notifications follow the service manager's datagram protocol: one
// datagram of "NAME=value" lines to the AF_UNIX socket that NOTIFY_SOCKET
// names (a path, or an abstract name written with a leading '@'). Without
// NOTIFY_SOCKET they do nothing and answer false, so a daemon calls them
// unconditionally, in or out of systemd. A unit for such a daemon:
//
//   [Service]
//   Type=notify
//   ExecStart=/usr/sbin/agent
//   WatchdogSec=30
//
// Thread safety: a stop token may be copied, waited on and stopped from any
// thread at once. One termination waiter per process (two would take each
// other's signals); it is built, waited on and destroyed by one thread. The
// notifications may be sent from any thread; they read the environment on
// every call, so nothing may change it meanwhile.
//
// Choices:
//  - The termination signals are SIGTERM (service managers, kill), SIGINT
//    (Ctrl-C) and SIGQUIT (Ctrl-\): each asks for the same orderly stop,
//    which flushes the logs that a core-dumping SIGQUIT would lose. SIGHUP
//    is the reload signal: it never stops the waiter.
//  - The waiter blocks the four signals in the calling thread's mask, and
//    the threads started afterwards inherit it; a thread started before
//    keeps its own mask, and a termination signal the kernel hands to it
//    takes its default action. runnable_t::blocked_signals is the wider set
//    a daemon may keep off its workers besides.
//  - The destructor reads what is still pending of the four signals before
//    it gives the thread its former mask back: a termination signal that
//    came while the program was stopping is not acted on again (it stops
//    the token if nothing had), and a SIGHUP is run as usual. A daemon that
//    wants a second Ctrl-C to end it at once unblocks SIGINT itself.
//  - The first stop wins: the token keeps the reason it was stopped for
//    (the signal's number, 0 for a request) and later requests change
//    nothing.
//  - An exception from the SIGHUP function passes out of wait(); the
//    hang-up is counted and the waiter stays usable.
//  - A STATUS text has its line ends replaced by blanks, so that it cannot
//    add assignments of its own to the datagram.
//  - A bad NOTIFY_SOCKET (empty, relative, too long for a socket address,
//    another address family) and a datagram the manager does not take
//    throw: a daemon started by systemd that cannot reach it would
//    otherwise be killed for not being ready, with nothing in its log.
//  - watchdog_interval() reads WATCHDOG_USEC as systemd writes it: decimal
//    digits only, from 1 microsecond up to what a timegap_t holds (about
//    2,900 years; the manager's "infinity", 2^64 - 1, is beyond); anything
//    else throws. When WATCHDOG_PID is set and names another process, the
//    watchdog is not ours: 0.
#ifndef QVLKERN_UNX_UTILS_DAEMON_H
#define QVLKERN_UNX_UTILS_DAEMON_H

#include <signal.h>

#include <memory>
#include <string>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include "amtypes.h"
#include "kern-config.h"
#include "time-objs.h"

namespace kern {
namespace daemon {

// A stop request shared by the threads that copy it. Copies are cheap and
// refer to the same request.
class QVL_API stop_token_t {
public:
    // Not stopped yet.
    static constexpr int not_stopped = -1;

    // A new token of its own, not stopped.
    stop_token_t();

    // True once a stop was requested; never false again.
    bool stop_requested() const noexcept;
    // Waits until a stop is requested or timeout has passed
    // (timegap_t::infinite(): for ever); true when stopped.
    bool wait(timegap_t timeout) const;
    // Stops: wakes every thread waiting on the token and the termination
    // waiter that made it. reason is a signal's number, or 0 for a stop
    // asked for by the program. The first stop wins. Not for signal
    // handlers (it locks).
    void request_stop(int reason = 0) const;
    // The first stop's reason, or not_stopped.
    int reason() const noexcept;

    struct impl;

private:
    friend class termination_waiter_t;
    explicit stop_token_t(boost::shared_ptr<impl> const& i) : impl_(i) {}

    boost::shared_ptr<impl> impl_;
};

// Blocks the termination and reload signals in the calling thread and waits
// for them.
class QVL_API termination_waiter_t : private noncopyable_t {
public:
    // What wait() answers when its time-out ran out first.
    static constexpr int timed_out = -1;

    // Blocks SIGTERM, SIGINT, SIGQUIT and SIGHUP in the calling thread (build
    // it before the workers). On SIGHUP the waiter asks every file logger to
    // re-open its file when reopen_logs is true, then calls on_hup when one
    // is given, and waits on. Throws thread_exception when the mask cannot be
    // set, io_error_exception when the descriptors cannot be made.
    explicit termination_waiter_t(bool reopen_logs = true, boost::function<void()> const& on_hup = {});
    // Reads what is still pending of the four signals, then restores the
    // mask that the constructor found.
    ~termination_waiter_t();

    // The token that a termination signal or stop() stops.
    stop_token_t token() const;
    // Waits for a termination signal or a stop, at most timeout; answers the
    // signal's number, 0 for a stop the program asked for, or timed_out.
    // Once stopped, answers the reason at once. SIGHUP is handled meanwhile.
    int wait(timegap_t timeout = timegap_t::infinite());
    // Stops the token, which wakes the waiter; from any thread.
    void stop();
    // The SIGHUPs handled so far.
    unsigned hangups() const noexcept;
    // SIGTERM, SIGINT, SIGQUIT and SIGHUP.
    static sigset_t signals() noexcept;

    struct impl;

private:
    std::unique_ptr<impl> impl_;
};

// --- the service manager ------------------------------------------------------

// Sends state (one or more "NAME=value" lines) to the service manager as one
// datagram. False, and nothing sent, when NOTIFY_SOCKET is not set. Throws
// api_exception for a bad NOTIFY_SOCKET, io_error_exception when the datagram
// cannot be sent.
QVL_API bool notify(std::string const& state);
// "READY=1": start-up is complete.
QVL_API bool notify_ready();
// "STATUS=<text>": a one-line status the manager shows.
QVL_API bool notify_status(std::string const& text);
// "STOPPING=1": the daemon has begun to stop.
QVL_API bool notify_stopping();
// "WATCHDOG=1": the daemon is alive; send it at least every
// watchdog_interval() (half of it is the usual pace).
QVL_API bool notify_watchdog();
// The watchdog interval the manager set (WATCHDOG_USEC) for this process,
// or 0 when there is none. Throws api_exception for a bad WATCHDOG_USEC or
// WATCHDOG_PID.
QVL_API timegap_t watchdog_interval();

}  // namespace daemon
}  // namespace kern

#endif  // QVLKERN_UNX_UTILS_DAEMON_H
