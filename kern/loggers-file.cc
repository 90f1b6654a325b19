// loggers-file.cc: the file logger: the rotation grammar, opening, checks,
// rotation and recovery of a lost file. The compression of rotated files is
// in loggers-pack.cc.
#include "loggers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <boost/thread/thread.hpp>

#include "loggers-int.h"
#include "numeric-triades.h"
#include "numstrings.h"
#include "syncers-int.h"
#include "utilities.h"

using namespace kern_n::detail;
namespace ksd = kern::syncers::detail;

// --- file logger -------------------------------------------------------------------------

namespace {

constexpr q_int64_t k_second = kern::time::ticks_per_second;
constexpr q_int64_t k_minute = 60 * k_second;
constexpr q_int64_t k_hour = 60 * k_minute;
constexpr q_int64_t k_day = 24 * k_hour;
constexpr q_int64_t k_week = 7 * k_day;

constexpr q_int64_t k_default_size_limit = 10485760;
constexpr q_uint32_t k_default_count = 10;

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

// The system's text of a saved error code.
std::string error_text(int code) {
    errno = code;
    error_saver_t const saved;
    return get_last_error(saved);
}

}  // namespace

namespace kern_n {
namespace detail {

int create_fresh(std::string const& name, int flags, std::string& temp) {
    static std::atomic<q_uint64_t> sequence{0};
    // The last part of the name is cut where the suffix would make it
    // longer than a name may be.
    size_t const slash = name.rfind('/');
    size_t const keep = std::min(name.size(), (slash == std::string::npos ? 0 : slash + 1) + (NAME_MAX - 7));
    for (int attempt = 0; attempt < 100; ++attempt) {
        // Names only need to differ (O_EXCL makes the file new): the time,
        // the process and a sequence, mixed (splitmix64's finaliser).
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        q_uint64_t x = static_cast<q_uint64_t>(ts.tv_sec) * 1000000007u + static_cast<q_uint64_t>(ts.tv_nsec) +
                       (static_cast<q_uint64_t>(process_id()) << 40) +
                       0x9e3779b97f4a7c15ull * sequence.fetch_add(1, std::memory_order_relaxed);
        x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
        x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
        x ^= x >> 31;
        temp.assign(name, 0, keep).push_back('.');
        for (int i = 0; i < 6; ++i, x /= 36) temp.push_back("0123456789abcdefghijklmnopqrstuvwxyz"[x % 36]);
        int const fd = open_retry(temp.c_str(), flags | O_CREAT | O_EXCL | O_NOFOLLOW, k_log_mode);
        if (fd != -1 || errno != EEXIST) return fd;
    }
    return -1;
}

int open_append_trusted(std::string const& name, uid_t& owner) {
    int const flags = O_RDWR | O_CREAT | O_APPEND | O_NOCTTY;
    std::string path = name;
    // A chain of links is followed link by link, each one checked; the
    // kernel's own limit on a chain is 40.
    for (int depth = 0; depth < 40; ++depth) {
        int const fd = open_retry(path.c_str(), flags | O_NOFOLLOW, k_log_mode);
        if (fd != -1 || errno != ELOOP) return fd;
        // The name is a link. Its owner and its text are read from one
        // descriptor of the link itself: a link swapped in meanwhile by the
        // owner of the directory is never the one followed.
        int const link = open_retry(path.c_str(), O_PATH | O_NOFOLLOW, 0);
        if (link == -1) return -1;
        struct stat st;
        char target[4096];
        ssize_t n = -1;
        if (::fstat(link, &st) == 0 && S_ISLNK(st.st_mode)) {
            if (st.st_uid != 0 && st.st_uid != ::geteuid()) {
                close_once(link);
                owner = st.st_uid;
                errno = EPERM;
                return -1;
            }
            n = ::readlinkat(link, "", target, sizeof target);
        }
        close_once(link);
        if (n <= 0 || static_cast<size_t>(n) == sizeof target) break;
        std::string next(target, static_cast<size_t>(n));
        size_t const slash = path.rfind('/');
        if (next[0] != '/' && slash != std::string::npos) next.insert(0, path, 0, slash + 1);
        path.swap(next);
    }
    errno = ELOOP;
    return -1;
}

}  // namespace detail
}  // namespace kern_n

file_logger_impl_t::clock_fn_t file_logger_impl_t::clock = &coarse_now;

namespace {
// Lock-free and address-free, so that bumping it is async-signal-safe.
std::atomic<q_uint32_t> g_reopen_requests{0};
static_assert(std::atomic<q_uint32_t>::is_always_lock_free, "reopen counter must be lock-free");
}  // namespace

void file_logger_t::request_reopen() noexcept {
    g_reopen_requests.fetch_add(1, std::memory_order_release);
}

q_uint32_t file_logger_t::reopen_requests() noexcept {
    return g_reopen_requests.load(std::memory_order_acquire);
}

if_logger_t* file_logger_t::create(char const* name, char const* rotation) {
    return new file_logger_impl_t(name, rotation, std::string());
}

if_logger_t* file_logger_t::create(char const* name, char const* rotation, std::string banner) {
    return new file_logger_impl_t(name, rotation, std::move(banner));
}

file_logger_impl_t::file_logger_impl_t(char const* name, char const* rotation, std::string banner)
    : fd_logger_impl_t(-1),
      file_busy_(false),
      rotation_failed_(false),
      reopen_failure_reported_(false),
      opened_(false),
      size_limit_(k_default_size_limit),
      time_limit_(0),
      next_rotation_(0),
      count_(k_default_count),
      compress_(true),
      current_size_(0),
      open_errno_(0),
      zone_ticks_(0),
      file_mode_(k_log_mode),
      file_uid_(::geteuid()),
      file_gid_(::getegid()),
      reopen_seen_(file_logger_t::reopen_requests()),
      follow_failed_(false),
      kept_limit_(-1),
      free_floor_(-1),
      dropping_(false),
      dropped_(0),
      stopping_(false) {
    init(name, rotation, std::move(banner));
    // Last: nothing after it may throw and leave the locks registered.
    ksd::fork_safe(file_mutex_);
    ksd::fork_safe(rwlock_);
}

file_logger_impl_t::~file_logger_impl_t() {
    // A compression stops at its next block and leaves the plain file for
    // the next start, so that an end does not wait for a large one.
    stopping_.store(true, std::memory_order_relaxed);
    try {
        wait_compression();
        write_repeat_summary();
    } catch (...) {
        // A lock or handler failure has nowhere to go from here.
    }
    close();
    ksd::fork_forget(file_mutex_);
    ksd::fork_forget(rwlock_);
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
    if (open(false, nullptr)) recover();
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
    return open_as(recreate ? open_recreate : open_first, failures);
}

bool file_logger_impl_t::open_as(open_kind_t kind, std::string* failures) {
    bool const recreate = kind == open_recreate;
    timestamp_t const now = clock();
    if (kind != open_first && !reached(now, next_reopen_, k_minute)) {
        errno = open_errno_;
        return false;
    }
    // The minute only spaces out attempts after a failure: a successful open
    // clears it below, so that the reopen of the next rotation (every 2 KiB,
    // say) or of a file removed right after this open goes ahead at once.
    next_reopen_ = now + timegap_t(k_minute);
    next_check_ = now + timegap_t(k_second);
    // A re-created file is made new and renamed into place: it replaces what
    // is at the name (a link of another account, say) instead of writing
    // through it. It is opened appending too: a tool that truncates it
    // never gets lines written over.
    uid_t owner = 0;
    int fd;
    if (recreate) {
        // The new file gets the mode and owner of the one it stands for,
        // so that an operator's 0600 or group survives rotation.
        struct stat st;
        if (fd_ != -1 && fstat_retry(fd_, st) == 0) {
            file_mode_ = st.st_mode, file_uid_ = st.st_uid, file_gid_ = st.st_gid;
        }
        std::string temp;
        fd = create_fresh(file_name_, O_RDWR | O_NOCTTY | O_APPEND, temp);
        if (fd != -1) copy_access(fd, file_mode_, file_uid_, file_gid_);
        if (fd != -1 && rename_retry(temp, file_name_) == -1) {
            error_saver_t const saved;  // the rename's error, for the report
            unlink_retry(temp);
            close_once(fd);
            fd = -1;
        }
    } else {
        fd = open_append_trusted(file_name_, owner);
    }
    if (fd == -1) {
        error_saver_t const saved;
        open_errno_ = saved.code;
        std::string const error = get_last_error(saved);
        if (kind != open_first) {
            std::string line;
            if (owner) {
                prepare(line, FAULT,
                        "[Logger] Refused to open logfile \"%s\" through a link owned by user %u because of %s",
                        file_name_.c_str(), static_cast<unsigned>(owner), error.c_str());
            } else {
                prepare(line, FAULT, "[Logger] Unable to open logfile \"%s\" because of %s", file_name_.c_str(),
                        error.c_str());
            }
            add_failure(failures, line);
        } else if (if_logger_t* const l = Log) {
            if (!l->is_logged(FAULT)) {
            } else if (owner) {
                l->log_FAULT("[Logger] Refused to open logfile \"%s\" through a link owned by user %u because of %s",
                             file_name_.c_str(), static_cast<unsigned>(owner), error.c_str());
            } else {
                l->log_FAULT("[Logger] Unable to open logfile \"%s\" because of %s", file_name_.c_str(), error.c_str());
            }
        }
        return false;
    }
    // The file in use is given up only now that the new one is open: a
    // failure above leaves it in place, and no line is lost to it.
    int const old = fd_;
    if (old != -1) write_repeat_summary();
    set_fd(fd);
    if (old != -1) close_once(old);
    next_reopen_ = timestamp_t();
    opened_.store(true, std::memory_order_release);
    off_t const end = ::lseek(fd, 0, SEEK_END);
    current_size_ = end;
    struct stat st;
    if (fstat_retry(fd, st) == 0) file_mode_ = st.st_mode, file_uid_ = st.st_uid, file_gid_ = st.st_gid;
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
    size_t const n = write_lines(text);
    if (current_size_ >= 0) current_size_ += static_cast<q_int64_t>(n);
}

size_t file_logger_impl_t::write_lines(std::string const& text) {
    if (text.empty() || text.back() == '\n') return write_fd(text.data(), text.size());
    // Formatted by a process logger that adds no line end (a chain): the
    // next record would go on on the same line.
    std::string const line = text + '\n';
    return write_fd(line.data(), line.size());
}

bool file_logger_impl_t::rotation_due(timestamp_t now) const {
    // After a failed rotation, the next try waits for the reopen gate.
    if (fd_ == -1 || !reached(now, next_reopen_, k_minute)) return false;
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
    // One relaxed load a line: a request from a signal handler is acted on
    // by the next line of every file logger.
    q_uint32_t const requests = file_logger_t::reopen_requests();
    if (requests != reopen_seen_) {
        reopen_seen_ = requests;
        follow_path(true);
    }
    timestamp_t const now = clock();
    if (reached(now, next_check_, k_second)) {
        next_check_ = now + timegap_t(k_second);
        renew_zone(now);
        check_file();
        if (fd_ == -1) return 0;
    }
    if (dropping_) {
        ++dropped_;  // no room: counted, and told when writing resumes
        return 0;
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
        check_path(st);
        return;
    }
    // Replaced by another file (renamed over it): that one is taken on as
    // it is, never re-created over, so that what was put there stays. A
    // link there is replaced as before.
    struct stat at;
    if (::lstat(file_name_.c_str(), &at) == 0 && S_ISREG(at.st_mode)) {
        follow_path(false);
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

bool file_logger_impl_t::kept_exists(q_uint32_t n) const {
    std::string name;
    struct stat st;
    for (int gz = 0; gz <= (compress_ ? 1 : 0); ++gz) {
        suffix(name, file_name_, n, gz != 0);
        if (::lstat(name.c_str(), &st) == 0) return true;
    }
    return false;
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
    // The size counted since the last check is believed only up to the
    // file's own: a file truncated meanwhile (copytruncate) is not yet due.
    struct stat st;
    if (time_limit_ == 0 && fstat_retry(fd_, st) == 0 && st.st_nlink != 0 && st.st_size < size_limit_) {
        current_size_ = st.st_size;
        return;
    }
    // A failed rotation keeps the file and is tried again at the pace of the
    // reopen gate. Its notice and failures are in the file and were
    // reported: a retry adds only the notice of a rotation that goes ahead.
    bool const retry = rotation_failed_;
    std::string notice;
    prepare(notice, INFO, "[Logger] Logfile has grown over \"%s\" limit, rotating", rotation_text_.c_str());
    if (!retry) write_own(notice);

    // Older files move up one index; the one at count - 1 is overwritten.
    // Only the run of indexes from 1 up to the first missing one moves: the
    // files beyond a gap are in nobody's way, so that a rotation costs a
    // rename per kept file that exists, whatever the count (1000000z), and
    // a gap left by a failed rotation is filled, not pushed on. With
    // compression on, a plain file of an index (an unfinished compression's)
    // counts and moves up too.
    std::string line, from, to;
    q_uint32_t top = 1;  // the first index that stays
    while (count_ >= 3 && top <= count_ - 2 && kept_exists(top)) ++top;
    for (q_uint32_t n = top - 1; n >= 1; --n) {
        for (int gz = compress_ ? 1 : 0; gz >= 0; --gz) {
            suffix(from, file_name_, n, gz != 0);
            suffix(to, file_name_, n + 1, gz != 0);
            if (rename_retry(from, to) == 0 || errno == ENOENT) continue;
            error_saver_t const saved;
            prepare(line, FAULT, "[Logger] Unable to rename \"%s\" to \"%s\" because of %s", from.c_str(), to.c_str(),
                    get_last_error(saved).c_str());
            if (!retry) write_own(line);
        }
    }

    // The file is renamed to index 1 (with count 1 it is simply replaced)
    // and a new one opened; should that fail, the file gets its name back.
    // Either way the descriptor in use stays until a new one is open.
    std::string failures, rotated, rename_error;
    if (count_ > 1) {
        suffix(rotated, file_name_, 1, false);
        if (!rename(file_name_, rotated, &failures)) {
            bool const gone = errno == ENOENT;
            rename_error = get_last_error();
            if (compress_) {
                prepare(line, WARNING, "[Logger] Old log file will not be compressed because of rename operation failed");
                add_failure(&failures, line);
            }
            // Unless the file has left its name already (removed or moved
            // away), it stays the log: a new one would take none of its lines.
            if (!gone) {
                defer_rotation(now, retry, failures, "Unable to rename log file because of " + rename_error);
                return;
            }
        }
    }
    bool const renamed = count_ > 1 && rename_error.empty();
    if (renamed && retry) write_own(notice);  // the end of the rotated file
    if (!open(true, &failures)) {
        std::string const error = get_last_error();
        if (renamed) rename(rotated, file_name_, &failures);
        defer_rotation(now, retry, failures, "Unable to re-open log file because of " + error);
        return;
    }
    rotation_failed_ = false;
    if (!rename_error.empty()) {
        write_own(failures);
        notify_error(if_logger_error_t::rotation_failed, "Unable to rename log file because of " + rename_error);
    }
    if (renamed && (kept_limit_ >= 0 || free_floor_ >= 0)) enforce_disk_limits(true);
    struct stat kept;
    if (!renamed || !compress_ || ::lstat(rotated.c_str(), &kept) != 0) return;

    std::string packed;
    suffix(packed, file_name_, 1, true);
    std::unique_ptr<pack_job_t> job(new pack_job_t{this, hold, {}});
    job->files.emplace_back(rotated, packed);
    start_packing(std::move(job));
}

void file_logger_impl_t::defer_rotation(timestamp_t now, bool retry, std::string const& failures,
                                         std::string const& report) {
    rotation_failed_ = true;
    next_reopen_ = now + timegap_t(k_minute);
    if (retry) return;
    write_own(failures);
    notify_error(if_logger_error_t::rotation_failed, report);
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

size_t kern_n::detail::kept_stem(std::string const& name) {
    // The last extension: a dot after the last separator, but not one that
    // begins the file's name (".agent" has none).
    for (size_t i = name.size(); i-- > 0;) {
        char const c = name[i];
        if (c == '/' || c == '\\') break;
        if (c == '.') return i > 0 && name[i - 1] != '/' && name[i - 1] != '\\' ? i : name.size();
    }
    return name.size();
}

void file_logger_impl_t::suffix(std::string& out, std::string const& name, unsigned n, bool gz) {
    size_t const stem = kept_stem(name);
    out.assign(name, 0, stem).push_back('.');
    add_number_to_string(n, out);
    out.append(name, stem, std::string::npos);
    if (gz) out.append(".gz");
}
