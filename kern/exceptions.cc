// exceptions.cc: exception records, their shells, the family layer and the
// per-thread call-stack markers.
#include "exceptions.h"
#include "filestr-int.h"

#include <cxxabi.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "loggers.h"
#include "numeric-triades.h"
#include "utilities.h"

namespace {

char const k_no_reason[] = "NO REASON";
char const k_zero_stack[] = "zero stack";
char const k_set_reason_failed[] = "q_exception_t::set_reason failed because of exception";

char const* file_or_unknown(char const* file) noexcept { return file ? file : "UNKNOWN"; }

callstack_t::printer_t printer_or_default(callstack_t::printer_t printer) noexcept {
    return printer ? printer : default_print_exception;
}

// One backtrace line as the process logger writes it: the bare text when
// the line carries no source position, else the text with its position.
std::string exception_log_line(char const* text, char const* file, int line) {
    if (!file && line == 0) return q_format("%s", text);
    return q_format("%s @ %s:%d", text, file_or_unknown(file), line);
}

// Makes a record of class R, owning cause. A failed allocation must not
// lose the cause the caller gave up; with a null reason the constructors
// themselves cannot throw.
template <class R>
q_exception_t* make_record(char const* file, int line, q_exception_t const* cause) {
    if (!cause) return new R(file, line, nullptr);
    try {
        return new R(file, line, cause, nullptr);
    } catch (...) {
        delete cause;
        throw;
    }
}

}  // namespace

// --- type names -----------------------------------------------------------

namespace kern_n {

demangle_t::~demangle_t() { std::free(buf_); }

char const* demangle_t::name(std::type_info const& ti) const noexcept {
    if (!raw_) {
        raw_ = ti.name();
        int status = 0;
        buf_ = abi::__cxa_demangle(raw_, nullptr, nullptr, &status);
    }
    return buf_ ? buf_ : raw_;
}

void clear_string(std::string& s) noexcept {
    if (!s.empty()) explicit_bzero(&s[0], s.size());
    s.clear();
}

}  // namespace kern_n

// --- call-stack markers -----------------------------------------------------

void* callstack_t::ealloc(std::size_t size, char const* /*tag*/) { return new char[size]; }

void callstack_t::efree(void* ptr, char const* /*tag*/) noexcept { delete[] static_cast<char*>(ptr); }

void callstack_t::ctor(char const* file, int line, char const* func) noexcept {
    point.file = file;
    point.line = static_cast<q_uint32_t>(line);
    point.func = func;
    point.next = nullptr;
    point.where_cache = nullptr;
    if (_q_exception_t::backtrace_enabled) pthread_setspecific(key, &point);
}

void callstack_t::dtor() noexcept {
    delete[] point.where_cache;
    point.where_cache = nullptr;
    if (_q_exception_t::backtrace_enabled) pthread_setspecific(key, point.next);
}

callstack_t::point_t* callstack_t::do_copy(point_t const* chain) {
    point_t* head = nullptr;
    point_t** tail = &head;
    try {
        for (point_t const* p = chain; p; p = p->next) {
            *tail = new (ealloc(sizeof(point_t), "point_t")) point_t{p->file, p->line, p->func, nullptr, nullptr};
            tail = &(*tail)->next;
        }
    } catch (...) {
        point_t::dtor(head);
        throw;
    }
    return head;
}

void callstack_t::point_t::dtor(point_t* chain) noexcept {
    while (chain) {
        point_t* next = chain->next;
        delete[] chain->where_cache;
        efree(chain, "point_t");
        chain = next;
    }
}

char const* callstack_t::point_t::where() const {
    if (!where_cache) {
        std::string text;
        for (point_t const* p = this; p; p = p->next) {
            if (p != this) text += ", ";
            if (p->func) {
                text += '"';
                text += p->func;
                text += "\" ";
            }
            text += file_or_unknown(p->file);
            text += ':';
            add_number_to_string(p->line, text);
        }
        where_cache = q_exception_t::copy(text.c_str());
    }
    return where_cache;
}

void callstack_t::point_t::backtrace(void* ctx, printer_t printer, int indent) const {
    printer = printer_or_default(printer);
    std::string text;
    for (point_t const* p = this; p; p = p->next) {
        text.assign(indent > 0 ? static_cast<std::size_t>(indent) : 0, ' ');
        text += p == this ? "at " : "by ";
        text += p->func ? p->func : "(unnamed)";
        printer(ctx, text.c_str(), p->file, static_cast<int>(p->line));
    }
}

void callstack_t::backtrace_stack(void* ctx, printer_t printer, int indent) {
    if (!_q_exception_t::backtrace_enabled) return;
    printer = printer_or_default(printer);
    point_t const* current = static_cast<point_t const*>(pthread_getspecific(key));
    if (!current) {
        printer(ctx, "Last message cought with no stack information", nullptr, 0);
        return;
    }
    printer(ctx, "Last message cought at following point", nullptr, 0);
    current->backtrace(ctx, printer, indent + 2);
}

void default_print_exception(void* ctx, char const* text, char const* file, int line) {
    if_logger_t* const log = if_logger_t::Log;
    int const level = static_cast<int>(reinterpret_cast<std::intptr_t>(ctx));
    if (!log || !log->is_logged(level)) return;
    log->log(level, "%s", exception_log_line(text, file, line).c_str());
}

pthread_key_t qexception_initializer() {
    pthread_key_t key;
    // No destructor: the slot only borrows a marker that lives on its
    // thread's stack, so there is never anything to free at thread exit.
    if (pthread_key_create(&key, nullptr) != 0) {
        std::fputs("Unable to initialize exception engine\n", stderr);
        std::exit(1);
    }
    return key;
}

// --- records ----------------------------------------------------------------

bool _q_exception_t::backtrace_enabled = false;

_q_exception_t::~_q_exception_t() {}

namespace {

// The thread's current point chain, copied when capture is on. A copy that
// fails for lack of memory leaves the record without a stack.
callstack_t::point_t* capture_stack() noexcept {
    if (!_q_exception_t::backtrace_enabled) return nullptr;
    auto const* current = static_cast<callstack_t::point_t const*>(pthread_getspecific(callstack_t::key));
    if (!current) return nullptr;
    try {
        return callstack_t::do_copy(current);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

q_exception_t::q_exception_t(char const* f, int l, char const* r)
    : file(f), line(static_cast<q_uint32_t>(l)), reason(copy(r)), cause(nullptr), info_cache(nullptr),
      stack(capture_stack()) {}

// The caller gave up c: it is deleted even when copying the reason fails.
q_exception_t::q_exception_t(char const* f, int l, q_exception_t const* c, char const* r) try
    : file(f), line(static_cast<q_uint32_t>(l)), reason(copy(r)), cause(c), info_cache(nullptr),
      stack(capture_stack()) {
} catch (...) {
    delete c;
}

q_exception_t::q_exception_t(q_exception_t const& o)
    : _q_exception_t(o), file(o.file), line(o.line), reason(copy(o.reason)), cause(o.cause),
      info_cache(nullptr), stack(o.stack) {
    o.cause = nullptr;
    o.stack = nullptr;
}

q_exception_t& q_exception_t::operator=(q_exception_t const& o) {
    if (this == &o) return *this;
    char* fresh = copy(o.reason);
    delete[] reason;
    delete cause;
    delete[] info_cache;
    callstack_t::point_t::dtor(stack);
    file = o.file;
    line = o.line;
    reason = fresh;
    cause = o.cause;
    info_cache = nullptr;
    stack = o.stack;
    o.cause = nullptr;
    o.stack = nullptr;
    return *this;
}

q_exception_t::~q_exception_t() {
    delete[] reason;
    delete cause;
    delete[] info_cache;
    callstack_t::point_t::dtor(stack);
}

char* q_exception_t::copy(char const* text) {
    if (!text) return nullptr;
    std::size_t const n = std::strlen(text) + 1;
    char* out = new char[n];
    std::memcpy(out, text, n);
    return out;
}

void q_exception_t::set_reason(char const* fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    set_reason_va(fmt, ap);
    va_end(ap);
}

void q_exception_t::set_reason_va(char const* fmt, va_list ap) noexcept {
    // Formatted before the old reason goes: the arguments may point into it.
    char* fresh;
    try {
        std::string text;
        q_format_va(text, fmt, ap);
        fresh = copy(text.c_str());
    } catch (...) {
        try {
            fresh = copy(k_set_reason_failed);
        } catch (...) {
            fresh = nullptr;
        }
    }
    delete[] reason;
    reason = fresh;
    delete[] info_cache;
    info_cache = nullptr;
}

char const* q_exception_t::what() const noexcept {
    if (reason) return reason;
    if (cause) return cause->what();
    return k_no_reason;
}

char const* q_exception_t::type() const noexcept { return type_name.name(typeid(*this)); }

char const* q_exception_t::where() const { return stack ? stack->where() : k_zero_stack; }

// "<T>( \"reason\" ) at file:line [ where ]" per record, joined by ", ",
// where <T> is this record's type for every entry.
char const* q_exception_t::info() const {
    if (info_cache) return info_cache;
    char const* const tname = type();
    std::size_t const tlen = std::strlen(tname);
    char digits[16];

    std::size_t total = 0;
    for (q_exception_t const* r = this; r; r = r->cause) {
        if (r != this) total += 2;
        total += tlen;
        if (r->reason) total += 3 + std::strlen(r->reason) + 3;
        total += 4 + std::strlen(file_or_unknown(r->file)) + 1;
        total += static_cast<std::size_t>(std::to_chars(digits, digits + sizeof digits, r->line).ptr - digits);
        total += 3 + std::strlen(r->where()) + 2;
    }

    char* const out = new char[total + 1];
    char* p = out;
    auto put = [&p](char const* s, std::size_t n) {
        std::memcpy(p, s, n);
        p += n;
    };
    auto puts = [&put](char const* s) { put(s, std::strlen(s)); };
    for (q_exception_t const* r = this; r; r = r->cause) {
        if (r != this) put(", ", 2);
        put(tname, tlen);
        if (r->reason) {
            put("( \"", 3);
            puts(r->reason);
            put("\" )", 3);
        }
        put(" at ", 4);
        puts(file_or_unknown(r->file));
        put(":", 1);
        put(digits, static_cast<std::size_t>(std::to_chars(digits, digits + sizeof digits, r->line).ptr - digits));
        put(" [ ", 3);
        puts(r->where());
        put(" ]", 2);
    }
    *p = '\0';
    info_cache = out;
    return info_cache;
}

void q_exception_t::backtrace(void* ctx, callstack_t::printer_t printer, int indent) const {
    printer = printer_or_default(printer);
    std::string text;
    int level = indent;
    // Every line carries the position of the outermost throw.
    for (q_exception_t const* r = this; r; r = r->cause, ++level) {
        text.assign(level > 0 ? static_cast<std::size_t>(level) : 0, ' ');
        char const* const t = r->type();
        text += t ? t : "unknown_type";
        text += ": ";
        text += r->reason ? r->reason : "(no reason)";
        printer(ctx, text.c_str(), file, static_cast<int>(line));
        if (backtrace_enabled && r->stack) r->stack->backtrace(ctx, printer, level + 2);
    }
}

void q_exception_t::dump(char const* prefix, bool recursive, int index) const {
    if (recursive) {
        std::printf("%3d. ", index);
        std::fflush(stdout);
    }
    std::string self, text, because, at;
    add_number_to_string(static_cast<void const*>(this), self);
    add_number_to_string(static_cast<void const*>(reason), text);
    add_number_to_string(static_cast<void const*>(cause), because);
    add_number_to_string(static_cast<void const*>(stack), at);
    std::printf("%s%s@%s \"%s\" @%s %s:%u -> %s [%s]\n", prefix ? prefix : "", type(), self.c_str(),
                reason ? reason : k_no_reason, text.c_str(), file_or_unknown(file), line, because.c_str(),
                at.c_str());
    std::fflush(stdout);
    if (recursive && cause) cause->dump(prefix, true, index + 1);
}

void* q_exception_t::operator new(std::size_t size) { return callstack_t::ealloc(size, "q_exception_t"); }

void q_exception_t::operator delete(void* ptr) noexcept { callstack_t::efree(ptr, "q_exception_t"); }

// --- shells -------------------------------------------------------------------

q_exception_t_shell_t::q_exception_t_shell_t(char const* fmt, ...) : impl(nullptr) {
    va_list ap;
    va_start(ap, fmt);
    format_staging(fmt, ap);
    va_end(ap);
}

q_exception_t_shell_t::q_exception_t_shell_t(q_exception_t_shell_t const& o)
    : std::exception(o), staging_reason(o.staging_reason), impl(o.impl) {
    o.impl = nullptr;
}

q_exception_t_shell_t& q_exception_t_shell_t::operator=(q_exception_t_shell_t const& o) {
    if (this == &o) return *this;
    staging_reason = o.staging_reason;
    delete impl;
    impl = o.impl;
    o.impl = nullptr;
    return *this;
}

q_exception_t_shell_t::~q_exception_t_shell_t() { delete impl; }

void q_exception_t_shell_t::format_staging(char const* fmt, va_list ap) { q_format_va(staging_reason, fmt, ap); }

void q_exception_t_shell_t::install(q_exception_t* rec) noexcept {
    delete impl;
    impl = rec;
    update_reason();
}

q_exception_t_shell_t& q_exception_t_shell_t::create_impl(char const* file, int line, q_exception_t const* cause) {
    install(make_record<q_exception_t>(file, line, cause));
    return *this;
}

void q_exception_t_shell_t::update_reason() noexcept {
    if (impl) impl->set_reason("%s", staging_reason.c_str());
    kern_n::clear_string(staging_reason);
}

char const* q_exception_t_shell_t::what() const noexcept {
    return impl ? impl->what() : "NOTHING: I am cloned shell.";
}

char const* q_exception_t_shell_t::type() const noexcept { return type_name.name(typeid(*this)); }

char const* q_exception_t_shell_t::where() const { return impl ? impl->where() : "NOWHERE: I am cloned shell."; }

char const* q_exception_t_shell_t::info() const { return impl ? impl->info() : "NO INFO: I am cloned shell."; }

std::string q_exception_t_shell_t::what_chain() const {
    std::string out(what());
    for (q_exception_t const* r = impl ? impl->cause : nullptr; r; r = r->cause) {
        if (!out.empty()) out += " because of ";
        out += r->what();
    }
    return out;
}

void q_exception_t_shell_t::dump(char const* prefix, bool recursive) const {
    if (!prefix) prefix = "";
    std::string self, rec;
    add_number_to_string(static_cast<void const*>(this), self);
    add_number_to_string(static_cast<void const*>(impl), rec);
    std::printf("%s%s@%s -> %s\n", prefix, type(), self.c_str(), rec.c_str());
    std::fflush(stdout);
    if (!recursive) return;
    if (!impl) {
        std::printf("  2. %sNo impl\n", prefix);
        std::fflush(stdout);
        return;
    }
    impl->dump(prefix, true, 2);
}

q_exception_t* q_exception_t_shell_t::release() const noexcept {
    q_exception_t* rec = impl;
    impl = nullptr;
    return rec;
}

// --- logging caught exceptions ---------------------------------------------------

namespace {

// fmt with arg in place of its first "%s" and "%" for each "%%"; every other
// character, "%" included, as it is.
std::string substitute(char const* fmt, char const* arg) {
    std::string out;
    bool used = false;
    for (char const* p = fmt; *p; ++p) {
        if (p[0] == '%' && (p[1] == '%' || (p[1] == 's' && !used))) {
            used |= p[1] == 's';
            out += p[1] == '%' ? "%" : (arg ? arg : "(null)");
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

// Writes text to standard error without allocating. SIGPIPE is held back
// from this thread meanwhile, and the one a broken pipe raised is taken
// back, so that a closed standard error does not end the process.
void write_stderr(char const* text, std::size_t n) noexcept {
    error_saver_t const saved;
    kern_n::detail::sigpipe_guard_t guard(true);
    while (n > 0) {
        ssize_t const r = ::write(STDERR_FILENO, text, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r < 0) guard.failed(errno);
            break;
        }
        text += r;
        n -= static_cast<std::size_t>(r);
    }
}

}  // namespace

void pretty_print(int level, char const* fmt, char const* arg, q_exception_t_shell_t const* e) noexcept {
    try {
        if_logger_t* const log = if_logger_t::Log;
        if (!log || !log->is_logged(level)) return;
        if (fmt) log->log(level, "%s", substitute(fmt, arg).c_str());
        log->log(level, "General error \"%s\" detected", e ? e->what() : "unknown exception");
        if (e && e->impl) e->impl->backtrace(reinterpret_cast<void*>(static_cast<std::intptr_t>(level)), nullptr, 2);
    } catch (...) {
        // a report that cannot be written is dropped: the caller is handling
        // an exception already
    }
}

void bad_alloc_msg(std::bad_alloc const& e) noexcept {
    char line[256];
    int const n = std::snprintf(line, sizeof line - 1, "Memory allocation failed (%s)", e.what());
    if_logger_t* const log = if_logger_t::Log;
    if (log) {
        try {
            if (log->is_logged(if_logger_t::CRIT)) log->log(if_logger_t::CRIT, "%s", line);
            return;
        } catch (...) {
            // written below without the logger
        }
    }
    std::size_t len = std::min(static_cast<std::size_t>(n < 0 ? 0 : n), sizeof line - 2);
    line[len++] = '\n';
    write_stderr(line, len);
}

// --- the family layer ---------------------------------------------------------

#define QVL_DEFINE_EXCEPTION_FAMILY(name, base)                                                    \
    name::~name() {}                                                                               \
    name##_shell_t::name##_shell_t(char const* fmt, ...) : base##_shell_t(va_tag_t()) {            \
        va_list ap;                                                                                \
        va_start(ap, fmt);                                                                         \
        format_staging(fmt, ap);                                                                   \
        va_end(ap);                                                                                \
    }                                                                                              \
    name##_shell_t::~name##_shell_t() {}                                                           \
    name##_shell_t& name##_shell_t::create_impl(char const* file, int line, q_exception_t const* cause) { \
        install(make_record<name>(file, line, cause));                                             \
        return *this;                                                                              \
    }

QVL_EXCEPTION_FAMILIES(QVL_DEFINE_EXCEPTION_FAMILY)

#undef QVL_DEFINE_EXCEPTION_FAMILY
