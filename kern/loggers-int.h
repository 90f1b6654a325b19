// loggers-int.h: what the logger sources share; not exported.
//
// The line prefix and the message formatting with the per-thread state
// behind them (loggers.cc, loggers-fd.cc, loggers-syslog.cc), and the file
// helpers of the file logger and its compression (loggers-file.cc,
// loggers-pack.cc). What a line passes through is inline here, as it was
// when the loggers lived in one source: splitting them costs no call.
#ifndef QVLKERN_LOGGERS_INT_H
#define QVLKERN_LOGGERS_INT_H

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "filestr-int.h"
#include "loggers.h"
#include "numeric-triades.h"
#include "runnable.h"
#include "time-objs.h"
#include "utilities.h"

#pragma GCC visibility push(hidden)

namespace kern_n {
namespace detail {

// --- the calling thread's identity ------------------------------------------

// The process id and every thread's kernel id are cached: both are system
// calls, and the prefix needs them on every line. A fork renews them: the
// child handler takes the new pid and bumps the fork generation, which makes
// each thread of the child fetch its tid again on its next line.
extern std::atomic<int> g_pid;
extern std::atomic<unsigned> g_fork_generation;

// The process id from the cache; the first call also registers the fork
// handler that renews the ids.
int process_id();

// The calling thread's name as the thread registry knows it, or the name of
// unknown threads.
inline lstr_t thread_name() { return kern_n::runnable_t::self_name(); }

// --- fixed-width digits --------------------------------------------------------

inline char* put2(char* p, int value) {
    decimal_convertor_t<int, 2>::store0(value, p);
    return p + 2;
}

// The last five decimal digits, zero-filled.
inline char* put5(char* p, unsigned value) {
    int v = static_cast<int>(value % 100000);
    p[0] = static_cast<char>('0' + v / 10000);
    v %= 10000;
    decimal_convertor_t<int, 2>::store0(v, p + 3);
    decimal_convertor_t<int, 2>::store0(v, p + 1);
    return p + 5;
}

// The last six decimal digits, zero-filled.
inline char* put6(char* p, unsigned value) {
    int v = static_cast<int>(value % 1000000);
    decimal_convertor_t<int, 2>::store0(v, p + 4);
    decimal_convertor_t<int, 2>::store0(v, p + 2);
    decimal_convertor_t<int, 2>::store0(v, p);
    return p + 6;
}

inline q_int64_t floor_div(q_int64_t a, q_int64_t b) {
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
// Defined in loggers.cc. __thread rather than thread_local: the type is
// trivial, and a thread_local defined in another source is reached through
// the run-time's initialisation wrapper, a call on every line.
extern __thread thread_state_t t_state;

// The calling thread's state. The empty asm keeps the address in a register:
// without it the compiler recomputes a thread-local address (a call into the
// dynamic linker) at every use.
inline thread_state_t& this_thread() {
    thread_state_t* s = &t_state;
    asm("" : "+r"(s));
    return *s;
}

// Builds the thread's scratch strings; false once they are gone.
bool build_scratch(thread_state_t& s);

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
inline void renew_ids(thread_state_t& t) {
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
inline char* put_local_time(thread_state_t& t, char* p) {
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
inline size_t put_prefix_head(thread_state_t& t, char* buf, if_logger_t::msgclass_t c) {
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
inline size_t put_name(char* buf, lstr_t const& name) {
    size_t const n = name.length();
    std::memcpy(buf, name.ptr(), n);
    size_t const width = n < 6 ? 7 - n : 1;
    std::memset(buf + n, ' ', width);
    return n + width;
}

// Writes the decimal text of the next argument, read as the given size.
template <typename I, typename L, typename LL, typename Z>
inline int put_integer(char* out, va_list& ap, int size) {
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
inline bool put_simple_format(char* buf, size_t cap, size_t& len, char const* fmt, va_list ap) {
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

// --- writes that raise no SIGPIPE --------------------------------------------

// True when a write to fd can raise SIGPIPE: a pipe or a socket, or a
// descriptor that cannot be told (not open yet). Asked once, when a logger
// gets its descriptor, so that writes to regular files pay nothing.
inline bool may_raise_sigpipe(int fd) {
    if (fd < 0) return false;
    struct stat st;
    if (::fstat(fd, &st) != 0) return true;
    return S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode);
}

// --- files of the file logger and its compression ---------------------------

constexpr mode_t k_log_mode = 0640;

inline int unlink_retry(std::string const& name) {
    int rc;
    do {
        rc = ::unlink(name.c_str());
    } while (rc == -1 && errno == EINTR);
    return rc;
}

inline int rename_retry(std::string const& from, std::string const& to) {
    int rc;
    do {
        rc = ::rename(from.c_str(), to.c_str());
    } while (rc == -1 && errno == EINTR);
    return rc;
}

// Makes a new file for the logger under name plus a random suffix
// ("agent.log.k3x9qz"), exclusively and without following a link, so that
// it is the logger's own; temp gets its name. Renamed over name once ready,
// it replaces whatever another account has put there instead of writing
// through it. -1 and errno on failure.
int create_fresh(std::string const& name, int flags, std::string& temp);

// Opens the log file name for appending, creating it when missing. A link
// at the name is followed only when root or the process's effective user
// owns it; another owner's link is refused with EPERM and reported in owner.
int open_append_trusted(std::string const& name, uid_t& owner);

// The length of the part of a log name before its last extension: kept
// file n inserts ".n" there.
size_t kept_stem(std::string const& name);

inline int fstat_retry(int fd, struct stat& st) {
    int rc;
    do {
        rc = ::fstat(fd, &st);
    } while (rc == -1 && errno == EINTR);
    return rc;
}

// Gives a file the logger made the mode (rw bits only) and, when the process
// may, the owner of the file it stands for; a refusal (EPERM) is no failure.
inline void copy_access(int fd, unsigned mode, unsigned uid, unsigned gid) {
    struct stat st;
    if (fstat_retry(fd, st) != 0) return;
    // Without the right to give the file away, the group alone may still be
    // one of the process's own.
    if ((st.st_uid != uid || st.st_gid != gid) && ::fchown(fd, uid, gid) != 0 && st.st_gid != gid)
        (void)!::fchown(fd, static_cast<uid_t>(-1), gid);
    if ((st.st_mode & 07777) != (mode & 0666)) (void)!::fchmod(fd, mode & 0666);
}

// close(2) is never retried: Linux frees the descriptor also when it reports
// EINTR, and a second close could hit a descriptor that another thread has
// just been given.
inline int close_once(int fd) { return ::close(fd); }

}  // namespace detail
}  // namespace kern_n

#pragma GCC visibility pop

// What a compression thread owns: the files to compress, in order, each a
// rotated file and the compressed name it gets.
struct file_logger_impl_t::pack_job_t {
    file_logger_impl_t* logger;
    rotation_hold_t hold;
    std::vector<std::pair<std::string, std::string> > files;
};

#endif  // QVLKERN_LOGGERS_INT_H
