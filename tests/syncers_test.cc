#include "syncers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "exceptions.h"
#include "loggers.h"

#if defined(__SANITIZE_THREAD__)
#define SYNCERS_TSAN 1
#else
#define SYNCERS_TSAN 0
#endif

extern char** environ;

namespace {

namespace d = kern::syncers::detail;

// Polls until f() holds; false after about 30 seconds.
template <class F>
bool eventually(F f) {
    for (int i = 0; i < 30000; ++i) {
        if (f()) return true;
        usleep(1000);
    }
    return f();
}

timegap_t milliseconds(long n) { return timegap_t(n, -3); }

std::string system_text(int code) { return std::string(strerror(code)) + " (errno=" + std::to_string(code) + ")"; }

template <class F>
std::string thrown_text(F f) {
    try {
        f();
    } catch (q_exception_t_shell_t const& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

// Runs this test program again with only `test` selected and the variables
// set; answers its exit status. The child's tests check what they are told
// through SYNCERS_CHILD_* variables.
int run_child(char const* test, std::vector<std::string> vars) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (strncmp(*e, "QVLSRV_", 7) != 0 && strncmp(*e, "SYNCERS_CHILD", 13) != 0) env.push_back(*e);
    }
    env.push_back("SYNCERS_CHILD=1");
    for (auto& v : vars) env.push_back(v);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::string exe = "/proc/self/exe", filter = std::string("--gtest_filter=") + test;
    std::string brief = "--gtest_brief=1";
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

int fields(rwlock_t& rw, std::int32_t rwlock_t::*field) {
    xlocker_t<mutex_t> hold(rw.guard);
    return rw.*field;
}

// A reader arrives while readers hold the lock and a writer waits: with
// readers preferred it gets in at once, with writers preferred only after
// the writer has come and gone.
void check_preference(bool writers_first) {
    rwlock_t rw;
    std::atomic<int> writer_done(0), reader_done(0);
    std::string order;
    mutex_t order_guard;
    auto note = [&](char c) {
        xlocker_t<mutex_t> hold(order_guard);
        order += c;
    };
    rw.slock();
    std::thread writer([&] {
        rw.xlock();
        note('W');
        rw.unlock();
        writer_done = 1;
    });
    ASSERT_TRUE(eventually([&] { return fields(rw, &rwlock_t::writers_waiting) == 1; }));
    bool const got = rw.try_slock();
    EXPECT_EQ(got, !writers_first);
    if (got) rw.unlock();
    std::thread reader([&] {
        rw.slock();
        note('R');
        rw.unlock();
        reader_done = 1;
    });
    if (writers_first) {
        ASSERT_TRUE(eventually([&] { return fields(rw, &rwlock_t::readers_waiting) == 1; }));
        EXPECT_EQ(writer_done.load() + reader_done.load(), 0);
    } else {
        ASSERT_TRUE(eventually([&] { return reader_done.load() == 1; }));
        EXPECT_EQ(writer_done.load(), 0);
    }
    rw.unlock();
    writer.join();
    reader.join();
    EXPECT_EQ(order, writers_first ? "WR" : "RW");
    EXPECT_EQ(rw.state, 0);
}

// Readers and writers hammer one lock; a writer never overlaps anybody.
void hammer_rwlock() {
    rwlock_t rw;
    std::atomic<int> readers_in(0), writers_in(0), overlaps(0);
    long writes = 0;
    q_uint64_t const s0 = d::rwlock::stake, x0 = d::rwlock::xtake, f0 = d::rwlock::free;
    int const threads = 4, rounds = 2000;
    std::atomic<q_uint64_t> shared_taken(0), exclusive_taken(0);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                if ((i + t) % 3 == 0) {
                    if (i % 2 ? rw.try_xlock() : (rw.xlock(), true)) {
                        if (writers_in.fetch_add(1) != 0 || readers_in.load() != 0) ++overlaps;
                        ++writes;
                        writers_in.fetch_sub(1);
                        ++exclusive_taken;
                        rw.unlock();
                    }
                } else if (i % 2 ? rw.try_slock() : (rw.slock(), true)) {
                    readers_in.fetch_add(1);
                    if (writers_in.load() != 0) ++overlaps;
                    readers_in.fetch_sub(1);
                    ++shared_taken;
                    rw.unlock();
                }
            }
        });
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(static_cast<q_uint64_t>(writes), exclusive_taken.load());
    q_uint64_t stakes = 0, xtakes = 0;
    for (int t = 0; t < threads; ++t) {
        for (int i = 0; i < rounds; ++i) ((i + t) % 3 == 0 ? xtakes : stakes)++;
    }
    EXPECT_EQ(d::rwlock::stake - s0, stakes);
    EXPECT_EQ(d::rwlock::xtake - x0, xtakes);
    EXPECT_EQ(d::rwlock::free - f0, shared_taken + exclusive_taken);
    EXPECT_EQ(rw.state, 0);
    EXPECT_EQ(rw.readers_waiting + rw.writers_waiting, 0);
}

TEST(Syncers, MutexHammerCountsAndErrors) {
    EXPECT_EQ(mutex_t::type, 2);
    EXPECT_STREQ(mutex_t::type_name, "default errorcheck");
    q_uint64_t const c0 = d::mutex::ctor, dt0 = d::mutex::dtor, t0 = d::mutex::take, f0 = d::mutex::free;
    d::counter_t const snapshot = d::mutex::take;
    long shared = 0, tries = 0;
    {
        mutex_t m;
        int const threads = 4, rounds = 5000;
        std::atomic<long> taken(0), attempts(0);
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&] {
                for (int i = 0; i < rounds; ++i) {
                    if (i % 4 == 0) {
                        ++attempts;
                        if (!m.try_xlock()) continue;
                    } else {
                        m.xlock();
                    }
                    ++shared;
                    ++taken;
                    m.unlock();
                }
            });
        }
        for (auto& th : pool) th.join();
        EXPECT_EQ(shared, taken.load());
        tries = attempts.load();
        EXPECT_EQ(d::mutex::take - t0, static_cast<q_uint64_t>(threads * rounds));
        EXPECT_EQ(d::mutex::free - f0, static_cast<q_uint64_t>(taken.load()));
        EXPECT_EQ(snapshot.load(), t0);  // a copy keeps its moment

        // Busy from another thread: false, and still one more take.
        m.xlock();
        q_uint64_t const t1 = d::mutex::take;
        bool busy = true;
        std::thread([&] { busy = m.try_xlock(); }).join();
        EXPECT_FALSE(busy);
        EXPECT_EQ(d::mutex::take - t1, 1u);
        // The owner relocks an error-checking mutex: dead-lock error.
        EXPECT_EQ(thrown_text([&] { m.xlock(); }), "unable to lock mutex because of " + system_text(EDEADLK));
        m.unlock();
#if !SYNCERS_TSAN
        // Releasing a mutex nobody holds (the sanitizer reports the misuse
        // itself, so this case runs only without it).
        EXPECT_EQ(thrown_text([&] { m.unlock(); }), "unable to unlock mutex because od " + system_text(EPERM));
#endif
    }
    EXPECT_GT(tries, 0);
    EXPECT_EQ(d::mutex::ctor - c0, 1u);
    EXPECT_EQ(d::mutex::dtor - dt0, 1u);
}

// More threads alive at once than there are counter slots, twice over: the
// last ones count through the shared slot, and the second generation takes
// over slots given back by the first. Not a count may be lost.
TEST(Syncers, CountersExactBeyondTheSlots) {
    q_uint64_t const t0 = d::mutex::take, f0 = d::mutex::free;
    mutex_t m;
    int const threads = 160, rounds = 50;
    long inside = 0;
    for (int generation = 1; generation <= 2; ++generation) {
        std::mutex gate_guard;
        std::condition_variable gate;
        int arrived = 0;
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&] {
                {
                    std::unique_lock<std::mutex> hold(gate_guard);
                    if (++arrived == threads) gate.notify_all();
                    gate.wait(hold, [&] { return arrived == threads; });
                }
                for (int i = 0; i < rounds; ++i) {
                    m.xlock();
                    ++inside;
                    m.unlock();
                }
            });
        }
        for (auto& th : pool) th.join();
        q_uint64_t const expected = static_cast<q_uint64_t>(generation) * threads * rounds;
        EXPECT_EQ(d::mutex::take - t0, expected);
        EXPECT_EQ(d::mutex::free - f0, expected);
        EXPECT_EQ(static_cast<q_uint64_t>(inside), expected);
    }
}

TEST(Syncers, CondvarWaitsAndErrors) {
    q_uint64_t const c0 = d::condvar::ctor, t0 = d::condvar::take, f0 = d::condvar::free;
    mutex_t m;
    condvar_t one(false), all(true);
    EXPECT_EQ(d::condvar::ctor - c0, 2u);
    m.xlock();
    // A deadline in the past and a short one both time out quietly.
    EXPECT_FALSE(one.wait(m, kern::time::now() - timegap_t(1, 0)));
    EXPECT_FALSE(one.wait(m, kern::time::now() + milliseconds(5)));
    EXPECT_FALSE(all.wait(m, timestamp_t()));
    m.unlock();
    EXPECT_EQ(d::condvar::take - t0, 3u);

    // Broadcast wakes every waiter.
    int arrived = 0, released = 0;
    bool go = false;
    std::vector<std::thread> pool;
    for (int i = 0; i < 3; ++i) {
        pool.emplace_back([&] {
            xlocker_t<mutex_t> hold(m);
            ++arrived;
            while (!go) all.wait(m, timestamp_t::infinite());
            ++released;
        });
    }
    ASSERT_TRUE(eventually([&] { xlocker_t<mutex_t> h(m); return arrived == 3; }));
    {
        xlocker_t<mutex_t> hold(m);
        go = true;
        all.signal();
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(released, 3);
    EXPECT_EQ(d::condvar::free - f0, 1u);

#if !SYNCERS_TSAN
    // Waiting without holding an error-checking mutex fails in the system.
    EXPECT_EQ(thrown_text([&] { one.wait(m); }), "unable to wait on conditional variable");
    EXPECT_EQ(thrown_text([&] { one.wait(m, timestamp_t::infinite()); }), "pthread_cond_wait retcode " + std::to_string(EPERM));
    EXPECT_EQ(thrown_text([&] { one.wait(m, kern::time::now() + timegap_t(1, 0)); }),
              "pthread_cond_timedwait retcode " + std::to_string(EPERM));
#endif
}

TEST(Syncers, SemaphoreCountsQuirksAndTimeouts) {
    q_uint64_t const c0 = d::semaphore::ctor, t0 = d::semaphore::take, f0 = d::semaphore::free;
    q_uint64_t const mc0 = d::mutex::ctor, cc0 = d::condvar::ctor;
    {
        semaphore_t two(2);
        EXPECT_TRUE(two.try_wait());
        EXPECT_TRUE(two.try_wait());
        EXPECT_FALSE(two.try_wait());
        // A negative count hands out units and goes further down.
        semaphore_t negative(-1);
        EXPECT_TRUE(negative.try_wait());
        EXPECT_TRUE(negative.try_wait());
        EXPECT_EQ(negative.count, -3);
        EXPECT_EQ(d::semaphore::take - t0, 5u);
        // A finite relative wait counts twice, an absolute one once.
        semaphore_t none(0);
        q_uint64_t const t1 = d::semaphore::take;
        EXPECT_FALSE(none.wait(milliseconds(5)));
        EXPECT_EQ(d::semaphore::take - t1, 2u);
        EXPECT_FALSE(none.wait(kern::time::now() + milliseconds(5)));
        EXPECT_EQ(d::semaphore::take - t1, 3u);
        none.post();
        EXPECT_TRUE(none.wait(timegap_t::infinite()));
        EXPECT_EQ(d::semaphore::take - t1, 4u);
        EXPECT_EQ(d::semaphore::ctor - c0, 3u);
        EXPECT_EQ(d::mutex::ctor - mc0, 3u);
        EXPECT_EQ(d::condvar::ctor - cc0, 3u);
    }

    // Producers and consumers: every unit is taken exactly once.
    semaphore_t units(0);
    int const producers = 2, consumers = 2, per = 3000;
    std::atomic<long> consumed(0), waits(0);
    q_uint64_t const t2 = d::semaphore::take, f2 = d::semaphore::free;
    std::vector<std::thread> pool;
    for (int p = 0; p < producers; ++p) {
        pool.emplace_back([&] {
            for (int i = 0; i < per; ++i) units.post();
        });
    }
    for (int c = 0; c < consumers; ++c) {
        pool.emplace_back([&, c] {
            for (int i = 0; i < producers * per / consumers; ++i) {
                if (c == 0) {
                    ++waits;
                    units.wait(timegap_t::infinite());
                } else {
                    do ++waits;
                    while (!units.try_wait());
                }
                ++consumed;
            }
        });
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(consumed.load(), producers * per);
    EXPECT_EQ(units.count, 0);
    EXPECT_FALSE(units.try_wait());
    EXPECT_EQ(d::semaphore::take - t2, static_cast<q_uint64_t>(waits.load()) + 1);
    EXPECT_EQ(d::semaphore::free - f2, static_cast<q_uint64_t>(producers * per));
    EXPECT_EQ(d::semaphore::free - f0, static_cast<q_uint64_t>(producers * per) + 1);
}

TEST(Syncers, EventWakesOneWaiterPerSignal) {
    q_uint64_t const t0 = d::event::take, f0 = d::event::free, ct0 = d::condvar::take;
    event_t manual(false, true);
    std::atomic<int> released(0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            EXPECT_TRUE(manual.wait(timegap_t::infinite()));
            ++released;
        });
    }
    // Both are inside their condition wait once they have counted it: the
    // count is taken under the event's mutex, which the wait gives up.
    ASSERT_TRUE(eventually([&] { return d::condvar::take - ct0 >= 2; }));
    manual.signal();
    ASSERT_TRUE(eventually([&] { return released.load() >= 1; }));
    usleep(50000);
    EXPECT_EQ(released.load(), 1);  // one signal, one waiter
    manual.signal();
    for (auto& th : waiters) th.join();
    EXPECT_EQ(released.load(), 2);
    // Set and manual: later arrivals pass until reset().
    std::thread([&] { EXPECT_TRUE(manual.wait(timegap_t::infinite())); }).join();
    EXPECT_TRUE(manual.try_wait());
    EXPECT_TRUE(manual.try_wait());
    q_uint64_t const f1 = d::event::free, t1 = d::event::take;
    manual.reset();
    EXPECT_EQ(d::event::free - f1 + d::event::take - t1, 0u);  // reset() counts nothing
    EXPECT_FALSE(manual.try_wait());
    EXPECT_FALSE(manual.wait(milliseconds(5)));
    EXPECT_EQ(d::event::take - t0, 8u);  // 3 endless waits, 3 tries, 1 finite relative (twice)
    EXPECT_EQ(d::event::free - f0, 2u);

    // Auto-reset: each signal lets exactly one wait through.
    event_t ping(true, false), pong(false, false);
    EXPECT_TRUE(ping.try_wait());
    EXPECT_FALSE(ping.try_wait());
    EXPECT_FALSE(pong.wait(kern::time::now() + milliseconds(5)));
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
        EXPECT_TRUE(pong.wait(timestamp_t::infinite()));
        EXPECT_EQ(worked, i + 1);
    }
    partner.join();
}

TEST(Syncers, RwlockPreferenceHammerAndHolders) {
    EXPECT_EQ(rwlock_t::write_prefered, getenv("QVLSRV_RWLOCK_READPREFERED") != nullptr);
    q_uint64_t const c0 = d::rwlock::ctor, mc0 = d::mutex::ctor, cc0 = d::condvar::ctor;
    {
        rwlock_t rw;
        EXPECT_EQ(d::rwlock::ctor - c0, 1u);
        EXPECT_EQ(d::mutex::ctor - mc0, 1u);
        EXPECT_EQ(d::condvar::ctor - cc0, 2u);
        EXPECT_TRUE(rw.readers.broadcast);
        EXPECT_FALSE(rw.writers.broadcast);
        // Unlocking a free lock changes nothing and does not complain.
        rw.unlock();
        EXPECT_EQ(rw.state, 0);
        EXPECT_TRUE(rw.try_slock());
        EXPECT_TRUE(rw.try_slock());
        EXPECT_EQ(rw.state, 2);
        EXPECT_FALSE(rw.try_xlock());
        rw.unlock();
        rw.unlock();
        {
            auto held = std::make_shared<xlocker_t<rwlock_t>>(rw);
            EXPECT_EQ(rw.state, -1);
            EXPECT_FALSE(rw.try_slock());
            auto second = held;
            held.reset();
            EXPECT_EQ(rw.state, -1);  // released with the last holder
        }
        EXPECT_EQ(rw.state, 0);
    }
    check_preference(rwlock_t::write_prefered);
    hammer_rwlock();

    // late_locker_t unlocks once, and never when it was not filled.
    mutex_t m;
    q_uint64_t const f0 = d::mutex::free;
    {
        late_locker_t<mutex_t> never;
        never.release();
    }
    EXPECT_EQ(d::mutex::free - f0, 0u);
    {
        late_locker_t<mutex_t> late;
        late.xlock(m);
        EXPECT_EQ(late.get(), &m);
        bool busy = true;
        std::thread([&] { busy = m.try_xlock(); }).join();
        EXPECT_FALSE(busy);
        late.release();
        EXPECT_EQ(late.get(), nullptr);
        late.release();
        EXPECT_EQ(d::mutex::free - f0, 1u);
        m.xlock();
        late.adopt(m);
    }
    EXPECT_EQ(d::mutex::free - f0, 2u);
    EXPECT_TRUE(m.try_xlock());
    m.unlock();
}

TEST(Syncers, SettingsFromTheEnvironment) {
    if (in_child()) GTEST_SKIP() << "parent-only";
    struct {
        char const* value;
        char const* type;
        char const* name;
    } const kinds[] = {{"recursive", "1", "recursive"},
                       {"Recursive", "1", "Recursive"},
                       {"fast", "2", "default errorcheck"},
                       {"NORMAL", "0", "NORMAL"},
                       {"adaptive", "3", "adaptive"},
                       {"", "2", "default errorcheck"}};
    for (auto const& k : kinds) {
        EXPECT_EQ(run_child("SyncersChild.MutexKind",
                            {std::string("QVLSRV_MUTEX_TYPE=") + k.value, std::string("SYNCERS_CHILD_TYPE=") + k.type,
                             std::string("SYNCERS_CHILD_NAME=") + k.name}),
                  0)
            << k.value;
    }
    // Present, even empty: writers preferred.
    EXPECT_EQ(run_child("SyncersChild.WritersPreferred", {"QVLSRV_RWLOCK_READPREFERED="}), 0);
}

TEST(SyncersChild, MutexKind) {
    if (!in_child()) GTEST_SKIP() << "run by SettingsFromTheEnvironment";
    EXPECT_EQ(mutex_t::type, atoi(getenv("SYNCERS_CHILD_TYPE")));
    EXPECT_STREQ(mutex_t::type_name, getenv("SYNCERS_CHILD_NAME"));
    EXPECT_FALSE(rwlock_t::write_prefered);
    if (mutex_t::type == 1) {
        mutex_t m;
        m.xlock();
        m.xlock();
        m.unlock();
        m.unlock();
    }
}

TEST(SyncersChild, WritersPreferred) {
    if (!in_child()) GTEST_SKIP() << "run by SettingsFromTheEnvironment";
    ASSERT_TRUE(rwlock_t::write_prefered);
    check_preference(true);
    hammer_rwlock();
}

TEST(Syncers, StatisticReport) {
    if_logger_t* const saved = if_logger_t::Log;
    char path[] = "/tmp/syncers_test_XXXXXX";
    int const fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    if_logger_t* logger = fd_logger_t::create(fd);
    if_logger_t::Log = logger;
    logger->set_level(if_logger_t::NOTICE);
    mutex_t m;
    m.xlock();  // one more "locked now"
    q_uint64_t const ctor0 = d::mutex::ctor;
    log_syncers_stat();
    q_uint64_t const ctor1 = d::mutex::ctor;
    logger->set_level(if_logger_t::WARNING);
    log_syncers_stat();  // NOTICE is off: nothing
    m.unlock();
    if_logger_t::Log = saved;
    delete logger;

    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0) text.append(buf, n);
    close(fd);
    std::istringstream lines(text);
    std::string line;
    std::vector<std::string> got;
    while (std::getline(lines, line)) {
        std::size_t const at = line.find("[Sync]");
        got.push_back(at == std::string::npos ? line : line.substr(at));
    }
    ASSERT_EQ(got.size(), 5u) << text;
    auto pattern = [](std::string const& s) {  // digits folded to '#'
        std::string out;
        for (char c : s) {
            if (c >= '0' && c <= '9') {
                if (out.empty() || out.back() != '#') out += '#';
            } else {
                out += c;
            }
        }
        return out;
    };
    EXPECT_EQ(pattern(got[0]), "[Sync] Mutex: # total, # locks; # existing, # locked now");
    EXPECT_EQ(pattern(got[1]), "[Sync] Condvar: # existing; # total, # signals, # waits");
    EXPECT_EQ(pattern(got[2]), "[Sync] Event: # existing; # total, # signals, # waits");
    EXPECT_EQ(pattern(got[3]), "[Sync] Semaphore: # existing; # total, # posts, # waits");
    EXPECT_EQ(pattern(got[4]), "[Sync] R/W Lock: # existing; # total, # signals, # s-waits, # x-waits");
    // The mutex line's figures are the counters and their differences.
    unsigned long long total, locks, existing, locked;
    ASSERT_EQ(sscanf(got[0].c_str(), "[Sync] Mutex: %llu total, %llu locks; %llu existing, %llu locked now", &total,
                     &locks, &existing, &locked),
              4);
    EXPECT_GE(total, ctor0);
    EXPECT_LE(total, ctor1);
    EXPECT_GE(total, existing);
    EXPECT_GE(locks, locked);
    EXPECT_GE(locked, 1u);
}

}  // namespace
