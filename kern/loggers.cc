// loggers.cc: the logger interface, the line prefix, the bootstrap logger
// and the set-up of the process logger. Each sink has a source of its own
// (loggers-fd.cc, loggers-syslog.cc, loggers-chain.cc, loggers-file.cc with
// loggers-pack.cc); loggers-int.h holds what they share.
#include "loggers.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include <boost/unordered_set.hpp>

#include "exceptions.h"
#include "loggers-int.h"
#include "syncers-int.h"
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

namespace kern_n {
namespace detail {

std::atomic<int> g_pid{0};
std::atomic<unsigned> g_fork_generation{0};
__thread thread_state_t t_state;

namespace {

void renew_ids_after_fork() {
    g_pid.store(static_cast<int>(::getpid()), std::memory_order_relaxed);
    g_fork_generation.fetch_add(1, std::memory_order_relaxed);
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

}  // namespace

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

bool build_scratch(thread_state_t& s) {
    if (s.scratch_gone) return false;
    // Touching the reaper registers its destructor for this thread.
    scratch_reaper_t* volatile reaper = &t_scratch_reaper;
    (void)reaper;
    for (int i = 0; i < slot_count; ++i) new (s.storage[i]) std::string();
    s.scratch_built = true;
    return true;
}

}  // namespace detail
}  // namespace kern_n

using namespace kern_n::detail;
using kern::syncers::detail::fork_forget;
using kern::syncers::detail::fork_safe;

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

}  // namespace

// --- if_root_t-derived interfaces ----------------------------------------------

struct if_logger_t::impl_t {
    impl_t() : handlers(11) {}

    mutex_t mutex;
    boost::unordered_set<if_logger_error_t*> handlers;
};

// Every mutex of a logger is registered for fork(): a child can log even
// when another thread of its parent held one at the fork.
if_logger_t::if_logger_t(msgclass_t level) : impl_(new impl_t), level_(level) { fork_safe(impl_->mutex); }

if_logger_t::~if_logger_t() {
    fork_forget(impl_->mutex);
    delete impl_;
}

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

// Never inlined: a copy guessed into the log wrappers (the compiler's
// speculative devirtualisation, when this is the only log_va in sight) makes
// their filtered-out path save registers it does not use.
__attribute__((noinline)) void if_logger_t::log_va(msgclass_t c, char const* fmt, va_list ap) {
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
    if (l->is_stderr()) return;
    sigpipe_guard_t pipe_guard(may_raise_sigpipe(2));
    if (std::fprintf(stderr, "%.*s\n", n, text.ptr()) < 0) pipe_guard.failed(errno);
}

// --- bootstrap logger -------------------------------------------------------------------

logger_init_t::simple::simple() : if_logger_t(INFO), raises_sigpipe_(may_raise_sigpipe(2)) {
    level_filter_only_ = true;
}

bool logger_init_t::simple::is_stderr() const { return true; }

size_t logger_init_t::simple::write(char const* text) {
    sigpipe_guard_t pipe_guard(raises_sigpipe_);
    int const n = std::fprintf(stderr, "%s\n", text);
    if (n < 0) pipe_guard.failed(errno);
    return static_cast<size_t>(n);
}

logger_init_t::simple& logger_init_t::instance() {
    // Built in static storage and never destroyed: the process logger falls
    // back to it during teardown, after every other static may be gone.
    alignas(simple) static unsigned char storage[sizeof(simple)];
    static simple* const s = new (storage) simple();
    return *s;
}

namespace {

// True when the calling thread is the process's only one (the process's
// thread count, field 20 of /proc/self/stat, is 1); false when that cannot
// be told.
bool only_thread() {
    int const fd = open_retry("/proc/self/stat", O_RDONLY, 0);
    if (fd == -1) return false;
    char buf[1024];
    ssize_t n;
    do {
        n = ::read(fd, buf, sizeof buf - 1);
    } while (n == -1 && errno == EINTR);
    close_once(fd);
    if (n <= 0) return false;
    buf[n] = '\0';
    // The command name in parentheses may hold blanks: count from its end.
    char const* p = std::strrchr(buf, ')');
    for (int field = 2; p && field < 20; ++field) p = std::strchr(p + 1, ' ');
    return p && std::strncmp(p, " 1 ", 3) == 0;
}

// The process logger retired at exit: kept reachable (volatile, so that the
// store is not left out) until the process ends.
if_logger_t* volatile s_retired = nullptr;

}  // namespace

void logger_init_t::settle(if_logger_t* l) {
    if (chain_logger_impl_t* const c = dynamic_cast<chain_logger_impl_t*>(l)) {
        settle(c->first);
        settle(c->second);
        return;
    }
    if (file_logger_impl_t* const f = dynamic_cast<file_logger_impl_t*>(l)) f->wait_compression();
    if (fd_logger_impl_t* const d = dynamic_cast<fd_logger_impl_t*>(l)) d->write_repeat_summary();
}

logger_init_t::~logger_init_t() {
    if_logger_t* const l = if_logger_t::Log;
    simple& s = instance();
    if_logger_t::Log = &s;
    if (!l || l == &s) return;
    if (only_thread()) {
        delete l;
        return;
    }
    // Another thread may still log through it (it took the pointer before).
    try {
        settle(l);
    } catch (...) {
        // A lock or handler failure has nowhere to go from here.
    }
    s_retired = l;
}

// --- set-up -------------------------------------------------------------------------------

namespace {

// Takes l out of every node of the chain old that holds it, so that
// destroying old leaves l alive.
void detach(if_logger_t* old, if_logger_t const* l) {
    chain_logger_impl_t* const c = dynamic_cast<chain_logger_impl_t*>(old);
    if (!c) return;
    for (if_logger_t** member : {&c->first, &c->second}) {
        if (*member == l) {
            *member = nullptr;
        } else {
            detach(*member, l);
        }
    }
}

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

    if (old && old != extra && old != if_logger_t::Log) {
        // The new logger holds extra too (set up again with the same one).
        if (extra) detach(old, extra);
        delete old;
    }
    return true;
}

bool init_logger(char const* level, char const* file, char const* rotation, if_logger_t* extra) {
    return init_logger(level, file, rotation,
                       "[Logger] Logfile has been opened by " QVLKERN_PRODUCT_NAME " " QVLKERN_VERSION_STRING
                       " build " QVLKERN_BUILD_NUMBER,
                       extra);
}
