// loggers.cc: the logger interface, the descriptor, syslog, chain and file
// loggers, and the set-up of the process logger.
#include "loggers.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <typeinfo>

#include <boost/thread/thread.hpp>
#include <boost/unordered_set.hpp>

#include "exceptions.h"
#include "numeric-triades.h"
#include "numstrings.h"
#include "runnable.h"
#include "time-objs.h"
#include "utilities.h"

#ifndef QVLKERN_PRODUCT_NAME
#define QVLKERN_PRODUCT_NAME "Quarvel OS Abstraction Layer"
#endif
#ifndef QVLKERN_VERSION_STRING
#define QVLKERN_VERSION_STRING "0.0.0"
#endif
#ifndef QVLKERN_BUILD_NUMBER
#define QVLKERN_BUILD_NUMBER "0"
#endif

q_uint32_t if_logger_t::generation = 0;

namespace {

// --- names of the message classes ------------------------------------------

char const* const k_level_names[13] = {
    "CRIT",  "ERROR",  "WARNING", "NOTICE", "INFO",   "TRACE", "TRACE1",
    "TRACE2", "TRACE3", "DEBUG",  "DEBUG1", "DEBUG2", "DEBUG3",
};

char const* const k_acronyms[14] = {
    "FTL", "ERR", "wrn", "ntc", "inf", "tr0", "tr1", "tr2", "tr3", "db0", "db1", "db2", "db3", "unk",
};

// Name lookup order of translate_loglevel: "ALL" first, then from the most
// verbose class down.
struct level_name_t {
    char const* name;
    int value;
};
level_name_t const k_level_lookup[14] = {
    {"ALL", 12},   {"DEBUG3", 12}, {"DEBUG2", 11}, {"DEBUG1", 10}, {"DEBUG", 9},
    {"TRACE3", 8}, {"TRACE2", 7},  {"TRACE1", 6},  {"TRACE", 5},   {"INFO", 4},
    {"NOTICE", 3}, {"WARNING", 2}, {"ERROR", 1},   {"CRIT", 0},
};

struct facility_name_t {
    char const* name;
    int code;
};
facility_name_t const k_facilities[20] = {
    {"auth", LOG_AUTH},     {"authpriv", LOG_AUTHPRIV}, {"cron", LOG_CRON},     {"daemon", LOG_DAEMON},
    {"ftp", LOG_FTP},       {"kern", LOG_KERN},         {"lpr", LOG_LPR},       {"mail", LOG_MAIL},
    {"news", LOG_NEWS},     {"syslog", LOG_SYSLOG},     {"user", LOG_USER},     {"uucp", LOG_UUCP},
    {"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1},     {"local2", LOG_LOCAL2}, {"local3", LOG_LOCAL3},
    {"local4", LOG_LOCAL4}, {"local5", LOG_LOCAL5},     {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7},
};

char const k_repeat_head[] = "[Logger] Last message repeated ";
char const k_repeat_tail[] = " times\n";

// Largest piece handed to one write(2).
constexpr size_t k_max_piece = 0x7FFFFF;

// --- the calling thread's identity ------------------------------------------

// The process id and every thread's kernel id are cached: both are system
// calls, and the prefix needs them on every line. A fork renews them: the
// child handler takes the new pid and bumps the fork generation, which makes
// each thread of the child fetch its tid again on its next line.
std::atomic<int> g_pid{0};
std::atomic<unsigned> g_fork_generation{0};

void renew_ids_after_fork() {
    g_pid.store(static_cast<int>(::getpid()), std::memory_order_relaxed);
    g_fork_generation.fetch_add(1, std::memory_order_relaxed);
}

int process_id() {
    int pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static std::once_flag registered;
        std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, renew_ids_after_fork); });
        pid = static_cast<int>(::getpid());
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

// The calling thread's name as the thread registry knows it, or the name of
// unknown threads.
lstr_t thread_name() { return kern_n::runnable_t::self_name(); }

// --- fixed-width digits --------------------------------------------------------

char* put2(char* p, int value) {
    decimal_convertor_t<int, 2>::store0(value, p);
    return p + 2;
}

// The last five decimal digits, zero-filled.
char* put5(char* p, unsigned value) {
    int v = static_cast<int>(value % 100000);
    p[0] = static_cast<char>('0' + v / 10000);
    v %= 10000;
    decimal_convertor_t<int, 2>::store0(v, p + 3);
    decimal_convertor_t<int, 2>::store0(v, p + 1);
    return p + 5;
}

// The last six decimal digits, zero-filled.
char* put6(char* p, unsigned value) {
    int v = static_cast<int>(value % 1000000);
    decimal_convertor_t<int, 2>::store0(v, p + 4);
    decimal_convertor_t<int, 2>::store0(v, p + 2);
    decimal_convertor_t<int, 2>::store0(v, p);
    return p + 6;
}

q_int64_t floor_div(q_int64_t a, q_int64_t b) {
    q_int64_t q = a / b;
    return (a % b < 0) ? q - 1 : q;
}

// --- per-thread state ------------------------------------------------------------

// Formatting a line needs a few strings; allocating them for every line
// would cost more than the whole prefix. Each thread keeps one string per
// use and lends it out. A logger failure handler may log again on the same
// thread while a line is half done: a slot that is already lent is then
// replaced by a fresh local string.
enum scratch_slot_t { slot_line, slot_prefix, slot_message, slot_user, slot_count };

// Everything a thread keeps for its lines. Trivial to build and destroy, so
// that reaching it costs one thread-local address look-up and no guard; the
// scratch strings inside are built on first use and destroyed at thread
// exit by scratch_reaper_t.
struct thread_state_t {
    // The prefix cache.
    int tid;                   // 0: not fetched in this process yet
    unsigned fork_generation;  // of tid and ids
    char ids[11];              // "PPPPP TTTTT"
    q_int64_t utc_second;      // second of zone_ticks and date_time; 0: none
    q_int64_t zone_ticks;      // UTC minus local time
    q_int64_t local_second;    // local time, whole seconds
    char date_time[15];        // "YYYYMMDD.hhmmss" of local_second

    // The scratch strings.
    bool scratch_built;
    bool scratch_gone;  // destroyed at thread exit: later lines use locals
    bool lent[slot_count];
    alignas(std::string) unsigned char storage[slot_count][sizeof(std::string)];

    std::string& text(int slot) { return *std::launder(reinterpret_cast<std::string*>(storage[slot])); }
};
thread_local thread_state_t t_state;

// The calling thread's state. The empty asm keeps the address in a register:
// without it the compiler recomputes a thread-local address (a call into the
// dynamic linker) at every use.
inline thread_state_t& this_thread() {
    thread_state_t* s = &t_state;
    asm("" : "+r"(s));
    return *s;
}

struct scratch_reaper_t {
    ~scratch_reaper_t() {
        thread_state_t& s = this_thread();
        if (!s.scratch_built) return;
        s.scratch_built = false;
        s.scratch_gone = true;
        for (int i = 0; i < slot_count; ++i) s.text(i).~basic_string();
    }
};
thread_local scratch_reaper_t t_scratch_reaper;

// Builds the thread's scratch strings; false once they are gone.
bool build_scratch(thread_state_t& s) {
    if (s.scratch_gone) return false;
    // Touching the reaper registers its destructor for this thread.
    scratch_reaper_t* volatile reaper = &t_scratch_reaper;
    (void)reaper;
    for (int i = 0; i < slot_count; ++i) new (s.storage[i]) std::string();
    s.scratch_built = true;
    return true;
}

class scratch_lease_t {
public:
    scratch_lease_t(thread_state_t& s, scratch_slot_t slot) : text_(&local_), lent_(nullptr) {
        if (s.lent[slot] || (!s.scratch_built && !build_scratch(s))) return;
        s.lent[slot] = true;
        lent_ = &s.lent[slot];
        text_ = &s.text(slot);
        text_->clear();
    }
    ~scratch_lease_t() {
        if (!lent_) return;
        // A rare huge message must not pin its memory to the thread.
        if (text_->capacity() > 65536) std::string().swap(*text_);
        *lent_ = false;
    }
    scratch_lease_t(scratch_lease_t const&) = delete;
    scratch_lease_t& operator=(scratch_lease_t const&) = delete;

    std::string& get() { return *text_; }

private:
    std::string local_;
    std::string* text_;
    bool* lent_;
};

// Fetches the thread's kernel id once per thread and process.
void renew_ids(thread_state_t& t) {
    unsigned const gen = g_fork_generation.load(std::memory_order_relaxed);
    if (t.tid != 0 && t.fork_generation == gen) return;
    t.tid = static_cast<int>(::syscall(SYS_gettid));
    t.fork_generation = gen;
    put5(t.ids, static_cast<unsigned>(process_id()));
    t.ids[5] = ' ';
    put5(t.ids + 6, static_cast<unsigned>(t.tid));
}

// "YYYYMMDD.hhmmss.hh" of now in local time, 18 characters.
//
// The C library's zone code takes a lock and walks the zone rules, far too
// slow for every line. The offset is therefore cached per thread together
// with the text of the current second and taken again whenever the UTC
// second changes. Zone changes (daylight saving) happen on whole seconds,
// so the first line after a switch already carries the new offset; within
// one second each line only adds its hundredths.
char* put_local_time(thread_state_t& t, char* p) {
    constexpr q_int64_t tps = kern::time::ticks_per_second;
    q_int64_t const now = kern::time::now().value;
    q_int64_t const utc_second = floor_div(now - kern::time::unix_epoch_ticks, tps);
    if (utc_second != t.utc_second) {
        t.zone_ticks = localtime_t::TZ(static_cast<long>(utc_second)).value;
        t.utc_second = utc_second;
        q_int64_t const local_second = floor_div(now - t.zone_ticks, tps);
        t.local_second = local_second;
        int year, month, day;
        timestamp_t(local_second * tps).date(&year, &month, &day);
        int const of_day = static_cast<int>(local_second - floor_div(local_second, 86400) * 86400);
        char* d = t.date_time;
        int y = year % 10000;
        if (y < 0) y = -y;
        decimal_convertor_t<int, 2>::store0(y, d + 2);
        decimal_convertor_t<int, 2>::store0(y, d);
        put2(d + 4, month);
        put2(d + 6, day);
        d[8] = '.';
        put2(d + 9, of_day / 3600);
        put2(d + 11, of_day / 60 % 60);
        put2(d + 13, of_day % 60);
    }
    std::memcpy(p, t.date_time, sizeof t.date_time);
    p += sizeof t.date_time;
    *p++ = '.';
    q_int64_t const local = now - t.zone_ticks;
    return put2(p, static_cast<int>((local - t.local_second * tps) / (tps / 100)));
}

// va_copy with its va_end on every way out.
class va_copy_t {
public:
    explicit va_copy_t(va_list ap) { va_copy(ap_, ap); }
    ~va_copy_t() { va_end(ap_); }
    va_copy_t(va_copy_t const&) = delete;
    va_copy_t& operator=(va_copy_t const&) = delete;
    va_list& get() { return ap_; }

private:
    va_list ap_;
};

// Holds a mutex like xlocker_t and marks it busy meanwhile. A thread that
// finds the mark set spins a little before it blocks: the descriptor logger
// holds its mutexes for one write(2) at most, much less than it costs to
// sleep in the kernel and be woken again, which is what two threads logging
// at full speed would otherwise do on every line.
class spin_locker_t {
public:
    spin_locker_t(mutex_t& m, std::atomic<bool>& busy) : hold_((spin_while(busy), m)), busy_(busy) {
        busy_.store(true, std::memory_order_relaxed);
    }
    ~spin_locker_t() { busy_.store(false, std::memory_order_relaxed); }
    spin_locker_t(spin_locker_t const&) = delete;
    spin_locker_t& operator=(spin_locker_t const&) = delete;

private:
    // About a microsecond: one write(2) of a line.
    static void spin_while(std::atomic<bool> const& busy) {
        for (int i = 0; i < 64 && busy.load(std::memory_order_relaxed); ++i) __builtin_ia32_pause();
    }

    xlocker_t<mutex_t> hold_;
    std::atomic<bool>& busy_;
};

// --- the line into a buffer ---------------------------------------------------------

// Largest prefix: time 18, class 5, ids 13, generation 3, "] " 2.
constexpr size_t k_prefix_max = 48;
// Longest thread name that the buffered path writes; longer ones take the
// string path.
constexpr size_t k_name_max = 64;
// Room for a message in the buffered path. Above the 1024 characters of
// q_format_va's edge, so that the edge can be told from an overflow.
constexpr size_t k_message_max = 1152;

// The prefix up to the thread name: "YYYYMMDD.hhmmss.hh acr [PPPPP TTTTT] ",
// with " GG" before the "]" when the generation is above 1.
size_t put_prefix_head(thread_state_t& t, char* buf, if_logger_t::msgclass_t c) {
    renew_ids(t);
    char* p = put_local_time(t, buf);
    *p++ = ' ';
    std::memcpy(p, if_logger_t::severity(c), 3);
    p += 3;
    *p++ = ' ';
    *p++ = '[';
    std::memcpy(p, t.ids, sizeof t.ids);
    p += sizeof t.ids;
    q_uint32_t const gen = if_logger_t::generation;
    if (gen > 1) {
        *p++ = ' ';
        p = put2(p, static_cast<int>(gen % 100));
    }
    *p++ = ']';
    *p++ = ' ';
    return static_cast<size_t>(p - buf);
}

// The thread name padded with blanks to six characters, and one blank.
size_t put_name(char* buf, lstr_t const& name) {
    size_t const n = name.length();
    std::memcpy(buf, name.ptr(), n);
    size_t const width = n < 6 ? 7 - n : 1;
    std::memset(buf + n, ' ', width);
    return n + width;
}

// Writes the decimal text of the next argument, read as the given size.
template <typename I, typename L, typename LL, typename Z>
int put_integer(char* out, va_list& ap, int size) {
    switch (size) {
    case 0: return add_number_to_string(static_cast<I>(va_arg(ap, I)), out);
    case 1: return add_number_to_string(static_cast<L>(va_arg(ap, L)), out);
    case 2: return add_number_to_string(static_cast<LL>(va_arg(ap, LL)), out);
    default: return add_number_to_string(static_cast<Z>(va_arg(ap, Z)), out);
    }
}

// Log formats are mostly plain text with %d, %s and the like, and the C
// library's printf costs more than all the rest of a line. Formats made only
// of %d %i %u (plain or with l, ll, z), %s (also with a precision such as
// %.*s), %c and %% are written here into buf, the digits through the
// library's number formatting. Anything else (flags, widths, other
// conversions, a null %s) or a text longer than cap answers false, and the
// caller takes the full formatter (q_format_va). The text is the one
// q_format_va makes, down to its 1024-character edge.
bool put_simple_format(char* buf, size_t cap, size_t& len, char const* fmt, va_list ap) {
    va_copy_t copy(ap);
    va_list& args = copy.get();
    char* dst = buf;
    char* const end = buf + cap;
    char const* p = fmt;
    for (;;) {
        char const* const pct = strchrnul(p, '%');
        size_t const plain = static_cast<size_t>(pct - p);
        if (plain > static_cast<size_t>(end - dst)) return false;
        std::memcpy(dst, p, plain);
        dst += plain;
        if (!*pct) break;
        char const* q = pct + 1;
        long precision = -1;
        if (*q == '.') {
            ++q;
            if (*q == '*') {
                int const given = va_arg(args, int);
                precision = given < 0 ? -1 : given;
                ++q;
            } else {
                precision = 0;
                for (; *q >= '0' && *q <= '9' && precision < 100000000; ++q) precision = precision * 10 + (*q - '0');
            }
        }
        int size = 0;  // int, long, long long, size_t
        if (*q == 'l') {
            size = 1;
            if (*++q == 'l') {
                size = 2;
                ++q;
            }
        } else if (*q == 'z') {
            size = 3;
            ++q;
        }
        char const conv = *q++;
        if (conv == 's') {
            char const* const text = size == 0 ? va_arg(args, char const*) : nullptr;
            if (!text) return false;
            size_t const room = static_cast<size_t>(end - dst);
            size_t const n = strnlen(text, precision < 0 ? room + 1 : std::min(static_cast<size_t>(precision), room + 1));
            if (n > room) return false;
            std::memcpy(dst, text, n);
            dst += n;
        } else if (precision >= 0) {
            return false;
        } else if (conv == 'd' || conv == 'i' || conv == 'u') {
            if (end - dst < 24) return false;
            dst += conv == 'u' ? put_integer<unsigned, unsigned long, unsigned long long, size_t>(dst, args, size)
                               : put_integer<int, long, long long, ssize_t>(dst, args, size);
        } else if ((conv == 'c' || conv == '%') && size == 0) {
            if (dst == end) return false;
            *dst++ = conv == 'c' ? static_cast<char>(va_arg(args, int)) : '%';
        } else {
            return false;
        }
        p = q;
    }
    len = static_cast<size_t>(dst - buf);
    // q_format_va keeps 1023 characters and a NUL of a 1024-character text.
    if (len == 1024) buf[1023] = '\0';
    return true;
}

int syslog_priority(if_logger_t::msgclass_t c) {
    switch (c) {
    case 0: return LOG_EMERG;
    case 1: return LOG_ERR;
    case 2: return LOG_WARNING;
    case 3: return LOG_NOTICE;
    case 4: return LOG_INFO;
    default: return LOG_DEBUG;
    }
}

// Demangled dynamic type of a logger, for the chain's complaints.
std::string type_name_of(if_logger_t const& l) {
    kern_n::demangle_t d;
    return d.name(typeid(l));
}

}  // namespace

// --- if_root_t-derived interfaces ----------------------------------------------

struct if_logger_t::impl_t {
    impl_t() : handlers(11) {}

    mutex_t mutex;
    boost::unordered_set<if_logger_error_t*> handlers;
};

if_logger_t::if_logger_t(msgclass_t level) : impl_(new impl_t), level_(level) {}

if_logger_t::~if_logger_t() { delete impl_; }

// Reached only by a call made while a logger is being built or destroyed.
bool if_logger_t::is_stderr() const { QVL_THROW(BUG_exception, "pure virtual if_logger_t::is_stderr() called"); }
size_t if_logger_t::write(char const*) { QVL_THROW(BUG_exception, "pure virtual if_logger_t::write() called"); }

namespace {

// The body of log_va, kept out of line so that a filtered-out call costs
// only the level test.
__attribute__((noinline)) void format_and_write(if_logger_t* l, if_logger_t::msgclass_t c, char const* fmt,
                                                va_list ap) {
    scratch_lease_t line(this_thread(), slot_line);
    l->format(c, line.get(), fmt, ap);
    l->write(line.get().c_str());
}

}  // namespace

void if_logger_t::log_va(msgclass_t c, char const* fmt, va_list ap) {
    if (is_logged(c)) format_and_write(this, c, fmt, ap);
}

void if_logger_t::set_level(msgclass_t c) { level_.store(c, std::memory_order_relaxed); }

if_logger_t::msgclass_t if_logger_t::get_level() const { return level_.load(std::memory_order_relaxed); }

bool if_logger_t::is_logged(msgclass_t c) { return level_.load(std::memory_order_relaxed) >= c; }

void if_logger_t::format(msgclass_t c, std::string& out, char const* fmt, va_list ap) {
    format_pref(out, c);
    format_user(out, fmt, ap);
}

void if_logger_t::insert_handler(if_logger_error_t* h) {
    xlocker_t<mutex_t> hold(impl_->mutex);
    impl_->handlers.insert(h);
}

void if_logger_t::remove_handler(if_logger_error_t* h) {
    xlocker_t<mutex_t> hold(impl_->mutex);
    impl_->handlers.erase(h);
}

void if_logger_t::notify_error(if_logger_error_t::error_type_t type, std::string const& text) {
    xlocker_t<mutex_t> hold(impl_->mutex);
    msgclass_t const saved = get_level();
    set_level(-1);
    try {
        for (if_logger_error_t* h : impl_->handlers) h->notify(this, type, text);
    } catch (...) {
        set_level(saved);
        throw;
    }
    set_level(saved);
}

void if_logger_t::format_pref(std::string& out, msgclass_t c) {
    char buf[k_prefix_max];
    out.append(buf, put_prefix_head(this_thread(), buf, c));
    lstr_t const name = thread_name();
    out.append(name.ptr(), name.length());
    out.append(name.length() < 6 ? 7 - name.length() : 1, ' ');
}

void if_logger_t::format_user(std::string& out, char const* fmt, va_list ap) {
    char buf[k_message_max];
    size_t len;
    if (put_simple_format(buf, sizeof buf, len, fmt, ap)) {
        out.append(buf, len);
        return;
    }
    if (out.empty()) {
        q_format_va(out, fmt, ap);
        return;
    }
    scratch_lease_t text(this_thread(), slot_user);
    q_format_va(text.get(), fmt, ap);
    out.append(text.get());
}

#define QVL_LOG_WRAPPER(name, c)                \
    void if_logger_t::name(char const* fmt, ...) { \
        if (level_filter_only_ && level_.load(std::memory_order_relaxed) < (c)) return; \
        va_list ap;                             \
        va_start(ap, fmt);                      \
        try {                                   \
            log_va((c), fmt, ap);               \
        } catch (...) {                         \
            va_end(ap);                         \
            throw;                              \
        }                                       \
        va_end(ap);                             \
    }

void if_logger_t::log(msgclass_t c, char const* fmt, ...) {
    if (level_filter_only_ && level_.load(std::memory_order_relaxed) < c) return;
    va_list ap;
    va_start(ap, fmt);
    try {
        log_va(c, fmt, ap);
    } catch (...) {
        va_end(ap);
        throw;
    }
    va_end(ap);
}

QVL_LOG_WRAPPER(log_CRIT, CRIT)
QVL_LOG_WRAPPER(log_FAULT, FAULT)
QVL_LOG_WRAPPER(log_WARNING, WARNING)
QVL_LOG_WRAPPER(log_NOTICE, NOTICE)
QVL_LOG_WRAPPER(log_INFO, INFO)
QVL_LOG_WRAPPER(log_TRACE, TRACE)
QVL_LOG_WRAPPER(log_TRACE_1, TRACE_1)
QVL_LOG_WRAPPER(log_TRACE_3, TRACE_3)
QVL_LOG_WRAPPER(log_DEBUG, DEBUG)
QVL_LOG_WRAPPER(log_DEBUG_3, DEBUG_3)

#undef QVL_LOG_WRAPPER

char const* if_logger_t::translate_loglevel(int c) {
    return static_cast<unsigned>(c) <= 12 ? k_level_names[c] : "ALL";
}

bool if_logger_t::translate_loglevel(char const* name, int& out) {
    if (!name) name = "";
    for (level_name_t const& l : k_level_lookup) {
        if (lstr_t::strcasecmp(name, l.name) == 0) {
            out = l.value;
            return true;
        }
    }
    return false;
}

bool if_logger_t::translate_loglevel_acronym(lstr_t const& s, int& out) {
    for (int i = 0; i < 14; ++i) {
        if (s.ic_eq(lstr_t(k_acronyms[i], 3))) {
            out = i;
            return true;
        }
    }
    return false;
}

char const* if_logger_t::severity(msgclass_t c) {
    // Out-of-range classes read as the last real row, not as "unk".
    return k_acronyms[static_cast<unsigned>(c) <= 12 ? c : 12];
}

void if_logger_t::log_abort(lstr_t const& text) {
    if_logger_t* const l = Log;
    if (!l) return;
    int const n = static_cast<int>(text.length());
    if (l->is_logged(CRIT)) l->log_CRIT("%.*s\n", n, text.ptr());
    if (!l->is_stderr()) std::fprintf(stderr, "%.*s\n", n, text.ptr());
}

// --- descriptor logger ------------------------------------------------------------

if_logger_t* fd_logger_t::create() { return new fd_logger_impl_t(2); }
if_logger_t* fd_logger_t::create(int fd) { return new fd_logger_impl_t(fd); }
if_logger_t* fd_logger_t::create_() { return new fd_logger_impl_t(2); }

fd_logger_impl_t::fd_logger_impl_t(int fd)
    : if_logger_t(INFO),
      fd_(fd),
      failure_reported_(false),
      repeat_count_(1),
      repeat_busy_(false),
      write_busy_(false) {
    level_filter_only_ = true;
}

fd_logger_impl_t::~fd_logger_impl_t() {
    try {
        write_repeat_summary();
    } catch (...) {
        // A handler's exception has nowhere to go from here.
    }
}

bool fd_logger_impl_t::is_stderr() const { return fd_ == 2; }

size_t fd_logger_impl_t::write(char const* text) {
    if (!text || !*text) return 0;
    return write_fd(text, std::strlen(text));
}

size_t fd_logger_impl_t::write_fd(char const* text, size_t len) {
    if (len == 0) return 0;
    spin_locker_t hold(write_mutex_, write_busy_);
    // Read under the mutex: a file logger replaces its descriptor while its
    // compression thread may be writing a message.
    int const fd = fd_;
    if (fd == -1) return 0;
    // pos is both the position in text and the count of bytes written.
    std::ptrdiff_t pos = 0;
    size_t left = len;
    while (left > 0) {
        ssize_t const r = ::write(fd, text + pos, std::min(left, k_max_piece));
        if (r >= 0) {
            failure_reported_ = false;
            pos += r;
            left -= static_cast<size_t>(r);
            continue;
        }
        if (errno == EINTR) continue;
        if (!failure_reported_) {
            error_saver_t const saved;
            std::string const error = get_last_error(saved);
            failure_reported_ = true;
            notify_error(if_logger_error_t::write_failed, error);
            return static_cast<size_t>(pos);
        }
        // A failure that was already reported is not reported again, and the
        // loop does not give up: it takes the failed result as a count of -1
        // and tries again from one byte further back, until a write goes
        // through or it reaches a zero byte. The byte before the text counts
        // as the zero that ends the previous one.
        pos -= 1;
        left += 1;
        if (pos < 0 || text[pos] == '\0') return 0;
    }
    return static_cast<size_t>(pos);
}

void fd_logger_impl_t::format(msgclass_t c, std::string& out, char const* fmt, va_list ap) {
    // The common line is built in one stack buffer: prefix, then message.
    thread_state_t& t = this_thread();
    char line[k_prefix_max + k_name_max + 8 + k_message_max];
    size_t const head = put_prefix_head(t, line, c);
    lstr_t const name = thread_name();
    if (name.length() <= k_name_max) {
        size_t const plen = head + put_name(line + head, name);
        size_t mlen;
        if (put_simple_format(line + plen, k_message_max, mlen, fmt, ap)) {
            line[plen + mlen] = '\n';
            emit_line(out, line, plen, line + plen, mlen);
            return;
        }
    }
    // A long name or a format that needs printf: the same line in strings.
    scratch_lease_t prefix(t, slot_prefix);
    scratch_lease_t message(t, slot_message);
    prefix.get().assign(line, head).append(name.ptr(), name.length());
    prefix.get().append(name.length() < 6 ? 7 - name.length() : 1, ' ');
    format_user(message.get(), fmt, ap);
    emit_line(out, prefix.get().data(), prefix.get().size(), message.get().data(), message.get().size());
}

namespace {

// out becomes prefix, message and a line end; one copy when the three
// already follow each other.
void put_line(std::string& out, char const* prefix, size_t plen, char const* message, size_t mlen) {
    if (message == prefix + plen && message[mlen] == '\n') {
        out.assign(prefix, plen + mlen + 1);
    } else {
        out.assign(prefix, plen).append(message, mlen).push_back('\n');
    }
}

}  // namespace

void fd_logger_impl_t::emit_line(std::string& out, char const* prefix, size_t plen, char const* message,
                                 size_t mlen) {
    if (!fd_logger_t::last_repeated_avail) {
        put_line(out, prefix, plen, message, mlen);
        return;
    }
    spin_locker_t hold(repeat_mutex_, repeat_busy_);
    if (mlen == last_message_.size() && std::memcmp(message, last_message_.data(), mlen) == 0) {
        // Only the text counts: the same text in another class repeats too.
        last_prefix_.assign(prefix, plen);
        ++repeat_count_;
        return;
    }
    put_line(out, prefix, plen, message, mlen);
    // The summary goes out before this line, stamped with the time of the
    // last repetition.
    if (repeat_count_ != 1) write_repeat_summary_locked();
    // The last prefix is read only by a summary, and every repetition that
    // leads to one stores its own prefix first: a line that starts a new
    // message need not store it.
    last_message_.assign(message, mlen);
}

void fd_logger_impl_t::write_repeat_summary() {
    spin_locker_t hold(repeat_mutex_, repeat_busy_);
    if (repeat_count_ != 1) write_repeat_summary_locked();
}

void fd_logger_impl_t::write_repeat_summary_locked() {
    // The count includes the first occurrence, which was written in full.
    std::string line;
    line.reserve(last_prefix_.size() + sizeof k_repeat_head + sizeof k_repeat_tail + 12);
    line.append(last_prefix_).append(k_repeat_head);
    add_number_to_string(repeat_count_, line);
    line.append(k_repeat_tail);
    repeat_count_ = 1;
    write_fd(line.data(), line.size());
}

// --- syslog logger -------------------------------------------------------------------

if_logger_t* syslog_logger_t::create(int facility) { return new syslog_logger_impl_t(facility); }

int syslog_logger_t::trans_facility(char const* name) {
    if (!name) name = "";
    for (facility_name_t const& f : k_facilities) {
        if (lstr_t::strcasecmp(name, f.name) == 0) return f.code;
    }
    return -1;
}

syslog_logger_impl_t::syslog_logger_impl_t(int facility_) : if_logger_t(INFO), facility(facility_) {
    level_filter_only_ = true;
    ::openlog("qvlsrv", LOG_PID | LOG_CONS, facility);
}

bool syslog_logger_impl_t::is_stderr() const { return false; }

size_t syslog_logger_impl_t::write(char const* text) {
    ::syslog(LOG_ERR | facility, "misuse syslog!");
    ::syslog(LOG_DEBUG | facility, "%s", text);
    return 0;
}

void syslog_logger_impl_t::log_va(msgclass_t c, char const* fmt, va_list ap) {
    if (!is_logged(c)) return;
    scratch_lease_t line(this_thread(), slot_line);
    format(c, line.get(), fmt, ap);
    ::syslog(syslog_priority(c) | facility, "%s", line.get().c_str());
}

void syslog_logger_impl_t::format(msgclass_t c, std::string& out, char const* fmt, va_list ap) {
    // The system log adds the time and the process id.
    char buf[16];
    thread_state_t& t = this_thread();
    renew_ids(t);
    char* p = put6(buf, static_cast<unsigned>(t.tid));
    *p++ = ' ';
    q_uint32_t const gen = generation;
    if (gen > 1) {
        p = put2(p, static_cast<int>(gen % 100));
        *p++ = 'g';
        *p++ = ' ';
    }
    out.append(buf, static_cast<size_t>(p - buf));
    lstr_t const name = thread_name();
    out.append(name.ptr(), name.length()).append("; ").append(severity(c), 3).append("; ");
    format_user(out, fmt, ap);
}

// --- chain logger ----------------------------------------------------------------------

if_logger_t* chain_logger_t::create(if_logger_t* first, if_logger_t* second) {
    return new chain_logger_impl_t(first, second == first ? nullptr : second);
}

void chain_logger_t::add(if_logger_t* l) { if_logger_t::Log = create(l, if_logger_t::Log); }

void chain_logger_t::remove(if_logger_t* l) {
    if (!l) return;
    if_logger_t* const root = if_logger_t::Log;
    if (!root) QVL_THROW(BUG_exception, "zero logger");
    chain_logger_impl_t* node = dynamic_cast<chain_logger_impl_t*>(root);
    if (!node) QVL_THROW(BUG_exception, "bad root: %s", type_name_of(*root).c_str());
    chain_logger_impl_t* prev = nullptr;
    for (;;) {
        if (node->first == l) {
            if (!prev) {
                if (!node->second) QVL_THROW(BUG_exception, "zero new root");
                if_logger_t::Log = node->second;
            } else {
                prev->second = node->second;
            }
            node->first = nullptr;
            node->second = nullptr;
            delete node;
            return;
        }
        if_logger_t* const next = node->second;
        if (!next) QVL_THROW(BUG_exception, "zero chain");
        chain_logger_impl_t* const chain = dynamic_cast<chain_logger_impl_t*>(next);
        if (!chain) QVL_THROW(BUG_exception, "bad chain: %s", type_name_of(*next).c_str());
        prev = node;
        node = chain;
    }
}

void chain_logger_t::collect_info(std::string& out) {
    if_logger_t* const root = if_logger_t::Log;
    if (!root) {
        out = "zero logger";
        return;
    }
    chain_logger_impl_t const* node = dynamic_cast<chain_logger_impl_t const*>(root);
    if (!node) {
        out = "root is not chain: " + type_name_of(*root);
        return;
    }
    // The static type of the members: the text shows which are present.
    kern_n::demangle_t d;
    char const* const member = d.name(typeid(node->first));
    for (; node; node = dynamic_cast<chain_logger_impl_t const*>(node->second)) {
        if (!out.empty()) out.append("; ");
        out.append(member).append("( ").append(node->first ? member : "null").append(", ");
        out.append(node->second ? member : "null").append(" )");
    }
}

chain_logger_impl_t::chain_logger_impl_t(if_logger_t* first_, if_logger_t* second_)
    : if_logger_t(INFO), first(first_), second(second_) {}

chain_logger_impl_t::~chain_logger_impl_t() {
    delete first;
    delete second;
}

bool chain_logger_impl_t::is_stderr() const { return has_stderr_again(first) || has_stderr_again(second); }

size_t chain_logger_impl_t::write(char const*) {
    QVL_THROW(BUG_exception, "chain_logger_impl_t::write( const char* ) called");
}

void chain_logger_impl_t::log_va(msgclass_t c, char const* fmt, va_list ap) {
    if (first) {
        va_copy_t copy(ap);
        first->log_va(c, fmt, copy.get());
    }
    if (second) {
        va_copy_t copy(ap);
        second->log_va(c, fmt, copy.get());
    }
}

void chain_logger_impl_t::set_level(msgclass_t c) {
    if_logger_t::set_level(c);
    if (first) first->set_level(c);
    if (second) second->set_level(c);
}

if_logger_t::msgclass_t chain_logger_impl_t::get_level() const {
    msgclass_t const a = first ? first->get_level() : 0;
    msgclass_t const b = second ? second->get_level() : 0;
    return std::max(a, b);
}

bool chain_logger_impl_t::is_logged(msgclass_t c) {
    return (first && first->is_logged(c)) || (second && second->is_logged(c));
}

void chain_logger_impl_t::insert_handler(if_logger_error_t* h) {
    if_logger_t::insert_handler(h);
    if (first) first->insert_handler(h);
    if (second) second->insert_handler(h);
}

void chain_logger_impl_t::remove_handler(if_logger_error_t* h) {
    if_logger_t::remove_handler(h);
    if (first) first->remove_handler(h);
    if (second) second->remove_handler(h);
}

bool chain_logger_impl_t::has_stderr_again(if_logger_t const* l) {
    if (!l) return false;
    // The test is against the facade, which the descriptor loggers made by
    // fd_logger_t::create do not derive from: for them it fails. init_logger
    // relies on this answer as it is.
    if (dynamic_cast<fd_logger_t const*>(l)) return l->is_stderr();
    if (chain_logger_impl_t const* c = dynamic_cast<chain_logger_impl_t const*>(l))
        return has_stderr_again(c->first) || has_stderr_again(c->second);
    return false;
}

// --- bootstrap logger -------------------------------------------------------------------

logger_init_t::simple::simple() : if_logger_t(INFO) { level_filter_only_ = true; }

bool logger_init_t::simple::is_stderr() const { return true; }

size_t logger_init_t::simple::write(char const* text) {
    return static_cast<size_t>(std::fprintf(stderr, "%s\n", text));
}

logger_init_t::simple& logger_init_t::instance() {
    // Built in static storage and never destroyed: the process logger falls
    // back to it during teardown, after every other static may be gone.
    alignas(simple) static unsigned char storage[sizeof(simple)];
    static simple* const s = new (storage) simple();
    return *s;
}

logger_init_t::~logger_init_t() {
    if_logger_t* const l = if_logger_t::Log;
    simple& s = instance();
    if_logger_t::Log = &s;
    if (l && l != &s) delete l;
}

// --- file logger -------------------------------------------------------------------------

namespace {

constexpr q_int64_t k_second = kern::time::ticks_per_second;
constexpr q_int64_t k_minute = 60 * k_second;
constexpr q_int64_t k_hour = 60 * k_minute;
constexpr q_int64_t k_day = 24 * k_hour;
constexpr q_int64_t k_week = 7 * k_day;

constexpr q_int64_t k_default_size_limit = 10485760;
constexpr q_uint32_t k_default_count = 10;
constexpr mode_t k_log_mode = 0640;
// The compression copies the rotated file in blocks of this size.
constexpr size_t k_pack_block = 16384;

// The logger's own clock needs no more than a few milliseconds of
// precision (a check once a second, rotation at period ends), and every
// line reads it: the coarse clock costs a fifth of the precise one.
// True when now has reached a time that was set span ahead, or when that
// time lies further ahead than span: the clock was set back, and waiting
// for it would suspend the checks for as long as the step.
bool reached(timestamp_t now, timestamp_t gate, q_int64_t span) {
    return now >= gate || gate.value - now.value > span;
}

timestamp_t coarse_now() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return timestamp_t(ts.tv_sec * k_second + ts.tv_nsec / 10 + kern::time::unix_epoch_ticks);
}

// A parsed rotation specification.
struct rotation_t {
    q_int64_t size_limit = k_default_size_limit;
    q_int64_t time_limit = 0;
    q_uint32_t count = k_default_count;
    bool compress = true;
    std::string text;  // after the comma
};

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads "<count>[zp],<number><unit>"; false for text that is none of the
// forms (the caller refuses the rotation text). The numbers go through the
// library's strict readers, which throw on overflow.
bool parse_rotation(lstr_t text, rotation_t& r) {
    text = text.trim();
    if (text.empty() || text.ic_eq("NONE")) {
        r.size_limit = -1;
        return true;
    }
    try {
        unsigned long const comma = text.find(',');
        lstr_t head(text.ptr(), comma == lstr_t::npos ? text.length() : comma);
        unsigned long digits = 0;
        while (digits < head.length() && is_digit(head[digits])) ++digits;
        q_uint32_t const count = digits ? string_to_num_strict(lstr_t(head.ptr(), digits)) : 0;
        head.remove_prefix(digits);
        bool compress = true;
        if (head.length() == 1 && (head[0] == 'p' || head[0] == 'P')) {
            compress = false;
        } else if (!head.empty() && !(head.length() == 1 && (head[0] == 'z' || head[0] == 'Z'))) {
            return false;
        }
        r.count = count ? count : k_default_count;
        r.compress = compress;
        if (comma == lstr_t::npos) {
            // "10z": files and compression given, but nothing to rotate on.
            r.size_limit = -1;
            return true;
        }
        lstr_t tail(text.ptr() + comma + 1, text.length() - comma - 1);
        r.text = tail.to_string();
        unsigned long n = (!tail.empty() && (tail[0] == '-' || tail[0] == '+')) ? 1 : 0;
        unsigned long const sign = n;
        while (n < tail.length() && is_digit(tail[n])) ++n;
        if (sign && n == sign) return false;
        q_int64_t const number = n ? string_to_int64(lstr_t(tail.ptr(), n)) : 0;
        tail.remove_prefix(n);
        if (tail.length() > 1) return false;
        q_int64_t unit = 0;
        bool by_size = true;
        switch (tail.empty() ? 'm' : tail[0]) {
        case 'k': case 'K': unit = 1024; break;
        case 'm': case 'M': unit = 1048576; break;
        case 'g': case 'G': unit = 1073741824; break;
        case 'h': case 'H': unit = k_hour; by_size = false; break;
        case 'd': case 'D': unit = k_day; by_size = false; break;
        case 'w': case 'W': unit = k_week; by_size = false; break;
        default: return false;
        }
        if (by_size) {
            if (number < 0) {
                r.size_limit = -1;
            } else if (__builtin_mul_overflow(number ? number : 10, unit, &r.size_limit)) {
                return false;
            }
        } else {
            r.size_limit = -1;
            if (number < 0) {
                r.time_limit = 0;
            } else if (__builtin_mul_overflow(number ? number : 1, unit, &r.time_limit)) {
                return false;
            }
        }
        return true;
    } catch (std::exception const&) {
        return false;  // a number too large for its type
    }
}

// The first multiple of period after base (both local ticks); the largest
// value when that lies beyond the range of time stamps.
q_int64_t next_boundary(q_int64_t base, q_int64_t period) {
    q_int64_t m = base % period;
    if (m < 0) m += period;
    q_int64_t next;
    if (__builtin_add_overflow(base - m, period, &next)) return INT64_MAX;
    return next;
}

// The local time of a line's "YYYYMMDD.hhmmss.hh" stamp; false when the 18
// characters are not one.
bool read_line_stamp(char const* p, q_int64_t& local) {
    static int const widths[7] = {4, 2, 2, 2, 2, 2, 2};
    static int const offsets[7] = {0, 4, 6, 9, 11, 13, 16};
    if (p[8] != '.' || p[15] != '.') return false;
    int f[7];
    for (int i = 0; i < 7; ++i) {
        lstr_t const field(p + offsets[i], static_cast<unsigned long>(widths[i]));
        for (char c : field) {
            if (!is_digit(c)) return false;
        }
        f[i] = static_cast<int>(string_to_num_strict(field));
    }
    if (f[0] < 1 || f[1] < 1 || f[1] > 12 || f[2] < 1 || f[2] > 31 || f[3] > 23 || f[4] > 59 || f[5] > 60)
        return false;
    timestamp_t t;
    t.init(f[5], f[4], f[3], f[2], f[1], f[0]);
    local = t.value + f[6] * (k_second / 100);
    return true;
}

int open_retry(char const* name, int flags, mode_t mode) {
    int fd;
    do {
        fd = ::open(name, flags | O_CLOEXEC, mode);
    } while (fd == -1 && errno == EINTR);
    return fd;
}

int rename_retry(std::string const& from, std::string const& to) {
    int rc;
    do {
        rc = ::rename(from.c_str(), to.c_str());
    } while (rc == -1 && errno == EINTR);
    return rc;
}

int unlink_retry(std::string const& name) {
    int rc;
    do {
        rc = ::unlink(name.c_str());
    } while (rc == -1 && errno == EINTR);
    return rc;
}

// close(2) is never retried: Linux frees the descriptor also when it reports
// EINTR, and a second close could hit a descriptor that another thread has
// just been given.
int close_once(int fd) { return ::close(fd); }

// The system's text of a saved error code.
std::string error_text(int code) {
    errno = code;
    error_saver_t const saved;
    return get_last_error(saved);
}

// A descriptor closed at the end of the scope.
class fd_holder_t {
public:
    explicit fd_holder_t(int fd) : fd_(fd) {}
    ~fd_holder_t() {
        if (fd_ != -1) close_once(fd_);
    }
    fd_holder_t(fd_holder_t const&) = delete;
    fd_holder_t& operator=(fd_holder_t const&) = delete;
    int get() const { return fd_; }
    int release() {
        int const fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// A gzip stream closed at the end of the scope unless closed before.
class gz_holder_t {
public:
    explicit gz_holder_t(gzFile gz) : gz_(gz) {}
    ~gz_holder_t() {
        if (gz_) gzclose(gz_);
    }
    gz_holder_t(gz_holder_t const&) = delete;
    gz_holder_t& operator=(gz_holder_t const&) = delete;
    gzFile get() const { return gz_; }
    gzFile release() {
        gzFile const gz = gz_;
        gz_ = nullptr;
        return gz;
    }

private:
    gzFile gz_;
};

// Compresses from into to and removes from. On a failure message becomes
// the report, the partial to is removed and from stays, so that the rotated
// lines are never lost nor left only in a truncated .gz. The thread that
// runs this blocks every signal, so zlib's own writes see no EINTR.
void compress_file(std::string const& from, std::string const& to, std::string& message) {
    fd_holder_t in(open_retry(from.c_str(), O_RDONLY | O_NOCTTY, 0));
    if (in.get() == -1) {
        error_saver_t const saved;
        file_logger_impl_t::prepare(message, if_logger_t::INFO, "[Logger] Unable to open file \"%s\" because of %s",
                                    from.c_str(), get_last_error(saved).c_str());
        return;
    }
    fd_holder_t out(open_retry(to.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOCTTY, k_log_mode));
    if (out.get() == -1) {
        error_saver_t const saved;
        file_logger_impl_t::prepare(message, if_logger_t::INFO, "[Logger] Unable to create file \"%s\" because of %s",
                                    to.c_str(), get_last_error(saved).c_str());
        return;
    }
    // The stream gets a descriptor of its own and closes it; out stays open
    // for the fsync after the stream has written its trailer.
    fd_holder_t stream_fd(::fcntl(out.get(), F_DUPFD_CLOEXEC, 0));
    gz_holder_t gz(stream_fd.get() == -1 ? nullptr : gzdopen(stream_fd.get(), "wb9"));
    if (!gz.get()) {
        std::string const error = stream_fd.get() == -1 ? get_last_error() : std::string(zError(Z_MEM_ERROR));
        file_logger_impl_t::prepare(message, if_logger_t::INFO,
                                    "[Logger] Unable to create compressed file \"%s\" because of %s", to.c_str(),
                                    error.c_str());
        unlink_retry(to);
        return;
    }
    stream_fd.release();

    std::unique_ptr<char[]> const block(new char[k_pack_block]);
    for (;;) {
        ssize_t got;
        do {
            got = ::read(in.get(), block.get(), k_pack_block);
        } while (got == -1 && errno == EINTR);
        if (got == 0) break;
        if (got < 0) {
            error_saver_t const saved;
            file_logger_impl_t::prepare(
                message, if_logger_t::INFO,
                "[Logger] File \"%s\" written partially because of unable to read file \"%s\" because of %s",
                to.c_str(), from.c_str(), get_last_error(saved).c_str());
            gzclose(gz.release());
            unlink_retry(to);
            return;
        }
        for (ssize_t put = 0; put < got;) {
            int const n = gzwrite(gz.get(), block.get() + put, static_cast<unsigned>(got - put));
            if (n <= 0) {
                int code = 0;
                std::string const error = gzerror(gz.get(), &code);
                file_logger_impl_t::prepare(message, if_logger_t::INFO,
                                            "[Logger] Unable to write into file \"%s\" because of %s", to.c_str(),
                                            error.c_str());
                gzclose(gz.release());
                unlink_retry(to);
                return;
            }
            put += n;
        }
    }
    // The trailer goes out at the close, and it can fail as any write can.
    int const rc = gzclose(gz.release());
    int synced = -1;
    if (rc == Z_OK) {
        do {
            synced = ::fsync(out.get());
        } while (synced == -1 && errno == EINTR);
    }
    if (rc != Z_OK || synced == -1) {
        error_saver_t const saved;
        std::string const error = rc == Z_OK || rc == Z_ERRNO ? get_last_error(saved) : std::string(zError(rc));
        file_logger_impl_t::prepare(message, if_logger_t::INFO,
                                    "[Logger] Unable to write into file \"%s\" because of %s", to.c_str(),
                                    error.c_str());
        unlink_retry(to);
        return;
    }
    close_once(out.release());
    close_once(in.release());
    if (unlink_retry(from) == -1) {
        error_saver_t const saved;
        file_logger_impl_t::prepare(message, if_logger_t::INFO, "[Logger] Unable to remove file \"%s\" because of %s",
                                    from.c_str(), get_last_error(saved).c_str());
    }
}

// The compression thread's entry in the thread registry: its lines show
// "logzip" and it is listed with the other threads.
class pack_entry_t : public kern_n::runnable_t {
public:
    pack_entry_t() : runnable_t(deferred_t()) {
        set_name("logzip");
        register_in_list();
    }
    ~pack_entry_t() override { deregister_from_list(); }
    char const* type() const override { return "logzip"; }
};

}  // namespace

// What a compression thread owns.
struct file_logger_impl_t::pack_job_t {
    file_logger_impl_t* logger;
    rotation_hold_t hold;
    std::string from;
    std::string to;
};

file_logger_impl_t::clock_fn_t file_logger_impl_t::clock = &coarse_now;

if_logger_t* file_logger_t::create(char const* name, char const* rotation) {
    return new file_logger_impl_t(name, rotation, std::string());
}

if_logger_t* file_logger_t::create(char const* name, char const* rotation, std::string banner) {
    return new file_logger_impl_t(name, rotation, std::move(banner));
}

file_logger_impl_t::file_logger_impl_t(char const* name, char const* rotation, std::string banner)
    : fd_logger_impl_t(-1),
      file_busy_(false),
      rename_failure_reported_(false),
      reopen_failure_reported_(false),
      opened_(false),
      size_limit_(k_default_size_limit),
      time_limit_(0),
      next_rotation_(0),
      count_(k_default_count),
      compress_(true),
      current_size_(0),
      open_errno_(0),
      zone_ticks_(0) {
    init(name, rotation, std::move(banner));
}

file_logger_impl_t::~file_logger_impl_t() {
    try {
        wait_compression();
        write_repeat_summary();
    } catch (...) {
        // A lock or handler failure has nowhere to go from here.
    }
    close();
}

void file_logger_impl_t::init(char const* name, char const* rotation, std::string banner) {
    size_limit_ = k_default_size_limit;
    time_limit_ = 0;
    count_ = k_default_count;
    compress_ = true;
    file_name_ = name ? name : "";
    banner_ = std::move(banner);
    rotation_t r;
    if (!parse_rotation(lstr_t(rotation), r)) {
        if_logger_t* const l = Log;
        if (l && l->is_logged(FAULT)) l->log_FAULT("Invalid logs rotation \"%s\"", rotation ? rotation : "");
        return;
    }
    size_limit_ = r.size_limit;
    time_limit_ = r.time_limit;
    count_ = r.count;
    compress_ = r.compress;
    rotation_text_ = std::move(r.text);
    open(false, nullptr);
}

bool file_logger_impl_t::is_stderr() const { return fd_logger_impl_t::is_stderr(); }

void file_logger_impl_t::format(msgclass_t c, std::string& out, char const* fmt, va_list ap) {
    fd_logger_impl_t::format(c, out, fmt, ap);
}

void file_logger_impl_t::set_fd(int fd) {
    spin_locker_t hold(write_mutex_, write_busy_);
    fd_ = fd;
}

void file_logger_impl_t::close() {
    int const fd = fd_;
    if (fd == -1) return;
    set_fd(-1);
    close_once(fd);
}

void file_logger_impl_t::renew_zone(timestamp_t now) {
    zone_ticks_ = localtime_t::TZ(static_cast<long>(floor_div(now.value - kern::time::unix_epoch_ticks, k_second))).value;
}

bool file_logger_impl_t::open(bool recreate, std::string* failures) {
    timestamp_t const now = clock();
    if (recreate && !reached(now, next_reopen_, k_minute)) {
        errno = open_errno_;
        return false;
    }
    if (fd_ != -1) {
        write_repeat_summary();
        close();
    }
    // The minute only spaces out attempts after a failure: a successful open
    // clears it below, so that the reopen of the next rotation (every 2 KiB,
    // say) or of a file removed right after this open goes ahead at once.
    next_reopen_ = now + timegap_t(k_minute);
    next_check_ = now + timegap_t(k_second);
    // A re-created file is opened appending too: another writer on the same
    // file, or a tool that truncates it, never gets lines written over.
    int const flags = O_RDWR | O_CREAT | O_NOCTTY | O_APPEND | (recreate ? O_TRUNC : 0);
    int const fd = open_retry(file_name_.c_str(), flags, k_log_mode);
    if (fd == -1) {
        error_saver_t const saved;
        open_errno_ = saved.code;
        std::string const error = get_last_error(saved);
        if (recreate) {
            std::string line;
            prepare(line, FAULT, "[Logger] Unable to open logfile \"%s\" because of %s", file_name_.c_str(),
                    error.c_str());
            add_failure(failures, line);
        } else {
            if_logger_t* const l = Log;
            if (l && l->is_logged(FAULT))
                l->log_FAULT("[Logger] Unable to open logfile \"%s\" because of %s", file_name_.c_str(), error.c_str());
        }
        return false;
    }
    set_fd(fd);
    next_reopen_ = timestamp_t();
    opened_.store(true, std::memory_order_release);
    off_t const end = ::lseek(fd, 0, SEEK_END);
    current_size_ = end;
    renew_zone(now);
    if (time_limit_ > 0) {
        q_int64_t base = local_ticks(now);
        char head[18];
        q_int64_t stamp;
        if (!recreate && read_fd(head, 0, sizeof head) == sizeof head && read_line_stamp(head, stamp))
            base = std::min(base, stamp);
        next_rotation_ = next_boundary(base, time_limit_);
    }
    if (!banner_.empty()) {
        std::string line;
        prepare(line, INFO, "%s", banner_.c_str());
        write_own(line);
    }
    return true;
}

size_t file_logger_impl_t::read_fd(char* buffer, q_int64_t offset, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t const n = ::pread(fd_, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (n == -1 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return done;
}

void file_logger_impl_t::write_own(std::string const& text) {
    size_t const n = write_fd(text.data(), text.size());
    if (current_size_ >= 0) current_size_ += static_cast<q_int64_t>(n);
}

bool file_logger_impl_t::rotation_due(timestamp_t now) const {
    if (fd_ == -1) return false;
    if (time_limit_ > 0) return local_ticks(now) >= next_rotation_;
    return size_limit_ >= 0 && current_size_ >= 0 && current_size_ >= size_limit_;
}

size_t file_logger_impl_t::write(char const* text) {
    spin_locker_t hold(file_mutex_, file_busy_);
    if (fd_ == -1) {
        open(true, nullptr);
        if (fd_ == -1) {
            if (!reopen_failure_reported_) {
                reopen_failure_reported_ = true;
                notify_error(if_logger_error_t::write_failed,
                             "unable to re-open log file because of " + error_text(open_errno_));
            }
            return 0;
        }
    }
    reopen_failure_reported_ = false;
    timestamp_t const now = clock();
    if (reached(now, next_check_, k_second)) {
        next_check_ = now + timegap_t(k_second);
        renew_zone(now);
        check_file();
        if (fd_ == -1) return 0;
    }
    if (rotation_due(now)) rotate();
    size_t const n = text ? write_fd(text, std::strlen(text)) : 0;
    if (current_size_ >= 0) current_size_ += static_cast<q_int64_t>(n);
    return n;
}

void file_logger_impl_t::check_file() {
    struct stat st;
    int rc;
    do {
        rc = ::fstat(fd_, &st);
    } while (rc == -1 && errno == EINTR);
    if (rc == -1) {
        if (errno == EOVERFLOW) current_size_ = size_limit_ + 1;
        return;
    }
    if (st.st_nlink != 0) {
        current_size_ = st.st_size;
        return;
    }
    // Removed by someone else: whatever is still written into it is gone
    // with it, so a new file takes its place.
    write_repeat_summary();
    std::string failures;
    int const fd = fd_;
    set_fd(-1);
    if (close_once(fd) == -1) {
        error_saver_t const saved;
        std::string line;
        prepare(line, FAULT, "[Logger] Unable to close lost log file because of %s", get_last_error(saved).c_str());
        add_failure(&failures, line);
    }
    if (!open(true, &failures)) return;
    std::string line;
    prepare(line, WARNING, "[Logger] Log file was suddenly lost (removed outside software?) and re-created");
    write_own(line);
    if (!failures.empty()) write_own(failures);
}

bool file_logger_impl_t::rename(std::string const& from, std::string const& to, std::string* failures) {
    if (rename_retry(from, to) == 0) return true;
    error_saver_t const saved;
    std::string line;
    prepare(line, FAULT, "[Logger] Unable to rename \"%s\" to \"%s\" because of %s", from.c_str(), to.c_str(),
            get_last_error(saved).c_str());
    if (failures) {
        add_failure(failures, line);
    } else {
        write_own(line);
    }
    return false;
}

void file_logger_impl_t::rotate() {
    // Waits for the compression that the previous rotation started.
    rotation_hold_t const hold(new xlocker_t<rwlock_t>(rwlock_));
    timestamp_t const now = clock();
    if (!rotation_due(now)) return;
    std::string line;
    prepare(line, INFO, "[Logger] Logfile has grown over \"%s\" limit, rotating", rotation_text_.c_str());
    write_own(line);

    // Older files move up one index; the one at count - 1 is overwritten.
    // A missing index is no failure. With compression on, a plain file of
    // an index (an unfinished compression's) moves up too.
    std::string from, to;
    for (q_uint32_t n = count_ >= 3 ? count_ - 2 : 0; n >= 1; --n) {
        for (int gz = compress_ ? 1 : 0; gz >= 0; --gz) {
            suffix(from, file_name_, n, gz != 0);
            suffix(to, file_name_, n + 1, gz != 0);
            if (rename_retry(from, to) == 0 || errno == ENOENT) continue;
            error_saver_t const saved;
            prepare(line, FAULT, "[Logger] Unable to rename \"%s\" to \"%s\" because of %s", from.c_str(), to.c_str(),
                    get_last_error(saved).c_str());
            write_own(line);
        }
    }

    std::string failures;
    std::string rotated;
    bool pack_it = false;
    if (count_ > 1) {
        suffix(rotated, file_name_, 1, false);
        if (rename(file_name_, rotated, &failures)) {
            pack_it = compress_;
            rename_failure_reported_ = false;
        } else {
            error_saver_t const saved;
            if (compress_) {
                prepare(line, WARNING, "[Logger] Old log file will not be compressed because of rename operation failed");
                add_failure(&failures, line);
            }
            if (!rename_failure_reported_) {
                rename_failure_reported_ = true;
                notify_error(if_logger_error_t::rotation_failed,
                             "Unable to rename log file because of " + get_last_error(saved));
            }
        }
    }
    if (!open(true, &failures)) {
        error_saver_t const saved;
        reopen_failure_reported_ = true;
        notify_error(if_logger_error_t::rotation_failed, "Unable to re-open log file because of " + get_last_error(saved));
    } else if (!failures.empty()) {
        write_own(failures);
    }
    if (!pack_it) return;

    std::string packed;
    suffix(packed, file_name_, 1, true);
    std::unique_ptr<pack_job_t> job(new pack_job_t{this, hold, rotated, packed});
    // The thread takes no signals: those belong to the program's own
    // threads, and it inherits the mask from here.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    try {
        pack_job_t* const raw = job.get();
        boost::thread thread([raw] { pack_main(raw); });
        job.release();
        thread.detach();
    } catch (std::exception const& e) {
        job.reset();
        prepare(line, FAULT, "[Logger] Unable to start compression of \"%s\" because of %s", rotated.c_str(),
                e.what());
        write_own(line);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void file_logger_impl_t::pack_main(pack_job_t* raw) {
    std::unique_ptr<pack_job_t> const job(raw);
    // This copy is the thread's last hold: it goes after the registry entry,
    // so that a logger destroyed at exit waits until the thread is done with
    // every part of the library.
    rotation_hold_t hold = job->hold;
    job->hold.reset();
    {
        std::unique_ptr<pack_entry_t> entry;
        std::unique_ptr<kern_n::runnable_t::wrap_helper_t> adopt;
        try {
            entry.reset(new pack_entry_t);
            adopt.reset(new kern_n::runnable_t::wrap_helper_t(entry.get()));
        } catch (std::exception const&) {
            // Unlisted, the thread shows as noname; the compression goes on.
        }
        job->logger->pack(hold, job->from, job->to);
    }
    hold.reset();
}

void file_logger_impl_t::pack(rotation_hold_t hold, std::string const& from, std::string const& to) {
    std::string message;
    try {
        compress_file(from, to, message);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (boost::thread_interrupted const&) {
        prepare(message, INFO, "[Logger] Compression of \"%s\" was interrupted", from.c_str());
    } catch (std::exception const& e) {
        prepare(message, INFO, "[Logger] Compression of \"%s\" failed because of %s", from.c_str(), e.what());
    } catch (...) {
        prepare(message, INFO, "[Logger] Compression of \"%s\" failed because of an unknown exception", from.c_str());
    }
    if (!message.empty()) write_fd(message.data(), message.size());
    hold.reset();
}

void file_logger_impl_t::wait_compression() {
    xlocker_t<rwlock_t> const hold(rwlock_);
}

void file_logger_impl_t::prepare(std::string& out, msgclass_t c, char const* fmt, ...) {
    if_logger_t* const l = Log ? Log : &logger_init_t::instance();
    out.clear();
    va_list ap;
    va_start(ap, fmt);
    try {
        l->format(c, out, fmt, ap);
    } catch (...) {
        va_end(ap);
        throw;
    }
    va_end(ap);
}

void file_logger_impl_t::add_failure(std::string* list, std::string const& text) {
    if (!list) return;
    if (!list->empty()) list->push_back('\n');
    list->append(text);
}

void file_logger_impl_t::suffix(std::string& out, std::string const& name, unsigned n, bool gz) {
    // The last extension: a dot after the last separator, but not one that
    // begins the file's name (".agent" has none).
    size_t dot = std::string::npos;
    for (size_t i = name.size(); i-- > 0;) {
        char const c = name[i];
        if (c == '/' || c == '\\') break;
        if (c == '.') {
            if (i > 0 && name[i - 1] != '/' && name[i - 1] != '\\') dot = i;
            break;
        }
    }
    size_t const stem = dot == std::string::npos ? name.size() : dot;
    out.assign(name, 0, stem).push_back('.');
    add_number_to_string(n, out);
    out.append(name, stem, std::string::npos);
    if (gz) out.append(".gz");
}

// --- set-up -------------------------------------------------------------------------------

namespace {

// A file logger on file that has opened its file, or null; one that did not
// open is destroyed here.
if_logger_t* open_file_logger(char const* file, char const* rotation, char const* banner) {
    file_logger_impl_t* const l = new file_logger_impl_t(file, rotation, banner ? banner : "");
    if (l->opened()) return l;
    delete l;
    return nullptr;
}

}  // namespace

bool init_logger(char const* level, char const* file, char const* rotation, char const* banner,
                 if_logger_t* extra) {
    int value = 0;
    if (!if_logger_t::translate_loglevel(level, value)) {
        if_logger_t* const l = if_logger_t::Log;
        if (l && l->is_logged(if_logger_t::FAULT)) l->log_FAULT("Illegal loglevel -- %s", level ? level : "");
        return false;
    }
    if_logger_t* const old = if_logger_t::Log;

    if (file && std::strcmp(file, "-") != 0) {
        if (if_logger_t* const file_logger = open_file_logger(file, rotation, banner)) {
            file_logger->set_level(value);
            if_logger_t::Log = extra ? chain_logger_t::create(file_logger, extra) : file_logger;
        } else {
            if_logger_t* const l = if_logger_t::Log;
            if (l && l->is_logged(if_logger_t::WARNING)) l->log_WARNING("Using stderr instead of \"%s\"", file);
        }
    }

    if (if_logger_t::Log == old) {
        bool keep = false;
        if (old) {
            if (dynamic_cast<fd_logger_t*>(old)) {
                keep = old->is_stderr();
            } else if (chain_logger_impl_t* const c = dynamic_cast<chain_logger_impl_t*>(old)) {
                keep = chain_logger_impl_t::has_stderr_again(c->first) ||
                       chain_logger_impl_t::has_stderr_again(c->second);
            }
        }
        if (!keep) {
            if_logger_t* const err = fd_logger_t::create(2);
            err->set_level(value);
            if_logger_t::Log = chain_logger_t::create(err, extra);
        }
    }

    if (old && old != extra && old != if_logger_t::Log) delete old;
    return true;
}

bool init_logger(char const* level, char const* file, char const* rotation, if_logger_t* extra) {
    return init_logger(level, file, rotation,
                       "[Logger] Logfile has been opened by " QVLKERN_PRODUCT_NAME " " QVLKERN_VERSION_STRING
                       " build " QVLKERN_BUILD_NUMBER,
                       extra);
}
