// exceptions.h: the library's exception families, cause chains and call-site
// traces.
//
// Every failure inside the library is thrown as a light "shell" object that
// owns one heap-allocated record. The record carries the reason, the source
// position of the throw, an owned cause (the record of the exception that led
// to this one) and, when capture is on, a copy of the thread's call-stack
// markers. Copying a shell moves its record: the copied-from shell becomes a
// "cloned" shell that answers with placeholder texts. That keeps the object
// that travels through the language's exception machinery small while the
// record and its chain move from shell to shell.
//
// Throwing is one line at every site:
//
//   QVL_THROW(io_error_exception, "unable to read \"%s\" because of %s", name, err);
//
// and chaining a caught exception under a new one:
//
//   catch (q_exception_t_shell_t& e) {
//     QVL_THROW_CAUSE(api_exception, e.release(), "loading %s failed", name);
//   }
//
// Thread safety: records and shells belong to one thread at a time. The
// call-stack slot is per thread. _q_exception_t::backtrace_enabled is read
// without locking and is meant to be set once, early, by the program (the
// library never switches it on by itself). Do not flip it while call-stack
// markers are live: a marker entered with capture on and left with it off
// leaves its address in the thread's slot.
//
// Choices made here:
//  - a record or point without a source file prints "UNKNOWN" in its place
//    (info(), where(), dump()), like the default printer;
//  - set_reason also drops the cached info() text, so a later info() shows
//    the new reason;
//  - a record that cannot copy the call stack for lack of memory is still
//    made, without a stack;
//  - the call-stack slot borrows the marker it points at (a marker lives on
//    its thread's stack), so its key has no destructor: a thread that ends
//    with a marker's address left in the slot frees nothing;
//  - pretty_print substitutes its one argument for the first "%s" of its
//    format by hand (and "%%" by "%"), never through printf, so that a
//    format with other directives cannot read what was not passed;
//  - pretty_print and bad_alloc_msg never throw: they are called from catch
//    blocks, where a second exception would end the program;
//  - bad_alloc_msg logs at CRIT; when there is no process logger, or
//    logging fails for want of memory, the line goes to standard error with
//    one write of a text built on the stack.
#ifndef QVLKERN_EXCEPTIONS_H
#define QVLKERN_EXCEPTIONS_H

#include <pthread.h>

#include <cstdarg>
#include <cstddef>
#include <exception>
#include <new>
#include <string>
#include <typeinfo>

#include "kern-config.h"

namespace kern_n {

// Holds a type's raw name and, once asked for, its demangled form.
class QVL_API demangle_t {
public:
    demangle_t() noexcept : raw_(nullptr), buf_(nullptr) {}
    ~demangle_t();
    // Not copied: each object demangles its own dynamic type on first use.
    demangle_t(demangle_t const&) noexcept : raw_(nullptr), buf_(nullptr) {}
    demangle_t& operator=(demangle_t const&) noexcept { return *this; }

    // Demangled name of ti; computed on the first call and kept.
    char const* name(std::type_info const& ti) const noexcept;

private:
    mutable char const* raw_;
    mutable char* buf_;
};

// Overwrites the characters of s with zeros (in a way the compiler may not
// drop) and then empties it; used for texts that should not linger in
// freed memory.
QVL_API void clear_string(std::string& s) noexcept;

}  // namespace kern_n

class q_exception_t;

// A marker placed on the stack of a function that wants to appear in later
// backtraces. Markers link into a per-thread chain while capture is on and
// cost one flag test while it is off.
class QVL_API callstack_t {
public:
    // Receives one line of a backtrace; null means default_print_exception.
    typedef void (*printer_t)(void* ctx, char const* text, char const* file, int line);

    struct QVL_API point_t {
        char const* file;
        q_uint32_t line;
        char const* func;    // label or function name, may be null
        point_t* next;       // outer point; owned in copies
        mutable char* where_cache;

        // "\"func\" file:line, ..." along the chain; cached.
        char const* where() const;
        void backtrace(void* ctx, printer_t printer, int indent) const;
        void dump() const {}
        // Frees a chain made by callstack_t::do_copy.
        static void dtor(point_t* chain) noexcept;
    };

    callstack_t(char const* file, int line, char const* func) noexcept { ctor(file, line, func); }
    ~callstack_t() { dtor(); }
    callstack_t(callstack_t const&) = delete;
    callstack_t& operator=(callstack_t const&) = delete;

    void ctor(char const* file, int line, char const* func) noexcept;
    // Leaving a marker sets the thread's current point to this point's
    // next, which ctor always cleared: the slot ends empty. Kept that way.
    void dtor() noexcept;

    static point_t* do_copy(point_t const* chain);
    static void backtrace_stack(void* ctx, printer_t printer, int indent);

    // Allocation of records and point copies; the tag names the kind of
    // block ("q_exception_t", "point_t") for diagnostics only.
    static void* ealloc(std::size_t size, char const* tag);
    static void efree(void* ptr, char const* tag) noexcept;

    // The thread's current point, borrowed from a live marker (never freed
    // through the slot); created once at library start-up.
    static pthread_key_t key;

    point_t point;
};

// Places a call-stack marker for the enclosing function.
#define QVL_CALLSTACK() callstack_t qvl_callstack_marker_(__FILE__, __LINE__, __PRETTY_FUNCTION__)
#define QVL_CALLSTACK_LABEL(label) callstack_t qvl_callstack_marker_(__FILE__, __LINE__, label)

// Logs one backtrace line through the process logger, treating ctx as the
// log level; prints nothing while no logger is installed.
QVL_API void default_print_exception(void* ctx, char const* text, char const* file, int line);

// Creates the thread-specific slot of the exception engine; called once from
// library start-up. Exits the process with status 1 when that fails.
QVL_API pthread_key_t qexception_initializer();

// Abstract root of the exception records.
class QVL_API _q_exception_t : public std::exception {
public:
    ~_q_exception_t() override;
    char const* what() const noexcept override = 0;

    // Switches call-stack capture on for every later record and marker.
    static bool backtrace_enabled;
};

class QVL_API q_exception_t : public _q_exception_t {
public:
    q_exception_t(char const* file, int line, char const* reason);
    // Takes ownership of cause, which may be null.
    q_exception_t(char const* file, int line, q_exception_t const* cause, char const* reason);
    // Copies position and reason; takes over cause and stack from o.
    q_exception_t(q_exception_t const& o);
    q_exception_t& operator=(q_exception_t const& o);
    ~q_exception_t() override;

    static char* copy(char const* text);

    // Never throws: a formatting failure stores a fixed text instead.
    void set_reason(char const* fmt, ...) noexcept QVL_PRINTF(2, 3);
    void set_reason_va(char const* fmt, va_list ap) noexcept;

    char const* what() const noexcept override;
    char const* type() const noexcept;
    char const* where() const;
    char const* info() const;
    void backtrace(void* ctx, callstack_t::printer_t printer, int indent) const;
    void dump(char const* prefix, bool recursive, int index) const;

    static void* operator new(std::size_t size);
    static void operator delete(void* ptr) noexcept;

    kern_n::demangle_t type_name;
    char const* file;
    q_uint32_t line;
    char* reason;
    mutable q_exception_t const* cause;
    mutable char* info_cache;
    mutable callstack_t::point_t* stack;
};

class QVL_API q_exception_t_shell_t : public std::exception {
public:
    explicit q_exception_t_shell_t(char const* fmt, ...) QVL_PRINTF(2, 3);
    // Copying moves the record; o is left a "cloned" shell.
    q_exception_t_shell_t(q_exception_t_shell_t const& o);
    q_exception_t_shell_t& operator=(q_exception_t_shell_t const& o);
    ~q_exception_t_shell_t() override;

    q_exception_t_shell_t& create_impl(char const* file, int line, q_exception_t const* cause);
    // Stamps the staging reason on the record and wipes the staging copy.
    void update_reason() noexcept;

    char const* what() const noexcept override;
    char const* type() const noexcept;
    char const* where() const;
    char const* info() const;
    // "a because of b because of c" along the cause chain.
    std::string what_chain() const;
    void dump(char const* prefix, bool recursive) const;

    // Hands the record over (for use as the cause of a new exception); the
    // shell becomes a cloned shell.
    q_exception_t* release() const noexcept;

    kern_n::demangle_t type_name;
    std::string staging_reason;
    mutable q_exception_t* impl;

protected:
    // A variadic constructor cannot pass its arguments to a base
    // constructor, so a family shell builds its base with an empty staging
    // reason and formats it in its own body.
    struct va_tag_t {};
    explicit q_exception_t_shell_t(va_tag_t) noexcept : impl(nullptr) {}
    void format_staging(char const* fmt, va_list ap);
    // Replaces the record by rec and stamps the staging reason on it.
    void install(q_exception_t* rec) noexcept;
};

// The family layer: each entry makes a record class and its shell. A family
// adds no state; its shell's create_impl makes a record of its own class.
#define QVL_EXCEPTION_FAMILIES(X)                        \
    X(api_exception, q_exception_t)                      \
    X(io_error_exception, api_exception)                 \
    X(noent_exception, io_error_exception)               \
    X(dir_create_exception, io_error_exception)          \
    X(invalid_io_range_exception, io_error_exception)    \
    X(library_load_exception, api_exception)             \
    X(lwp_exception, api_exception)                      \
    X(thread_exception, api_exception)                   \
    X(sync_exception, api_exception)                     \
    X(mutex_exception, sync_exception)                   \
    X(condvar_exception, sync_exception)                 \
    X(icu_exception, api_exception)                      \
    X(number_format_exception, q_exception_t)            \
    X(timestamp_format_exception, q_exception_t)         \
    X(quoted_format_exception, q_exception_t)            \
    X(BUG_exception, q_exception_t)

#define QVL_DECLARE_EXCEPTION_FAMILY(name, base)                                         \
    class QVL_API name : public base {                                                   \
    public:                                                                              \
        name(char const* file, int line, char const* reason) : base(file, line, reason) {} \
        name(char const* file, int line, q_exception_t const* cause, char const* reason) \
            : base(file, line, cause, reason) {}                                         \
        name(name const&) = default;                                                     \
        name& operator=(name const&) = default;                                          \
        ~name() override;                                                                \
    };                                                                                   \
    class QVL_API name##_shell_t : public base##_shell_t {                               \
    public:                                                                              \
        explicit name##_shell_t(char const* fmt, ...) QVL_PRINTF(2, 3);                  \
        name##_shell_t(name##_shell_t const&) = default;                                 \
        name##_shell_t& operator=(name##_shell_t const&) = default;                      \
        ~name##_shell_t() override;                                                      \
        name##_shell_t& create_impl(char const* file, int line, q_exception_t const* cause); \
                                                                                         \
    protected:                                                                           \
        explicit name##_shell_t(va_tag_t t) noexcept : base##_shell_t(t) {}               \
    };

QVL_EXCEPTION_FAMILIES(QVL_DECLARE_EXCEPTION_FAMILY)

// Throws family##_shell_t with a printf-style reason, recording the source
// position of the throw.
#define QVL_THROW(family, ...) \
    throw family##_shell_t(__VA_ARGS__).create_impl(__FILE__, __LINE__, nullptr)
// The same with a cause record (taken from a caught shell with release()).
#define QVL_THROW_CAUSE(family, cause, ...) \
    throw family##_shell_t(__VA_ARGS__).create_impl(__FILE__, __LINE__, (cause))

// Logs a caught exception through the process logger at class level:
//   the caller's line: fmt with arg in place of its "%s" (none when fmt is
//     null; a null arg reads "(null)");
//   General error "<the shell's what()>" detected
//   then the record's backtrace: each record of the cause chain as
//     "<type>: <reason>", indented by two and one more per cause, all with
//     the position of the outermost throw, and with capture on the
//     call-stack points copied at the throw.
// A null shell stands for an exception outside the library's families and
// logs "General error "unknown exception" detected". Logs nothing without a
// logger or when level is filtered out.
//
//   catch (q_exception_t_shell_t const& e) {
//       pretty_print(if_logger_t::FAULT, "loading module %s failed", name, &e);
//   }
QVL_API void pretty_print(int level, char const* fmt, char const* arg, q_exception_t_shell_t const* e) noexcept;

// Logs "Memory allocation failed (<e.what()>)" at CRIT, for the handler of a
// std::bad_alloc.
QVL_API void bad_alloc_msg(std::bad_alloc const& e) noexcept;

#endif  // QVLKERN_EXCEPTIONS_H
