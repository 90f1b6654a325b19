// loggers.cc: the logger interface, the descriptor, syslog and chain loggers,
// and the set-up of the process logger.
#include "loggers.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <typeinfo>

#include <boost/unordered_set.hpp>

#include "exceptions.h"
#include "numeric-triades.h"
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
    if (fd_ == -1 || !text || !*text) return 0;
    return write_fd(text, std::strlen(text));
}

size_t fd_logger_impl_t::write_fd(char const* text, size_t len) {
    if (fd_ == -1 || len == 0) return 0;
    spin_locker_t hold(write_mutex_, write_busy_);
    // pos is both the position in text and the count of bytes written.
    std::ptrdiff_t pos = 0;
    size_t left = len;
    while (left > 0) {
        ssize_t const r = ::write(fd_, text + pos, std::min(left, k_max_piece));
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

// --- set-up -------------------------------------------------------------------------------

namespace {

// A file logger on file that has opened its file, or null; one that did not
// open is destroyed here.
if_logger_t* open_file_logger(char const* file, char const* rotation, char const* banner) {
    // FILE LOGGER: made here from file, rotation and banner. Until it exists
    // every file counts as one that could not be opened.
    (void)file;
    (void)rotation;
    (void)banner;
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
