#include "syncers.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "exceptions.h"
#include "test-support.h"

namespace d = kern::syncers::detail;

// Polls until f() holds; false after about 30 seconds.
static bool eventually(std::function<bool()> f) {
    for (int i = 0; i < 30000 && !f(); ++i) usleep(1000);
    return f();
}

using test_support::on_threads;

static timegap_t ms(long n) { return timegap_t(n, -3); }
static std::string sys_text(int code) { return std::string(strerror(code)) + " (errno=" + std::to_string(code) + ")"; }

static std::string thrown(std::function<void()> f) {
    try { f(); } catch (q_exception_t_shell_t const& e) { return e.what(); }
    return "(nothing thrown)";
}

// A reader arrives while a reader holds the lock and a writer waits: with readers preferred it gets in at once, with
// writers preferred only after the writer has come and gone. Then readers and writers hammer the lock.
static void check_rwlock(bool writers_first) {
    rwlock_t rw;
    std::string order;  // written under rw itself
    std::atomic<int> done(0);
    auto visit = [&](bool exclusive, char tag) {
        exclusive ? rw.xlock() : rw.slock();
        order += tag;
        rw.unlock();
        ++done;
    };
    rw.slock();
    std::thread writer(visit, true, 'W');
    auto waiting = [&](std::int32_t rwlock_t::*field) { xlocker_t<mutex_t> hold(rw.guard); return rw.*field; };
    ASSERT_TRUE(eventually([&] { return waiting(&rwlock_t::writers_waiting) == 1; }));
    EXPECT_EQ(!writers_first, rw.try_slock() && (rw.unlock(), true));
    std::thread reader(visit, false, 'R');
    ASSERT_TRUE(eventually([&] { return writers_first ? waiting(&rwlock_t::readers_waiting) == 1 : done == 1; }));
    rw.unlock();
    writer.join();
    reader.join();
    EXPECT_EQ(order, writers_first ? "WR" : "RW");

    std::atomic<int> readers_in(0), writers_in(0), overlaps(0);
    std::atomic<q_uint64_t> held(0), exclusive(0);
    q_uint64_t const s0 = d::rwlock::stake, x0 = d::rwlock::xtake, f0 = d::rwlock::free;
    int const threads = 4, rounds = 2000;
    on_threads(threads, [&](int t) {
        for (int i = 0; i < rounds; ++i) {
            bool const x = (i + t) % 3 == 0, blocking = i % 2 == 0;
            exclusive += x;
            if (blocking) x ? rw.xlock() : rw.slock();
            else if (!(x ? rw.try_xlock() : rw.try_slock())) continue;
            (x ? writers_in : readers_in) += 1;
            overlaps += x ? writers_in + readers_in != 1 : writers_in != 0;
            (x ? writers_in : readers_in) -= 1;
            ++held;
            rw.unlock();
        }
    });
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(d::rwlock::xtake - x0, exclusive.load());
    EXPECT_EQ(d::rwlock::stake - s0, threads * rounds - exclusive.load());
    EXPECT_EQ(d::rwlock::free - f0, held.load());
    EXPECT_EQ(rw.state + rw.readers_waiting + rw.writers_waiting, 0);
}

TEST(Syncers, MutexCountsExactlyBeyondTheSlotsAndReportsErrors) {
    q_uint64_t const t0 = d::mutex::take, f0 = d::mutex::free;
    d::counter_t const snapshot = d::mutex::take;
    // More threads alive at once than there are counter slots, twice: the last ones share a slot, the second
    // generation takes over slots the first gave back. Not a count may be lost.
    mutex_t m;
    long inside = 0;  // counted under m: a lost exclusion loses updates
    int const threads = 160, rounds = 50;
    for (int generation = 1; generation <= 2; ++generation) {
        on_threads(threads, [&](int) {
            for (int i = 0; i < rounds; ++i)
                if (i % 5 == 0 ? m.try_xlock() : (m.xlock(), true)) ++inside, m.unlock();
        });
        EXPECT_EQ(d::mutex::take - t0, static_cast<q_uint64_t>(generation * threads * rounds));
        EXPECT_EQ(d::mutex::free - f0, static_cast<q_uint64_t>(inside));
    }
    EXPECT_EQ(snapshot.load(), t0);  // a copy keeps its moment

    m.xlock();
    q_uint64_t const t1 = d::mutex::take;
    std::thread([&] { EXPECT_FALSE(m.try_xlock()); }).join();  // busy elsewhere: false, and still one more take
    EXPECT_EQ(d::mutex::take - t1, 1u);
    EXPECT_EQ(thrown([&] { m.xlock(); }), "unable to lock mutex because of " + sys_text(EDEADLK));
    m.unlock();
#ifndef __SANITIZE_THREAD__  // which reports the misuse itself
    EXPECT_EQ(thrown([&] { m.unlock(); }), "unable to unlock mutex because od " + sys_text(EPERM));
#endif
}

TEST(Syncers, CondvarTimeoutsBroadcastAndErrors) {
    q_uint64_t const t0 = d::condvar::take, f0 = d::condvar::free;
    mutex_t m;
    condvar_t one(false), all(true);
    m.xlock();
    EXPECT_FALSE(one.wait(m, kern::time::now() - timegap_t(1, 0)) || one.wait(m, kern::time::now() + ms(5)) ||
                 all.wait(m, timestamp_t()));
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
    EXPECT_TRUE(d::condvar::free - f0 == 1 && d::condvar::take - t0 >= 6);
#ifndef __SANITIZE_THREAD__  // which reports the misuse itself
    // Waiting without holding an error-checking mutex fails in the system.
    EXPECT_EQ(thrown([&] { one.wait(m); }), "unable to wait on conditional variable");
    EXPECT_EQ(thrown([&] { one.wait(m, timestamp_t::infinite()); }), "pthread_cond_wait retcode 1");
    EXPECT_EQ(thrown([&] { one.wait(m, kern::time::now() + timegap_t(1, 0)); }), "pthread_cond_timedwait retcode 1");
#endif
}

TEST(Syncers, SemaphoreQuirksTimeoutsAndHammer) {
    q_uint64_t const t0 = d::semaphore::take;
    semaphore_t two(2), negative(-1), none(0);
    EXPECT_TRUE(two.try_wait() && two.try_wait() && !two.try_wait());
    // Non-zero, not positive: a negative count hands out units.
    EXPECT_TRUE(negative.try_wait() && negative.try_wait() && negative.count == -3);
    EXPECT_EQ(d::semaphore::take - t0, 5u);
    EXPECT_FALSE(none.wait(ms(5)));  // a finite relative wait counts twice
    EXPECT_EQ(d::semaphore::take - t0, 7u);
    none.post();
    EXPECT_TRUE(none.wait(timegap_t::infinite()));
    EXPECT_EQ(d::semaphore::take - t0, 8u);

    // Two producers, a blocking and a polling consumer: each unit once.
    int const per = 3000;
    std::atomic<long> waits(0);
    q_uint64_t const t1 = d::semaphore::take, f1 = d::semaphore::free;
    on_threads(4, [&](int t) {
        for (int i = 0; i < per; ++i)
            if (t < 2) none.post();
            else do ++waits; while (t == 2 ? !none.wait(timegap_t::infinite()) : !none.try_wait());
    });
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
    // Each waiter counts its condition wait under the event's mutex: once both counted, both block.
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
    manual.reset();  // counts nothing
    EXPECT_FALSE(manual.try_wait());
    EXPECT_FALSE(manual.wait(ms(5)));
    EXPECT_EQ(d::event::take - t0, 7u);  // 3 endless waits, 2 tries, 1 finite relative wait counted twice
    EXPECT_EQ(d::event::free - f0, 2u);

    // Auto-reset ping-pong: each signal lets exactly one wait through.
    event_t ping(true, false), pong(false, false);
    EXPECT_TRUE(ping.try_wait() && !ping.try_wait());
    int const rounds = 2000;
    std::atomic<int> worked(0), lost(0);
    std::thread partner([&] {
        for (int i = 0; i < rounds; ++i) ping.wait(timegap_t::infinite()), ++worked, pong.signal();
    });
    for (int i = 0; i < rounds; ++i) ping.signal(), lost += !pong.wait(timestamp_t::infinite()) || worked != i + 1;
    partner.join();
    EXPECT_EQ(lost.load(), 0);
}

// A time-out that takes the deadline past the last tick waits for ever; one that takes it before 1970 is over at
// once. Neither is an error.
TEST(Syncers, FarTimeOutsSaturate) {
    event_t ev(false, false);
    semaphore_t sem(0);
    struct { std::function<bool(timegap_t)> wait; std::function<void()> wake; } const cases[] = {
        {[&](timegap_t t) { return ev.wait(t); }, [&] { ev.signal(); }},
        {[&](timegap_t t) { return sem.wait(t); }, [&] { sem.post(); }},
    };
    for (auto const& c : cases) {
        bool woken = true;
        EXPECT_EQ(thrown([&] { woken = c.wait(timegap_t(INT64_MIN)); }), "(nothing thrown)");
        EXPECT_FALSE(woken);
        q_uint64_t const t0 = d::condvar::take;
        std::string text;
        std::thread waiter([&] { text = thrown([&] { woken = c.wait(timegap_t(INT64_MAX - 1)); }); });
        // Counted under the primitive's mutex: from then on the waiter waits, or has failed.
        ASSERT_TRUE(eventually([&] { return d::condvar::take != t0; }));
        c.wake();
        waiter.join();
        EXPECT_TRUE(text == "(nothing thrown)" && woken) << text;
    }
}

TEST(Syncers, RwlockAndHolders) {
    rwlock_t rw;
    rw.unlock();  // on a free lock: no change, no complaint
    EXPECT_EQ(rw.state, 0);
    EXPECT_TRUE(rw.try_slock() && rw.try_slock() && rw.state == 2);
    EXPECT_FALSE(rw.try_xlock());
    rw.unlock();
    rw.unlock();
    auto held = std::make_shared<xlocker_t<rwlock_t>>(rw);
    auto second = held;
    held.reset();
    EXPECT_EQ(rw.state, -1);
    second.reset();  // the last holder lets go
    EXPECT_EQ(rw.state, 0);
    check_rwlock(rwlock_t::write_prefered);

    // late_locker_t unlocks once, and never when it was not filled.
    mutex_t m;
    q_uint64_t const f0 = d::mutex::free;
    late_locker_t<mutex_t>().release();
    {
        late_locker_t<mutex_t> late;
        late.xlock(m);
        late.release();
        late.release();
        EXPECT_TRUE(late.get() == nullptr && d::mutex::free - f0 == 1);
        m.xlock();
        late.adopt(m);
    }
    EXPECT_EQ(d::mutex::free - f0, 2u);
    EXPECT_TRUE(m.try_xlock());
    m.unlock();
}

// QVLSRV_RWLOCK_READPREFERED is read at load, so a child with it present, even empty, runs the reader and writer race
// with writers preferred.
TEST(Syncers, WritersPreferredFromTheEnvironment) {
    if (!test_support::in_child({"QVLSRV_RWLOCK_READPREFERED="})) return;
    ASSERT_TRUE(rwlock_t::write_prefered);
    check_rwlock(true);
}

TEST(Syncers, StatisticReport) {
    test_support::record_logger_t log(if_logger_t::NOTICE);
    log_syncers_stat();
    // Every figure in its place; nothing counts meanwhile.
    using namespace d;
    auto n = [](q_uint64_t v) { return std::to_string(v); };
    EXPECT_EQ(log.lines, (std::vector<std::string>{
        "3 [Sync] Mutex: " + n(mutex::ctor) + " total, " + n(mutex::take) + " locks; " + n(mutex::ctor - mutex::dtor) +
            " existing, " + n(mutex::take - mutex::free) + " locked now",
        "3 [Sync] Condvar: " + n(condvar::ctor - condvar::dtor) + " existing; " + n(condvar::ctor) + " total, " +
            n(condvar::free) + " signals, " + n(condvar::take) + " waits",
        "3 [Sync] Event: " + n(event::ctor - event::dtor) + " existing; " + n(event::ctor) + " total, " +
            n(event::free) + " signals, " + n(event::take) + " waits",
        "3 [Sync] Semaphore: " + n(semaphore::ctor - semaphore::dtor) + " existing; " + n(semaphore::ctor) +
            " total, " + n(semaphore::free) + " posts, " + n(semaphore::take) + " waits",
        "3 [Sync] R/W Lock: " + n(rwlock::ctor - rwlock::dtor) + " existing; " + n(rwlock::ctor) + " total, " +
            n(rwlock::free) + " signals, " + n(rwlock::stake) + " s-waits, " + n(rwlock::xtake) + " x-waits"}));
}

#ifndef QVLKERN_SANITIZED
// Every operator new of the process, library included, counted for the calling thread (the sanitizers bring their own
// allocator, so not there). GCC sees the malloc/free pairs inlined into new/delete pairs and warns.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static thread_local long t_news = 0;
void* operator new(std::size_t n) {
    ++t_news;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

// Locking, waiting and signalling never allocate, time-outs included.
TEST(Syncers, NoAllocationOnLockWaitOrSignal) {
    mutex_t m;
    rwlock_t rw;
    condvar_t cv(false);
    event_t ev(false, false);
    semaphore_t sem(0);
    auto round = [&] {
        m.xlock();
        EXPECT_FALSE(cv.wait(m, kern::time::now() + ms(1)));
        cv.signal(), m.unlock();
        EXPECT_TRUE(m.try_xlock() && (m.unlock(), true));
        rw.slock();
        EXPECT_TRUE(rw.try_slock());
        rw.unlock(), rw.unlock(), rw.xlock(), rw.unlock();
        EXPECT_TRUE(rw.try_xlock() && (rw.unlock(), true));
        ev.signal();
        EXPECT_TRUE(ev.wait(ms(1)) && !ev.try_wait() && !ev.wait(ms(1)));
        sem.post();
        EXPECT_TRUE(sem.try_wait() && !sem.wait(ms(1)));
        xlocker_t<mutex_t> hold(m);
    };
    round();  // the thread's first counts claim its counter slot
    long const before = t_news;
    for (int i = 0; i < 3; ++i) round();
    EXPECT_EQ(t_news, before);
}
#endif
