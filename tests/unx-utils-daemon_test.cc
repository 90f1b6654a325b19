#include "unx-utils-daemon.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "exceptions.h"
#include "syncers.h"
#include "test-support.h"

using kern::daemon::stop_token_t;
using kern::daemon::termination_waiter_t;
using namespace ::testing;

namespace {

// Whether the calling thread's mask holds every one of the signals.
bool blocked(std::initializer_list<int> signals) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (int s : signals)
        if (sigismember(&mask, s) != 1) return false;
    return true;
}

// The child's side: a waiter, three workers on its token and, for a stop by the program, a fourth thread that asks for
// it once the SIGHUPs are handled. Tells the parent "r" once it waits and "h" for each SIGHUP handled. Answers a bit
// per failed check.
int waiting_child(int to_parent, int expected, unsigned hups, bool by_request) {
    int failed = 0;
    unsigned const reopens = file_logger_t::reopen_requests();
    {
        semaphore_t hupped(0);
        termination_waiter_t waiter(true, [&] { (void)!write(to_parent, "h", 1), hupped.post(); });
        stop_token_t const token = waiter.token();
        failed |= (waiter.wait(timegap_t(1, -3)) != termination_waiter_t::timed_out) << 0;
        std::atomic<int> observed{0}, inheriting{0};
        std::vector<std::thread> workers;
        for (int i = 0; i < 3; ++i) {
            workers.emplace_back([&] {
                inheriting += blocked({SIGTERM, SIGINT, SIGQUIT, SIGHUP});
                while (!token.wait(timegap_t(5, -3))) continue;
                observed += token.reason() == expected;
            });
        }
        if (by_request) {
            workers.emplace_back([&] {
                for (unsigned i = 0; i < hups; ++i) hupped.wait(timegap_t::infinite());
                waiter.stop();
            });
        }
        (void)!write(to_parent, "r", 1);
        int const got = waiter.wait();
        for (std::thread& t : workers) t.join();
        failed |= (got != expected) << 1;
        failed |= (observed != 3 || inheriting != 3) << 2;
        failed |= (waiter.hangups() != hups || file_logger_t::reopen_requests() - reopens != hups) << 3;
        failed |= (waiter.wait(timegap_t::infinite()) != expected) << 4;  // stopped: the reason at once
        kill(getpid(), SIGINT);  // comes while stopping: taken by the destructor, not acted on
    }
    failed |= blocked({SIGTERM}) << 5;  // the former mask is back
    return failed;
}

}  // namespace

// Signals are process-wide: each case runs in a child, to which the parent sends them.
TEST(Daemon, WaiterStopsWorkersOnTerminationAndKeepsWaitingOnHangUp) {
    struct {
        std::vector<int> sent;
        int expected;
        unsigned hups;
    } const cases[] = {
        {{SIGHUP, SIGHUP, SIGTERM}, SIGTERM, 2},
        {{SIGINT}, SIGINT, 0},
        {{SIGQUIT}, SIGQUIT, 0},
        {{SIGHUP}, 0, 1},  // then the program stops itself
    };
    for (auto const& c : cases) {
        int pipe_fds[2];
        ASSERT_EQ(0, pipe2(pipe_fds, O_CLOEXEC));
        bool const by_request = c.expected == 0;
        pid_t const pid = fork();
        if (pid == 0) {
            close(pipe_fds[0]);
            _exit(waiting_child(pipe_fds[1], c.expected, c.hups, by_request));
        }
        close(pipe_fds[1]);
        char said = 0;
        EXPECT_EQ(1, read(pipe_fds[0], &said, 1));
        for (int s : c.sent) {
            kill(pid, s);
            if (s == SIGHUP) {
                EXPECT_TRUE(read(pipe_fds[0], &said, 1) == 1 && said == 'h');
            }
        }
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c.expected << " status " << status;
        close(pipe_fds[0]);
    }
}

TEST(Daemon, StopTokenWakesEveryWaiterAndKeepsTheFirstReason) {
    stop_token_t const token;
    EXPECT_FALSE(token.wait(timegap_t(1, -3)));
    EXPECT_EQ(stop_token_t::not_stopped, token.reason());
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) waiters.emplace_back([&, copy = token] { woken += copy.wait(timegap_t::infinite()); });
    token.request_stop(7);
    token.request_stop(9);
    for (std::thread& t : waiters) t.join();
    EXPECT_TRUE(woken == 4 && token.stop_requested() && token.reason() == 7) << woken << " " << token.reason();
}

namespace {

// A datagram socket bound at address (a path, or an abstract name after '@') for the notifications to reach.
struct manager_t {
    explicit manager_t(std::string const& address) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un at{};
        at.sun_family = AF_UNIX;
        address.copy(at.sun_path, address.size());
        if (address[0] == '@') at.sun_path[0] = '\0';
        bound = bind(fd, reinterpret_cast<sockaddr*>(&at), socklen_t(offsetof(sockaddr_un, sun_path) + address.size()));
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
    }
    ~manager_t() {
        unsetenv("NOTIFY_SOCKET");
        close(fd);
    }
    // The next datagram, or "" when none waits.
    std::string take() {
        char buf[512];
        ssize_t const n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        return n < 0 ? "" : std::string(buf, size_t(n));
    }
    int fd;
    int bound;
};


}  // namespace

TEST(Daemon, NotificationsReachPathAndAbstractSocketsByteForByte) {
    test_support::temp_dir_t dir;
    int const fds = test_support::open_fds();
    struct {
        std::function<bool()> send;
        std::string datagram;
    } const cases[] = {
        {kern::daemon::notify_ready, "READY=1"},
        {[] { return kern::daemon::notify_status("syncing 3/7\nREADY=1\r"); }, "STATUS=syncing 3/7 READY=1 "},
        {kern::daemon::notify_stopping, "STOPPING=1"},
        {kern::daemon::notify_watchdog, "WATCHDOG=1"},
        {[] { return kern::daemon::notify("MAINPID=42\nERRNO=5"); }, "MAINPID=42\nERRNO=5"},
    };
    for (std::string const& address : {dir / "notify", "@qvlkern-test-notify-" + std::to_string(getpid())}) {
        manager_t manager(address);
        ASSERT_EQ(0, manager.bound) << address;
        for (auto const& c : cases) {
            EXPECT_TRUE(c.send());
            EXPECT_EQ(c.datagram, manager.take()) << address;
        }
    }

    // Without the variable: nothing sent, no error.
    manager_t manager(dir / "quiet");
    unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(kern::daemon::notify_ready());
    EXPECT_EQ("", manager.take());

    std::string const neither = "\" is neither an absolute path nor an abstract socket name starting with '@'",
                      too_long = "\" is longer than the 108 bytes of a socket address";
    for (std::string const& bad : {std::string(), std::string("run/notify"), std::string("vsock:2:99"),
                                   "/" + std::string(108, 'x')}) {
        setenv("NOTIFY_SOCKET", bad.c_str(), 1);
        EXPECT_EQ("NOTIFY_SOCKET \"" + bad + (bad.size() > 108 ? too_long : neither),
                  test_support::thrown<api_exception_shell_t>([] { kern::daemon::notify_stopping(); }));
    }
    setenv("NOTIFY_SOCKET", (dir / "gone").c_str(), 1);
    EXPECT_THAT(test_support::thrown<io_error_exception_shell_t>([] { kern::daemon::notify_ready(); }),
                MatchesRegex("unable to notify \".*/gone\" of \"READY=1\" because of No such file or directory .*"));
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(fds + 1, test_support::open_fds());  // the quiet manager's socket alone
}

TEST(Daemon, WatchdogIntervalFromTheEnvironment) {
    std::string const self = std::to_string(getpid());
    q_int64_t const fails = -1;
    struct {
        char const* usec;
        char const* pid;
        q_int64_t ticks;
    } const cases[] = {
        {nullptr, nullptr, 0},
        {"30000000", nullptr, 3000000000},
        {"1", nullptr, 100},
        {"92233720368547758", nullptr, 9223372036854775800},  // the most a timegap_t holds
        {"30000000", self.c_str(), 3000000000},
        {"30000000", "1", 0},  // another process's watchdog
        {"92233720368547759", nullptr, fails},
        {"18446744073709551615", nullptr, fails},  // the manager's infinity
        {"99999999999999999999", nullptr, fails},
        {"0", nullptr, fails},
        {"", nullptr, fails},
        {"+5", nullptr, fails},
        {" 5", nullptr, fails},
        {"5s", nullptr, fails},
        {"1e6", nullptr, fails},
        {"30000000", "x", fails},
        {"30000000", "0", fails},
        {"30000000", "", fails},
    };
    for (auto const& c : cases) {
        c.usec ? setenv("WATCHDOG_USEC", c.usec, 1) : unsetenv("WATCHDOG_USEC");
        c.pid ? setenv("WATCHDOG_PID", c.pid, 1) : unsetenv("WATCHDOG_PID");
        std::string const why = test_support::thrown<api_exception_shell_t>([&] {
            EXPECT_EQ(c.ticks, kern::daemon::watchdog_interval().ticks()) << c.usec << " " << (c.pid ? c.pid : "-");
        });
        if (c.ticks != fails) continue;
        std::string const usec = c.usec, pid = c.pid ? c.pid : "";
        std::string const range = "\" is not a number of microseconds from 1 to 92233720368547758";
        EXPECT_THAT(why, AnyOf("WATCHDOG_USEC \"" + usec + range, "WATCHDOG_PID \"" + pid + "\" is not a process id"));
    }
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}
