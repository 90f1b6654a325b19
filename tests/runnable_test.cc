#include "runnable.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "code-exec-time.h"
#include "syncers.h"
#include "test-support.h"

using kern_n::runnable_t;
using test_support::record_logger_t;
using namespace ::testing;

// Listed once complete, taken out before it is destroyed.
struct entry_t : runnable_t {
    entry_t() { register_in_list(); }
    explicit entry_t(std::string const& n, int p = 0, q_int64_t t = 0) {
        set_name(n), pid = p, tid = t;
        register_in_list();
    }
    ~entry_t() override { deregister_from_list(); }
    char const* type() const override { return "test"; }
};

static std::vector<runnable_t const*> listed() {
    std::vector<runnable_t const*> out;
    runnable_t::enum_all([&](runnable_t const& e) { out.push_back(&e); });
    return out;
}

// The thread report's lines for the registry as it is.
static std::vector<std::string> report() {
    record_logger_t log(if_logger_t::NOTICE);
    runnable_t::show_threads();
    return log.lines;
}

static unsigned entries(char const* dir) {
    return static_cast<unsigned>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

// Records its destruction in a shared journal.
struct journaled_t : if_root_t {
    journaled_t(std::vector<std::string>& j, std::string n) : journal(j), name(std::move(n)) {}
    ~journaled_t() override { journal.push_back(name); }
    std::vector<std::string>& journal;
    std::string name;
};

TEST(Runnable, StartUpStateAdoptionAndThreadCpu) {
    std::string members;
    for (int s = 1; s < NSIG; ++s)
        if (sigismember(&runnable_t::blocked_signals, s) == 1) members += std::to_string(s) + " ";
    EXPECT_EQ("1 2 3 10 12 13 15 17 23 28 29 ", members);  // HUP INT QUIT USR1 USR2 PIPE TERM CHLD URG WINCH IO
    entry_t e("worker one");
    q_uint64_t user = 1, system = 1, own_user = 0, own_system = 1, clock_at_end = 0;
    e.thread_cpu(&user, &system);  // ids never set: no clock to read
    EXPECT_EQ(0u, user + system);
    event_t measured(false, true), read(false, true);
    std::thread worker([&] {
        {
            runnable_t::wrap_helper_t adopt(&e);
            EXPECT_EQ(&e, runnable_t::self());
            EXPECT_EQ("worker one", runnable_t::self_name().to_string());
            EXPECT_TRUE(e.tid == syscall(SYS_gettid) && e.pid == getpid()) << e.tid << " " << e.pid;
            EXPECT_EQ(static_cast<q_uint64_t>(pthread_self()), e.handle);
            clockid_t clock = 0;
            EXPECT_TRUE(pthread_getcpuclockid(pthread_self(), &clock) == 0 && clock == e.cpu_clock) << e.cpu_clock;
            volatile q_uint64_t sink = 0;
            for (int i = 0; i < 30000000; ++i) sink = sink + static_cast<q_uint64_t>(i);
            e.thread_cpu(&own_user, &own_system);
            clock_at_end = cpu_time_sum_t::thread_cpu_time(1);
            measured.signal();
            read.wait(timegap_t::infinite());  // alive, and idle, while the other thread reads its clock
        }
        EXPECT_EQ(nullptr, runnable_t::self());
        EXPECT_EQ("noname", runnable_t::self_name().to_string());
    });
    measured.wait(timegap_t::infinite());
    e.thread_cpu(&user, &system);
    read.signal();
    worker.join();
    // Own usage: user and system time, to the tick; read from elsewhere, all of it as user time.
    EXPECT_TRUE(own_user > 0 && own_user + own_system <= clock_at_end + 2000000) << own_user << " " << own_system;
    EXPECT_TRUE(user >= clock_at_end && system == 0) << user << " " << system;
    e.set_ids();  // from another thread: its ids, but a known handle is kept
    EXPECT_EQ(syscall(SYS_gettid), e.tid);
    EXPECT_NE(static_cast<q_uint64_t>(pthread_self()), e.handle);
}

TEST(Runnable, RegistrationOrderAndSingleMembership) {
    q_uint32_t const first = runnable_t::SeqIdCnt + 1;
    {
        entry_t a, b, c;
        EXPECT_TRUE(a.seq_id == first && c.seq_id == first + 2) << a.seq_id;
        EXPECT_EQ((std::vector<runnable_t const*>{&a, &b, &c}), listed());
        a.register_in_list();  // moved to the end, never listed twice
        EXPECT_EQ((std::vector<runnable_t const*>{&b, &c, &a}), listed());
        b.deregister_from_list();
        b.deregister_from_list();
        EXPECT_EQ((std::vector<runnable_t const*>{&c, &a}), listed());
    }
    entry_t d;  // numbers are never reused
    EXPECT_EQ(first + 3, d.seq_id);

    // A failing walker releases the guard; a registration that cannot take the guard is reported, not thrown.
    EXPECT_THROW(runnable_t::enum_all([](runnable_t const&) { throw std::runtime_error("x"); }), std::runtime_error);
#ifndef __SANITIZE_THREAD__  // which reports the guard's deliberate relock itself
    record_logger_t log(if_logger_t::FAULT);
    runnable_t const* inner = nullptr;
    EXPECT_NO_THROW(runnable_t::enum_all([&](runnable_t const&) {
        if (!inner) inner = new entry_t;  // its guard relock fails
    }));
    EXPECT_EQ(std::vector<runnable_t const*>{&d}, listed());
    delete inner;
    std::string const failed = " self failed because of unable to lock mutex because of .+";
    EXPECT_THAT(log.lines,
                ElementsAre(MatchesRegex("[01] noname: Removing" + failed), MatchesRegex("[01] noname: Adding" + failed)));
#endif
}

// An entry built with the default constructor pauses, through a base built after its registry base, while it is built
// and while it is destroyed. Walks made meanwhile must not reach it: its derived part is not alive (type() is still
// pure while it is built). In a child, as a pure virtual call aborts.
TEST(Runnable, WalksNeverSeeHalfBuiltOrHalfDestroyedEntries) {
    struct pause_t {
        pause_t(event_t& r, event_t& g) : reached(r), go(g) { wait(); }
        ~pause_t() { wait(); }
        void wait() { reached.signal(), go.wait(timegap_t::infinite()); }
        event_t &reached, &go;
    };
    struct half_t : runnable_t, pause_t {
        half_t(event_t& r, event_t& g, std::atomic<int>& s) : pause_t(r, g), seen(s) { alive = true; }
        ~half_t() override { alive = false; }
        char const* type() const override { return seen += !alive, "half"; }
        std::atomic<int>& seen;
        std::atomic<bool> alive{false};
    };
    test_support::expect_child_ok([] {
        event_t reached(false, false), go(false, false);
        std::atomic<int> seen{0};
        std::thread builder([&] { half_t h(reached, go, seen); });
        for (int i = 0; i < 2; ++i) {  // built, then destroyed
            reached.wait(timegap_t::infinite());
            std::vector<std::string> texts;
            runnable_t::running_list(texts);
            runnable_t::enum_all([](runnable_t const& e) { e.type(); });
            go.signal();
        }
        builder.join();
        return seen == 0 ? 0 : 2;
    });
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
        for (char const* key : {"\xc3\xa9", "a", "B"}) runnable_t::set_key(key, new journaled_t(journal, key));
        runnable_t::extra_thread_cleanup = [&] {  // after the store, before the entry; its throw is swallowed
            journal.push_back("extra:" + runnable_t::self_name().to_string() + (runnable_t::get_key("k") ? ":k" : ":-"));
            throw 1;
        };
        runnable_t::cleanup_all();
        runnable_t::extra_thread_cleanup.clear();
        EXPECT_EQ(nullptr, runnable_t::get_key("k"));
        runnable_t::cleanup_all();  // nothing left: harmless
    }).join();
    // Byte-wise key order: capitals before small letters, bytes above 127 last.
    EXPECT_EQ((std::vector<std::string>{"k1", "B", "a", "k2", "\xc3\xa9", "extra:store:-"}), journal);
}

TEST(Runnable, ListingAndReport) {
    EXPECT_THAT(report(), ElementsAre(MatchesRegex("3 \\[Stat\\] There are 0 running threads \\([0-9]+ system\\)")));
    entry_t spaced("my worker", 1234, 1240), bare("plain", 1234567, 7);
    std::vector<std::string> out{"kept"};
    runnable_t::running_list(out);
    EXPECT_THAT(out, ElementsAre("kept", "test#001234/001240 \"my worker\"", "test#1234567/000007 plain"));

    // A line is written once it has passed 64 characters with its ", ": the second holds exactly 64 before its third
    // entry, the third 65.
    auto text = [](int n) { return "test#000000/000000 " + std::string(static_cast<size_t>(n), 'n'); };
    std::vector<std::unique_ptr<entry_t>> more;
    for (int n : {1, 11, 11, 1, 11, 12, 1}) more.emplace_back(new entry_t(text(n).substr(19)));
    std::string const threads = "3 [Stat] Threads: ";
    EXPECT_THAT(report(), ElementsAre(MatchesRegex("3 \\[Stat\\] There are 9 running threads \\([0-9]+ system\\)"),
                                      threads + out[1] + ", " + out[2] + ", " + text(1),
                                      threads + text(11) + ", " + text(11) + ", " + text(1),
                                      threads + text(11) + ", " + text(12), threads + text(1)));
    more.clear();
    spaced.deregister_from_list();
    EXPECT_THAT(report(), ElementsAre(MatchesRegex("3 \\[Stat\\] There is 1 running thread \\([0-9]+ system\\)"),
                                      threads + "test#1234567/000007 plain"));

    record_logger_t log(if_logger_t::DEBUG_3);
    runnable_t::show_stack_info();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    EXPECT_THAT(log.lines, ElementsAre("5 [UNIX] Minimum stack size is " + std::to_string(size) + " bytes"));
}

TEST(Runnable, ResourceFigures) {
    volatile q_uint64_t sink = 0;
    for (int i = 0; i < 20000000; ++i) sink = sink + static_cast<q_uint64_t>(i);
    // Any result pointer may be null; every one given is filled.
    q_uint64_t const unset = ~q_uint64_t(0);
    q_uint64_t user = 0, system = unset, minor = 0, major = unset, swaps = unset, reads = unset, writes = unset;
    runnable_t::cpu_usage(&user, nullptr);
    runnable_t::cpu_usage(nullptr, &system);
    runnable_t::cpu_usage(nullptr, nullptr);
    runnable_t::paging_usage(&minor, &major, &swaps);
    runnable_t::io_usage(&reads, &writes);
    EXPECT_TRUE(user > 0 && minor > 0) << user << " " << minor;
    for (q_uint64_t const v : {system, major, swaps, reads, writes}) EXPECT_NE(unset, v);

    // Sizes in pages from /proc/self/statm, read before and after: moving figures lie between.
    q_uint64_t const page = static_cast<q_uint64_t>(sysconf(_SC_PAGESIZE));
    auto statm = [page] {
        q_uint64_t size = 0, rss = 0;
        std::ifstream("/proc/self/statm") >> size >> rss;
        return std::make_pair(size * page, rss * page);
    };
    auto const a = statm();
    kern_n::vminfo_t vm;
    runnable_t::vm_usage(&vm);
    auto const b = statm();
    EXPECT_TRUE(std::min(a.first, b.first) <= vm.vm_size && vm.vm_size <= std::max(a.first, b.first)) << vm.vm_size;
    EXPECT_TRUE(std::min(a.second, b.second) <= vm.vm_rss && vm.vm_rss <= std::max(a.second, b.second)) << vm.vm_rss;
    EXPECT_EQ(entries("/proc/self/task"), vm.threads);
    EXPECT_GT(vm.page_faults, 0u);
    runnable_t::vm_usage(nullptr);

    EXPECT_EQ(entries("/proc/self/fd"), runnable_t::handles_count());  // both count their own listing descriptor

    runnable_t::sleep(timegap_t(1, -3));  // nothing signals its event: the whole gap
}

// One call names a thread: one without an entry gets an entry of its own, listed and shown in its log lines until the
// thread ends; one with an entry has that entry renamed. The main thread's own entry goes at exit (in a child, which
// checks the list from an exit handler, which runs after the threads' own clean-up).
TEST(Runnable, SetSelfNameListsRenamesAndLeavesAtThreadEnd) {
    if (!test_support::in_child()) return;
    std::atexit([] {
        if (!runnable_t::runnables.empty()) _exit(3);
    });
    EXPECT_STREQ("main", runnable_t::set_self_name("boss")->type());
    test_support::temp_dir_t dir;
    int const fd = open((dir / "log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::unique_ptr<if_logger_t> log(fd_logger_t::create(fd));
    for (bool const adopted : {false, true}) {
        std::vector<std::string> listing;
        std::thread([&] {
            std::unique_ptr<entry_t> given(adopted ? new entry_t("given") : nullptr);
            std::unique_ptr<runnable_t::wrap_helper_t> adopt(adopted ? new runnable_t::wrap_helper_t(given.get())
                                                                     : nullptr);
            runnable_t* const e = runnable_t::set_self_name("first");
            EXPECT_EQ(adopted ? given.get() : e, runnable_t::self());
            log->log_INFO("one");
            EXPECT_EQ(e, runnable_t::set_self_name("second name"));
            log->log_INFO("two");
            runnable_t::running_list(listing);
        }).join();
        std::string const kind = adopted ? "test" : "thread";
        EXPECT_THAT(listing, ElementsAre(StartsWith("main#"), MatchesRegex(kind + "#[0-9/]+ \"second name\"")));
        std::vector<std::string> after;
        runnable_t::running_list(after);
        EXPECT_THAT(after, ElementsAre(MatchesRegex("main#[0-9/]+ boss")));
    }
    log.reset();
    close(fd);
    EXPECT_THAT(dir.read("log"), MatchesRegex("(.*\\] first  one\n.*\\] second name two\n){2}"));
}
