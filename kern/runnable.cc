// runnable.cc: the registry of the process's threads, their per-thread
// stores and clean-up, and the process's resource figures.
#include "runnable.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <new>

#include <boost/thread/exceptions.hpp>

#include "exceptions.h"
#include "loggers.h"
#include "numstrings.h"
#include "platform.h"
#include "utilities.h"

namespace kern_n {

namespace {

// The id fields are plain integers in the interface, but the new thread
// writes them while walkers on other threads read them: every access from a
// thread other than the constructing one goes through these.
template <class T>
inline T load(T const& field) noexcept {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <class T, class V>
inline void store(T& field, V value) noexcept {
    __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELAXED);
}

constexpr q_uint64_t unknown_handle = ~q_uint64_t(0);

q_int64_t current_tid() noexcept { return static_cast<q_int64_t>(::syscall(SYS_gettid)); }

q_uint64_t ticks(struct timeval const& tv) noexcept {
    return static_cast<q_uint64_t>(tv.tv_sec) * kern::time::ticks_per_second +
           static_cast<q_uint64_t>(tv.tv_usec) * 100;
}

q_uint64_t ticks(struct timespec const& ts) noexcept {
    return static_cast<q_uint64_t>(ts.tv_sec) * kern::time::ticks_per_second +
           static_cast<q_uint64_t>(ts.tv_nsec) / 10;
}

void put(q_uint64_t* to, q_uint64_t value) noexcept {
    if (to) *to = value;
}

// Writes one of the registry's failure lines at the error printer's
// severity 1.
void print_failure(runnable_t const* e, char const* action, char const* reason) noexcept {
    try {
        std::string const text = q_format("%s: %s self failed because of %s", e->name.c_str(), action, reason);
        default_print_exception(reinterpret_cast<void*>(static_cast<std::intptr_t>(1)), text.c_str(), nullptr, 0);
    } catch (...) {
        // Nothing is left to report with.
    }
}

// Runs f; a failure becomes text in the library's usual order and is
// printed instead of thrown.
template <class F>
void without_throw(runnable_t const* e, char const* action, F const& f) noexcept {
    try {
        f();
    } catch (q_exception_t_shell_t const& x) {
        print_failure(e, action, x.what());
    } catch (std::bad_alloc const& x) {
        print_failure(e, action, x.what());
    } catch (std::exception const& x) {
        print_failure(e, action, x.what());
    } catch (boost::thread_interrupted const&) {
        print_failure(e, action, "thread was interrupted");
    } catch (...) {
        print_failure(e, action, "general error");
    }
}

// --- the per-thread store -------------------------------------------------------

// Byte-wise order of the key names; a null name sorts as the empty one.
struct key_less_t {
    bool operator()(char const* a, char const* b) const noexcept {
        return std::strcmp(a ? a : "", b ? b : "") < 0;
    }
};
typedef std::map<char const*, if_root_t*, key_less_t> store_t;

store_t* current_store() noexcept { return static_cast<store_t*>(pthread_getspecific(runnable_t::tls_key)); }

// Destroys the stored objects in key order. Each is taken out before it is
// destroyed, so a destructor that looks up or stores keys of its thread
// sees a consistent store (and what it stores is destroyed in turn).
void empty_store(store_t* s) noexcept {
    while (!s->empty()) {
        store_t::iterator const first = s->begin();
        if_root_t* const value = first->second;
        s->erase(first);
        try {
            delete value;
        } catch (...) {
            // A throwing destructor does not stop the clean-up.
        }
    }
}

// --- a thread's own entry ----------------------------------------------------------

// The entry set_self_name makes for a thread that has none.
class own_entry_t final : public runnable_t {
public:
    explicit own_entry_t(char const* kind) : kind_(kind) {}
    ~own_entry_t() override { deregister_from_list(); }
    char const* type() const override { return kind_; }

private:
    char const* const kind_;
};

// Owns the calling thread's own entry. Its destructor runs when the thread
// ends; for the main thread, when the process exits, before the statics'
// teardown (the registry's guard is never destroyed in any case).
struct own_entry_holder_t {
    own_entry_t* entry = nullptr;
    ~own_entry_holder_t() {
        if (!entry) return;
        // Still the thread's entry: end the thread as an adopted one ends.
        if (runnable_t::self() == entry) runnable_t::cleanup_all();
        delete entry;
    }
};
thread_local own_entry_holder_t t_own_entry;

// --- /proc and the kernel --------------------------------------------------------

// Reads a small file whole; false with errno set on failure.
bool read_file(char const* path, std::string& out) {
    int fd;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return false;
    char buf[4096];
    for (;;) {
        ssize_t const n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            error_saver_t saved;
            ::close(fd);
            return false;
        }
    }
    ::close(fd);
    return true;
}

void log_debug(char const* fmt, char const* reason) {
    if_logger_t* const log = if_logger_t::Log;
    if (log && log->is_logged(if_logger_t::DEBUG)) log->log_DEBUG(fmt, reason);
}

// The read and write calls from /proc/self/io (kernels before 2.6.22).
void proc_io(q_uint64_t* reads, q_uint64_t* writes) {
    q_uint64_t r = 0, w = 0;
    try {
        std::string text;
        if (!read_file("/proc/self/io", text)) {
            QVL_THROW(io_error_exception, "unable to read \"/proc/self/io\" because of %s", get_last_error().c_str());
        }
        lstr_t rest(text);
        while (!rest.empty()) {
            lstr_t const line = rest.word_by_eol(false);
            if (line.length() > 6 && std::memcmp(line.ptr(), "syscr:", 6) == 0) {
                r = string_to_uint64(lstr_t(line.ptr() + 6, line.length() - 6).trim());
            } else if (line.length() > 6 && std::memcmp(line.ptr(), "syscw:", 6) == 0) {
                w = string_to_uint64(lstr_t(line.ptr() + 6, line.length() - 6).trim());
            }
        }
    } catch (q_exception_t_shell_t const& x) {
        r = w = 0;
        log_debug("Unable to get I/O information because of %s", x.what());
    } catch (std::exception const& x) {
        r = w = 0;
        log_debug("Unable to get I/O information because of %s", x.what());
    }
    put(reads, r);
    put(writes, w);
}

}  // namespace

// --- the list ---------------------------------------------------------------------

bool runnable_list_t::contains(runnable_t const* e) const noexcept {
    for (runnable_t const* p = head_; p; p = p->next_) {
        if (p == e) return true;
    }
    return false;
}

void runnable_list_t::push_back(runnable_t* e) noexcept {
    if (e->listed_) unlink(e);
    e->prev_ = tail_;
    e->next_ = nullptr;
    if (tail_) {
        tail_->next_ = e;
    } else {
        head_ = e;
    }
    tail_ = e;
    e->listed_ = true;
    ++size_;
}

void runnable_list_t::unlink(runnable_t* e) noexcept {
    if (!e->listed_) return;
    if (e->prev_) {
        e->prev_->next_ = e->next_;
    } else {
        head_ = e->next_;
    }
    if (e->next_) {
        e->next_->prev_ = e->prev_;
    } else {
        tail_ = e->prev_;
    }
    e->prev_ = e->next_ = nullptr;
    e->listed_ = false;
    --size_;
}

// --- entries ------------------------------------------------------------------------

// Not listed here: walks would meet the entry before its derived part is
// built (see runnable.h).
runnable_t::runnable_t()
    : tid(0),
      handle(unknown_handle),
      name(unknown_name),
      pid(0),
      seq_id(SeqIdCnt.fetch_add(1, std::memory_order_relaxed) + 1),
      cpu_clock(0),
      prev_(nullptr),
      next_(nullptr),
      listed_(false) {}

runnable_t::runnable_t(deferred_t) : runnable_t() {}

runnable_t::~runnable_t() { deregister_from_list(); }

void runnable_t::register_in_list() {
    deregister_from_list();
    without_throw(this, "Adding", [this] {
        xlocker_t<mutex_t> hold(runnables_guard);
        runnables.push_back(this);
    });
}

void runnable_t::deregister_from_list() {
    without_throw(this, "Removing", [this] {
        xlocker_t<mutex_t> hold(runnables_guard);
        runnables.unlink(this);
    });
}

void runnable_t::set_ids() {
    store(tid, current_tid());
    store(pid, ::getpid());
    clockid_t clock;
    int const rc = pthread_getcpuclockid(pthread_self(), &clock);
    if (rc != 0) {
        set_last_error(rc);
        QVL_THROW(thread_exception, "unable to retrieve thread CPU clock ID because of %s", get_last_error().c_str());
    }
    store(cpu_clock, clock);
    q_uint64_t const h = load(handle);
    if (h == 0 || h == unknown_handle) store(handle, static_cast<q_uint64_t>(pthread_self()));
}

void runnable_t::set_name(std::string const& n) {
    std::string copy(n);
    xlocker_t<mutex_t> hold(runnables_guard);
    name.swap(copy);
}

runnable_t::wrap_helper_t::wrap_helper_t(runnable_t* entry) {
    pthread_setspecific(self_key, entry);
    if (!entry) return;
    try {
        entry->set_ids();
    } catch (...) {
        pthread_setspecific(self_key, nullptr);
        throw;
    }
}

runnable_t::wrap_helper_t::~wrap_helper_t() { cleanup_all(); }

// --- the calling thread ------------------------------------------------------------------

runnable_t* runnable_t::self() noexcept { return static_cast<runnable_t*>(pthread_getspecific(self_key)); }

lstr_t runnable_t::self_name() noexcept {
    runnable_t const* const e = self();
    return e ? lstr_t(e->name) : lstr_t(unknown_name);
}

runnable_t* runnable_t::set_self_name(std::string const& n) {
    if (runnable_t* const e = self()) {
        e->set_name(n);
        return e;
    }
    own_entry_holder_t& holder = t_own_entry;  // first use registers its destructor
    if (!holder.entry) {
        bool const main_thread = current_tid() == ::getpid();
        std::unique_ptr<own_entry_t> fresh(new own_entry_t(main_thread ? "main" : "thread"));
        fresh->set_ids();
        fresh->set_name(n);
        fresh->register_in_list();
        holder.entry = fresh.release();
    } else {
        holder.entry->set_name(n);
    }
    int const rc = pthread_setspecific(self_key, holder.entry);
    if (rc != 0) {
        set_last_error(rc);
        QVL_THROW(thread_exception, "unable to name thread \"%s\" because of %s", n.c_str(), get_last_error().c_str());
    }
    return holder.entry;
}

if_root_t* runnable_t::get_key(char const* name) {
    store_t const* const s = current_store();
    if (!s) return nullptr;
    store_t::const_iterator const it = s->find(name);
    return it == s->end() ? nullptr : it->second;
}

void runnable_t::set_key(char const* name, if_root_t* value) {
    if (store_t* const s = current_store()) {
        store_t::iterator const it = s->find(name);
        if (it != s->end()) {
            if_root_t* const old = it->second;
            it->second = value;
            if (old != value) delete old;
            return;
        }
        try {
            s->emplace(name, value);
        } catch (...) {
            delete value;
            throw;
        }
        return;
    }
    std::unique_ptr<store_t> fresh;
    try {
        fresh.reset(new store_t);
        fresh->emplace(name, value);
    } catch (...) {
        delete value;
        throw;
    }
    int const rc = pthread_setspecific(tls_key, fresh.get());
    if (rc != 0) {
        empty_store(fresh.get());
        set_last_error(rc);
        QVL_THROW(thread_exception, "unable to set LWP [%s] TLS value for key \"%s\" because of %s",
                  self_name().to_string().c_str(), name ? name : "", get_last_error().c_str());
    }
    fresh.release();
}

void runnable_t::cleanup_all() noexcept {
    if (store_t* const s = current_store()) {
        empty_store(s);
        pthread_setspecific(tls_key, nullptr);
        delete s;
    }
    do_extra_thread_cleanup();
    pthread_setspecific(self_key, nullptr);
}

void runnable_t::do_extra_thread_cleanup() noexcept {
    try {
        if (extra_thread_cleanup) extra_thread_cleanup();
    } catch (...) {
        // Other subsystems' clean-up reports its own failures.
    }
}

// --- listing -------------------------------------------------------------------------------

void runnable_t::enum_all(boost::function<void(runnable_t const&)> const& fn) {
    xlocker_t<mutex_t> hold(runnables_guard);
    for (runnable_t const* e : runnables) fn(*e);
}

void runnable_t::running_list(std::vector<std::string>& out) {
    xlocker_t<mutex_t> hold(runnables_guard);
    out.reserve(out.size() + runnables.size());
    for (runnable_t const* e : runnables) {
        char ids[48];
        int const n = std::snprintf(ids, sizeof ids, "#%06lu/%06lu ", static_cast<unsigned long>(load(e->pid)),
                                    static_cast<unsigned long>(load(e->tid)));
        bool const quote = e->name.find(' ') != std::string::npos;
        std::string text(e->type());
        text.append(ids, static_cast<size_t>(n));
        if (quote) text += '"';
        text += e->name;
        if (quote) text += '"';
        out.push_back(std::move(text));
    }
}

void runnable_t::show_threads() {
    if_logger_t* const log = if_logger_t::Log;
    // Without NOTICE nothing is written (and DEBUG, the level of the readers'
    // failures, is off as well), so nothing is read.
    if (!log || !log->is_logged(if_logger_t::NOTICE)) return;
    vminfo_t vm;
    vm_usage(&vm);
    std::vector<std::string> entries;
    running_list(entries);
    size_t const n = entries.size();
    log->log_NOTICE("[Stat] There %s %lu running thread%s (%u system)", n == 1 ? "is" : "are",
                    static_cast<unsigned long>(n), n == 1 ? "" : "s", static_cast<unsigned>(vm.threads));
    std::string line;
    for (std::string const& e : entries) {
        line += e;
        line += ", ";
        if (line.size() > 64) {
            line.resize(line.size() - 2);
            log->log_NOTICE("[Stat] Threads: %s", line.c_str());
            line.clear();
        }
    }
    if (!line.empty()) {
        line.resize(line.size() - 2);
        log->log_NOTICE("[Stat] Threads: %s", line.c_str());
    }
}

void runnable_t::show_stack_info() {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return;
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    if_logger_t* const log = if_logger_t::Log;
    if (log && log->is_logged(if_logger_t::TRACE)) {
        log->log_TRACE("[UNIX] Minimum stack size is %lu bytes", static_cast<unsigned long>(size));
    }
}

void runnable_t::sleep(timegap_t gap) { kern_runnable_sleep_event.wait(gap); }

// --- resource figures ------------------------------------------------------------------------

void runnable_t::cpu_usage(q_uint64_t* user, q_uint64_t* system) {
    if (!user && !system) return;
    struct rusage ru;
    bool const ok = ::getrusage(RUSAGE_SELF, &ru) == 0;
    put(user, ok ? ticks(ru.ru_utime) : 0);
    put(system, ok ? ticks(ru.ru_stime) : 0);
}

void runnable_t::thread_cpu(q_uint64_t* user, q_uint64_t* system) const {
    if (!user && !system) return;
    q_int64_t const owner = load(tid);
    if (owner != 0 && owner == current_tid()) {
        struct rusage ru;
        if (::getrusage(RUSAGE_THREAD, &ru) == 0) {
            put(user, ticks(ru.ru_utime));
            put(system, ticks(ru.ru_stime));
            return;
        }
    }
    q_uint64_t total = 0;
    struct timespec ts;
    if (owner != 0 && ::clock_gettime(load(cpu_clock), &ts) == 0) total = ticks(ts);
    put(user, total);
    put(system, 0);
}

void runnable_t::paging_usage(q_uint64_t* minor, q_uint64_t* major, q_uint64_t* swaps) {
    if (!minor && !major && !swaps) return;
    struct rusage ru;
    bool const ok = ::getrusage(RUSAGE_SELF, &ru) == 0;
    put(minor, ok ? static_cast<q_uint64_t>(ru.ru_minflt) : 0);
    put(major, ok ? static_cast<q_uint64_t>(ru.ru_majflt) : 0);
    put(swaps, ok ? static_cast<q_uint64_t>(ru.ru_nswap) : 0);
}

void runnable_t::io_usage(q_uint64_t* reads, q_uint64_t* writes) {
    if (!reads && !writes) return;
    if (!platform_base_t::is_linux_greater_or_equal(2, 6, 22)) {
        proc_io(reads, writes);
        return;
    }
    struct rusage ru;
    bool const ok = ::getrusage(RUSAGE_SELF, &ru) == 0;
    put(reads, ok ? static_cast<q_uint64_t>(ru.ru_inblock) : 0);
    put(writes, ok ? static_cast<q_uint64_t>(ru.ru_oublock) : 0);
}

void runnable_t::vm_usage(vminfo_t* info) {
    if (!info) return;
    *info = vminfo_t();
    struct rusage ru;
    if (::getrusage(RUSAGE_SELF, &ru) == 0) {
        info->ctx_switches = static_cast<q_uint64_t>(ru.ru_nvcsw) + static_cast<q_uint64_t>(ru.ru_nivcsw);
        info->page_faults = static_cast<q_uint64_t>(ru.ru_minflt) + static_cast<q_uint64_t>(ru.ru_majflt);
    }
    try {
        std::string text;
        if (!read_file("/proc/self/status", text)) {
            QVL_THROW(io_error_exception, "unable to read \"/proc/self/status\" because of %s",
                      get_last_error().c_str());
        }
        lstr_t rest(text);
        lstr_t const blanks(" \t");
        int found = 0;
        while (found < 3 && !rest.empty()) {
            lstr_t line = rest.word_by_eol(false);
            line.drop(blanks);
            lstr_t const key = line.word(lstr_t(": \t"), false);
            q_uint64_t* field;
            if (key.eq("VmSize")) {
                field = &info->vm_size;
            } else if (key.eq("VmRSS")) {
                field = &info->vm_rss;
            } else if (key.eq("Threads")) {
                field = &info->threads;
            } else {
                continue;
            }
            ++found;
            q_uint64_t value = string_to_uint64(line.word(blanks, false));
            lstr_t const unit = line.word(blanks, false);
            if (unit.ic_eq("kb")) {
                value *= 1024;
            } else if (unit.ic_eq("mb")) {
                value *= 1048576;
            } else if (unit.ic_eq("gb")) {
                value *= 1073741824;
            }
            *field = value;
        }
    } catch (q_exception_t_shell_t const& x) {
        log_debug("Unable to get STATUS information because of %s", x.what());
    } catch (std::exception const& x) {
        log_debug("Unable to get STATUS information because of %s", x.what());
    }
}

unsigned runnable_t::handles_count() {
    DIR* const dir = ::opendir("/proc/self/fd");
    if (!dir) return 0;
    unsigned n = 0;
    while (struct dirent const* d = ::readdir(dir)) {
        if (d->d_name[0] != '.') ++n;
    }
    ::closedir(dir);
    return n;
}

// --- start-up ------------------------------------------------------------------------------

pthread_key_t runnable_t::make_thread_key() {
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) != 0) QVL_THROW(q_exception_t, "unable to initialize thread engine");
    return key;
}

sigset_t runnable_t::make_blocked_signals() noexcept {
    sigset_t set;
    sigemptyset(&set);
    // SIGPOLL is SIGIO on Linux: it is added twice and counted once.
    int const signals[] = {SIGURG, SIGIO, SIGPOLL, SIGWINCH, SIGUSR1, SIGUSR2,
                           SIGHUP, SIGTERM, SIGQUIT, SIGINT, SIGPIPE, SIGCHLD};
    for (int s : signals) sigaddset(&set, s);
    return set;
}

}  // namespace kern_n
