// loggers.h: the logging framework.
//
// if_logger_t is the one interface through which the library and the
// programs built on it write diagnostics. It owns the thirteen message
// classes and their names, the level filter, the line prefix, message
// formatting and the error handlers that are told when a logger itself
// fails. Concrete loggers supply the sink:
//
//   fd_logger_t      a descriptor (standard error by default); folds runs of
//                    one message into the first line and a repeat summary;
//   syslog_logger_t  the system log, priority from the class;
//   chain_logger_t   two loggers fed with every message; chains nest.
//
// if_logger_t::Log is the process logger. Library start-up points it at a
// descriptor logger on standard error; a program replaces that with
// init_logger() while it is still single-threaded:
//
//   init_logger("TRACE", "-", "", nullptr);     // stderr at TRACE
//   if (if_logger_t::Log->is_logged(if_logger_t::DEBUG))
//       if_logger_t::Log->log_DEBUG("[App] state %s", costly().c_str());
//
// A line reads "20141202.133605.07 inf [04711 04713] main   text": local
// time with hundredths, the class acronym, the last five digits of the
// process and thread ids (and the generation's last two when it is above 1),
// the thread's name padded to six characters.
//
// Thread safety: any thread may log through any logger at any time. A
// descriptor logger writes each line with one locked loop, so lines of
// different threads never mix. The level is read without a lock. Handler
// sets are guarded by the logger's mutex; a handler runs under it and must
// not insert or remove handlers of the same logger. Replacing
// if_logger_t::Log (init_logger, chain_logger_t::add/remove) takes no lock:
// do it while no other thread logs.
//
// Choices left open elsewhere and made here:
//  - Message classes are named after the log_* wrappers: CRIT, FAULT,
//    WARNING, NOTICE, INFO, TRACE, TRACE_1..TRACE_3, DEBUG, DEBUG_1..DEBUG_3;
//    msgclass_t is a plain int so that any value (-1, 13) can be passed.
//  - The handler operation is if_logger_error_t::notify.
//  - init_logger with a null file name behaves as with "-".
//  - The banner of the four-argument init_logger names the product as
//    QVLKERN_PRODUCT_NAME, its version as QVLKERN_VERSION_STRING and its
//    build as QVLKERN_BUILD_NUMBER, all set when the library is compiled.
//  - The bootstrap logger logger_init_t::s_simple_ is never destroyed: the
//    process logger falls back to it at exit and later teardown may still
//    log through it.
//  - The line prefix caches the process id and each thread's kernel id
//    (both renewed after fork()), and per thread the zone offset and the
//    date text (renewed when the second changes). A process made by a raw
//    clone() without the fork handlers shows its parent's ids.
//  - After a reported write failure the descriptor logger retries from one
//    byte further back on every failed write and gives up when it would step
//    before the start of the text; it then answers 0.
#ifndef QVLKERN_LOGGERS_H
#define QVLKERN_LOGGERS_H

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <string>

#include "amtypes.h"
#include "syncers.h"

class if_logger_t;

// Told when a logger fails (a lost write, a lost file).
class QVL_API if_logger_error_t : public virtual if_root_t {
public:
    enum error_type_t {
        // A write to the logger's descriptor failed, or a lost log file could
        // not be re-opened.
        write_failed = 0,
        // A rotation could not rename or re-open the log file.
        rotation_failed = 1,
    };

    // Called under the failing logger's mutex with its level set to -1, so
    // that what the handler logs through that same logger is dropped.
    virtual void notify(if_logger_t* logger, error_type_t type, std::string const& text) = 0;
};

class QVL_API if_logger_t : public virtual if_root_t, private noncopyable_t {
public:
    // A smaller class is more severe. Values outside 0..12 are accepted
    // everywhere: -1 as a level logs nothing.
    typedef int msgclass_t;
    enum : int {
        CRIT = 0,
        FAULT = 1,
        WARNING = 2,
        NOTICE = 3,
        INFO = 4,
        TRACE = 5,
        TRACE_1 = 6,
        TRACE_2 = 7,
        TRACE_3 = 8,
        DEBUG = 9,
        DEBUG_1 = 10,
        DEBUG_2 = 11,
        DEBUG_3 = 12,
    };

    explicit if_logger_t(msgclass_t level);
    ~if_logger_t() override;

    // True when the logger writes to standard error.
    virtual bool is_stderr() const = 0;
    // Writes one formatted text; answers the bytes written.
    virtual size_t write(char const* text) = 0;
    // Formats and writes the message when class c is logged.
    virtual void log_va(msgclass_t c, char const* fmt, va_list ap);
    virtual void set_level(msgclass_t c);
    virtual msgclass_t get_level() const;
    // level >= c.
    virtual bool is_logged(msgclass_t c);
    // Prefix and message into out; no line end.
    virtual void format(msgclass_t c, std::string& out, char const* fmt, va_list ap);
    virtual void insert_handler(if_logger_error_t* h);
    virtual void remove_handler(if_logger_error_t* h);
    // Runs every handler with the level at -1, restoring it afterwards (also
    // when a handler throws).
    virtual void notify_error(if_logger_error_t::error_type_t type, std::string const& text);

    // Appends the line prefix of class c.
    void format_pref(std::string& out, msgclass_t c);
    // Appends the printf-style formatting of the message.
    void format_user(std::string& out, char const* fmt, va_list ap);

    void log(msgclass_t c, char const* fmt, ...) QVL_PRINTF(3, 4);
    void log_CRIT(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_FAULT(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_WARNING(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_NOTICE(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_INFO(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_TRACE(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_TRACE_1(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_TRACE_3(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_DEBUG(char const* fmt, ...) QVL_PRINTF(2, 3);
    void log_DEBUG_3(char const* fmt, ...) QVL_PRINTF(2, 3);

    // Class name ("CRIT" .. "DEBUG3"); "ALL" for anything outside 0..12.
    static char const* translate_loglevel(int c);
    // Case-insensitive class name (or "ALL") to its value; false, with out
    // untouched, for anything else. A null name is empty.
    static bool translate_loglevel(char const* name, int& out);
    // Case-insensitive acronym ("FTL" .. "db3", "unk") to its row.
    static bool translate_loglevel_acronym(lstr_t const& s, int& out);
    // The acronym of the line prefix; "db3" for anything outside 0..12.
    static char const* severity(msgclass_t c);
    // Last words before an abort: to the logger at class 0, and also to
    // standard error unless the logger writes there. Silent without a logger.
    static void log_abort(lstr_t const& text);

    // The process logger; see the top of this file.
    static if_logger_t* Log;
    // Set by the embedding program; shown in the prefix when above 1.
    static q_uint32_t generation;

protected:
    // Set by loggers whose log_va starts with the base level test and whose
    // is_logged is the base one: the log wrappers then drop a filtered-out
    // call before any virtual call (a few nanoseconds on every disabled
    // debug line). Loggers that filter otherwise (a chain) leave it clear.
    bool level_filter_only_ = false;

private:
    struct impl_t;
    impl_t* impl_;  // the mutex and the handler set
    // Read without a lock by every message, so kept here rather than behind
    // impl_.
    std::atomic<msgclass_t> level_;
};

// Descriptor logger facade.
class QVL_API fd_logger_t : public virtual if_logger_t {
public:
    fd_logger_t() = delete;

    // A logger on standard error, level INFO.
    static if_logger_t* create();
    // A logger on fd, level INFO; fd is not closed by the logger.
    static if_logger_t* create(int fd);
    // The start-up logger on standard error.
    static if_logger_t* create_();

    // Folding of repeated messages; false when QVLSRV_NO_LASTREPEAT is set
    // at load.
    static bool last_repeated_avail;
};

// System log facade.
class QVL_API syslog_logger_t : public virtual if_logger_t {
public:
    syslog_logger_t() = delete;

    // Opens the system log as "qvlsrv" with LOG_PID | LOG_CONS and the
    // facility (a code such as trans_facility returns); level INFO.
    static if_logger_t* create(int facility);
    // "auth" .. "local7" (case-insensitive) to the facility code; -1 for an
    // unknown or null name.
    static int trans_facility(char const* name);
};

// Chain facade: every message goes to both members.
class QVL_API chain_logger_t : public virtual if_logger_t {
public:
    chain_logger_t() = delete;

    // A node owning both; second is dropped when it equals first.
    static if_logger_t* create(if_logger_t* first, if_logger_t* second);
    // Puts l in front of the process logger.
    static void add(if_logger_t* l);
    // Takes l out of the process chain without destroying it; throws
    // BUG_exception when the chain is not as expected.
    static void remove(if_logger_t* l);
    // The shape of the process chain, e.g.
    // "if_logger_t*( if_logger_t*, null )".
    static void collect_info(std::string& out);
};

// --- implementations --------------------------------------------------------
// Callers use the facades; these are visible for the file logger and for
// inspection.

class QVL_API fd_logger_impl_t : public if_logger_t {
public:
    explicit fd_logger_impl_t(int fd);
    // Writes the pending repeat summary first.
    ~fd_logger_impl_t() override;

    bool is_stderr() const override;
    // The text in pieces of at most 8,388,607 bytes under the write mutex.
    // The first failure is reported to the handlers (type 0) and ends the
    // write; see the source for what later failures do.
    size_t write(char const* text) override;
    // Prefix, message and a line end, or nothing when the message repeats
    // the previous one.
    void format(msgclass_t c, std::string& out, char const* fmt, va_list ap) override;

protected:
    // The write loop of write() on len bytes.
    size_t write_fd(char const* text, size_t len);
    // Writes "<last prefix>[Logger] Last message repeated N times\n" when a
    // repetition is pending, and starts counting anew.
    void write_repeat_summary();

    int fd_;
    bool failure_reported_;
    std::string last_prefix_;
    std::string last_message_;
    int repeat_count_;
    mutex_t repeat_mutex_;
    mutex_t write_mutex_;
    // Set while the mutex of the same name is held: a thread that sees it
    // spins briefly before it blocks.
    std::atomic<bool> repeat_busy_;
    std::atomic<bool> write_busy_;

private:
    // out becomes prefix, message and a line end, unless the message repeats
    // the last one (then out is left as it is and the repetition counted).
    void emit_line(std::string& out, char const* prefix, size_t plen, char const* message, size_t mlen);
    void write_repeat_summary_locked();
};

class QVL_API syslog_logger_impl_t : public if_logger_t {
public:
    explicit syslog_logger_impl_t(int facility);

    bool is_stderr() const override;
    // Not for this logger: reports the misuse and the text to the system log.
    size_t write(char const* text) override;
    void log_va(msgclass_t c, char const* fmt, va_list ap) override;
    // "<tid6> [<gen2>g ]<name>; <acronym>; <message>".
    void format(msgclass_t c, std::string& out, char const* fmt, va_list ap) override;

    int const facility;
};

class QVL_API chain_logger_impl_t : public if_logger_t {
public:
    chain_logger_impl_t(if_logger_t* first, if_logger_t* second);
    // Destroys the members it still holds.
    ~chain_logger_impl_t() override;

    bool is_stderr() const override;
    // Throws BUG_exception: nothing writes through a chain.
    size_t write(char const* text) override;
    void log_va(msgclass_t c, char const* fmt, va_list ap) override;
    void set_level(msgclass_t c) override;
    msgclass_t get_level() const override;
    bool is_logged(msgclass_t c) override;
    void insert_handler(if_logger_error_t* h) override;
    void remove_handler(if_logger_error_t* h) override;

    // True for a logger of facade type fd_logger_t on standard error, or a
    // chain holding one at any depth. The loggers that fd_logger_t::create
    // makes are not of that type, so for them this is false.
    static bool has_stderr_again(if_logger_t const* l);

    if_logger_t* first;
    if_logger_t* second;  // may be null
};

// The start-up logger's teardown and the bootstrap logger.
class QVL_API logger_init_t {
public:
    logger_init_t() = default;
    // Deletes the process logger unless it is null or the simple logger, then
    // points it at the simple logger.
    ~logger_init_t();
    logger_init_t(logger_init_t const&) = delete;
    logger_init_t& operator=(logger_init_t const&) = delete;

    // Level INFO; prints "<text>\n" to standard error with the standard
    // prefix.
    class QVL_API simple : public if_logger_t {
    public:
        simple();
        bool is_stderr() const override;
        size_t write(char const* text) override;
    };

    // The one bootstrap logger; made on first use and never destroyed.
    static simple& instance();
    static simple& s_simple_;
};

// Builds the process logger: a file logger on file (rotation and banner for
// it) unless file is "-" or it cannot be opened, else one on standard
// error, chained with extra when given. False, with nothing changed, for an
// unknown level name.
QVL_API bool init_logger(char const* level, char const* file, char const* rotation,
                         char const* banner, if_logger_t* extra);
// The same with the library's own banner.
QVL_API bool init_logger(char const* level, char const* file, char const* rotation,
                         if_logger_t* extra);

#endif  // QVLKERN_LOGGERS_H
