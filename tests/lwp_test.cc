#include "lwp.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "exceptions.h"
#include "syncers.h"
#include "test-support.h"

namespace {

using kern_n::runnable_t;

#if defined(QVLKERN_SANITIZED) || defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
bool const sanitized = true;
#else
bool const sanitized = false;
#endif

size_t lwps_listed() {
    size_t n = 0;
    runnable_t::enum_all([&](runnable_t const& e) { n += std::string(e.type()) == "lwp"; });
    return n;
}

// Polls until f() holds; false after about 30 seconds.
template <class F>
bool eventually(F f) {
    for (int i = 0; i < 30000 && !f(); ++i) usleep(1000);
    return f();
}

// Identity of the calling thread as its registry entry and the kernel see it.
std::string self_text() {
    return q_format("%p %s %ld", static_cast<void*>(runnable_t::self()), runnable_t::self_name().to_string().c_str(),
                    syscall(SYS_gettid));
}

TEST(Lwp, JoinableAndDetached) {
    event_t gate(false, true);
    std::string seen, seen_detached;
    lwp_t::shared t = lwp_t::start("two words", [&] { gate.wait(timegap_t::infinite()); seen = self_text(); }, false);
    lwp_t::shared d = lwp_t::start("x", [&] { gate.wait(timegap_t::infinite()); seen_detached = self_text(); }, true);
    EXPECT_EQ(2u, lwps_listed());
    EXPECT_FALSE(t->join(timegap_t(20, -3)));  // still waiting at the gate
    for (timegap_t const g : {timegap_t(0), timegap_t::infinite()}) {  // a detached one is never joined
        errno = 0;
        EXPECT_FALSE(d->join(g));
        EXPECT_EQ(EINVAL, errno);
    }
    d.reset();  // the thread keeps its object alive
    EXPECT_EQ(2u, lwps_listed());
    for (int i = 0; i < 2; ++i) gate.signal();  // an event wakes one waiter per signal
    EXPECT_TRUE(t->join(timegap_t::infinite()));
    EXPECT_EQ(q_format("%p two words %lld", static_cast<void*>(static_cast<runnable_t*>(t.get())),
                       static_cast<long long>(t->tid)), seen);
    EXPECT_TRUE(t->join(timegap_t(0)));  // joined: no second POSIX join
    EXPECT_TRUE(eventually([] { return lwps_listed() == 1; }));
    EXPECT_NE(std::string::npos, seen_detached.find(" x ")) << seen_detached;
    std::vector<std::string> list;
    runnable_t::running_list(list);
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(q_format("lwp#%06d/%06lld \"two words\"", getpid(), static_cast<long long>(t->tid)), list[0]);
    t.reset();
    EXPECT_EQ(0u, lwps_listed());
    EXPECT_TRUE(lwp_t::start("quick", [] {}, false)->join(timegap_t(60, 0)));  // a finite time-out the thread beats
}

// Two timed joins wait for one thread: its finished signal wakes one of them,
// and the other, whose wait ends after that one joined, answers true too.
TEST(Lwp, ConcurrentTimedJoinsBothAnswerTrue) {
    namespace d = kern::syncers::detail;
    event_t gate(false, true);
    q_uint64_t const waits = d::condvar::take;
    lwp_t::shared t = lwp_t::start("joined twice", [&] { gate.wait(timegap_t::infinite()); }, false);
    bool answers[2] = {false, false};
    std::vector<std::thread> joiners;
    for (bool& a : answers) joiners.emplace_back([&] { a = t->join(timegap_t(30, 0)); });
    // The job and both joiners count their condition wait under its mutex: once all three counted,
    // all three block, and the thread cannot finish before both joiners wait.
    ASSERT_TRUE(eventually([&] { return d::condvar::take - waits >= 3; }));
    gate.signal();
    for (auto& j : joiners) j.join();
    EXPECT_TRUE(answers[0] && answers[1]);
}

struct marker_t : if_root_t {  // counts its destructions
    explicit marker_t(std::atomic<int>& c) : count(c) {}
    ~marker_t() override { ++count; }
    std::atomic<int>& count;
};

TEST(Lwp, JobsThatThrowStillCleanUp) {
    std::atomic<int> destroyed{0}, extra{0};
    runnable_t::extra_thread_cleanup = [&] { extra += runnable_t::self() != nullptr; };  // before the entry goes
    std::vector<boost::function<void()>> jobs = {
        [] { throw std::runtime_error("job failed"); }, [] { QVL_THROW(thread_exception, "job failed"); },
        [] { throw 42; }, [] { pthread_exit(nullptr); },  // the last unwinds the thread through the job
    };
    for (auto const& job : jobs) {
        lwp_t::shared t = lwp_t::start("thrower", [&, job] {
            runnable_t::set_key("marker", new marker_t(destroyed));
            job();
        }, false);
        EXPECT_TRUE(t->join(timegap_t(60, 0)));
    }
    // An empty job throws inside the thread, where it is dropped.
    EXPECT_TRUE(lwp_t::start("empty", boost::function<void()>(), false)->join(timegap_t::infinite()));
    runnable_t::extra_thread_cleanup.clear();
    EXPECT_EQ(4, destroyed.load());
    EXPECT_EQ(5, extra.load());
    EXPECT_EQ(0u, lwps_listed());
}

TEST(Lwp, StartFailureIsReported) {
    if (sanitized) GTEST_SKIP() << "sanitizers reserve the address space the limit would cut";
    test_support::expect_child_ok([] {
        kern_n::vminfo_t vm;  // no room left for a new thread's stack
        runnable_t::vm_usage(&vm);
        struct rlimit lim = {vm.vm_size + (1 << 20), vm.vm_size + (1 << 20)};
        setrlimit(RLIMIT_AS, &lim);
        // Stacks of ended threads are kept for reuse: hold threads until none is left.
        event_t gate(false, true);
        std::vector<lwp_t::shared> held;
        int rc = 1;
        try {
            for (int i = 0; i < 1000; ++i)
                held.push_back(lwp_t::start("no room", [&] { gate.wait(timegap_t::infinite()); }, false));
        } catch (lwp_exception_shell_t const& e) {
            bool const listed_all = lwps_listed() == held.size();
            rc = std::string(e.what()).find("unable to create LWP \"no room\" because of ") == 0 && listed_all ? 0 : 2;
        }
        for (size_t i = 0; i < held.size(); ++i) gate.signal();  // one waiter each
        for (auto& t : held) t->join(timegap_t::infinite());
        return rc;
    });
}

// Thousands of short threads in waves, half joined and half detached and
// dropped at once, while two walkers list the registry: nothing is lost,
// listed twice or left behind, and every start takes the next number.
TEST(Lwp, WavesOfShortThreads) {
    int const per_wave = sanitized ? 150 : 1000, waves = 4;
    std::atomic<bool> stop{false};
    std::atomic<int> faults{0}, ran{0};
    auto walker = [&] {
        while (!stop) {
            std::set<q_uint32_t> ids;
            runnable_t::enum_all([&](runnable_t const& e) { faults += !ids.insert(e.seq_id).second; });
            std::vector<std::string> texts;
            runnable_t::running_list(texts);
            faults += texts.size() > static_cast<size_t>(2 * per_wave);
        }
    };
    std::thread w1(walker), w2(walker);
    q_uint32_t const first = runnable_t::SeqIdCnt + 1;
    unsigned fds = 0;
    q_uint64_t rss = 0;
    for (int wave = 0; wave < waves; ++wave) {
        std::vector<lwp_t::shared> joinable;
        for (int i = 0; i < per_wave; ++i) {
            lwp_t::shared t = lwp_t::start("wave worker", [&] { ++ran; }, i % 2 == 1);
            faults += t->seq_id != first + static_cast<q_uint32_t>(wave * per_wave + i);
            if (i % 2 == 0) joinable.push_back(t);
        }
        for (auto& t : joinable) EXPECT_TRUE(t->join(timegap_t::infinite()));
        joinable.clear();
        EXPECT_TRUE(eventually([] { return lwps_listed() == 0; })) << "wave " << wave;
        kern_n::vminfo_t vm;
        runnable_t::vm_usage(&vm);
        if (wave == 0) fds = runnable_t::handles_count(), rss = vm.vm_rss;
        // The sanitizers hold freed memory back in quarantine; there the leak checker judges memory.
        EXPECT_TRUE(sanitized || vm.vm_rss <= rss + (16 << 20)) << "resident memory grew to " << vm.vm_rss;
    }
    stop = true;
    w1.join();
    w2.join();
    EXPECT_EQ(0, faults.load());
    EXPECT_EQ(per_wave * waves, ran.load());
    EXPECT_EQ(fds, runnable_t::handles_count());
}

}  // namespace
