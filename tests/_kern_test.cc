// Library start-up: banner, environment helpers, settings and fatal messages, dlopen cycles.
#include "_kern.h"

#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <regex>
#include <thread>

#include <gmock/gmock.h>

#include "dynamic_library.h"
#include "runnable.h"
#include "syncers.h"
#include "test-support.h"
#include "time-objs.h"

static std::string const plugins = QVLKERN_EXAMPLES_BINARY_DIR "/plugins";

using test_support::child_t;

// Runs exe with args, the environment of this process without its QVLSRV_* variables, plus env; by default this
// program again, running only the settings report.
static child_t run(std::vector<std::string> env, std::string exe = "/proc/self/exe",
                   std::vector<std::string> args = {"--gtest_filter=kern_child.report"}) {
    env.push_back("QVLKERN_CHILD=1");
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "QVLSRV_", 7) != 0) env.push_back(*e);
    std::vector<char*> envp, argv{&exe[0]};
    for (auto& e : env) envp.push_back(&e[0]);
    for (auto& a : args) argv.push_back(&a[0]);
    envp.push_back(nullptr), argv.push_back(nullptr);
    return test_support::run_child([&] { return execve(exe.c_str(), argv.data(), envp.data()), 127; });
}

TEST(kern, banner) {
    char const* const s = kern_signature();
    EXPECT_EQ(s, kern_signature());
    EXPECT_THAT(s, testing::MatchesRegex("Quarvel OS Abstraction Layer Version [0-9]+\\.[0-9]+\\.[0-9]+ \\(, Linux/x64\\)"));
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "kern_signature"), reinterpret_cast<void*>(&kern_signature));  // by its plain name
}

TEST(kern, env_get_number_reads_counts_with_binary_suffixes) {
    char const* const var = "KERN_TEST_NUMBER";
    EXPECT_EQ(env_get_number(var, 60), 60u);
    EXPECT_EQ(env_get_number(nullptr, 5), 5u);
    struct { char const* text; unsigned long value; } const cases[] = {
        {"60", 60}, {"007", 7}, {"2k", 2048}, {"2K", 2048}, {"1m", 1048576}, {"1M", 1048576}, {"3g", 3221225472UL},
        {"0k", 0}, {"18446744073709551615", 18446744073709551615UL}, {"17179869184G", 0},  // 2^64: no overflow check
        {"2kb", 99}, {"2k5", 99}, {"k", 99}, {"x", 99}, {"", 99}, {" 5", 99}, {"-1", 99}, {"5 ", 99},
        {"18446744073709551616", 99}, {"2t", 99},
    };
    for (auto const& c : cases) {
        ASSERT_EQ(set_envvar(var, c.text), 0);  // always overwrites
        EXPECT_EQ(env_get_number(var, 99), c.value) << '"' << c.text << '"';
    }
    EXPECT_EQ(set_envvar("A=B", "1"), -1);  // setenv's answer
    unsetenv(var);
}

// Prints what start-up made of the environment; run by the tests below.
TEST(kern_child, report) {
    if (!getenv("QVLKERN_CHILD")) GTEST_SKIP() << "runs in a child process";
    mutex_t m;
    xlocker_t<mutex_t> hold(m);
    bool const relock = m.try_xlock();  // only a recursive mutex takes a second lock
    if (relock) m.unlock();
    int slots = 0;
    for (auto const& s : kern::dynalib::s_dso_locks) slots += s ? 1 : 0;
    std::printf("SETTINGS type=%d name=%s wp=%d lr=%d dbg=%d ttl=%lld%s%s\n", mutex_t::type, mutex_t::type_name,
                rwlock_t::write_prefered, fd_logger_t::last_repeated_avail, kern::dynalib::DEBUG,
                static_cast<long long>(kern::dynalib::cache::s_time_to_live.get(0)), relock ? " relock" : "",
                slots || kern::dynalib::cache::s_storage || !kern::dynalib::cache::s_libdir.empty() ? " dirty" : "");
    if (getenv("KERN_TEST_LEAVE_CACHED")) {  // a module in the cache for the library's teardown to unload
        if_logger_t::Log->set_level(if_logger_t::DEBUG_3);
        kern::dynalib::cache::set_enabled();
        dynamic_library_t("qvlplug_nosig", plugins.c_str()).reset();
    }
}

// The C library's generator was seeded at load from the process, the thread and the clock's 100-nanosecond count
// within its tenth of a second: the count is searched back from now until the first two draws match.
TEST(kern_child, crand_seed) {
    if (!getenv("QVLKERN_CHILD")) GTEST_SKIP() << "runs in a child process";
    auto mix = [](unsigned long long x) { return (x << 27) ^ (x << 21) ^ x ^ (x << 17) ^ (x << 7); };
    unsigned long long const ids = mix(getpid()) ^ (mix(getpid()) << 16);  // the main thread's id is the pid's
    int const first = rand(), second = rand();
    long const now = (kern::time::now().ticks() / 10) % 1000000;
    for (long back = 0; back < 1000000; ++back) {
        srand(static_cast<unsigned>(ids ^ static_cast<unsigned long long>((now - back + 1000000) % 1000000)));
        if (rand() == first && rand() == second) return (void)std::printf("SEEDED\n");
    }
}

// Detached threads log (through the logger they took at their start, or the current one), list themselves, take a
// module name lock and sleep, while the program returns from main or calls exit; run by the test below.
TEST(kern_child, threads_outlive_main) {
    char const* const how = getenv("KERN_TEST_END");
    if (!how) GTEST_SKIP() << "runs in a child process";
    init_logger("INFO", "/dev/null", "", nullptr);
    static std::atomic<int> running{0};
    struct entry_t : kern_n::runnable_t {
        char const* type() const override { return "test"; }
    };
    // Replacing the process logger at exit takes no lock, and ThreadSanitizer reports every thread that reads it
    // meanwhile.
#ifdef __SANITIZE_THREAD__
    bool const current = false;
#else
    bool const current = true;
#endif
    for (bool held : {true, true, !current, !current})
        std::thread([held, l = if_logger_t::Log] {
            for (unsigned n = 0;; ++n) {
                (held ? l : if_logger_t::Log)->log_INFO("line %u", n);
                entry_t e;
                e.register_in_list();
                e.deregister_from_list();
                late_locker_t<mutex_t> name_lock;
                kern::dynalib::dso_lock("qvlplug_nosig", name_lock);
                if (n == 0) ++running;
            }
        }).detach();
    std::thread([] { ++running, kern_n::runnable_t::sleep(timegap_t::infinite()); }).detach();
    while (running < 5) std::this_thread::yield();
    if (std::strcmp(how, "exit") == 0) std::exit(0);
}

// What start-up makes of the environment, and its fatal messages when a pthread call fails, injected by a preloaded
// shim that writes "<shim-fini>" when exit handlers run.
TEST(kern, settings_and_fatal_messages_at_load) {
    std::string const shim = plugins + "/libqvlkern_fault_shim.so";
    if (access(shim.c_str(), R_OK) != 0) FAIL() << "fault shim missing: the examples build makes them";
    auto failing = [&](char const* call) {  // the shim comes before the sanitizer run-time, which accepts it
        return std::vector<std::string>{"LD_PRELOAD=" + shim, std::string("QVLSHIM_FAIL=") + call,
                                        "ASAN_OPTIONS=verify_asan_link_order=0"};
    };
    std::string const defaults = "type=2 name=default errorcheck wp=0 lr=1 dbg=0 ttl=60", m = "QVLSRV_MUTEX_TYPE=";
    // Mutex kinds compare without case, the text kept as written; presence sets a flag, even empty. A failed start-up
    // (status 1) leaves only its error text, "*ABORT*" ones without a line end.
    struct { std::vector<std::string> env; int status; std::string text; } const cases[] = {
        {{}, 0, defaults}, {failing("nothing"), 0, defaults},  // the shim alone changes nothing
        {{m + "normal", "QVLSRV_DYNALIB_TTL=1m"}, 0, "type=0 name=normal wp=0 lr=1 dbg=0 ttl=1048576"},
        {{m + "Recursive", "QVLSRV_DYNALIB_TTL=2k"}, 0, "type=1 name=Recursive wp=0 lr=1 dbg=0 ttl=2048 relock"},
        {{m + "ERRORcheck", "QVLSRV_DYNALIB_TTL=0"}, 0, "type=2 name=ERRORcheck wp=0 lr=1 dbg=0 ttl=0"},
        {{m + "adaptive", "QVLSRV_DYNALIB_TTL=abc"}, 0, "type=3 name=adaptive wp=0 lr=1 dbg=0 ttl=60"},
        {{m + "fast", "QVLSRV_DYNALIB_TTL=2kb"}, 0, defaults}, {{m + "normalx"}, 0, defaults},
        {{m, "QVLSRV_RWLOCK_READPREFERED=", "QVLSRV_NO_LASTREPEAT=", "QVLSRV_DEBUG_DYNALIB="}, 0,
         "type=2 name=default errorcheck wp=1 lr=0 dbg=1 ttl=60"},
        {failing("mutexattr_init"), 1,
         "*ABORT* Unable to initialize mutex attribute because of " + std::string(strerror(ENOMEM)) + " (errno=12)"},
        {failing("mutexattr_settype"), 1, "*ABORT* Unable to set mutex type to #2 (default errorcheck) because of " +
                                              std::string(strerror(EINVAL)) + " (errno=22)"},
        {failing("exception_key"), 1, "Unable to initialize exception engine\n<shim-fini>"},  // exit handlers ran
    };
    for (auto const& c : cases) {
        child_t const r = run(c.env);
        EXPECT_EQ(r.status, c.status) << c.text;
        EXPECT_EQ(r.err, c.status ? c.text : "");
        EXPECT_TRUE(c.status ? r.out.empty() : r.out.find("SETTINGS " + c.text + "\n") != std::string::npos) << r.out;
    }
}

TEST(kern, c_library_generator_seeded_at_load) {
    EXPECT_THAT(run({}, "/proc/self/exe", {"--gtest_filter=kern_child.crand_seed"}).out,
                testing::HasSubstr("SEEDED\n"));
}

// The module cache is torn down before the start-up logger: what its last module says on the way out still reaches
// standard error.
TEST(kern, teardown_unloads_cached_modules_while_the_logger_still_writes) {
    child_t const c = run({"QVLSRV_DEBUG_DYNALIB=1", "KERN_TEST_LEAVE_CACHED=1"});
    EXPECT_EQ(c.status, 0) << c.err;
    size_t const destroying = c.err.find("[DynaLib] Storage destroying @");
    size_t const unloading = c.err.find("Unloading library \"" + plugins + "/libqvlplug_nosig.so\"");
    EXPECT_TRUE(destroying < unloading && unloading != std::string::npos) << c.err;
    EXPECT_THAT(c.err, testing::HasSubstr("[DynaLib] Destroyed impl"));
}

// What threads still use while the program ends stays alive (the process logger, the thread registry's guard, the
// name locks, the sleep event), and the end waits for none of them.
TEST(kern, threads_running_through_the_end) {
    for (int i = 0; i < 20; ++i) {
        child_t const c = run({i % 2 ? "KERN_TEST_END=exit" : "KERN_TEST_END=return"}, "/proc/self/exe",
                              {"--gtest_filter=kern_child.threads_outlive_main"});
        size_t const report = std::min(c.err.find("Sanitizer"), c.err.find("runtime error"));
        ASSERT_TRUE(c.status == 0 && report == std::string::npos)
            << "run " << i << ", status " << c.status << ": " << c.err.substr(std::min(report, c.err.size()), 3000);
    }
}

// A program that is not linked with the library opens it with dlopen, uses it (and logs from a thread) and closes it
// again, twenty times; each dlclose unmaps it.
TEST(kern, dlopen_and_dlclose_of_the_library_itself) {
    std::string const exe = plugins + "/qvlkern_dlopen_cycle";
    child_t const c = run({"QVLSRV_DEBUG_DYNALIB=1", "QVLSRV_DYNALIB_TTL=3k"}, exe, {"20"});
    EXPECT_EQ(c.status, 0) << exe << ": " << c.err;  // 127: not built (the examples build makes it)
    EXPECT_THAT(c.out, testing::StartsWith(std::string("ok 20 ") + kern_signature()));
    std::regex const logged("(.* inf .* \\[Linux\\] Allocation mapping is left unchanged\n){20}");
    EXPECT_TRUE(std::regex_match(c.err, logged)) << c.err;
}
