#include "runnable.h"

#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "code-exec-time.h"
#include "loggers.h"

namespace {

using kern_n::runnable_t;

#if defined(__SANITIZE_THREAD__)
bool const tsan = true;  // reports the guard's deliberate relock itself
#else
bool const tsan = false;
#endif

struct entry_t : runnable_t {
    explicit entry_t(std::string const& n = std::string()) {
        if (!n.empty()) set_name(n);
    }
    char const* type() const override { return "test"; }
};

std::vector<runnable_t const*> listed() {
    std::vector<runnable_t const*> out;
    runnable_t::enum_all([&](runnable_t const& e) { out.push_back(&e); });
    return out;
}

// Keeps the message part of every line written.
struct record_logger_t : if_logger_t {
    explicit record_logger_t(msgclass_t level) : if_logger_t(level), saved(if_logger_t::Log) { if_logger_t::Log = this; }
    ~record_logger_t() override { if_logger_t::Log = saved; }
    bool is_stderr() const override { return false; }
    size_t write(char const* t) override {
        char const* m = std::strchr(t, '[');  // the ids
        m = m ? std::strchr(m + 1, '[') : nullptr;  // the message's own tag
        lines.push_back(m ? m : t);
        return std::strlen(t);
    }
    if_logger_t* saved;
    std::vector<std::string> lines;
};

// Records its destruction in a shared journal.
struct journaled_t : if_root_t {
    journaled_t(std::vector<std::string>& j, std::string n) : journal(j), name(std::move(n)) {}
    ~journaled_t() override { journal.push_back(name); }
    std::vector<std::string>& journal;
    std::string name;
};

TEST(Runnable, StartUpState) {
    EXPECT_EQ("noname", runnable_t::unknown_name);
    EXPECT_FALSE(runnable_t::extra_thread_cleanup);
    int const expected[] = {SIGURG, SIGIO, SIGWINCH, SIGUSR1, SIGUSR2, SIGHUP, SIGTERM, SIGQUIT, SIGINT, SIGPIPE, SIGCHLD};
    int members = 0;
    for (int s = 1; s < NSIG; ++s) members += sigismember(&runnable_t::blocked_signals, s) == 1;
    EXPECT_EQ(11, members);
    for (int s : expected) EXPECT_EQ(1, sigismember(&runnable_t::blocked_signals, s)) << s;
    EXPECT_NE(runnable_t::self_key, runnable_t::tls_key);
    EXPECT_EQ(nullptr, runnable_t::self());
    EXPECT_EQ("noname", runnable_t::self_name().to_string());
}

TEST(Runnable, RegistrationOrderAndSingleMembership) {
    size_t const before = runnable_t::runnables.size();
    q_uint32_t const first = runnable_t::SeqIdCnt + 1;
    {
        entry_t a, b, c;
        EXPECT_EQ(first, a.seq_id);
        EXPECT_EQ(first + 2, c.seq_id);
        EXPECT_EQ("noname", a.name);
        EXPECT_EQ(0, a.tid);
        EXPECT_EQ(0, a.pid);
        EXPECT_EQ(~q_uint64_t(0), a.handle);
        EXPECT_EQ(0, a.cpu_clock);
        EXPECT_EQ((std::vector<runnable_t const*>{&a, &b, &c}), listed());

        a.register_in_list();  // moved to the end, never listed twice
        EXPECT_EQ((std::vector<runnable_t const*>{&b, &c, &a}), listed());
        b.deregister_from_list();
        b.deregister_from_list();
        EXPECT_EQ((std::vector<runnable_t const*>{&c, &a}), listed());
        b.register_in_list();
        EXPECT_EQ(3u, runnable_t::runnables.size() - before);
        EXPECT_TRUE(runnable_t::runnables.contains(&b));
    }
    EXPECT_EQ(before, runnable_t::runnables.size());
    entry_t d;  // numbers are never reused
    EXPECT_EQ(first + 3, d.seq_id);

    // A failing walker releases the guard; a registration that cannot take
    // the guard is reported, not thrown.
    EXPECT_THROW(runnable_t::enum_all([](runnable_t const&) { throw std::runtime_error("x"); }), std::runtime_error);
    if (!tsan) {
        record_logger_t log(if_logger_t::FAULT);
        runnable_t const* inner = nullptr;
        EXPECT_NO_THROW(runnable_t::enum_all([&](runnable_t const&) {
            if (!inner) inner = new entry_t;  // its guard relock fails
        }));
        EXPECT_FALSE(runnable_t::runnables.contains(inner));
        delete inner;
        ASSERT_EQ(2u, log.lines.size());
        EXPECT_NE(std::string::npos, log.lines[0].find(" noname: Removing self failed because of unable to lock mutex because of "));
        EXPECT_NE(std::string::npos, log.lines[1].find(" noname: Adding self failed because of unable to lock mutex because of "));
    }
    EXPECT_EQ(std::vector<runnable_t const*>{&d}, listed());
}

TEST(Runnable, AdoptionOfAForeignThread) {
    entry_t e("worker one");
    std::thread([&] {
        {
            runnable_t::wrap_helper_t adopt(&e);
            EXPECT_EQ(&e, runnable_t::self());
            EXPECT_EQ("worker one", runnable_t::self_name().to_string());
            EXPECT_EQ(syscall(SYS_gettid), e.tid);
            EXPECT_EQ(getpid(), e.pid);
            EXPECT_EQ(static_cast<q_uint64_t>(pthread_self()), e.handle);
            clockid_t clock;
            ASSERT_EQ(0, pthread_getcpuclockid(pthread_self(), &clock));
            EXPECT_EQ(clock, e.cpu_clock);
        }
        EXPECT_EQ(nullptr, runnable_t::self());
        EXPECT_EQ("noname", runnable_t::self_name().to_string());
        e.set_ids();  // a known handle is kept
        EXPECT_EQ(syscall(SYS_gettid), e.tid);
    }).join();
    EXPECT_NE(static_cast<q_uint64_t>(pthread_self()), e.handle);
}

TEST(Runnable, PerThreadStoreAndCleanUpOrder) {
    std::vector<std::string> journal;
    std::thread([&] {
        entry_t e("store");
        runnable_t::wrap_helper_t adopt(&e);
        EXPECT_EQ(nullptr, runnable_t::get_key("k"));  // no store yet
        runnable_t::set_key("k", new journaled_t(journal, "k1"));
        runnable_t::set_key("k", new journaled_t(journal, "k2"));
        EXPECT_EQ(std::vector<std::string>{"k1"}, journal);  // replaced and destroyed
        EXPECT_EQ("k2", dynamic_cast<journaled_t*>(runnable_t::get_key("k"))->name);
        // Byte-wise key order: capitals before small letters, bytes above
        // 127 last.
        runnable_t::set_key("\xc3\xa9", new journaled_t(journal, "e-acute"));
        runnable_t::set_key("a", new journaled_t(journal, "a"));
        runnable_t::set_key("B", new journaled_t(journal, "B"));
        runnable_t::extra_thread_cleanup = [&] {
            journal.push_back(std::string("extra:") + runnable_t::self_name().to_string() +
                              (runnable_t::get_key("k") ? ":k" : ":-"));
            throw 1;  // swallowed
        };
        runnable_t::cleanup_all();
        runnable_t::extra_thread_cleanup.clear();
        EXPECT_EQ(nullptr, runnable_t::get_key("k"));
        EXPECT_EQ(nullptr, runnable_t::self());
        runnable_t::cleanup_all();  // nothing left: harmless
    }).join();
    EXPECT_EQ((std::vector<std::string>{"k1", "B", "a", "k2", "e-acute", "extra:store:-"}), journal);
}

TEST(Runnable, ListingAndReport) {
    ASSERT_TRUE(listed().empty());
    {
        record_logger_t log(if_logger_t::NOTICE);
        runnable_t::show_threads();
        ASSERT_EQ(1u, log.lines.size());
        EXPECT_EQ(0u, log.lines[0].find("[Stat] There are 0 running threads ("));
    }
    entry_t spaced("my worker"), bare("plain");
    spaced.pid = 1234;
    spaced.tid = 1240;
    bare.pid = 1234567;
    bare.tid = 7;
    std::vector<std::string> out{"kept"};
    runnable_t::running_list(out);
    EXPECT_EQ((std::vector<std::string>{"kept", "test#001234/001240 \"my worker\"", "test#1234567/000007 plain"}), out);

    std::vector<entry_t*> more;
    for (int i = 0; i < 9; ++i) more.push_back(new entry_t(std::string(static_cast<size_t>(i * 3 % 7 + 1), 'n')));
    std::vector<std::string> texts;
    runnable_t::running_list(texts);
    record_logger_t log(if_logger_t::NOTICE);
    runnable_t::show_threads();
    ASSERT_LE(2u, log.lines.size());
    EXPECT_EQ(0u, log.lines[0].find("[Stat] There are 11 running threads ("));
    std::string joined, expected;
    for (size_t i = 1; i < log.lines.size(); ++i) {
        std::string const& l = log.lines[i];
        ASSERT_EQ(0u, l.find("[Stat] Threads: "));
        std::string const body = l.substr(16);
        // Whole entries; a line ends once it has passed 64 characters.
        if (i + 1 < log.lines.size()) {
            EXPECT_GT(body.size() + 2, 64u) << body;
        }
        size_t const cut = body.rfind(", ");
        EXPECT_LE(cut == std::string::npos ? 0 : cut + 2, 64u) << body;  // not cut earlier
        joined += (joined.empty() ? "" : ", ") + body;
    }
    for (auto const& t : texts) expected += (expected.empty() ? "" : ", ") + t;
    EXPECT_EQ(expected, joined);
    for (auto* e : more) delete e;

    log.lines.clear();
    spaced.deregister_from_list();
    runnable_t::show_threads();
    ASSERT_EQ(2u, log.lines.size());
    EXPECT_EQ(0u, log.lines[0].find("[Stat] There is 1 running thread ("));
    EXPECT_EQ("[Stat] Threads: test#1234567/000007 plain", log.lines[1]);

    log.lines.clear();
    runnable_t::show_stack_info();  // TRACE only
    EXPECT_TRUE(log.lines.empty());
    log.set_level(if_logger_t::TRACE);
    runnable_t::show_stack_info();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    ASSERT_EQ(1u, log.lines.size());
    EXPECT_EQ("[UNIX] Minimum stack size is " + std::to_string(size) + " bytes", log.lines[0]);
}

// VmSize, VmRSS (in bytes) and Threads as /proc/self/status tells them.
std::vector<q_uint64_t> status_figures() {
    std::ifstream in("/proc/self/status");
    std::string line;
    std::vector<q_uint64_t> v(3);
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string key, unit;
        q_uint64_t n = 0;
        words >> key >> n >> unit;
        q_uint64_t const scale = unit == "kB" ? 1024 : 1;
        if (key == "VmSize:") v[0] = n * scale;
        if (key == "VmRSS:") v[1] = n * scale;
        if (key == "Threads:") v[2] = n;
    }
    return v;
}

unsigned open_fds() {
    unsigned n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

TEST(Runnable, ResourceFigures) {
    volatile q_uint64_t sink = 0;
    for (int i = 0; i < 20000000; ++i) sink = sink + static_cast<q_uint64_t>(i);

    q_uint64_t user = 0, system = ~q_uint64_t(0);
    runnable_t::cpu_usage(&user, nullptr);
    runnable_t::cpu_usage(nullptr, &system);
    runnable_t::cpu_usage(nullptr, nullptr);
    EXPECT_GT(user, 0u);
    EXPECT_NE(~q_uint64_t(0), system);

    q_uint64_t minor = 0, major = ~q_uint64_t(0), swaps = ~q_uint64_t(0);
    runnable_t::paging_usage(&minor, &major, &swaps);
    EXPECT_GT(minor, 0u);
    EXPECT_NE(~q_uint64_t(0), major);
    EXPECT_NE(~q_uint64_t(0), swaps);
    q_uint64_t reads = ~q_uint64_t(0), writes = ~q_uint64_t(0);
    runnable_t::io_usage(&reads, &writes);
    EXPECT_NE(~q_uint64_t(0), reads);
    EXPECT_NE(~q_uint64_t(0), writes);

    // Units read from the real status file; figures that move between two
    // readings must lie between them.
    std::vector<q_uint64_t> const a = status_figures();
    kern_n::vminfo_t vm;
    runnable_t::vm_usage(&vm);
    std::vector<q_uint64_t> const b = status_figures();
    EXPECT_EQ(0u, vm.vm_size % 1024);
    EXPECT_GE(vm.vm_size, std::min(a[0], b[0]));
    EXPECT_LE(vm.vm_size, std::max(a[0], b[0]));
    EXPECT_GE(vm.vm_rss, std::min(a[1], b[1]));
    EXPECT_LE(vm.vm_rss, std::max(a[1], b[1]));
    EXPECT_EQ(a[2], vm.threads);
    EXPECT_GT(vm.page_faults, 0u);
    EXPECT_GT(vm.ctx_switches + 1, 0u);
    runnable_t::vm_usage(nullptr);

    unsigned const fds = runnable_t::handles_count();
    EXPECT_EQ(open_fds(), fds);  // both count their own listing descriptor
    int const fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fds + 1, runnable_t::handles_count());
    close(fd);

    runnable_t::sleep(timegap_t(1, -3));
    EXPECT_FALSE(kern_runnable_sleep_event.try_wait());
}

TEST(Runnable, ThreadCpuOwnAndOther) {
    entry_t e("cpu");
    q_uint64_t user = 1, system = 1;
    e.thread_cpu(&user, &system);  // ids never set: no clock to read
    EXPECT_EQ(0u, user);
    EXPECT_EQ(0u, system);

    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    int stage = 0;
    q_uint64_t own_user = 0, own_system = 1, clock_at_end = 0;
    std::thread worker([&] {
        runnable_t::wrap_helper_t adopt(&e);
        volatile q_uint64_t sink = 0;
        for (int i = 0; i < 30000000; ++i) sink = sink + static_cast<q_uint64_t>(i);
        e.thread_cpu(&own_user, &own_system);
        clock_at_end = cpu_time_sum_t::thread_cpu_time(1);
        pthread_mutex_lock(&m);
        stage = 1;
        pthread_cond_broadcast(&c);
        while (stage != 2) pthread_cond_wait(&c, &m);
        pthread_mutex_unlock(&m);
    });
    pthread_mutex_lock(&m);
    while (stage != 1) pthread_cond_wait(&c, &m);
    e.thread_cpu(&user, &system);  // from another thread: all of it as user time
    stage = 2;
    pthread_cond_broadcast(&c);
    pthread_mutex_unlock(&m);
    worker.join();
    EXPECT_GT(own_user, 0u);
    EXPECT_LE(own_user + own_system, clock_at_end + 2000000);  // rusage rounds to the tick
    EXPECT_GE(user, clock_at_end);
    EXPECT_EQ(0u, system);
}

}  // namespace
