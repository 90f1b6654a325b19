// Tests of the logger interface, descriptor, syslog and chain loggers and init_logger: memfds, pipes, child processes
// and a real syslog socket.
#include "loggers.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "dynamic_library.h"
#include "exceptions.h"
#include "lwp.h"
#include "runnable.h"
#include "test-support.h"

namespace {

using strings = std::vector<std::string>;

// The message after a prefix that names the thread noname.
std::string body(std::string const& line) {
    size_t const p = line.find("] noname ");
    return p == std::string::npos ? "<no prefix: " + line + ">" : line.substr(p + 9);
}

// The lines less their 18-character time stamps, or less the whole prefix.
strings tails(strings v, bool whole = false) {
    for (std::string& s : v) s = whole ? body(s) : s.erase(0, 18);
    return v;
}

// A descriptor to log into and read back line by line.
struct memfile_t {
    int fd = memfd_create("log", MFD_CLOEXEC);
    ~memfile_t() { close(fd); }
    strings lines() const {
        std::ifstream in("/proc/self/fd/" + std::to_string(fd));
        strings out;
        for (std::string s; std::getline(in, s);) out.push_back(s);
        return out;
    }
};

// Keeps what is written (base format: no line end); tells when destroyed.
struct record_logger_t : if_logger_t {
    explicit record_logger_t(bool* gone = nullptr) : if_logger_t(INFO), gone(gone) {}
    ~record_logger_t() override { gone && (*gone = true); }
    bool is_stderr() const override { return false; }
    size_t write(char const* t) override { return lines.push_back(t), std::strlen(t); }
    strings lines;
    bool* gone;
};

// Records each call as "type: text @the level seen meanwhile".
struct counting_handler_t : if_logger_error_t {
    void notify(if_logger_t* l, error_type_t type, std::string const& text) override {
        calls.push_back(q_format("%d: %s @%d", int(type), text.c_str(), l->get_level()));
        l->log_CRIT("from the handler");  // dropped: the level is -1 meanwhile
        if (throws) throw std::runtime_error("handler failed");
    }
    strings calls;
    bool throws = false;
};

// Restores the process logger and the generation.
struct log_guard_t {
    if_logger_t* saved = if_logger_t::Log;
    q_uint32_t gen = if_logger_t::generation;
    ~log_guard_t() { if_logger_t::Log = saved, if_logger_t::generation = gen; }
};

std::string ids() { return q_format("[%05d %05ld", getpid() % 100000, syscall(SYS_gettid) % 100000); }

std::string bug_text(std::function<void()> const& f) {
    try { f(); } catch (BUG_exception_shell_t const& e) { return e.what(); }
    return "<no BUG_exception>";
}

// Appends through format (class c) or, for c < 0, format_user.
void format_with(if_logger_t& l, int c, std::string& out, char const* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    c < 0 ? l.format_user(out, fmt, ap) : l.format(c, out, fmt, ap);
    va_end(ap);
}

TEST(LoggerLevels, NamesAcronymsAndFilter) {
    char const* names[] = {"CRIT",   "ERROR",  "WARNING", "NOTICE", "INFO",   "TRACE", "TRACE1",
                           "TRACE2", "TRACE3", "DEBUG",   "DEBUG1", "DEBUG2", "DEBUG3"};
    char const* acr[] = {"FTL", "ERR", "wrn", "ntc", "inf", "tr0", "tr1", "tr2", "tr3", "db0", "db1", "db2", "db3"};
    for (int i = 0; i < 13; ++i) {
        int v = -5, a = -5;
        EXPECT_STREQ(if_logger_t::translate_loglevel(i), names[i]);
        EXPECT_STREQ(if_logger_t::severity(i), acr[i]);
        EXPECT_TRUE(if_logger_t::translate_loglevel(names[i], v) && v == i) << names[i];
        EXPECT_TRUE(if_logger_t::translate_loglevel_acronym(lstr_t(acr[i]), a) && a == i) << acr[i];
    }
    for (int c : {13, -1}) {
        EXPECT_STREQ(if_logger_t::translate_loglevel(c), "ALL");
        EXPECT_STREQ(if_logger_t::severity(c), "db3");  // not "unk"
    }
    int v = -5;
    for (char const* bad : {"fatal", "INFO ", "", static_cast<char const*>(nullptr)})
        EXPECT_FALSE(if_logger_t::translate_loglevel(bad, v));
    EXPECT_EQ(v, -5);
    EXPECT_FALSE(if_logger_t::translate_loglevel_acronym(lstr_t("db"), v));
    EXPECT_TRUE(if_logger_t::translate_loglevel("all", v) && v == 12);
    EXPECT_TRUE(if_logger_t::translate_loglevel("Debug", v) && v == 9);
    EXPECT_TRUE(if_logger_t::translate_loglevel_acronym(lstr_t("UNK"), v) && v == 13);
    EXPECT_TRUE(if_logger_t::translate_loglevel_acronym(lstr_t("DB3"), v) && v == 12);

    record_logger_t l;
    for (int c = 0; c <= 12; ++c) EXPECT_EQ(l.is_logged(c), c <= 4) << c;
    l.set_level(-1);
    l.log_CRIT("x");
    l.set_level(12);
    l.log(12, "all %d", 12);
    EXPECT_EQ(l.lines.size(), 1u);
}

// format_user has a fast path of its own: the general formatter is the reference. The text is appended to one already
// there.
#define EXPECT_SAME_TEXT(...)                                        \
    do {                                                             \
        std::string got("pre:"), want;                               \
        format_with(logger_init_t::s_simple_, -1, got, __VA_ARGS__); \
        q_format(want, __VA_ARGS__);                                 \
        EXPECT_EQ(got, "pre:" + want) << #__VA_ARGS__;               \
    } while (0)

TEST(LoggerFormat, MessageTextAsPrintfMakesIt) {
    EXPECT_SAME_TEXT("%d %i %u|%ld %lu|%lld %llu|%zd %zu", -5, 0, 4294967295u, -9223372036854775807L - 1,
                     18446744073709551615UL, -1LL, 1ULL, ssize_t(-3), size_t(7));
    EXPECT_SAME_TEXT("%s=%.*s %.3s %.*s%c%%|%.0s|%c|end", "k", 2, "value", "ab", -1, "neg", 'x', "gone", 0);
    // Flags, widths, other conversions and null strings take the full formatter.
    EXPECT_SAME_TEXT("%5d|%-3s|%x|%p|%hd|%05.1f", 42, "a", 255u, static_cast<void*>(nullptr), short(7), 2.5);
    char const* volatile none = nullptr;
    EXPECT_SAME_TEXT("[%s] %d|%lc|%ls|%jd", none, 3, L'a', L"w", intmax_t(9));
    for (size_t n : {1023u, 1024u, 1025u, 5000u}) EXPECT_SAME_TEXT("%s%d", std::string(n - 2, 'b').c_str(), 12);
}

struct named_entry_t : kern_n::runnable_t {
    char const* type() const override { return "test"; }
};

std::string stamp(struct timespec const& ts) {
    struct tm tm;
    char day[32];
    strftime(day, sizeof day, "%Y%m%d.%H%M%S", localtime_r(&ts.tv_sec, &tm));
    return q_format("%s.%02ld", day, ts.tv_nsec / 10000000);
}

TEST(LoggerPrefix, LayoutParsesBack) {
    log_guard_t guard;
    memfile_t f;
    if_logger_t* l = fd_logger_t::create(f.fd);
    if_logger_t::generation = 1;
    struct timespec before, after;
    clock_gettime(CLOCK_REALTIME, &before);
    l->log_INFO("hello %d", 5);
    clock_gettime(CLOCK_REALTIME, &after);
    if_logger_t::generation = 105;
    l->log_WARNING("gen");
    if_logger_t::generation = 2;
    l->set_level(13);
    l->log(13, "out of range");
    if_logger_t::generation = 0;
    l->log_INFO("%5d|%-3s|%s", 42, "a", std::string(3000, 'z').c_str());  // the printf path
    strings want = {" inf " + ids() + "] noname hello 5", " wrn " + ids() + " 05] noname gen",
                    " db3 " + ids() + " 02] noname out of range",
                    " inf " + ids() + "] noname    42|a  |" + std::string(3000, 'z')};
    // Names padded to six characters, then a blank; each thread's own id.
    for (std::string const& name : strings{"abc    ", "tenletters ", std::string(70, 'n') + " "}) {
        std::thread([&] {
            named_entry_t entry;
            entry.set_name(name.substr(0, name.find(' ')));
            kern_n::runnable_t::wrap_helper_t adopt(&entry);
            l->log_INFO("named %s", "thread");
            l->log_INFO("%3s", "fmt");
            want.push_back(" inf " + ids() + "] " + name + "named thread");
            want.push_back(" inf " + ids() + "] " + name + "fmt");
        }).join();
    }
    delete l;
    strings const lines = f.lines();
    EXPECT_EQ(tails(lines), want);
    std::string const t = lines.at(0).substr(0, 18);  // 20141202.133605.07
    EXPECT_TRUE(stamp(before) <= t && t <= stamp(after)) << t;
}

// Run again in a child with QVLSRV_NO_LASTREPEAT (read at start-up) set.
TEST(FdLogger, RepeatFolding) {
    bool const folding = !std::getenv("QVLKERN_TEST_CHILD");
    if (folding) test_support::in_child({"QVLSRV_NO_LASTREPEAT="});
    EXPECT_EQ(fd_logger_t::last_repeated_avail, folding);
    log_guard_t guard;
    memfile_t f;
    if_logger_t* l = fd_logger_t::create(f.fd);
    // An empty first message is written, not taken for the empty initial last message.
    l->log_INFO("%s", "");
    l->log_INFO("%s", "");
    // The generation tells prefixes apart; another class is a repeat too.
    for (q_uint32_t g : {10u, 11u, 12u}) {
        if_logger_t::generation = g;
        l->log(g == 12 ? 2 : 4, "a");
    }
    if_logger_t::generation = 13;
    l->log_INFO("b");
    l->log_INFO("%s", "c");
    l->log_INFO("%5s", "c");  // the printf path folds the same way
    l->log_INFO("    c");
    delete l;  // the pending summary is written at destruction
    if (!folding) {
        EXPECT_EQ(tails(f.lines(), true), (strings{"", "", "a", "a", "a", "b", "c", "    c", "    c"}));
        // The start-up logger: a descriptor logger on standard error at INFO.
        ASSERT_NE(dynamic_cast<fd_logger_impl_t*>(if_logger_t::Log), nullptr);
        EXPECT_TRUE(if_logger_t::Log->is_stderr() && if_logger_t::Log->get_level() == 4);
        return;
    }
    strings const lines = f.lines();
    EXPECT_EQ(tails(lines, true), (strings{"", "[Logger] Last message repeated 2 times", "a",
                                           "[Logger] Last message repeated 3 times", "b", "c", "    c",
                                           "[Logger] Last message repeated 2 times"}));
    EXPECT_EQ(tails(lines).at(3), " wrn " + ids() + " 12] noname [Logger] Last message repeated 3 times");
}

TEST(FdLogger, ConcurrentLinesStayWhole) {
    memfile_t f;
    if_logger_t* l = fd_logger_t::create(f.fd);
    int const threads = 4, per = 3000;
    auto pad = [](int t, int i) { return std::string(i % 100 == 7 ? 20000 : 40, char('a' + t)); };
    test_support::on_threads(threads, [&](int t) {
        for (int i = 0; i < per; ++i) l->log_INFO("t%d i%d %s end", t, i, pad(t, i).c_str());
    });
    delete l;
    strings got = tails(f.lines(), true), want;
    for (int t = 0; t < threads; ++t)
        for (int i = 0; i < per; ++i) want.push_back(q_format("t%d i%d %s end", t, i, pad(t, i).c_str()));
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_TRUE(got == want) << got.size() << " lines for " << want.size();  // every line once, whole
}

// A full pipe: reported once, silent while full, again after a write went in.
TEST(FdLogger, WriteFailureReportedOnce) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC | O_NONBLOCK), 0);
    std::string const big(1 << 20, 'x');  // a partial write fills the pipe to the last byte
    auto fill = [&] { ASSERT_GT(write(p[1], big.data(), big.size()), 0); };
    fill();
    counting_handler_t h;
    if_logger_t* l = fd_logger_t::create(p[1]);
    l->insert_handler(&h);
    l->log_INFO("full 1");
    EXPECT_EQ(l->write("direct\n"), 0u);
    l->log_INFO("full 2");
    EXPECT_EQ(h.calls, strings{"0: " + std::string(strerror(EAGAIN)) + " (errno=11) @-1"});
    char buf[65536];
    while (read(p[0], buf, sizeof buf) > 0) continue;
    l->log_INFO("after");
    ssize_t const n = read(p[0], buf, sizeof buf);
    EXPECT_EQ(body(std::string(buf, size_t(std::max<ssize_t>(n, 0)))), "after\n");
    fill();
    l->log_INFO("full 3");
    l->remove_handler(&h);
    l->log_INFO("full 4");
    EXPECT_EQ(h.calls.size(), 2u);
    delete l;
    close(p[0]), close(p[1]);
}

// Set in a forked child, whose leak check would take what its parent's threads hold for lost: the leak checker asks
// this hook.
bool g_forked = false;
extern "C" int __lsan_is_turned_off() { return g_forked; }
// A child of a threaded parent starts threads (a compression), which ThreadSanitizer allows only when told; and each
// of the hundred children that end would sleep a second at exit.
extern "C" char const* __tsan_default_options() { return "die_after_fork=0 atexit_sleep_ms=0"; }

// Status of a forked child running f, which answers its exit status (given to exit when ends, else to _exit); -1 when
// it hung.
int in_child(std::function<int()> const& f, bool ends = false) {
    return test_support::run_child([&] {
        g_forked = true;
        if (ends) std::exit(f());
        return f();
    }).status;
}

bool sigpipe_pending() {
    sigset_t s;
    return sigpending(&s) == 0 && sigismember(&s, SIGPIPE) == 1;
}

// A pipe or socket whose reader has gone: the failure reaches the handler, from the main thread and from a
// light-weight process, and no SIGPIPE is left to the process; one already pending from elsewhere stays.
TEST(FdLogger, DeadReaderRaisesNoSigpipe) {
    int const status = in_child([] {
        int p[2], s[2];
        if (pipe2(p, O_CLOEXEC) != 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, s) != 0) return 1;
        close(p[0]), close(s[1]);
        counting_handler_t h;
        sigset_t pipe_only;
        sigemptyset(&pipe_only), sigaddset(&pipe_only, SIGPIPE);
        for (int fd : {p[1], s[0]}) {
            if_logger_t* l = fd_logger_t::create(fd);
            l->insert_handler(&h);
            lwp_t::start("writer", [l] { l->log_INFO("lwp"); }, false)->join(timegap_t::infinite());
            l->log_INFO("main");
            pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
            l->log_INFO("blocked");
            if (sigpipe_pending()) return 2;
            raise(SIGPIPE);
            l->log_INFO("pending");
            if (!sigpipe_pending() || sigwaitinfo(&pipe_only, nullptr) != SIGPIPE) return 3;
            pthread_sigmask(SIG_UNBLOCK, &pipe_only, nullptr);
            delete l;
        }
        std::string const epipe = "0: " + std::string(strerror(EPIPE)) + " (errno=32) @-1";
        return h.calls == strings{epipe, epipe} ? 0 : 4;
    });
    EXPECT_EQ(status, 0);  // 141: killed by SIGPIPE
}

// Children forked while four threads log, list themselves and take a module name lock do the same and end: no lock
// that a thread missing in the child held at the fork is left held there.
TEST(LoggerFork, ChildrenOfALoggingProcess) {
    memfile_t f;
    // Appending: the children share the file offset with the parent's threads.
    int const fd = open(("/proc/self/fd/" + std::to_string(f.fd)).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if_logger_t* const l = fd_logger_t::create(fd);
    auto use_all = [l](char const* what, unsigned n) {
        l->log_INFO("%s %u", what, n);
        named_entry_t e;
        e.register_in_list();
        e.deregister_from_list();
        late_locker_t<mutex_t> name_lock;
        kern::dynalib::dso_lock("qvlplug_nosig", name_lock);
    };
    std::atomic<int> running{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; ++t)
        ts.emplace_back([&] {
            for (unsigned n = 0; !stop; ++n) use_all("thread", n), n || ++running;
        });
    while (running < 4) std::this_thread::yield();
    int child = 0, status = 0;
    for (; child < 100 && status == 0; ++child) status = in_child([&] { return use_all("child", child), 0; }, true);
    stop = true;
    for (std::thread& t : ts) t.join();
    delete l;
    close(fd);
    EXPECT_EQ(status, 0) << "child " << child - 1;  // -1: still running after a minute
    strings const lines = tails(f.lines(), true);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](std::string const& s) { return s.rfind("child ", 0) == 0; }),
              child);
}

// A fork while a compression runs: the child has none in flight, so its logger rotates, compresses and closes as if
// it had never started one.
// Whether another thread of this process sleeps in a futex inside the object at `at`, as /proc tells.
bool thread_waits_on(void const* at, size_t size) {
    auto const lo = reinterpret_cast<uintptr_t>(at);
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(syscall(SYS_gettid))) continue;
        unsigned long nr = 0, arg = 0;
        std::FILE* const f = std::fopen((task.path() / "syscall").c_str(), "re");
        if (!f) continue;
        bool const read = std::fscanf(f, "%lu %lx", &nr, &arg) == 2;
        std::fclose(f);
        if (read && nr == SYS_futex && arg >= lo && arg < lo + size) return true;
    }
    return false;
}

TEST(LoggerFork, WhileCompressing) {
    test_support::temp_dir_t dir;
    if_logger_t* const l = file_logger_t::create((dir / "agent.log").c_str(), "3z,1k");
    std::string const line(600, 'x');
    int status;
    {
        // The compression thread lists itself first: it waits for this.
        xlocker_t<mutex_t> hold(kern_n::runnable_t::runnables_guard);
        for (int i = 0; i < 3; ++i) l->log_INFO("%d %s", i, line.c_str());  // the third rotates
        // Fork only once it waits there: a thread still starting may hold an allocator's lock (a sanitizer's
        // run-time has no fork handler for its own), which the child would never see released.
        while (!thread_waits_on(&kern_n::runnable_t::runnables_guard, sizeof kern_n::runnable_t::runnables_guard))
            sched_yield();
        status = in_child(
            [&] {
                kern_n::runnable_t::runnables_guard.unlock();  // held by this thread in the child too
                for (int i = 3; i < 6; ++i) l->log_INFO("%d %s", i, line.c_str());
                dynamic_cast<file_logger_impl_t&>(*l).wait_compression();  // its own only
                delete l;
                return std::filesystem::exists(dir / "agent.1.log.gz") ? 0 : 2;
            },
            true);
    }
    delete l;
    EXPECT_EQ(status, 0);  // -1: still running after a minute
}

TEST(ChainLogger, MembersHandlersAndShape) {
    log_guard_t guard;
    record_logger_t *a = new record_logger_t, *x = new record_logger_t, *y = new record_logger_t, d;
    if_logger_t* c = chain_logger_t::create(a, a);
    c->log_INFO("once");
    EXPECT_EQ(a->lines.size(), 1u);
    EXPECT_EQ(bug_text([&] { c->write("x"); }), "chain_logger_impl_t::write( const char* ) called");
    a->set_level(-1);
    EXPECT_EQ(c->get_level(), 0);  // first alone: negative reads as 0
    delete c;                      // destroys a once

    x->set_level(2);
    y->set_level(6);
    c = chain_logger_t::create(x, y);
    EXPECT_TRUE(c->get_level() == 6 && c->is_logged(6) && !c->is_logged(7));
    c->log_NOTICE("n %s", "arg");
    c->log_FAULT("f");
    EXPECT_TRUE(x->lines.size() == 1 && y->lines.size() == 2 && body(y->lines[0]) == "n arg");
    c->set_level(3);
    EXPECT_TRUE(x->get_level() == 3 && y->get_level() == 3);
    // Handlers reach the members, once each; the level comes back on a throw.
    counting_handler_t h;
    c->insert_handler(&h);
    c->insert_handler(&h);
    x->notify_error(if_logger_error_t::write_failed, "m");
    h.throws = true;
    EXPECT_THROW(y->notify_error(if_logger_error_t::rotation_failed, "lost"), std::runtime_error);
    EXPECT_EQ(y->get_level(), 3);
    c->remove_handler(&h);
    y->notify_error(if_logger_error_t::write_failed, "m");
    EXPECT_EQ(h.calls, (strings{"0: m @-1", "1: lost @-1"}));
    EXPECT_EQ(x->lines.size() + y->lines.size(), 3u);  // nothing from the handler
    delete c;
    // The facade test fails for the descriptor loggers that create makes.
    if_logger_t* e = fd_logger_t::create();
    EXPECT_TRUE(e->is_stderr());
    EXPECT_FALSE(chain_logger_impl_t::has_stderr_again(e) || chain_logger_impl_t::has_stderr_again(nullptr));
    c = chain_logger_t::create(e, nullptr);
    EXPECT_FALSE(c->is_stderr());
    delete c;

    // add, remove and collect_info on the process logger.
    std::string info;
    auto shape = [&] { return info.clear(), chain_logger_t::collect_info(info), info; };
    auto remove = [](if_logger_t* l) { return bug_text([l] { chain_logger_t::remove(l); }); };
    std::string const both = "if_logger_t*( if_logger_t*, if_logger_t* )";
    std::string const rec = "(anonymous namespace)::record_logger_t";
    if_logger_t::Log = nullptr;
    EXPECT_EQ(shape() + "|" + remove(&d), "zero logger|zero logger");
    chain_logger_t::remove(nullptr);
    if_logger_t::Log = a = new record_logger_t;
    EXPECT_EQ(shape() + "|" + remove(&d), "root is not chain: " + rec + "|bad root: " + rec);
    chain_logger_t::add(x = new record_logger_t);
    chain_logger_t::add(y = new record_logger_t);  // (y, (x, a))
    info = "x";
    chain_logger_t::collect_info(info);
    EXPECT_EQ(info + "|" + remove(&d), "x; " + both + "; " + both + "|bad chain: " + rec);
    if_logger_t::Log->log_INFO("all");
    EXPECT_EQ(a->lines.size() + x->lines.size() + y->lines.size(), 3u);
    chain_logger_t::remove(x);  // a middle node
    EXPECT_EQ(shape(), both);
    chain_logger_t::remove(y);  // the root: its second becomes the root
    EXPECT_EQ(if_logger_t::Log, a);
    if_logger_t::Log = chain_logger_t::create(a, nullptr);
    chain_logger_t::add(x);
    EXPECT_EQ(shape() + "|" + remove(&d), both + "; if_logger_t*( if_logger_t*, null )|zero chain");
    chain_logger_t::remove(x);
    EXPECT_EQ(remove(a), "zero new root");
    delete if_logger_t::Log;
    delete x;
    delete y;
}

TEST(LoggerSetUp, InitLoggerSimpleLoggerAndLastWords) {
    log_guard_t guard;
    bool gone = false;
    record_logger_t* old = new record_logger_t(&gone);
    if_logger_t::Log = old;
    EXPECT_FALSE(init_logger("bogus", "-", "", nullptr));
    EXPECT_EQ(if_logger_t::Log, old);
    EXPECT_EQ(tails(old->lines), strings{" ERR " + ids() + "] noname Illegal loglevel -- bogus"});

    EXPECT_TRUE(init_logger("debug", "-", "", nullptr));
    EXPECT_TRUE(gone);
    chain_logger_impl_t* c = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(c && dynamic_cast<fd_logger_impl_t*>(c->first) && !c->second);
    EXPECT_TRUE(c->first->is_stderr() && c->first->get_level() == 9);

    // A chain of a plain stderr logger is replaced; the extra goes with it.
    gone = false;
    record_logger_t* extra = new record_logger_t(&gone);
    EXPECT_TRUE(init_logger("TRACE", "-", "", extra));
    chain_logger_impl_t* const before = c;
    c = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(c && c != before && c->second == extra);
    EXPECT_EQ(c->first->get_level(), 5);
    // Set up again with the same extra, as a daemon does on SIGHUP: it stays.
    for (char const* level : {"INFO", "NOTICE"}) EXPECT_TRUE(init_logger(level, "-", "", extra));
    c = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_FALSE(gone);
    ASSERT_TRUE(c && c->second == extra);
    c->log_NOTICE("kept");
    EXPECT_EQ(body(extra->lines.at(0)), "kept");
    delete c;
    EXPECT_TRUE(gone);

    // The bootstrap logger, and the last words before an abort.
    logger_init_t::simple& s = logger_init_t::s_simple_;
    EXPECT_TRUE(s.get_level() == 4 && s.is_stderr());
    auto err = [](std::function<void()> const& f) {
        testing::internal::CaptureStderr();
        f();
        return testing::internal::GetCapturedStderr();
    };
    std::string const out = err([&] {
        EXPECT_EQ(s.write("plain"), 6u);
        s.log_INFO("via %s", "format");
        s.log_DEBUG("filtered");
    });
    EXPECT_EQ(out.substr(0, 6), "plain\n");
    EXPECT_EQ(body(out.substr(6)), "via format\n");

    record_logger_t r;
    if_logger_t::Log = &r;
    EXPECT_EQ(err([] { if_logger_t::log_abort(lstr_t("bye", 3)); }), "bye\n");
    EXPECT_EQ(tails(r.lines), strings{" FTL " + ids() + "] noname bye\n"});
    if_logger_t::Log = &s;  // on stderr: not printed a second time
    EXPECT_EQ(body(err([] { if_logger_t::log_abort(lstr_t("end")); })), "end\n\n");
    if_logger_t::Log = nullptr;
    EXPECT_EQ(err([] { if_logger_t::log_abort(lstr_t("nothing")); }), "");
}

TEST(SyslogLogger, Facilities) {
    EXPECT_EQ(syslog_logger_t::trans_facility("LOCAL7"), 184);
    EXPECT_EQ(syslog_logger_t::trans_facility("authpriv"), 80);
    EXPECT_EQ(syslog_logger_t::trans_facility("Kern"), 0);
    for (char const* bad : {"local8", "", static_cast<char const*>(nullptr)})
        EXPECT_EQ(syslog_logger_t::trans_facility(bad), -1);
}

// Run again in a child with a private /dev, where a socket is /dev/log.
TEST(SyslogLogger, RecordsReachSyslogSocket) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a test socket over /dev/log";
    if (!test_support::in_child()) return;
    ASSERT_TRUE(test_support::private_mounts("/dev")) << strerror(errno);
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    if_logger_t* l = syslog_logger_t::create(LOG_LOCAL3);
    l->log_DEBUG("hello %d", 7);  // below the level
    if_logger_t::generation = 307;
    l->log_CRIT("crit");
    if_logger_t::generation = 1;
    l->set_level(12);
    l->write("raw");
    l->log_DEBUG("hello %d", 8);
    delete l;
    closelog();
    std::string const who = "qvlsrv[" + std::to_string(getpid()) + "]: ";
    std::string const tid = q_format("%06ld", syscall(SYS_gettid) % 1000000);
    std::string const want = "<152>" + who + tid + " 07g noname; FTL; crit\n<155>" + who + "misuse syslog!\n<159>" +
                             who + "raw\n<159>" + who + tid + " noname; db0; hello 8\n";
    struct timeval tv = {5, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string got;
    char buf[1024];
    // "<pri>Mmm dd hh:mm:ss qvlsrv[pid]: text", the time stamp left out.
    for (ssize_t n; got.size() < want.size() && (n = recv(sock, buf, sizeof buf, 0)) > 0;) {
        std::string const g(buf, size_t(n));
        got += g.substr(0, 5) + g.substr(std::min(g.find("qvlsrv["), g.size())) + "\n";
    }
    EXPECT_EQ(got, want);
}

}  // namespace
