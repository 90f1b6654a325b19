// Helpers the test programs share: a temporary directory, a function or a test run in a child process, a private
// mount namespace, the count of open descriptors and a logger that keeps what it is given.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "loggers.h"
#include "utilities.h"

namespace test_support {

// A fresh directory under base, removed with what it holds.
struct temp_dir_t {
    explicit temp_dir_t(std::string const& base = "/tmp") {
        std::string name = base + "/qvlkern_test.XXXXXX";
        path = mkdtemp(&name[0]);
    }
    ~temp_dir_t() { (void)!std::system(("rm -rf '" + path + "'").c_str()); }
    std::string operator/(std::string const& name) const { return path + "/" + name; }
    std::string file(std::string const& name, std::string const& text, mode_t mode = 0644) const {
        std::ofstream(*this / name, std::ios::binary) << text;
        chmod((*this / name).c_str(), mode);
        return *this / name;
    }
    std::string read(std::string const& name) const {
        std::string text;
        std::getline(std::ifstream(*this / name), text, '\0');
        return text;
    }
    std::string path;
};

inline int open_fds() {
    int n = 0;
    for (int fd = 0; fd < 1024; ++fd) n += fcntl(fd, F_GETFD) != -1;
    return n;
}

// What a child process left: its exit status (128 + the signal that ended it, -1 when killed at the time limit) and
// what it wrote to standard output and error.
struct child_t {
    int status = -1;
    std::string out, err;
};

// Forks and runs body in the child, its standard output and error each into a pipe and no core file; the child ends
// through _exit with body's answer (0 for a void body) unless body ends it. ready(pid) runs in the parent at the
// child's first byte of standard output. A child not ended, its pipes closed, within limit_s seconds is killed and
// answers -1: a net against hangs, far beyond any child's time, never a measure.
template <class F>
child_t run_child(F const& body, std::function<void(pid_t)> const& ready = {}, int limit_s = 60) {
    child_t c;
    int out[2], err[2];
    pid_t pid = -1;
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 || (pid = fork()) < 0) {
        ADD_FAILURE() << "no child process because of " << std::strerror(errno);
        return c;
    }
    if (pid == 0) {
        rlimit const no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        dup2(out[1], 1), dup2(err[1], 2);
        int code = 0;
        if constexpr (std::is_void_v<decltype(body())>) body(); else code = body();
        std::fflush(nullptr);
        _exit(code);
    }
    close(out[1]), close(err[1]);
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    auto left_ms = [&] {
        auto const left = deadline - std::chrono::steady_clock::now();
        return int(std::max<long long>(0, std::chrono::duration_cast<std::chrono::milliseconds>(left).count()));
    };
    // Each entry drops out at its end: the pipes' end of file, the child's end as its pidfd tells (without one,
    // waitpid waits).
    pollfd p[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {int(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0}};
    int const pidfd = p[2].fd;
    bool hung = false;
    while (!hung && (p[0].fd >= 0 || p[1].fd >= 0 || p[2].fd >= 0)) {
        int const n = poll(p, 3, left_ms());
        hung = n == 0;
        for (int i = 0; i < 3 && n > 0; ++i) {
            char buf[4096];
            ssize_t const k = !p[i].revents ? -1 : i == 2 ? 0 : read(p[i].fd, buf, sizeof buf);
            if (k > 0 && i == 0 && c.out.empty() && ready) ready(pid);
            if (k > 0) (i ? c.err : c.out).append(buf, size_t(k));
            if (p[i].revents && k <= 0 && (k == 0 || errno != EINTR)) p[i].fd = -1;
        }
    }
    close(out[0]), close(err[0]);
    if (pidfd >= 0) close(pidfd);
    if (hung) kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    c.status = hung ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return c;
}

// Runs body in a child (see run_child) and expects it to answer 0; what the child wrote comes with a failure.
inline void expect_child_ok(std::function<int()> const& body) {
    child_t const c = run_child(body);
    EXPECT_EQ(c.status, 0) << c.out << c.err;
}

// Runs the current test again in a child of this program with the variables set; true in that child,
// which runs the body. Process-wide settings read at load see the variables there.
inline bool in_child(std::vector<char const*> env = {}) {
    if (std::getenv("QVLKERN_TEST_CHILD")) return true;
    auto const* const info = testing::UnitTest::GetInstance()->current_test_info();
    std::string const filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    expect_child_ok([&] {
        setenv("QVLKERN_TEST_CHILD", "1", 1);
        for (char const* e : env) putenv(const_cast<char*>(e));
        execl("/proc/self/exe", "test", filter.c_str(), static_cast<char*>(nullptr));
        return 127;
    });
    return false;
}

// A mount namespace of its own, then a tmpfs over `over` when given; for a child process only.
inline bool private_mounts(char const* over = nullptr, char const* options = "size=64k") {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           (!over || mount("tmpfs", over, "tmpfs", 0, options) == 0);
}

// Takes over the process logger for its life and keeps each message as "<class> <text>"; throws
// std::bad_alloc from every call while broke.
struct record_logger_t : if_logger_t {
    explicit record_logger_t(msgclass_t level) : if_logger_t(level), saved(Log) { Log = this; }
    ~record_logger_t() override { Log = saved; }
    bool is_stderr() const override { return false; }
    size_t write(char const*) override { return 0; }
    void log_va(msgclass_t c, char const* fmt, va_list ap) override {
        if (broke) throw std::bad_alloc();
        if (is_logged(c)) lines.push_back(std::to_string(c) + " " + q_format_va(fmt, ap));
    }
    std::vector<std::string> take() { return std::exchange(lines, {}); }
    if_logger_t* saved;
    std::vector<std::string> lines;
    bool broke = false;
};

}  // namespace test_support

#include <atomic>
#include <thread>

namespace test_support {

// The text of the E that call throws, or "(nothing thrown)".
template <class E>
std::string thrown(std::function<void()> const& call) {
    try {
        call();
    } catch (E const& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

// Runs fn(thread index) on n threads that all start together.
inline void on_threads(int n, std::function<void(int)> const& fn) {
    std::atomic<int> arrived(0);
    std::vector<std::thread> pool;
    for (int t = 0; t < n; ++t)
        pool.emplace_back([&, t] { for (++arrived; arrived.load() < n;) std::this_thread::yield(); fn(t); });
    for (auto& th : pool) th.join();
}

}  // namespace test_support
