// Tests of the logger interface, the descriptor, syslog and chain loggers and
// init_logger: real descriptors (memfd, pipes), real child processes, and a
// real syslog socket when the test may mount one over /dev/log.
#include "loggers.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "exceptions.h"
#include "runnable.h"
#include "utilities.h"

namespace {

// A descriptor to log into and read back line by line.
struct memfile_t {
    int fd = memfd_create("log", MFD_CLOEXEC);
    ~memfile_t() { close(fd); }
    std::vector<std::string> lines() const {
        std::string s;
        char buf[65536];
        for (ssize_t n; (n = pread(fd, buf, sizeof buf, off_t(s.size()))) > 0;) s.append(buf, size_t(n));
        std::vector<std::string> out;
        size_t b = 0;
        for (size_t e; (e = s.find('\n', b)) != std::string::npos; b = e + 1) out.push_back(s.substr(b, e - b));
        EXPECT_EQ(b, s.size()) << "text after the last line end";
        return out;
    }
};

// The message after a prefix that names the thread noname.
std::string body(std::string const& line) {
    size_t const p = line.find("] noname ");
    return p == std::string::npos ? "<no prefix: " + line + ">" : line.substr(p + 9);
}

// Keeps what is written; tells when it is destroyed.
struct record_logger_t : if_logger_t {
    explicit record_logger_t(bool* gone = nullptr) : if_logger_t(INFO), gone(gone) {}
    ~record_logger_t() override {
        if (gone) *gone = true;
    }
    bool is_stderr() const override { return false; }
    size_t write(char const* t) override {
        lines.push_back(t);
        return std::strlen(t);
    }
    std::vector<std::string> lines;
    bool* gone;
};

struct counting_handler_t : if_logger_error_t {
    void notify(if_logger_t* l, error_type_t type, std::string const& text) override {
        ++calls;
        last_type = type;
        last_text = text;
        level_seen = l->get_level();
        l->log_CRIT("from the handler");  // dropped: the level is -1 meanwhile
        if (throws) throw std::runtime_error("handler failed");
    }
    int calls = 0, last_type = -2, level_seen = -2;
    bool throws = false;
    std::string last_text;
};

// Restores the process logger and the generation.
struct log_guard_t {
    if_logger_t* saved = if_logger_t::Log;
    q_uint32_t gen = if_logger_t::generation;
    ~log_guard_t() {
        if_logger_t::Log = saved;
        if_logger_t::generation = gen;
    }
};

std::string stamp(struct timespec const& ts) {
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    return q_format("%04d%02d%02d.%02d%02d%02d.%02ld", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                    tm.tm_min, tm.tm_sec, ts.tv_nsec / 10000000);
}

std::string ids() { return q_format("[%05d %05ld", getpid() % 100000, syscall(SYS_gettid) % 100000); }

std::string bug_text(std::function<void()> const& f) {
    try {
        f();
    } catch (BUG_exception_shell_t const& e) {
        return e.what();
    }
    return "<no BUG_exception>";
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
    EXPECT_STREQ(if_logger_t::translate_loglevel(13), "ALL");
    EXPECT_STREQ(if_logger_t::translate_loglevel(-1), "ALL");
    EXPECT_STREQ(if_logger_t::severity(13), "db3");  // not "unk"
    EXPECT_STREQ(if_logger_t::severity(-1), "db3");
    int v = -5;
    EXPECT_TRUE(if_logger_t::translate_loglevel("all", v) && v == 12);
    EXPECT_TRUE(if_logger_t::translate_loglevel("Debug", v) && v == 9);
    v = -5;
    for (char const* bad : {"fatal", "INFO ", "", static_cast<char const*>(nullptr)})
        EXPECT_FALSE(if_logger_t::translate_loglevel(bad, v));
    EXPECT_EQ(v, -5);
    EXPECT_TRUE(if_logger_t::translate_loglevel_acronym(lstr_t("UNK"), v) && v == 13);
    EXPECT_TRUE(if_logger_t::translate_loglevel_acronym(lstr_t("DB3"), v) && v == 12);
    EXPECT_FALSE(if_logger_t::translate_loglevel_acronym(lstr_t("db"), v));

    record_logger_t l;
    for (int c = 0; c <= 12; ++c) EXPECT_EQ(l.is_logged(c), c <= 4) << c;
    l.set_level(-1);
    l.log_CRIT("x");
    EXPECT_TRUE(l.lines.empty());
    l.set_level(12);
    l.log(12, "all %d", 12);
    ASSERT_EQ(l.lines.size(), 1u);
    EXPECT_EQ(body(l.lines[0]), "all 12");  // the base format adds no line end
    EXPECT_NE(l.lines[0].find(" db3 ["), std::string::npos);
}

void user_text(std::string& out, char const* fmt, ...) {
    record_logger_t l;
    va_list ap;
    va_start(ap, fmt);
    l.format_user(out, fmt, ap);
    va_end(ap);
}

#define EXPECT_SAME_TEXT(...)                          \
    do {                                               \
        std::string got("pre:"), want;                 \
        user_text(got, __VA_ARGS__);                   \
        q_format(want, __VA_ARGS__);                   \
        EXPECT_EQ(got, "pre:" + want) << #__VA_ARGS__; \
    } while (0)

TEST(LoggerFormat, MessageTextAsPrintfMakesIt) {
    EXPECT_SAME_TEXT("%d %i %u|%ld %lu|%lld %llu|%zd %zu", -5, 0, 4294967295u, -9223372036854775807L - 1,
                     18446744073709551615UL, -1LL, 1ULL, ssize_t(-3), size_t(7));
    EXPECT_SAME_TEXT("%s=%.*s %.3s %.*s%c%%|%.0s|%c|end", "k", 2, "value", "ab", -1, "neg", 'x', "gone", 0);
    // Flags, widths, other conversions and null strings take the full formatter.
    EXPECT_SAME_TEXT("%5d|%-3s|%x|%p|%hd|%05.1f", 42, "a", 255u, static_cast<void*>(nullptr), short(7), 2.5);
    char const* volatile none = nullptr;
    EXPECT_SAME_TEXT("[%s] %d", none, 3);
    EXPECT_SAME_TEXT("%lc|%ls|%jd", L'a', L"w", intmax_t(9));
    for (size_t n : {1023u, 1024u, 1025u, 5000u}) EXPECT_SAME_TEXT("%s%d", std::string(n - 2, 'b').c_str(), 12);
}

struct named_entry_t : kern_n::runnable_t {
    char const* type() const override { return "test"; }
};

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
    // Registered names are padded to six characters and one blank follows.
    std::string const long_name(70, 'n');
    for (char const* name : {"abc", "tenletters", long_name.c_str()}) {
        std::thread([&] {
            named_entry_t entry;
            entry.set_name(name);
            kern_n::runnable_t::wrap_helper_t adopt(&entry);
            l->log_INFO("named %s", "thread");
            l->log_INFO("%3s", "fmt");
        }).join();
    }
    delete l;

    std::vector<std::string> lines = f.lines();
    ASSERT_EQ(lines.size(), 10u);
    std::string const t = lines[0].substr(0, 18);  // 20141202.133605.07
    EXPECT_LE(stamp(before), t);
    EXPECT_GE(stamp(after), t);
    EXPECT_EQ(lines[0].substr(18), " inf " + ids() + "] noname hello 5");
    EXPECT_EQ(lines[1].substr(18), " wrn " + ids() + " 05] noname gen");
    EXPECT_EQ(lines[2].substr(18), " db3 " + ids() + " 02] noname out of range");
    EXPECT_EQ(lines[3].substr(18), " inf " + ids() + "] noname    42|a  |" + std::string(3000, 'z'));
    std::string const padded[] = {"abc    ", "tenletters ", long_name + " "};
    for (int i = 0; i < 3; ++i) {
        std::string const& a = lines[4 + 2 * i];
        std::string const& b = lines[5 + 2 * i];
        EXPECT_EQ(a.substr(24, 6), ids().substr(1, 6)) << "same process";
        EXPECT_NE(a.substr(30, 5), ids().substr(7, 5)) << "the thread's own id";
        EXPECT_EQ(a.substr(35), "] " + padded[i] + "named thread");
        EXPECT_EQ(b.substr(35), "] " + padded[i] + "fmt");
    }
}

TEST(FdLogger, RepeatFolding) {
    log_guard_t guard;
    ASSERT_TRUE(fd_logger_t::last_repeated_avail);
    memfile_t f;
    if_logger_t* l = fd_logger_t::create(f.fd);
    EXPECT_FALSE(l->is_stderr());
    // The generation tells the prefixes apart.
    if_logger_t::generation = 10;
    l->log_INFO("a");
    if_logger_t::generation = 11;
    l->log_INFO("a");
    if_logger_t::generation = 12;
    l->log_WARNING("a");  // another class, same text: a repeat too
    if_logger_t::generation = 13;
    l->log_INFO("b");
    l->log_INFO("%s", "c");
    l->log_INFO("%5s", "c");  // the printf path folds the same way
    l->log_INFO("    c");
    delete l;  // the pending summary is written at destruction
    std::vector<std::string> lines = f.lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(body(lines[0]), "a");
    EXPECT_NE(lines[1].find(" wrn " + ids() + " 12] noname [Logger] Last message repeated 3 times"),
              std::string::npos) << lines[1];
    EXPECT_EQ(body(lines[2]), "b");
    EXPECT_EQ(body(lines[3]), "c");
    EXPECT_EQ(body(lines[4]), "    c");
    EXPECT_EQ(body(lines[5]), "[Logger] Last message repeated 2 times");
}

// Runs this test binary again with only the tests of filter and with env
// added to its environment; answers the exit status and standard output.
int run_child_test(char const* filter, char const* env, std::string& out) {
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        putenv(const_cast<char*>(env));
        std::string f = std::string("--gtest_filter=") + filter;
        dup2(p[1], 1);
        execl("/proc/self/exe", "loggers_test", f.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(p[1]);
    char buf[4096];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) out.append(buf, size_t(n));
    close(p[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(FdLogger, NoLastRepeatInChild) {
    std::string out;
    EXPECT_EQ(run_child_test("LoggerChild.*", "QVLSRV_NO_LASTREPEAT=", out), 0) << out;
    EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
}

// Runs only in the child started above.
TEST(LoggerChild, NoLastRepeatAndStartupLogger) {
    if (!std::getenv("QVLSRV_NO_LASTREPEAT")) GTEST_SKIP() << "runs in a child process only";
    EXPECT_FALSE(fd_logger_t::last_repeated_avail);
    // The start-up logger: a descriptor logger on standard error at INFO.
    ASSERT_NE(dynamic_cast<fd_logger_impl_t*>(if_logger_t::Log), nullptr);
    EXPECT_TRUE(if_logger_t::Log->is_stderr());
    EXPECT_EQ(if_logger_t::Log->get_level(), 4);
    memfile_t f;
    if_logger_t* l = fd_logger_t::create(f.fd);
    for (char const* m : {"a", "a", "a", "b"}) l->log_INFO("%s", m);
    delete l;
    std::vector<std::string> lines = f.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(body(lines[2]), "a");
}

TEST(FdLogger, ConcurrentLinesStayWhole) {
    memfile_t f;
    if_logger_t* l = fd_logger_t::create(f.fd);
    int const threads = 4, per = 3000;
    auto pad = [](int t, int i) { return std::string(i % 100 == 7 ? 20000 : 40, char('a' + t)); };
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
        ts.emplace_back([=] {
            for (int i = 0; i < per; ++i) l->log_INFO("t%d i%d %s end", t, i, pad(t, i).c_str());
        });
    for (std::thread& t : ts) t.join();
    delete l;
    std::vector<std::string> lines = f.lines();
    ASSERT_EQ(lines.size(), size_t(threads * per));
    std::set<std::pair<int, int>> seen;
    for (std::string const& line : lines) {
        int t = -1, i = -1, n = 0;
        std::string const b = body(line);
        ASSERT_EQ(std::sscanf(b.c_str(), "t%d i%d %n", &t, &i, &n), 2) << line.substr(0, 80);
        ASSERT_EQ(b.substr(size_t(n)), pad(t, i) + " end") << line.substr(0, 80);
        EXPECT_TRUE(seen.insert({t, i}).second) << "duplicate " << t << "/" << i;
    }
}

// Fills a non-blocking pipe to the last byte.
void fill_pipe(int fd) {
    std::string const fill(4096, 'x');
    while (write(fd, fill.data(), fill.size()) > 0) {
    }
    while (write(fd, "x", 1) > 0) {
    }
}

TEST(FdLogger, WriteFailureReportedOnce) {
    struct sigaction ign = {}, old;
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &old);
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    close(p[0]);
    if_logger_t* l = fd_logger_t::create(p[1]);
    counting_handler_t h;
    l->insert_handler(&h);
    for (char const* m : {"one", "two", "three"}) l->log_INFO("%s", m);
    EXPECT_EQ(h.calls, 1);
    EXPECT_EQ(h.last_type, if_logger_error_t::write_failed);
    EXPECT_EQ(h.last_text, std::string(strerror(EPIPE)) + " (errno=32)");
    EXPECT_EQ(h.level_seen, -1);
    EXPECT_EQ(l->get_level(), 4);
    delete l;
    close(p[1]);
    sigaction(SIGPIPE, &old, nullptr);

    // A full non-blocking pipe: reported once, silent while full, reported
    // again after a write has gone through.
    ASSERT_EQ(pipe2(p, O_CLOEXEC | O_NONBLOCK), 0);
    fill_pipe(p[1]);
    counting_handler_t h2;
    l = fd_logger_t::create(p[1]);
    l->insert_handler(&h2);
    l->log_INFO("full 1");
    EXPECT_EQ(l->write("direct\n"), 0u);
    l->log_INFO("full 2");
    EXPECT_EQ(h2.calls, 1);
    EXPECT_EQ(h2.last_text, std::string(strerror(EAGAIN)) + " (errno=11)");
    char buf[65536];
    while (read(p[0], buf, sizeof buf) > 0) {
    }
    l->log_INFO("after");
    ssize_t n = read(p[0], buf, sizeof buf);
    ASSERT_GT(n, 0);
    EXPECT_EQ(body(std::string(buf, size_t(n))), "after\n");
    fill_pipe(p[1]);
    l->log_INFO("full 3");
    EXPECT_EQ(h2.calls, 2);
    l->remove_handler(&h2);
    l->log_INFO("full 4");
    EXPECT_EQ(h2.calls, 2);
    delete l;
    close(p[0]);
    close(p[1]);
}

TEST(LoggerHandlers, NotifyRestoresLevelWhenHandlerThrows) {
    record_logger_t l;
    l.set_level(7);
    counting_handler_t h;
    h.throws = true;
    l.insert_handler(&h);
    l.insert_handler(&h);  // a set: called once
    EXPECT_THROW(l.notify_error(if_logger_error_t::rotation_failed, "lost"), std::runtime_error);
    EXPECT_EQ(h.calls, 1);
    EXPECT_EQ(h.level_seen, -1);
    EXPECT_EQ(h.last_type, 1);
    EXPECT_EQ(h.last_text, "lost");
    EXPECT_EQ(l.get_level(), 7);
    EXPECT_TRUE(l.lines.empty());
    l.remove_handler(&h);
    l.notify_error(if_logger_error_t::write_failed, "x");
    EXPECT_EQ(h.calls, 1);
}

TEST(ChainLogger, MembersLevelsAndErrors) {
    memfile_t f;
    if_logger_t* a = fd_logger_t::create(f.fd);
    if_logger_t* c = chain_logger_t::create(a, a);
    c->log_INFO("once");
    EXPECT_EQ(f.lines().size(), 1u);
    EXPECT_EQ(bug_text([&] { c->write("x"); }), "chain_logger_impl_t::write( const char* ) called");
    a->set_level(-1);
    EXPECT_EQ(c->get_level(), 0);  // first alone: negative reads as 0
    delete c;                      // destroys a once

    record_logger_t *x = new record_logger_t, *y = new record_logger_t;
    x->set_level(2);
    y->set_level(6);
    c = chain_logger_t::create(x, y);
    EXPECT_EQ(c->get_level(), 6);
    EXPECT_TRUE(c->is_logged(6));
    EXPECT_FALSE(c->is_logged(7));
    c->log_NOTICE("n %s", "arg");
    c->log_FAULT("f");
    EXPECT_EQ(x->lines.size(), 1u);
    ASSERT_EQ(y->lines.size(), 2u);
    EXPECT_EQ(body(y->lines[0]), "n arg");
    c->set_level(3);
    EXPECT_EQ(x->get_level() + y->get_level(), 6);
    counting_handler_t h;
    c->insert_handler(&h);
    x->notify_error(if_logger_error_t::write_failed, "m");
    y->notify_error(if_logger_error_t::write_failed, "m");
    c->remove_handler(&h);
    y->notify_error(if_logger_error_t::write_failed, "m");
    EXPECT_EQ(h.calls, 2);
    EXPECT_FALSE(c->is_stderr());
    delete c;

    // The facade test fails for the descriptor loggers that create makes.
    if_logger_t* e = fd_logger_t::create();
    EXPECT_TRUE(e->is_stderr());
    EXPECT_FALSE(chain_logger_impl_t::has_stderr_again(e));
    EXPECT_FALSE(chain_logger_impl_t::has_stderr_again(nullptr));
    c = chain_logger_t::create(e, nullptr);
    EXPECT_FALSE(c->is_stderr());
    delete c;
}

TEST(ChainLogger, AddRemoveCollectInfo) {
    log_guard_t guard;
    std::string info;
    std::string const both = "if_logger_t*( if_logger_t*, if_logger_t* )";
    if_logger_t::Log = nullptr;
    chain_logger_t::collect_info(info);
    EXPECT_EQ(info, "zero logger");
    EXPECT_EQ(bug_text([] { chain_logger_t::remove(reinterpret_cast<if_logger_t*>(8)); }), "zero logger");
    chain_logger_t::remove(nullptr);

    record_logger_t *a = new record_logger_t, *b = new record_logger_t, *c = new record_logger_t, d;
    std::string const rec = "(anonymous namespace)::record_logger_t";
    if_logger_t::Log = a;
    chain_logger_t::collect_info(info);
    EXPECT_EQ(info, "root is not chain: " + rec);
    EXPECT_EQ(bug_text([&] { chain_logger_t::remove(&d); }), "bad root: " + rec);

    chain_logger_t::add(b);
    chain_logger_t::add(c);  // (c, (b, a))
    info = "x";
    chain_logger_t::collect_info(info);
    EXPECT_EQ(info, "x; " + both + "; " + both);
    EXPECT_EQ(bug_text([&] { chain_logger_t::remove(&d); }), "bad chain: " + rec);
    if_logger_t::Log->log_INFO("all");
    EXPECT_EQ(a->lines.size() + b->lines.size() + c->lines.size(), 3u);
    chain_logger_t::remove(b);  // a middle node
    info.clear();
    chain_logger_t::collect_info(info);
    EXPECT_EQ(info, both);
    chain_logger_t::remove(c);  // the root: its second becomes the root
    EXPECT_EQ(if_logger_t::Log, a);
    delete b;
    delete c;

    if_logger_t::Log = chain_logger_t::create(a, nullptr);
    chain_logger_t::add(b = new record_logger_t);
    info.clear();
    chain_logger_t::collect_info(info);
    EXPECT_EQ(info, both + "; if_logger_t*( if_logger_t*, null )");
    EXPECT_EQ(bug_text([&] { chain_logger_t::remove(&d); }), "zero chain");
    chain_logger_t::remove(b);
    delete b;
    EXPECT_EQ(bug_text([&] { chain_logger_t::remove(a); }), "zero new root");
    delete if_logger_t::Log;
}

TEST(InitLogger, LevelsFilesAndOldLogger) {
    log_guard_t guard;
    bool gone = false;
    record_logger_t* old = new record_logger_t(&gone);
    if_logger_t::Log = old;
    EXPECT_FALSE(init_logger("bogus", "-", "", nullptr));
    EXPECT_EQ(if_logger_t::Log, old);
    ASSERT_EQ(old->lines.size(), 1u);
    EXPECT_EQ(old->lines[0].substr(18, 5), " ERR ");
    EXPECT_EQ(body(old->lines[0]), "Illegal loglevel -- bogus");

    EXPECT_TRUE(init_logger("debug", "-", "", nullptr));
    EXPECT_TRUE(gone);
    chain_logger_impl_t* c = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_NE(c, nullptr);
    ASSERT_NE(dynamic_cast<fd_logger_impl_t*>(c->first), nullptr);
    EXPECT_TRUE(c->first->is_stderr());
    EXPECT_EQ(c->first->get_level(), 9);
    EXPECT_EQ(c->second, nullptr);

    // A chain of a plain stderr logger is not kept: a new one replaces it.
    gone = false;
    record_logger_t* extra = new record_logger_t(&gone);
    if_logger_t* before = if_logger_t::Log;
    EXPECT_TRUE(init_logger("TRACE", "-", "", extra));
    c = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(c && c != before);
    EXPECT_EQ(c->second, extra);
    EXPECT_EQ(c->first->get_level(), 5);

    // A file that cannot be opened: warned through the current logger.
    if_logger_t::Log = extra;
    c->second = nullptr;
    delete c;
    EXPECT_TRUE(init_logger("INFO", "/nonexistent-dir/agent.log", "", extra));
    ASSERT_FALSE(extra->lines.empty());
    EXPECT_EQ(body(extra->lines.back()), "Using stderr instead of \"/nonexistent-dir/agent.log\"");
    EXPECT_FALSE(gone);  // the old logger was the extra one: kept in the chain
    c = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(c && c->second == extra);
    delete c;
    EXPECT_TRUE(gone);
}

TEST(LoggerAbort, SimpleLoggerAndLastWords) {
    log_guard_t guard;
    logger_init_t::simple& s = logger_init_t::s_simple_;
    EXPECT_EQ(s.get_level(), 4);
    EXPECT_TRUE(s.is_stderr());
    testing::internal::CaptureStderr();
    EXPECT_EQ(s.write("plain"), 6u);
    s.log_INFO("via %s", "format");
    s.log_DEBUG("filtered");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.substr(0, 6), "plain\n");
    EXPECT_EQ(body(err.substr(6)), "via format\n");

    record_logger_t r;
    if_logger_t::Log = &r;
    testing::internal::CaptureStderr();
    if_logger_t::log_abort(lstr_t("bye", 3));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bye\n");
    ASSERT_EQ(r.lines.size(), 1u);
    EXPECT_EQ(r.lines[0].substr(18), " FTL " + ids() + "] noname bye\n");

    if_logger_t::Log = &s;  // on stderr: not printed a second time
    testing::internal::CaptureStderr();
    if_logger_t::log_abort(lstr_t("end"));
    EXPECT_EQ(body(testing::internal::GetCapturedStderr()), "end\n\n");

    if_logger_t::Log = nullptr;
    testing::internal::CaptureStderr();
    if_logger_t::log_abort(lstr_t("nothing"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

void format_with(if_logger_t& l, int c, std::string& out, char const* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    l.format(c, out, fmt, ap);
    va_end(ap);
}

TEST(SyslogLogger, FacilitiesAndFormat) {
    EXPECT_EQ(syslog_logger_t::trans_facility("LOCAL7"), 184);
    EXPECT_EQ(syslog_logger_t::trans_facility("authpriv"), 80);
    EXPECT_EQ(syslog_logger_t::trans_facility("Kern"), 0);
    for (char const* bad : {"local8", "", static_cast<char const*>(nullptr)})
        EXPECT_EQ(syslog_logger_t::trans_facility(bad), -1);

    log_guard_t guard;
    syslog_logger_impl_t s(LOG_LOCAL3);
    EXPECT_FALSE(s.is_stderr());
    EXPECT_EQ(s.get_level(), 4);
    std::string const tid = q_format("%06ld", syscall(SYS_gettid) % 1000000);
    std::string out;
    if_logger_t::generation = 1;
    format_with(s, 9, out, "plain");
    EXPECT_EQ(out, tid + " noname; db0; plain");
    out.clear();
    if_logger_t::generation = 307;
    format_with(s, 0, out, "plain %s", "arg");
    EXPECT_EQ(out, tid + " 07g noname; FTL; plain arg");
}

// Child side of the syslog test: a datagram socket mounted over /dev/log in
// a private mount namespace receives what the logger sends. Exit status 77:
// the socket could not be put in place.
int syslog_child(std::string& got) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 77;
    char dir[] = "/tmp/qvl-syslog-XXXXXX";
    if (!mkdtemp(dir)) return 77;
    std::string const path = std::string(dir) + "/log";
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    // Over /dev/log itself when it exists, else over the whole /dev.
    bool const has_log = access("/dev/log", F_OK) == 0;
    char const* const target = has_log ? "/dev/log" : "/dev";
    if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        mount(has_log ? path.c_str() : dir, target, nullptr, MS_BIND, nullptr) != 0)
        return 77;

    if_logger_t* l = syslog_logger_t::create(LOG_LOCAL3);
    l->log_DEBUG("hello %d", 7);  // below the level
    l->log_CRIT("crit");
    l->set_level(12);
    l->write("raw");
    l->log_DEBUG("hello %d", 8);
    std::string const who = "qvlsrv[" + std::to_string(getpid()) + "]: ";
    std::string const tid = q_format("%06ld", syscall(SYS_gettid) % 1000000);
    std::vector<std::string> const want = {"<152>" + who + tid + " noname; FTL; crit", "<155>" + who + "misuse syslog!",
                                           "<159>" + who + "raw", "<159>" + who + tid + " noname; db0; hello 8"};
    struct timeval tv = {5, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    int bad = 0;
    for (std::string const& w : want) {
        char buf[1024];
        ssize_t n = recv(sock, buf, sizeof buf, 0);
        if (n <= 0) return 2;
        // "<pri>Mmm dd hh:mm:ss qvlsrv[pid]: text"
        std::string const g(buf, size_t(n));
        got += g + "\n";
        size_t const q = g.find("qvlsrv[");
        if (q == std::string::npos || g.substr(0, 5) + g.substr(q) != w) bad = 1;
    }
    delete l;
    closelog();
    umount2(target, MNT_DETACH);
    unlink(path.c_str());
    rmdir(dir);
    return bad;
}

TEST(SyslogLogger, RecordsReachSyslogSocket) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a test socket over /dev/log";
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        std::string got;
        int const rc = syslog_child(got);
        ssize_t w = write(p[1], got.data(), got.size());
        _exit(w < 0 ? 3 : rc);
    }
    close(p[1]);
    std::string got;
    char buf[4096];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) got.append(buf, size_t(n));
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "cannot mount a test socket over /dev/log here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "records received:\n" << got;
}

}  // namespace
