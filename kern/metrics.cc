// metrics.cc: the library's counters as a Prometheus / OpenMetrics exposition.
#include "metrics.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <initializer_list>
#include <vector>

#include "code-exec-time.h"
#include "dynamic_library.h"
#include "exceptions.h"
#include "filestr-int.h"
#include "quote-utils.h"
#include "random.h"
#include "runnable.h"
#include "syncers.h"
#include "unicode-int.h"
#include "unx-utils-alloc.h"
#include "utilities.h"

namespace {

using kern_n::runnable_t;

constexpr q_uint64_t ticks_per_second = 100000000;

// A sample's value: a whole number, or a fixed-point one with `digits`
// decimals (times).
struct number_t {
    number_t(q_uint64_t n) noexcept : whole(n), frac(0), digits(0) {}  // NOLINT: counts read as numbers
    number_t(kern::syncers::detail::counter_t const& c) noexcept : number_t(c.load()) {}  // NOLINT: likewise
    number_t(q_uint64_t w, q_uint64_t f, int d) noexcept : whole(w), frac(f), digits(d) {}
    q_uint64_t whole, frac;
    int digits;
};

// Library ticks of 10 ns as seconds.
number_t seconds(q_uint64_t ticks) noexcept {
    return number_t(ticks / ticks_per_second, ticks % ticks_per_second, 8);
}

struct label_t {
    char const* name;
    lstr_t value;
};

enum class kind_t { counter, gauge, histogram };

// Writes families and their samples in one format.
class exposition_t {
public:
    exposition_t(std::string& out, kern::metrics::format_t format) noexcept
        : out_(out), om_(format == kern::metrics::format_t::openmetrics) {}

    // Starts a family with its HELP and TYPE lines. A counter's samples end
    // in "_total"; OpenMetrics names the family without it, the text format
    // with it. help holds no backslash and no line feed.
    void family(char const* name, kind_t kind, char const* help) {
        name_ = name;
        kind_ = kind;
        for (char const* what : {"# HELP ", "# TYPE "}) {
            out_ += what;
            out_ += name;
            if (kind == kind_t::counter && !om_) out_ += "_total";
            out_ += ' ';
            out_ += what[2] == 'H' ? help : kind == kind_t::counter ? "counter" : kind == kind_t::gauge ? "gauge"
                                                                                                    : "histogram";
            out_ += '\n';
        }
    }

    // One sample of the current family; suffix names a histogram's part.
    void sample(std::initializer_list<label_t> labels, number_t value, char const* suffix = "") {
        out_ += name_;
        out_ += kind_ == kind_t::counter ? "_total" : suffix;
        char sep = '{';
        for (label_t const& l : labels) {
            out_ += sep;
            out_ += l.name;
            out_ += "=\"";
            label_value(l.value);
            out_ += '"';
            sep = ',';
        }
        if (sep == ',') out_ += '}';
        out_ += ' ';
        number(value.whole);
        if (value.digits > 0) {
            out_ += '.';
            std::size_t const at = out_.size();
            number(value.frac);
            out_.insert(at, static_cast<std::size_t>(value.digits) - (out_.size() - at), '0');
        }
        out_ += '\n';
    }
    void sample(number_t value) { sample({}, value); }

    void end() {
        if (om_) out_ += "# EOF\n";
    }

private:
    void number(q_uint64_t n) {
        char buf[24];
        out_.append(buf, static_cast<std::size_t>(std::to_chars(buf, buf + sizeof buf, n).ptr - buf));
    }

    // Escapes backslash, double quote and line feed; a byte that does not
    // belong to well-formed UTF-8 becomes U+FFFD.
    void label_value(lstr_t v) {
        char const* p = v.data();
        std::size_t n = v.size();
        while (n != 0) {
            std::size_t const bad = kern_n::detail::utf8_invalid_at(p, n);
            std::size_t const good = bad == lstr_t::npos ? n : bad;
            for (std::size_t i = 0; i < good; ++i) {
                char const c = p[i];
                if (c == '\\' || c == '"') {
                    out_ += '\\';
                    out_ += c;
                } else if (c == '\n') {
                    out_ += "\\n";
                } else {
                    out_ += c;
                }
            }
            if (bad == lstr_t::npos) break;
            out_ += "\xEF\xBF\xBD";
            p += bad + 1;
            n -= bad + 1;
        }
    }

    std::string& out_;
    bool const om_;
    char const* name_ = "";
    kind_t kind_ = kind_t::gauge;
};

template <class T>
T load_relaxed(T const& field) noexcept {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

void sync_families(exposition_t& x) {
    namespace d = kern::syncers::detail;
    struct kind_row_t {
        char const* kind;
        d::counter_t const &ctor, &dtor, &free;
    };
    kind_row_t const kinds[] = {
        {"mutex", d::mutex::ctor, d::mutex::dtor, d::mutex::free},
        {"event", d::event::ctor, d::event::dtor, d::event::free},
        {"semaphore", d::semaphore::ctor, d::semaphore::dtor, d::semaphore::free},
        {"condvar", d::condvar::ctor, d::condvar::dtor, d::condvar::free},
        {"rwlock", d::rwlock::ctor, d::rwlock::dtor, d::rwlock::free},
    };
    x.family("qvlkern_sync_objects_created", kind_t::counter, "Synchronisation objects constructed.");
    for (kind_row_t const& k : kinds) x.sample({{"kind", k.kind}}, k.ctor);
    x.family("qvlkern_sync_objects_destroyed", kind_t::counter, "Synchronisation objects destroyed.");
    for (kind_row_t const& k : kinds) x.sample({{"kind", k.kind}}, k.dtor);
    x.family("qvlkern_sync_takes", kind_t::counter,
             "Locks and lock attempts (mutex, rwlock by mode), waits (event, semaphore, condvar).");
    x.sample({{"kind", "mutex"}}, d::mutex::take);
    x.sample({{"kind", "event"}}, d::event::take);
    x.sample({{"kind", "semaphore"}}, d::semaphore::take);
    x.sample({{"kind", "condvar"}}, d::condvar::take);
    x.sample({{"kind", "rwlock"}, {"mode", "shared"}}, d::rwlock::stake);
    x.sample({{"kind", "rwlock"}, {"mode", "exclusive"}}, d::rwlock::xtake);
    x.family("qvlkern_sync_releases", kind_t::counter,
             "Unlocks (mutex, rwlock), signals (event, condvar) and posts (semaphore).");
    for (kind_row_t const& k : kinds) x.sample({{"kind", k.kind}}, k.free);
}

void service_families(exposition_t& x) {
    namespace q = kern::quote::stat;
    x.family("qvlkern_quote_calls", kind_t::counter, "Quoting calls while statistics are on.");
    x.sample({{"op", "quote"}}, q::quote::calls.load());
    x.sample({{"op", "dequote"}}, q::dequote::calls.load());
    x.family("qvlkern_quote_input_bytes", kind_t::counter, "Bytes given to quoting calls while statistics are on.");
    x.sample({{"op", "quote"}}, q::quote::size.load());
    x.sample({{"op", "dequote"}}, q::dequote::size.load());
    x.family("qvlkern_quote_seconds", kind_t::counter, "Time spent quoting, on the statistics clock.");
    x.sample({{"op", "quote"}}, seconds(q::quote::time.load()));
    x.sample({{"op", "dequote"}}, seconds(q::dequote::time.load()));

    x.family("qvlkern_random_draws", kind_t::counter, "Random numbers drawn while statistics are on.");
    x.sample(kern::random::stat::calls.load());
    x.family("qvlkern_random_seconds", kind_t::counter,
             "Time spent seeding and drawing random numbers, on the statistics clock.");
    x.sample(seconds(kern::random::stat::time.load()));
    x.family("qvlkern_uuid_calls", kind_t::counter, "UUIDs made while statistics are on.");
    x.sample(kern::guid::stat::calls.load());
    x.family("qvlkern_uuid_seconds", kind_t::counter, "Time spent making UUIDs, on the statistics clock.");
    x.sample(seconds(kern::guid::stat::time.load()));
}

void alloc_families(exposition_t& x) {
    if (!kern::alloc::wrapped()) return;
    namespace a = kern::alloc::stat;
    x.family("qvlkern_alloc_calls", kind_t::counter, "Calls of the allocation functions (malloc counts calloc).");
    x.sample({{"function", "malloc"}}, a::malloc::calls);
    x.sample({{"function", "realloc"}}, a::realloc::calls);
    x.sample({{"function", "memalign"}}, a::memalign::calls);
    x.sample({{"function", "free"}}, a::free::calls);
    x.family("qvlkern_alloc_bytes", kind_t::counter,
             "Usable bytes: handed out by malloc, calloc and realloc (malloc), by memalign, "
             "given back by free and realloc (free).");
    x.sample({{"function", "malloc"}}, a::malloc::size);
    x.sample({{"function", "memalign"}}, a::memalign::size);
    x.sample({{"function", "free"}}, a::free::size);
    x.family("qvlkern_alloc_seconds", kind_t::counter, "Time spent in the allocation functions, on the statistics clock.");
    x.sample({{"function", "malloc"}}, seconds(a::malloc::time));
    x.sample({{"function", "realloc"}}, seconds(a::realloc::time));
    x.sample({{"function", "memalign"}}, seconds(a::memalign::time));
    x.sample({{"function", "free"}}, seconds(a::free::time));
    x.family("qvlkern_alloc_block_size_bytes", kind_t::histogram,
             "Blocks allocated while statistics are on, by size (realloc by the size asked).");
    q_uint64_t cumulative = 0;
    for (unsigned i = 0; i < 32; ++i) {
        cumulative += a::sizes::malloc[i];
        char le[16];
        auto const end = std::to_chars(le, le + sizeof le, q_uint64_t{1} << i).ptr;
        x.sample({{"le", lstr_t(le, static_cast<unsigned long>(end - le))}}, cumulative, "_bucket");
    }
    x.sample({{"le", "+Inf"}}, cumulative, "_bucket");
    x.sample({}, cumulative, "_count");
}

void dynalib_families(exposition_t& x) {
    namespace c = kern::dynalib::cache;
    bool enabled = false;
    unsigned images = 0, held = 0;
    {
        xlocker_t<mutex_t> hold(c::s_storage_guard);
        if (c::s_storage) {
            enabled = true;
            images = c::s_storage->count;
            for (auto const& image : c::s_storage->items) held += image.use_count() > 1;
        }
    }
    x.family("qvlkern_dynalib_cache_enabled", kind_t::gauge, "1 while the module cache is enabled.");
    x.sample(enabled ? 1 : 0);
    x.family("qvlkern_dynalib_cache_images", kind_t::gauge, "Module images in the cache.");
    x.sample(images);
    x.family("qvlkern_dynalib_cache_images_held", kind_t::gauge, "Cached module images that a handle holds.");
    x.sample(held);
    x.family("qvlkern_dynalib_cache_ttl_seconds", kind_t::gauge, "Idle time after which an unheld image may be closed.");
    x.sample(seconds(static_cast<q_uint64_t>(std::max<q_int64_t>(c::s_time_to_live.value, 0))));
}

// What the registry guard protects, copied for one entry.
struct thread_row_t {
    std::string type, name;
    q_int64_t tid;
    std::int32_t pid;
    clockid_t clock;
};

void thread_families(exposition_t& x) {
    std::vector<thread_row_t> rows;
    {
        xlocker_t<mutex_t> hold(runnable_t::runnables_guard);
        rows.reserve(runnable_t::runnables.size());
        for (runnable_t const* e : runnable_t::runnables)
            rows.push_back({e->type(), e->name, load_relaxed(e->tid), load_relaxed(e->pid), load_relaxed(e->cpu_clock)});
    }
    x.family("qvlkern_threads", kind_t::gauge, "Entries in the thread registry.");
    x.sample(rows.size());
    x.family("qvlkern_thread_entries_created", kind_t::counter, "Thread registry entries built.");
    x.sample(runnable_t::SeqIdCnt.load());

    // One series per thread of this process: the first entry of each tid.
    std::int32_t const self = ::getpid();
    rows.erase(std::remove_if(rows.begin(), rows.end(),
                              [self](thread_row_t const& r) { return r.tid == 0 || r.pid != self; }),
               rows.end());
    std::stable_sort(rows.begin(), rows.end(),
                     [](thread_row_t const& a, thread_row_t const& b) { return a.tid < b.tid; });
    x.family("qvlkern_thread_cpu_seconds", kind_t::counter, "CPU time of each registered thread, user and system.");
    q_int64_t last = 0;
    for (thread_row_t const& r : rows) {
        struct timespec ts;
        if (r.tid == last || ::clock_gettime(r.clock, &ts) != 0) continue;
        last = r.tid;
        char tid[24];
        auto const end = std::to_chars(tid, tid + sizeof tid, r.tid).ptr;
        x.sample({{"type", r.type}, {"name", r.name}, {"tid", lstr_t(tid, static_cast<unsigned long>(end - tid))}},
                 number_t(static_cast<q_uint64_t>(ts.tv_sec), static_cast<q_uint64_t>(ts.tv_nsec), 9));
    }
}

void process_families(exposition_t& x) {
    q_uint64_t user = 0, system = 0, minor = 0, major = 0, swaps = 0, reads = 0, writes = 0;
    runnable_t::cpu_usage(&user, &system);
    runnable_t::paging_usage(&minor, &major, &swaps);
    runnable_t::io_usage(&reads, &writes);
    kern_n::vminfo_t vm;
    runnable_t::vm_usage(&vm);
    x.family("qvlkern_process_cpu_seconds", kind_t::counter, "CPU time of the process.");
    x.sample({{"mode", "user"}}, seconds(user));
    x.sample({{"mode", "system"}}, seconds(system));
    x.family("qvlkern_process_page_faults", kind_t::counter, "Page faults of the process.");
    x.sample({{"kind", "minor"}}, minor);
    x.sample({{"kind", "major"}}, major);
    x.family("qvlkern_process_swaps", kind_t::counter, "Swaps of the process.");
    x.sample(swaps);
    x.family("qvlkern_process_context_switches", kind_t::counter, "Voluntary and involuntary context switches.");
    x.sample(vm.ctx_switches);
    x.family("qvlkern_process_block_io_operations", kind_t::counter, "Block input and output operations.");
    x.sample({{"direction", "read"}}, reads);
    x.sample({{"direction", "write"}}, writes);
    x.family("qvlkern_process_virtual_memory_bytes", kind_t::gauge, "Virtual memory size.");
    x.sample(vm.vm_size);
    x.family("qvlkern_process_resident_memory_bytes", kind_t::gauge, "Resident memory size.");
    x.sample(vm.vm_rss);
    x.family("qvlkern_process_system_threads", kind_t::gauge, "Threads of the process, registered or not.");
    x.sample(vm.threads);
    x.family("qvlkern_process_open_fds", kind_t::gauge, "Open file descriptors.");
    x.sample(runnable_t::handles_count());
}

void statistics_family(exposition_t& x) {
    namespace s = kern::runtime::stat;
    s::mode_t const mode = s::mode_s_;
    x.family("qvlkern_statistics_mode", kind_t::gauge,
             "Run-time statistics switch: 0 off, 1 thread CPU clock, 2 monotonic clock.");
    x.sample({{"clock", s::type()}}, mode == 0 ? 0 : mode == 1 ? 1 : 2);
}

// Throws io_error_exception with fmt, path and the text of the errno saved
// right after the failing call; the temporary file, when named, goes first.
[[noreturn]] void fail(char const* fmt, std::string const& path, char const* to = nullptr,
                       std::string const& remove = std::string()) {
    error_saver_t const saved;
    if (!remove.empty()) ::unlink(remove.c_str());
    std::string const why = get_last_error(saved);
    if (to) QVL_THROW(io_error_exception, fmt, path.c_str(), to, why.c_str());
    QVL_THROW(io_error_exception, fmt, path.c_str(), why.c_str());
}

std::atomic<unsigned> s_temp_seq{0};

}  // namespace

namespace kern {
namespace metrics {

char const* content_type(format_t format) noexcept {
    return format == format_t::openmetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                           : "text/plain; version=0.0.4; charset=utf-8";
}

void append(std::string& out, format_t format) {
    exposition_t x(out, format);
    sync_families(x);
    service_families(x);
    alloc_families(x);
    dynalib_families(x);
    thread_families(x);
    process_families(x);
    statistics_family(x);
    x.end();
}

void append_openmetrics(std::string& out) { append(out, format_t::openmetrics); }

void write_textfile(char const* path, format_t format) {
    using kern_n::detail::fd_holder_t;
    if (!path) {
        errno = EINVAL;
        fail("unable to create file \"%s\" because of %s", "(null)");
    }
    std::string body;
    append(body, format);
    std::string const target(path);
    std::string temp;
    int fd = -1;
    // An exclusive name of our own; one left by a crashed process of the
    // same pid is passed over.
    for (int attempt = 0; fd == -1 && attempt < 100; ++attempt) {
        temp = target + q_format(".%d.%u.tmp", static_cast<int>(::getpid()), s_temp_seq.fetch_add(1));
        fd = kern_n::detail::open_retry(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0644);
        if (fd == -1 && errno != EEXIST) break;
    }
    if (fd == -1) fail("unable to create file \"%s\" because of %s", temp);
    fd_holder_t file(fd);
    for (std::size_t done = 0; done < body.size();) {
        ssize_t const put = kern_n::detail::write_retry(fd, body.data() + done, body.size() - done, false);
        if (put == 0) errno = ENOSPC;  // a regular file takes some bytes or says why not
        if (put <= 0) fail("unable to write into file \"%s\" because of %s", temp, nullptr, temp);
        done += static_cast<std::size_t>(put);
    }
    if (kern_n::detail::retry_eintr([&] { return ::fsync(fd); }) != 0)
        fail("unable to synchronize file \"%s\" because of %s", temp, nullptr, temp);
    if (file.close() != 0) fail("unable to close file \"%s\" because of %s", temp, nullptr, temp);
    if (::rename(temp.c_str(), target.c_str()) != 0)
        fail("unable to rename file \"%s\" to \"%s\" because of %s", temp, path, temp);
}

}  // namespace metrics
}  // namespace kern
