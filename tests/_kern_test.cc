// Library start-up: the banner, the environment helpers, the QVLSRV_*
// settings (each in a child process), the fatal start-up messages, and a
// program that loads and unloads the library itself.
#include "_kern.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dynamic_library.h"
#include "loggers.h"
#include "syncers.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

std::string const plugins = QVLKERN_EXAMPLES_BINARY_DIR "/plugins";

struct child_t {
    int status;        // exit status, or 128 + signal
    std::string out;   // standard output
    std::string err;   // standard error
};

std::string slurp(int fd) {
    std::string s;
    char buf[4096];
    ssize_t n;
    while ((n = pread(fd, buf, sizeof buf, static_cast<off_t>(s.size()))) > 0) s.append(buf, static_cast<size_t>(n));
    close(fd);
    return s;
}

int temp_file() {
    char name[] = "/tmp/kern_test.XXXXXX";
    int const fd = mkostemp(name, O_CLOEXEC);
    unlink(name);
    return fd;
}

// Runs exe with args, the environment of this process without its QVLSRV_*
// variables, plus env.
child_t run(std::string exe, std::vector<std::string> args, std::vector<std::string> env) {
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "QVLSRV_", 7) != 0) env.push_back(*e);
    std::vector<char*> envp, argv{&exe[0]};
    for (auto& e : env) envp.push_back(&e[0]);
    for (auto& a : args) argv.push_back(&a[0]);
    envp.push_back(nullptr);
    argv.push_back(nullptr);
    int const out = temp_file(), err = temp_file();
    pid_t const pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        execve(exe.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return child_t{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(out), slurp(err)};
}

// This program again, running only the settings report.
child_t report(std::vector<std::string> env) {
    env.push_back("QVLKERN_CHILD=1");
    return run("/proc/self/exe", {"--gtest_filter=kern_child.report"}, env);
}

// The report line of a child: "type=.. name=.. wp=.. lr=.. dbg=.. ttl=..".
std::string settings(std::vector<std::string> env) {
    child_t const c = report(env);
    EXPECT_EQ(c.status, 0) << c.out << c.err;
    size_t const at = c.out.find("SETTINGS ");
    if (at == std::string::npos) return "(no report) " + c.out;
    return c.out.substr(at + 9, c.out.find('\n', at) - at - 9);
}

}  // namespace

TEST(kern, banner) {
    char const* const s = kern_signature();
    EXPECT_EQ(s, kern_signature());
    EXPECT_THAT(s, MatchesRegex("Quarvel OS Abstraction Layer Version [0-9]+\\.[0-9]+\\.[0-9]+ \\(, Linux/x64\\)"));
    // Modules and tools find it by its plain name.
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "kern_signature"), reinterpret_cast<void*>(&kern_signature));
}

TEST(kern, env_get_number_reads_counts_with_binary_suffixes) {
    char const* const var = "KERN_TEST_NUMBER";
    unsetenv(var);
    EXPECT_EQ(env_get_number(var, 60), 60u);
    struct {
        char const* text;
        unsigned long value;
    } const cases[] = {
        {"60", 60}, {"007", 7}, {"2k", 2048}, {"2K", 2048}, {"1m", 1048576}, {"1M", 1048576},
        {"3g", 3221225472UL}, {"0k", 0}, {"18446744073709551615", 18446744073709551615UL},
        {"17179869184G", 0},  // 2^34 * 2^30 wraps: no overflow check
        {"2kb", 99}, {"2k5", 99}, {"k", 99}, {"x", 99}, {"", 99}, {" 5", 99}, {"-1", 99}, {"5 ", 99},
        {"18446744073709551616", 99}, {"2t", 99},
    };
    for (auto const& c : cases) {
        ASSERT_EQ(set_envvar(var, c.text), 0);
        EXPECT_EQ(env_get_number(var, 99), c.value) << '"' << c.text << '"';
    }
    EXPECT_EQ(env_get_number(nullptr, 5), 5u);
    // set_envvar always overwrites and answers setenv's result.
    ASSERT_EQ(set_envvar(var, "1"), 0);
    ASSERT_EQ(set_envvar(var, "2"), 0);
    EXPECT_STREQ(getenv(var), "2");
    errno = 0;
    EXPECT_EQ(set_envvar("A=B", "1"), -1);
    EXPECT_EQ(errno, EINVAL);
    unsetenv(var);
}

// Prints what start-up made of the environment; run by the tests below.
TEST(kern_child, report) {
    if (!getenv("QVLKERN_CHILD")) GTEST_SKIP() << "runs in a child process";
    bool relock = false;
    if (mutex_t::type == 1) {  // a recursive mutex must take a second lock
        mutex_t m;
        m.xlock();
        relock = m.try_xlock();
        if (relock) m.unlock();
        m.unlock();
    }
    int slots = 0;
    for (auto const& s : kern::dynalib::s_dso_locks) slots += s ? 1 : 0;
    std::printf("SETTINGS type=%d name=%s wp=%d lr=%d dbg=%d ttl=%lld%s%s\n", mutex_t::type, mutex_t::type_name,
                rwlock_t::write_prefered, fd_logger_t::last_repeated_avail, kern::dynalib::DEBUG,
                static_cast<long long>(kern::dynalib::cache::s_time_to_live.get(0)), relock ? " relock" : "",
                slots || kern::dynalib::cache::s_storage || !kern::dynalib::cache::s_libdir.empty() ? " dirty" : "");
    std::fflush(stdout);
    if (getenv("KERN_TEST_LEAVE_CACHED")) {
        // Leaves a module in the cache for the library's teardown to unload.
        if_logger_t::Log->set_level(if_logger_t::DEBUG_3);
        kern::dynalib::cache::set_enabled();
        dynamic_library_t("qvlplug_nosig", plugins.c_str()).reset();
    }
}

TEST(kern, settings_come_from_the_environment_at_load) {
    std::string const defaults = "type=2 name=default errorcheck wp=0 lr=1 dbg=0 ttl=60";
    EXPECT_EQ(settings({}), defaults);
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE=normal"}), "type=0 name=normal wp=0 lr=1 dbg=0 ttl=60");
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE=Recursive"}), "type=1 name=Recursive wp=0 lr=1 dbg=0 ttl=60 relock");
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE=ERRORcheck"}), "type=2 name=ERRORcheck wp=0 lr=1 dbg=0 ttl=60");
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE=adaptive"}), "type=3 name=adaptive wp=0 lr=1 dbg=0 ttl=60");
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE=fast"}), defaults);
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE="}), defaults);
    EXPECT_EQ(settings({"QVLSRV_MUTEX_TYPE=normalx"}), defaults);
    // Presence is enough, even with an empty value.
    EXPECT_EQ(settings({"QVLSRV_RWLOCK_READPREFERED=", "QVLSRV_NO_LASTREPEAT=", "QVLSRV_DEBUG_DYNALIB="}),
              "type=2 name=default errorcheck wp=1 lr=0 dbg=1 ttl=60");
    EXPECT_EQ(settings({"QVLSRV_DYNALIB_TTL=1m"}), "type=2 name=default errorcheck wp=0 lr=1 dbg=0 ttl=1048576");
    EXPECT_EQ(settings({"QVLSRV_DYNALIB_TTL=2k"}), "type=2 name=default errorcheck wp=0 lr=1 dbg=0 ttl=2048");
    EXPECT_EQ(settings({"QVLSRV_DYNALIB_TTL=0"}), "type=2 name=default errorcheck wp=0 lr=1 dbg=0 ttl=0");
    EXPECT_EQ(settings({"QVLSRV_DYNALIB_TTL=abc"}), defaults);
    EXPECT_EQ(settings({"QVLSRV_DYNALIB_TTL=2kb"}), defaults);
}

// The module cache is torn down before the start-up logger: what its last
// module says on the way out still reaches standard error.
TEST(kern, teardown_unloads_cached_modules_while_the_logger_still_writes) {
    if (access((plugins + "/libqvlplug_nosig.so").c_str(), R_OK) != 0) FAIL() << "test plug-ins missing: the examples build makes them";
    child_t const c = report({"QVLSRV_DEBUG_DYNALIB=1", "KERN_TEST_LEAVE_CACHED=1"});
    EXPECT_EQ(c.status, 0) << c.err;
    size_t const destroying = c.err.find("[DynaLib] Storage destroying @");
    size_t const unloading = c.err.find("Unloading library \"" + plugins + "/libqvlplug_nosig.so\"");
    EXPECT_NE(destroying, std::string::npos) << c.err;
    EXPECT_NE(unloading, std::string::npos) << c.err;
    EXPECT_LT(destroying, unloading);
    EXPECT_THAT(c.err, HasSubstr("[DynaLib] Destroyed impl"));
}

// A failing pthread call at start-up, injected by a preloaded shim that
// writes "<shim-fini>" when exit handlers run.
TEST(kern, fatal_start_up_messages) {
    std::string const shim = plugins + "/libqvlkern_fault_shim.so";
    if (access(shim.c_str(), R_OK) != 0) FAIL() << "fault shim missing: the examples build makes them";
    auto with = [&](char const* fail) {
        // The shim comes before the sanitizer run-time, which must accept it.
        return report({"LD_PRELOAD=" + shim, std::string("QVLSHIM_FAIL=") + fail,
                       "ASAN_OPTIONS=verify_asan_link_order=0"});
    };
    child_t c = with("mutexattr_init");
    EXPECT_EQ(c.status, 1);
    // No line end, and no exit handler ran.
    EXPECT_EQ(c.err, "*ABORT* Unable to initialize mutex attribute because of " + std::string(strerror(ENOMEM)) +
                         " (errno=12)");
    EXPECT_EQ(c.out, "");
    c = with("mutexattr_settype");
    EXPECT_EQ(c.status, 1);
    EXPECT_EQ(c.err, "*ABORT* Unable to set mutex type to #2 (default errorcheck) because of " +
                         std::string(strerror(EINVAL)) + " (errno=22)");
    c = with("exception_key");
    EXPECT_EQ(c.status, 1);
    EXPECT_EQ(c.err, "Unable to initialize exception engine\n<shim-fini>");
    EXPECT_EQ(c.out, "");
    c = with("nothing");  // the shim alone changes nothing
    EXPECT_EQ(c.status, 0) << c.err;
    EXPECT_THAT(c.out, HasSubstr("SETTINGS type=2 "));
    EXPECT_EQ(c.err, "");
}

// A program that is not linked with the library opens it with dlopen, uses
// it and closes it again, twenty times.
TEST(kern, dlopen_and_dlclose_of_the_library_itself) {
    std::string const exe = plugins + "/qvlkern_dlopen_cycle";
    if (access(exe.c_str(), X_OK) != 0) FAIL() << "helper missing: the examples build makes them";
    child_t const c = run(exe, {"20"}, {"QVLSRV_DEBUG_DYNALIB=1", "QVLSRV_DYNALIB_TTL=3k"});
    EXPECT_EQ(c.status, 0) << c.err;
    EXPECT_THAT(c.out, StartsWith(std::string("ok 20 ") + kern_signature()));
    EXPECT_EQ(c.err, "");
}
