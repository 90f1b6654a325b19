// unx-utils-alloc.cc: the allocation wrappers, allocator tuning and the
// allocator's diagnostics.
#include "unx-utils-alloc.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "code-exec-time.h"
#include "exceptions.h"
#include "loggers.h"
#include "numstrings.h"
#include "utilities.h"

namespace sd = kern::syncers::detail;
namespace rs = kern::runtime::stat;

#ifndef QVLKERN_NO_MALLOC_WRAPPERS

namespace {

// --- the C library's functions -------------------------------------------------
//
// Nothing here may allocate, lock or log: every allocation of the process
// passes through. The four functions are looked up together, the first time
// any wrapper runs (early in the process's start-up), never one by one
// later: the dynamic loader formats its error text with the allocator, and a
// lookup made from there would reset the loader's error state under it
// (dlerror would then free that text twice). The pointers are kept with
// relaxed stores: two threads racing on the first use look up the same ones.

// noexcept, as the C library declares them: a call through them needs no
// landing pad, and free can end in a jump.
typedef void* (*malloc_fn)(std::size_t) noexcept;
typedef void* (*realloc_fn)(void*, std::size_t) noexcept;
typedef void* (*memalign_fn)(std::size_t, std::size_t) noexcept;
typedef void (*free_fn)(void*) noexcept;

std::atomic<malloc_fn> s_malloc;
std::atomic<realloc_fn> s_realloc;
std::atomic<memalign_fn> s_memalign;
std::atomic<free_fn> s_free;

// Set while this thread looks the functions up: a wrapper called by the
// lookup itself forwards to what is found already and must not look up
// again. Without its function, malloc, realloc and memalign answer null and
// free keeps the block, none of them counting.
__thread bool t_looking_up __attribute__((tls_model("initial-exec")));

void write_raw(char const* text) noexcept {
    std::size_t left = std::strlen(text);
    while (left > 0) {
        ssize_t const n = ::write(2, text, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        text += n;
        left -= static_cast<std::size_t>(n);
    }
}

// No stream and no formatting: the allocator is what is missing.
[[noreturn]] __attribute__((cold, noinline)) void not_found(char const* name, char const* why) noexcept {
    write_raw("\r\n$$$$ name \"");
    write_raw(name);
    write_raw("\" not found in glibc because of ");
    write_raw(why ? why : "an unknown reason");
    write_raw(" $$$$$\r\n\r\n");
    _exit(64175);
}

// The next definition of name after this library, unless already known.
template <class fn_t>
void look_up(std::atomic<fn_t>& cache, char const* name) noexcept {
    if (cache.load(std::memory_order_relaxed)) return;
    void* const found = dlsym(RTLD_NEXT, name);
    if (!found) not_found(name, dlerror());
    cache.store(reinterpret_cast<fn_t>(found), std::memory_order_relaxed);
}

void learn_headers() noexcept;

// malloc first: the lookups of the others may allocate.
__attribute__((cold, noinline)) void look_up_all() noexcept {
    if (t_looking_up) return;
    t_looking_up = true;
    look_up(s_malloc, "malloc");
    look_up(s_free, "free");
    look_up(s_realloc, "realloc");
    look_up(s_memalign, "memalign");
    t_looking_up = false;
    learn_headers();
}

// The real function; null only while this thread looks them up.
template <class fn_t>
inline fn_t real(std::atomic<fn_t>& cache) noexcept {
    fn_t const fn = cache.load(std::memory_order_relaxed);
    if (__builtin_expect(fn != nullptr, 1)) return fn;
    look_up_all();
    return cache.load(std::memory_order_relaxed);
}

// --- usable sizes --------------------------------------------------------------------
//
// malloc_usable_size is a call into the C library for a few loads; on the
// pair of a malloc and a free it costs more than the rest of the counting.
// When the functions found are the C library's own, and the usable sizes
// read from its chunk headers agree with malloc_usable_size on a few
// blocks, the wrappers read the header themselves: the word before the
// block holds the chunk size, whose low three bits are flags (2: the chunk
// is a mapping of its own). A heap chunk's block reaches over the next
// chunk's first word (8 bytes less than the chunk), a mapped one does not
// (16 less). Any other allocator is asked through malloc_usable_size.

extern "C" void* __libc_malloc(std::size_t) noexcept;
extern "C" void* __libc_realloc(void*, std::size_t) noexcept;
extern "C" void* __libc_memalign(std::size_t, std::size_t) noexcept;
extern "C" void __libc_free(void*) noexcept;

// The real functions again, set only once their headers are known to tell
// the usable sizes (null for good with another allocator): the wrappers'
// short way, taken on one load and one test while statistics are off.
std::atomic<malloc_fn> s_fast_malloc;
std::atomic<realloc_fn> s_fast_realloc;
std::atomic<memalign_fn> s_fast_memalign;
std::atomic<free_fn> s_fast_free;

inline std::size_t header_size(void const* p) noexcept {
    std::size_t const field = static_cast<std::size_t const*>(p)[-1];
    return (field & ~std::size_t(7)) - 8 - ((field & 2) << 2);
}

template <bool headers>
inline std::size_t usable_size(void* p) noexcept {
    return headers ? header_size(p) : malloc_usable_size(p);
}

// Once the functions are found: compares the two ways on blocks of the heap
// and (above the C library's default threshold) a mapped one, made and freed
// through the real functions, so that nothing is counted.
void learn_headers() noexcept {
    malloc_fn const m = s_malloc.load(std::memory_order_relaxed);
    realloc_fn const r = s_realloc.load(std::memory_order_relaxed);
    memalign_fn const a = s_memalign.load(std::memory_order_relaxed);
    free_fn const f = s_free.load(std::memory_order_relaxed);
    if (m != &__libc_malloc || r != &__libc_realloc || a != &__libc_memalign || f != &__libc_free) return;
    for (std::size_t size : {1, 24, 100, 1000, 300000}) {
        void* const p = m(size);
        if (!p) continue;
        bool const agree = header_size(p) == malloc_usable_size(p);
        f(p);
        if (!agree) return;
    }
    s_fast_malloc.store(m, std::memory_order_relaxed);
    s_fast_realloc.store(r, std::memory_order_relaxed);
    s_fast_memalign.store(a, std::memory_order_relaxed);
    s_fast_free.store(f, std::memory_order_relaxed);
}

inline bool headers_known() noexcept { return s_fast_free.load(std::memory_order_relaxed) != nullptr; }

// --- counting --------------------------------------------------------------------

// Bucket i holds sizes above 2^(i-1) up to 2^i; sizes above 2^31 none.
inline void count_size(std::size_t size) noexcept {
    if (size > (std::size_t(1) << 31)) return;
    unsigned const i = size <= 1 ? 0 : 64 - static_cast<unsigned>(__builtin_clzll(size - 1));
    sd::add(static_cast<sd::counter_id_t>(sd::alloc_bucket_0 + i), 1);
}

// The time of one call while statistics are on, on the clock the mode
// names, added when positive; nothing while they are off.
class timing_t {
public:
    explicit timing_t(rs::mode_t mode) noexcept
        : mode_(mode), start_(mode != 0 ? cpu_time_sum_t::thread_cpu_time(mode) : 0) {}
    bool on() const noexcept { return mode_ != 0; }
    void add_to(sd::counter_id_t id) const noexcept {
        if (mode_ == 0) return;
        q_uint64_t const end = cpu_time_sum_t::thread_cpu_time(mode_);
        if (end > start_) sd::add(id, end - start_);
    }

private:
    rs::mode_t const mode_;
    q_uint64_t const start_;
};

// A thread's first count, or one without a slot of its own; out of line,
// keeping the wrappers' short way short.
__attribute__((cold, noinline)) void count_call_slow(sd::counter_id_t calls, sd::counter_id_t size_id,
                                                     std::size_t size) noexcept {
    sd::add_slow(calls, 1);
    sd::add_slow(size_id, size);
}

// Adds one call and a size: one look at the thread's cells for both.
__attribute__((always_inline)) inline void count_call(sd::counter_id_t calls, sd::counter_id_t size_id,
                                                      std::size_t size) noexcept {
    std::atomic<q_uint64_t>* const cells = sd::thread_cells;
    if (__builtin_expect(cells != nullptr, 1)) {
        cells[calls].store(cells[calls].load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        cells[size_id].store(cells[size_id].load(std::memory_order_relaxed) + size, std::memory_order_relaxed);
    } else {
        count_call_slow(calls, size_id, size);
    }
}

// The bodies, for a known real function, with the histogram when on. A
// call is counted together with its size once the real function has
// answered: nothing can look at the counters in between.
template <bool headers>
__attribute__((always_inline)) inline void* malloc_via(malloc_fn fn, std::size_t size, bool on) noexcept {
    void* const p = fn(size);
    std::size_t const usable = __builtin_expect(p != nullptr, 1) ? usable_size<headers>(p) : 0;
    count_call(sd::alloc_malloc_calls, sd::alloc_malloc_size, usable);
    if (on && p) count_size(usable);
    return p;
}

template <bool headers>
__attribute__((always_inline)) inline void* calloc_via(malloc_fn fn, std::size_t count, std::size_t size,
                                                       bool on) noexcept {
    std::size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        sd::count(sd::alloc_malloc_calls);
        errno = ENOMEM;
        return nullptr;
    }
    void* const p = malloc_via<headers>(fn, bytes, on);
    if (p) std::memset(p, 0, bytes);
    return p;
}

template <bool headers>
__attribute__((always_inline)) inline void* realloc_via(realloc_fn fn, void* old, std::size_t size,
                                                        bool on) noexcept {
    // The old block's size before it may be gone.
    count_call(sd::alloc_realloc_calls, sd::alloc_free_size, old ? usable_size<headers>(old) : 0);
    void* const p = fn(old, size);
    if (p) {
        sd::add(sd::alloc_malloc_size, usable_size<headers>(p));
        if (on) count_size(size);  // by the size asked for, unlike the others
    }
    return p;
}

template <bool headers>
__attribute__((always_inline)) inline void* memalign_via(memalign_fn fn, std::size_t alignment, std::size_t size,
                                                         bool on) noexcept {
    void* const p = fn(alignment, size);
    std::size_t const usable = p ? usable_size<headers>(p) : 0;
    count_call(sd::alloc_memalign_calls, sd::alloc_memalign_size, usable);
    if (on && p) count_size(usable);
    return p;
}

template <bool headers>
__attribute__((always_inline)) inline void free_via(free_fn fn, void* p) noexcept {
    count_call(sd::alloc_free_calls, sd::alloc_free_size,
               __builtin_expect(p != nullptr, 1) ? usable_size<headers>(p) : 0);
    fn(p);
}

// The long ways: statistics on, the functions not yet found, or another
// allocator. Each starts its clock (when statistics are on), finds its real
// function, runs the body and adds the time.
__attribute__((cold, noinline)) void* malloc_long(std::size_t size) noexcept {
    timing_t const t(rs::mode_s_);
    malloc_fn const fn = real(s_malloc);
    if (!fn) return nullptr;
    void* const p = headers_known() ? malloc_via<true>(fn, size, t.on()) : malloc_via<false>(fn, size, t.on());
    t.add_to(sd::alloc_malloc_time);
    return p;
}

__attribute__((cold, noinline)) void* calloc_long(std::size_t count, std::size_t size) noexcept {
    // Until malloc has found the C library's: null, counting nothing (the
    // dynamic loader asks for zeroed memory while it looks names up).
    malloc_fn const fn = s_malloc.load(std::memory_order_relaxed);
    if (!fn) return nullptr;
    timing_t const t(rs::mode_s_);
    void* const p = headers_known() ? calloc_via<true>(fn, count, size, t.on())
                                    : calloc_via<false>(fn, count, size, t.on());
    t.add_to(sd::alloc_malloc_time);
    return p;
}

__attribute__((cold, noinline)) void* realloc_long(void* old, std::size_t size) noexcept {
    timing_t const t(rs::mode_s_);
    realloc_fn const fn = real(s_realloc);
    if (!fn) return nullptr;
    void* const p = headers_known() ? realloc_via<true>(fn, old, size, t.on())
                                    : realloc_via<false>(fn, old, size, t.on());
    t.add_to(sd::alloc_realloc_time);
    return p;
}

__attribute__((cold, noinline)) void* memalign_long(std::size_t alignment, std::size_t size) noexcept {
    timing_t const t(rs::mode_s_);
    memalign_fn const fn = real(s_memalign);
    if (!fn) return nullptr;
    void* const p = headers_known() ? memalign_via<true>(fn, alignment, size, t.on())
                                    : memalign_via<false>(fn, alignment, size, t.on());
    t.add_to(sd::alloc_memalign_time);
    return p;
}

__attribute__((cold, noinline)) void free_long(void* p) noexcept {
    timing_t const t(rs::mode_s_);
    free_fn const fn = real(s_free);
    if (!fn) return;
    if (headers_known()) {
        free_via<true>(fn, p);
    } else {
        free_via<false>(fn, p);
    }
    t.add_to(sd::alloc_free_time);
}

// The short way's test: the real function with headers known, and
// statistics off.
template <class fn_t>
inline fn_t short_way(std::atomic<fn_t>& fast) noexcept {
    fn_t const fn = fast.load(std::memory_order_relaxed);
    return __builtin_expect(fn != nullptr && rs::mode_s_ == 0, 1) ? fn : nullptr;
}

}  // namespace

// --- the entry points ------------------------------------------------------------

extern "C" {

QVL_API void* malloc(std::size_t size) noexcept {
    if (malloc_fn const fn = short_way(s_fast_malloc)) return malloc_via<true>(fn, size, false);
    return malloc_long(size);
}

QVL_API void* calloc(std::size_t count, std::size_t size) noexcept {
    if (malloc_fn const fn = short_way(s_fast_malloc)) return calloc_via<true>(fn, count, size, false);
    return calloc_long(count, size);
}

QVL_API void* realloc(void* old, std::size_t size) noexcept {
    if (realloc_fn const fn = short_way(s_fast_realloc)) return realloc_via<true>(fn, old, size, false);
    return realloc_long(old, size);
}

QVL_API void* memalign(std::size_t alignment, std::size_t size) noexcept {
    if (memalign_fn const fn = short_way(s_fast_memalign)) return memalign_via<true>(fn, alignment, size, false);
    return memalign_long(alignment, size);
}

QVL_API void free(void* p) noexcept {
    if (free_fn const fn = short_way(s_fast_free)) return free_via<true>(fn, p);
    free_long(p);
}

}  // extern "C"

bool kern::alloc::wrapped() noexcept { return true; }

#else

bool kern::alloc::wrapped() noexcept { return false; }

#endif  // QVLKERN_NO_MALLOC_WRAPPERS

// --- allocator tuning ----------------------------------------------------------------

namespace {

// What qvl_malloc_setup did, until qvl_malloc_setup_info logs it.
std::string s_setup_message;

// The system's text of an error that no call reported.
std::string error_text(int code) {
    errno = code;
    error_saver_t const saved;
    return get_last_error(saved);
}

}  // namespace

extern "C" int qvl_malloc_setup() {
    char const* const env = std::getenv("QVLSRV_MALLOC_MMAP");
    lstr_t const value(env);
    int count = -1, threshold = 0;
    if (env && value.ic_eq("on")) {
        count = 131070;
        threshold = 8192;
    } else if (env && value.ic_eq("off")) {
        count = 0;
        threshold = 2147483647;
    }
    if (count < 0) {
        s_setup_message = "[Linux] Allocation mapping is left unchanged";
    } else {
        // The limit first, then the threshold.
        mallopt(M_MMAP_MAX, count);
        mallopt(M_MMAP_THRESHOLD, threshold);
        q_format(s_setup_message, "[Linux] Allocation mapping is set to %uK threshold and %u blocks",
                 static_cast<unsigned>(threshold) >> 10, static_cast<unsigned>(count));
    }
    return mallopt(M_CHECK_ACTION, 0);
}

extern "C" void qvl_malloc_setup_info() {
    if (s_setup_message.empty()) return;
    if_logger_t::Log->log_INFO("%s", s_setup_message.c_str());
    kern_n::clear_string(s_setup_message);
}

// --- memory map ------------------------------------------------------------------------

namespace {

// A size in compact form: plain up to 10240, "<n>K" up to 10485760, then
// "<n>M".
void compact_size(q_uint64_t v, char (&out)[24]) {
    if (v > 10485760) {
        std::snprintf(out, sizeof out, "%lluM", static_cast<unsigned long long>(v >> 20));
    } else if (v < 10241) {
        std::snprintf(out, sizeof out, "%llu", static_cast<unsigned long long>(v));
    } else {
        std::snprintf(out, sizeof out, "%lluK", static_cast<unsigned long long>(v >> 10));
    }
}

// Cuts the next blank-separated field off the front of s.
lstr_t next_field(lstr_t& s) {
    while (!s.empty() && s[0] == ' ') s.remove_prefix(1);
    unsigned long n = 0;
    while (n < s.length() && s[n] != ' ') ++n;
    lstr_t const field(s.ptr(), n);
    s.remove_prefix(n);
    return field;
}

q_uint64_t hex_value(lstr_t s) {
    q_uint64_t v = 0;
    for (char c : s) {
        unsigned const d = from_hex_dig(static_cast<unsigned char>(c));
        if (d > 15) break;
        v = v * 16 + d;
    }
    return v;
}

// "start-end perms offset dev inode [path [(deleted)]]" as one "[Map]" line.
void log_map_line(if_logger_t* log, lstr_t line) {
    lstr_t const range = next_field(line);
    lstr_t const perms = next_field(line);
    next_field(line);  // offset
    next_field(line);  // device
    next_field(line);  // inode
    lstr_t path = line.trim();
    lstr_t further;
    static char const deleted[] = " (deleted)";
    if (path.ends(deleted)) {
        further.set(path.ptr() + path.length() - (sizeof deleted - 2), sizeof deleted - 2);
        path.remove_suffix(sizeof deleted - 1);
    }
    lstr_t to = range;
    lstr_t const from = to.word('-', true);
    q_uint64_t const start = hex_value(from), end = hex_value(to);
    char size[24];
    compact_size(end > start ? (end - start) >> 10 : 0, size);
    std::string const mode(perms.ptr(), perms.length());
    if (further.empty()) {
        log->log(if_logger_t::TRACE_3, "[Map] %.*s %s %6sKB %.*s", static_cast<int>(range.length()), range.ptr(),
                 mode.c_str(), size, static_cast<int>(path.length()), path.ptr());
    } else {
        log->log(if_logger_t::TRACE_3, "[Map] %.*s %s %6sKB %.*s:%.*s", static_cast<int>(range.length()),
                 range.ptr(), mode.c_str(), size, static_cast<int>(path.length()), path.ptr(),
                 static_cast<int>(further.length()), further.ptr());
    }
}

}  // namespace

void kern_n::linux_print_map() {
    int fd;
    do {
        fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return;
    if_logger_t* const log = if_logger_t::Log;
    if (log->is_logged(if_logger_t::TRACE_3)) {
        log->log(if_logger_t::TRACE_3, "[Map] Current memory layout");
        std::string line;
        char buffer[4096];
        for (;;) {
            ssize_t const n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            for (ssize_t i = 0; i < n; ++i) {
                if (buffer[i] != '\n') {
                    line += buffer[i];
                    continue;
                }
                log_map_line(log, line);
                line.clear();
            }
        }
        if (!line.empty()) log_map_line(log, line);
    }
    ::close(fd);
}

// --- arena figures ---------------------------------------------------------------------

namespace {

// How long the parent waits for each line of the child's report.
int const report_wait_ms = 10000;

// The figures in the order of the two log lines; true: in KiB.
struct figure_t {
    char const* name;
    bool kilobytes;
};
figure_t const k_figures[] = {
    {"arena", true}, {"hblkhd", true}, {"ordblks", false}, {"hblks", false},
    {"uordblks", true}, {"fordblks", true}, {"keepcost", true},
};
unsigned const figure_count = sizeof k_figures / sizeof k_figures[0];

// In the forked child: the figures of its copy of the heap, one line each.
[[noreturn]] void report_in_child(int fd) {
    signal(SIGPIPE, SIG_IGN);  // a parent that stopped reading ends nothing
    struct mallinfo2 const mi = mallinfo2();
    std::size_t const values[figure_count] = {mi.arena, mi.hblkhd, mi.ordblks, mi.hblks,
                                              mi.uordblks, mi.fordblks, mi.keepcost};
    char text[512];
    int len = 0;
    for (unsigned i = 0; i < figure_count; ++i)
        len += std::snprintf(text + len, sizeof text - static_cast<std::size_t>(len), "%s %zu\n", k_figures[i].name,
                             values[i]);
    char const* p = text;
    while (len > 0) {
        ssize_t const n = ::write(fd, p, static_cast<std::size_t>(len));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        p += n;
        len -= static_cast<int>(n);
    }
    _exit(0);
}

void linux_print_malloc_info_parent(int fd, q_uint64_t (&values)[figure_count]) {
    for (unsigned i = 0; i < figure_count; ++i)
        values[i] = kern_n::linux_malloc_info_read_line(fd, k_figures[i].kilobytes);
}

}  // namespace

q_uint64_t kern_n::linux_malloc_info_read_line(int fd, bool kilobytes) {
    std::string line;
    for (;;) {
        pollfd p = {fd, POLLIN, 0};
        int const ready = ::poll(&p, 1, report_wait_ms);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            error_saver_t const saved;
            std::string const why = ready == 0 ? error_text(ETIMEDOUT) : get_last_error(saved);
            QVL_THROW(io_error_exception, "[Linux] Unable to wait data from pipe because of %s", why.c_str());
        }
        char c;
        ssize_t const n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error_saver_t const saved;
            std::string const why = n == 0 ? error_text(EPIPE) : get_last_error(saved);
            QVL_THROW(io_error_exception, "[Linux] Unable to read from pipe because of %s", why.c_str());
        }
        if (c == '\n') break;
        line += c;
    }
    lstr_t text(line);
    q_uint64_t const value = string_to_uint64(text.r_word(' ', true));  // after the figure's name
    return kilobytes ? value >> 10 : value;
}

void kern_n::linux_print_malloc_info() {
    if_logger_t* const log = if_logger_t::Log;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        error_saver_t const saved;
        log->log_FAULT("[Linux] Unable to create pipe because of %s", get_last_error(saved).c_str());
        return;
    }
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        report_in_child(fds[1]);
    }
    if (pid < 0) {
        error_saver_t const saved;
        log->log_FAULT("[Linux] Unable to clone process because of %s", get_last_error(saved).c_str());
        ::close(fds[0]);
        ::close(fds[1]);
        return;
    }
    ::close(fds[1]);
    q_uint64_t v[figure_count] = {};
    bool read = false;
    try {
        linux_print_malloc_info_parent(fds[0], v);
        read = true;
    } catch (io_error_exception_shell_t const& e) {
        log->log_FAULT("%s", e.what());
    } catch (std::exception const& e) {
        log->log_FAULT("linux_print_malloc_info_parent faild because of %s", e.what());
    }
    ::close(fds[0]);
    int status = 0;
    pid_t rc;
    do {
        rc = ::waitpid(pid, &status, 0);
    } while (rc < 0 && errno == EINTR);
    // ECHILD: the program reaps its children itself (or ignores SIGCHLD).
    if (rc < 0 && errno != ECHILD && read) {
        error_saver_t const saved;
        log->log_FAULT("linux_print_malloc_info_parent faild because of %s", get_last_error(saved).c_str());
        return;
    }
    if (!read) return;
    log->log_INFO("[Linux] Main arena: %luK allocated, %luK mmaped, %lu free chunks, %lu mapped blocks",
                  static_cast<unsigned long>(v[0]), static_cast<unsigned long>(v[1]),
                  static_cast<unsigned long>(v[2]), static_cast<unsigned long>(v[3]));
    log->log_INFO("[Linux] Main arena: %luK used, %luK unused space, %luK can be returned",
                  static_cast<unsigned long>(v[4]), static_cast<unsigned long>(v[5]),
                  static_cast<unsigned long>(v[6]));
}
