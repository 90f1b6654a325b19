// Helpers the test programs share: a temporary directory, a test run again in a child process, a private
// mount namespace, the count of open descriptors and a logger that keeps what it is given.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <new>
#include <string>
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

// Forks, runs body in the child and exits with its answer; the parent expects 0.
inline void expect_child_ok(std::function<int()> const& body) {
    pid_t const pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
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

// Runs fn(thread index) on n threads that all start together.
inline void on_threads(int n, std::function<void(int)> const& fn) {
    std::atomic<int> arrived(0);
    std::vector<std::thread> pool;
    for (int t = 0; t < n; ++t)
        pool.emplace_back([&, t] { for (++arrived; arrived.load() < n;) std::this_thread::yield(); fn(t); });
    for (auto& th : pool) th.join();
}

}  // namespace test_support
