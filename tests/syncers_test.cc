#include "syncers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "exceptions.h"
#include "loggers.h"

extern char** environ;

namespace {

namespace d = kern::syncers::detail;

#if defined(__SANITIZE_THREAD__)
bool const tsan = true;  // it reports misuse of a mutex itself
#else
bool const tsan = false;
#endif

// Polls until f() holds; false after about 30 seconds.
bool eventually(std::function<bool()> f) {
    for (int i = 0; i < 30000 && !f(); ++i) usleep(1000);
    return f();
}

// Runs fn(thread index) on n threads that all start together.
void on_threads(int n, std::function<void(int)> fn) {
    std::mutex guard;
    std::condition_variable gate;
    int arrived = 0;
    std::vector<std::thread> pool;
    for (int t = 0; t < n; ++t) {
        pool.emplace_back([&, t] {
            {
                std::unique_lock<std::mutex> hold(guard);
                if (++arrived == n) gate.notify_all();
                gate.wait(hold, [&] { return arrived == n; });
            }
            fn(t);
        });
    }
    for (auto& th : pool) th.join();
}

timegap_t ms(long n) { return timegap_t(n, -3); }
std::string sys_text(int code) { return std::string(strerror(code)) + " (errno=" + std::to_string(code) + ")"; }

std::string thrown(std::function<void()> f) {
    try {
        f();
    } catch (q_exception_t_shell_t const& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

// Runs this program again with only `test` selected and the variables set
// (QVLSRV_* of this process left out); answers the exit status.
int run_child(char const* test, std::vector<std::string> env) {
    for (char** e = environ; *e; ++e) {
        if (strncmp(*e, "QVLSRV_", 7) != 0) env.push_back(*e);
    }
    env.push_back("SYNCERS_CHILD=1");
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::string exe = "/proc/self/exe", filter = std::string("--gtest_filter=") + test, brief = "--gtest_brief=1";
    char* argv[] = {&exe[0], &filter[0], &brief[0], nullptr};
    pid_t const pid = fork();
    if (pid == 0) {
        execve(exe.c_str(), argv, envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool in_child() { return getenv("SYNCERS_CHILD") != nullptr; }

int waiting(rwlock_t& rw, std::int32_t rwlock_t::*field) {
    xlocker_t<mutex_t> hold(rw.guard);
    return rw.*field;
}

// A reader arrives while a reader holds the lock and a writer waits: with
// readers preferred it gets in at once, with writers preferred only after
// the writer has come and gone. Then readers and writers hammer the lock.
void check_rwlock(bool writers_first) {
    rwlock_t rw;
    std::string order;
    mutex_t order_guard;
    std::atomic<int> done(0);
    auto visit = [&](bool exclusive, char tag) {
        exclusive ? rw.xlock() : rw.slock();
        order_guard.xlock();
        order += tag;
        order_guard.unlock();
        rw.unlock();
        ++done;
    };
    rw.slock();
    std::thread writer(visit, true, 'W');
    ASSERT_TRUE(eventually([&] { return waiting(rw, &rwlock_t::writers_waiting) == 1; }));
    bool const got = rw.try_slock();
    EXPECT_EQ(got, !writers_first);
    if (got) rw.unlock();
    std::thread reader(visit, false, 'R');
    if (writers_first) {
        ASSERT_TRUE(eventually([&] { return waiting(rw, &rwlock_t::readers_waiting) == 1; }));
    } else {
        ASSERT_TRUE(eventually([&] { return done.load() == 1; }));
    }
    EXPECT_EQ(done.load(), writers_first ? 0 : 1);
    rw.unlock();
    writer.join();
    reader.join();
    EXPECT_EQ(order, writers_first ? "WR" : "RW");

    std::atomic<int> readers_in(0), writers_in(0), overlaps(0);
    std::atomic<q_uint64_t> held(0);
    q_uint64_t const s0 = d::rwlock::stake, x0 = d::rwlock::xtake, f0 = d::rwlock::free;
    int const threads = 4, rounds = 2000;
    on_threads(threads, [&](int t) {
        for (int i = 0; i < rounds; ++i) {
            bool const exclusive = (i + t) % 3 == 0;
            if (exclusive ? (i % 2 ? rw.try_xlock() : (rw.xlock(), true))
                          : (i % 2 ? rw.try_slock() : (rw.slock(), true))) {
                std::atomic<int>& mine = exclusive ? writers_in : readers_in;
                ++mine;
                if (exclusive ? writers_in + readers_in != 1 : writers_in != 0) ++overlaps;
                --mine;
                ++held;
                rw.unlock();
            }
        }
    });
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(d::rwlock::stake - s0 + d::rwlock::xtake - x0, static_cast<q_uint64_t>(threads * rounds));
    q_uint64_t exclusive = 0;
    for (int i = 0; i < threads * rounds; ++i) exclusive += (i % rounds + i / rounds) % 3 == 0;
    EXPECT_EQ(d::rwlock::xtake - x0, exclusive);
    EXPECT_EQ(d::rwlock::free - f0, held.load());
    EXPECT_EQ(rw.state + rw.readers_waiting + rw.writers_waiting, 0);
}

TEST(Syncers, MutexCountsExactlyBeyondTheSlotsAndReportsErrors) {
    EXPECT_EQ(mutex_t::type, 2);
    EXPECT_STREQ(mutex_t::type_name, "default errorcheck");
    q_uint64_t const c0 = d::mutex::ctor, dt0 = d::mutex::dtor, t0 = d::mutex::take, f0 = d::mutex::free;
    d::counter_t const snapshot = d::mutex::take;
    {
        // More threads alive at once than there are counter slots, twice:
        // the last ones share a slot, the second generation takes over
        // slots the first gave back. Not a count may be lost.
        mutex_t m;
        long inside = 0;
        std::atomic<long> taken(0);
        int const threads = 160, rounds = 50;
        for (int generation = 1; generation <= 2; ++generation) {
            on_threads(threads, [&](int) {
                for (int i = 0; i < rounds; ++i) {
                    if (i % 5 == 0 ? !m.try_xlock() : (m.xlock(), false)) continue;
                    ++inside;
                    ++taken;
                    m.unlock();
                }
            });
            EXPECT_EQ(d::mutex::take - t0, static_cast<q_uint64_t>(generation * threads * rounds));
            EXPECT_EQ(d::mutex::free - f0, static_cast<q_uint64_t>(taken.load()));
            EXPECT_EQ(inside, taken.load());
        }
        EXPECT_EQ(snapshot.load(), t0);  // a copy keeps its moment

        // Busy in another thread: false, and still one more take.
        m.xlock();
        q_uint64_t const t1 = d::mutex::take;
        bool busy = true;
        std::thread([&] { busy = m.try_xlock(); }).join();
        EXPECT_FALSE(busy);
        EXPECT_EQ(d::mutex::take - t1, 1u);
        EXPECT_EQ(thrown([&] { m.xlock(); }), "unable to lock mutex because of " + sys_text(EDEADLK));
        m.unlock();
        if (!tsan) {
            EXPECT_EQ(thrown([&] { m.unlock(); }), "unable to unlock mutex because od " + sys_text(EPERM));
        }
    }
    EXPECT_EQ(d::mutex::ctor - c0, 1u);
    EXPECT_EQ(d::mutex::dtor - dt0, 1u);
}

TEST(Syncers, CondvarTimeoutsBroadcastAndErrors) {
    q_uint64_t const c0 = d::condvar::ctor, t0 = d::condvar::take, f0 = d::condvar::free;
    mutex_t m;
    condvar_t one(false), all(true);
    m.xlock();
    EXPECT_FALSE(one.wait(m, kern::time::now() - timegap_t(1, 0)));
    EXPECT_FALSE(one.wait(m, kern::time::now() + ms(5)));
    EXPECT_FALSE(all.wait(m, timestamp_t()));
    m.unlock();
    int arrived = 0, released = 0;
    bool go = false;
    on_threads(4, [&](int t) {  // one broadcast releases the three waiters
        xlocker_t<mutex_t> hold(m);
        if (t == 3) {
            while (arrived < 3) one.wait(m, kern::time::now() + ms(1));
            go = true;
            return all.signal();
        }
        for (++arrived; !go;) all.wait(m, timestamp_t::infinite());
        ++released;
    });
    EXPECT_EQ(released, 3);
    EXPECT_EQ(d::condvar::ctor - c0, 2u);
    EXPECT_EQ(d::condvar::free - f0, 1u);
    EXPECT_GE(d::condvar::take - t0, 6u);
    if (tsan) return;
    // Waiting without holding an error-checking mutex fails in the system.
    EXPECT_EQ(thrown([&] { one.wait(m); }), "unable to wait on conditional variable");
    EXPECT_EQ(thrown([&] { one.wait(m, timestamp_t::infinite()); }), "pthread_cond_wait retcode 1");
    EXPECT_EQ(thrown([&] { one.wait(m, kern::time::now() + timegap_t(1, 0)); }), "pthread_cond_timedwait retcode 1");
}

TEST(Syncers, SemaphoreQuirksTimeoutsAndHammer) {
    q_uint64_t const c0 = d::semaphore::ctor, t0 = d::semaphore::take, mc0 = d::mutex::ctor, cc0 = d::condvar::ctor;
    semaphore_t two(2), negative(-1), none(0);
    EXPECT_EQ(d::semaphore::ctor - c0 + d::mutex::ctor - mc0 + d::condvar::ctor - cc0, 9u);
    EXPECT_TRUE(two.try_wait() && two.try_wait() && !two.try_wait());
    // Non-zero, not positive: a negative count hands out units.
    EXPECT_TRUE(negative.try_wait() && negative.try_wait());
    EXPECT_EQ(negative.count, -3);
    EXPECT_EQ(d::semaphore::take - t0, 5u);
    EXPECT_FALSE(none.wait(ms(5)));  // a finite relative wait counts twice
    EXPECT_EQ(d::semaphore::take - t0, 7u);
    EXPECT_FALSE(none.wait(kern::time::now() + ms(5)));
    none.post();
    EXPECT_TRUE(none.wait(timegap_t::infinite()));
    EXPECT_EQ(d::semaphore::take - t0, 9u);

    // Two producers, a blocking and a polling consumer: each unit once.
    int const per = 3000;
    std::atomic<long> waits(0), consumed(0);
    q_uint64_t const t1 = d::semaphore::take, f1 = d::semaphore::free;
    on_threads(4, [&](int t) {
        for (int i = 0; i < per; ++i) {
            if (t < 2) {
                none.post();
                continue;
            }
            do ++waits;
            while (t == 2 ? !none.wait(timegap_t::infinite()) : !none.try_wait());
            ++consumed;
        }
    });
    EXPECT_EQ(consumed.load(), 2 * per);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(d::semaphore::take - t1, static_cast<q_uint64_t>(waits.load()));
    EXPECT_EQ(d::semaphore::free - f1, static_cast<q_uint64_t>(2 * per));
}

TEST(Syncers, EventWakesOneWaiterPerSignal) {
    q_uint64_t const t0 = d::event::take, f0 = d::event::free, ct0 = d::condvar::take;
    event_t manual(false, true);
    std::atomic<int> released(0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) waiters.emplace_back([&] { released += manual.wait(timegap_t::infinite()); });
    // A waiter counts its condition wait under the event's mutex, which the
    // wait gives up: once both have counted, both are blocked.
    ASSERT_TRUE(eventually([&] { return d::condvar::take - ct0 >= 2; }));
    manual.signal();
    ASSERT_TRUE(eventually([&] { return released.load() >= 1; }));
    usleep(50000);
    EXPECT_EQ(released.load(), 1);
    manual.signal();
    for (auto& th : waiters) th.join();
    EXPECT_EQ(released.load(), 2);
    std::thread([&] { EXPECT_TRUE(manual.wait(timegap_t::infinite())); }).join();  // stays set
    EXPECT_TRUE(manual.try_wait());
    q_uint64_t const f1 = d::event::free, t1 = d::event::take;
    manual.reset();
    EXPECT_EQ(d::event::free - f1 + d::event::take - t1, 0u);  // reset() counts nothing
    EXPECT_FALSE(manual.try_wait());
    EXPECT_FALSE(manual.wait(ms(5)));
    EXPECT_EQ(d::event::take - t0, 7u);  // 3 endless, 2 tries, 1 finite relative counted twice
    EXPECT_EQ(d::event::free - f0, 2u);

    // Auto-reset ping-pong: each signal lets exactly one wait through.
    event_t ping(true, false), pong(false, false);
    EXPECT_TRUE(ping.try_wait());
    EXPECT_FALSE(ping.try_wait());
    EXPECT_FALSE(pong.wait(kern::time::now() + ms(5)));
    int const rounds = 2000;
    long worked = 0;
    std::thread partner([&] {
        for (int i = 0; i < rounds; ++i) {
            ping.wait(timegap_t::infinite());
            ++worked;
            pong.signal();
        }
    });
    for (int i = 0; i < rounds; ++i) {
        ping.signal();
        ASSERT_TRUE(pong.wait(timestamp_t::infinite()));
        ASSERT_EQ(worked, i + 1);
    }
    partner.join();
}

TEST(Syncers, RwlockAndHolders) {
    EXPECT_EQ(rwlock_t::write_prefered, getenv("QVLSRV_RWLOCK_READPREFERED") != nullptr);
    q_uint64_t const c0 = d::rwlock::ctor, mc0 = d::mutex::ctor, cc0 = d::condvar::ctor;
    {
        rwlock_t rw;
        EXPECT_EQ(d::rwlock::ctor - c0 + d::mutex::ctor - mc0 + d::condvar::ctor - cc0, 4u);
        EXPECT_TRUE(rw.readers.broadcast && !rw.writers.broadcast);
        rw.unlock();  // on a free lock: no change, no complaint
        EXPECT_EQ(rw.state, 0);
        EXPECT_TRUE(rw.try_slock() && rw.try_slock());
        EXPECT_EQ(rw.state, 2);
        EXPECT_FALSE(rw.try_xlock());
        rw.unlock();
        rw.unlock();
        auto held = std::make_shared<xlocker_t<rwlock_t>>(rw);
        auto second = held;
        EXPECT_FALSE(rw.try_slock());
        held.reset();
        EXPECT_EQ(rw.state, -1);
        second.reset();  // the last holder lets go
        EXPECT_EQ(rw.state, 0);
    }
    check_rwlock(rwlock_t::write_prefered);

    // late_locker_t unlocks once, and never when it was not filled.
    mutex_t m;
    q_uint64_t const f0 = d::mutex::free;
    late_locker_t<mutex_t>().release();
    EXPECT_EQ(d::mutex::free - f0, 0u);
    {
        late_locker_t<mutex_t> late;
        late.xlock(m);
        bool busy = true;
        std::thread([&] { busy = m.try_xlock(); }).join();
        EXPECT_FALSE(busy);
        late.release();
        late.release();
        EXPECT_EQ(late.get(), nullptr);
        EXPECT_EQ(d::mutex::free - f0, 1u);
        m.xlock();
        late.adopt(m);
    }
    EXPECT_EQ(d::mutex::free - f0, 2u);
    EXPECT_TRUE(m.try_xlock());
    m.unlock();
}

TEST(Syncers, SettingsFromTheEnvironment) {
    if (in_child()) GTEST_SKIP();
    char const* const kinds[][3] = {{"recursive", "1", "recursive"}, {"Recursive", "1", "Recursive"},
                                    {"fast", "2", "default errorcheck"}, {"NORMAL", "0", "NORMAL"},
                                    {"adaptive", "3", "adaptive"}, {"", "2", "default errorcheck"}};
    for (auto const& k : kinds) {
        EXPECT_EQ(run_child("SyncersChild.MutexKind", {std::string("QVLSRV_MUTEX_TYPE=") + k[0],
                                                        std::string("SYNCERS_CHILD_TYPE=") + k[1],
                                                        std::string("SYNCERS_CHILD_NAME=") + k[2]}),
                  0)
            << k[0];
    }
    // Present, even empty: writers preferred.
    EXPECT_EQ(run_child("SyncersChild.WritersPreferred", {"QVLSRV_RWLOCK_READPREFERED="}), 0);
}

TEST(SyncersChild, MutexKind) {
    if (!in_child()) GTEST_SKIP() << "run by SettingsFromTheEnvironment";
    EXPECT_EQ(mutex_t::type, atoi(getenv("SYNCERS_CHILD_TYPE")));
    EXPECT_STREQ(mutex_t::type_name, getenv("SYNCERS_CHILD_NAME"));
    EXPECT_FALSE(rwlock_t::write_prefered);
    if (mutex_t::type != 1) return;
    mutex_t m;  // recursive: the owner may lock again
    m.xlock();
    m.xlock();
    m.unlock();
    m.unlock();
}

TEST(SyncersChild, WritersPreferred) {
    if (!in_child()) GTEST_SKIP() << "run by SettingsFromTheEnvironment";
    ASSERT_TRUE(rwlock_t::write_prefered);
    check_rwlock(true);
}

TEST(Syncers, StatisticReport) {
    char path[] = "/tmp/syncers_test_XXXXXX";
    int const fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    if_logger_t* const saved = if_logger_t::Log;
    if_logger_t* logger = if_logger_t::Log = fd_logger_t::create(fd);
    logger->set_level(if_logger_t::NOTICE);
    q_uint64_t const ctor0 = d::mutex::ctor;
    log_syncers_stat();
    logger->set_level(if_logger_t::WARNING);
    log_syncers_stat();  // NOTICE is off: nothing
    if_logger_t::Log = saved;
    delete logger;

    std::string text(4096, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, pread(fd, &text[0], text.size(), 0))));
    close(fd);
    std::string lines;  // the prefixes cut off, every number as '#'
    for (std::size_t at = 0; (at = text.find("[Sync]", at)) != std::string::npos; at = text.find('\n', at)) {
        lines += std::regex_replace(text.substr(at, text.find('\n', at) - at), std::regex("[0-9]+"), "#") + "|";
    }
    EXPECT_EQ(lines,
              "[Sync] Mutex: # total, # locks; # existing, # locked now|"
              "[Sync] Condvar: # existing; # total, # signals, # waits|"
              "[Sync] Event: # existing; # total, # signals, # waits|"
              "[Sync] Semaphore: # existing; # total, # posts, # waits|"
              "[Sync] R/W Lock: # existing; # total, # signals, # s-waits, # x-waits|")
        << text;
    unsigned long long total = 0;
    EXPECT_EQ(sscanf(text.c_str() + std::min(text.size(), text.find("[Sync] Mutex")), "[Sync] Mutex: %llu", &total), 1);
    EXPECT_GE(total, ctor0);
}

}  // namespace
