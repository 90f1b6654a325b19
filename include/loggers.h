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
//   chain_logger_t   two loggers fed with every message; chains nest;
//   file_logger_t    a named file, a descriptor logger that also rotates the
//                    file by size or calendar period, keeps numbered older
//                    files (compressing the newest with gzip on a thread of
//                    its own) and re-creates the file when it is removed.
//
// if_logger_t::Log is the process logger. Library start-up points it at a
// descriptor logger on standard error; a program replaces that with
// init_logger() while it is still single-threaded:
//
//   init_logger("TRACE", "-", "", nullptr);     // stderr at TRACE
//   init_logger("INFO", "/var/log/agent.log", "10z,10m", nullptr);
//       // ten files, the older ones gzipped, a new file every 10 MiB
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
// Rotation specifications ("<count>[z|p],<number><unit>", units k m g for
// KiB MiB GiB, H D W for an hour, a day, a week; "NONE" or empty for none)
// and the names of kept files are described at file_logger_impl_t below.
//
// Choices left open elsewhere and made here:
//  - Message classes are named after the log_* wrappers: CRIT, FAULT,
//    WARNING, NOTICE, INFO, TRACE, TRACE_1..TRACE_3, DEBUG, DEBUG_1..DEBUG_3;
//    msgclass_t is a plain int so that any value (-1, 13) can be passed.
//  - The handler operation is if_logger_error_t::notify.
//  - init_logger with a null file name behaves as with "-". Given the extra
//    logger that the old process logger already holds (a daemon setting up
//    again on SIGHUP), it takes extra out of the old chain before
//    destroying that, so the new chain keeps a live extra.
//  - The banner of the four-argument init_logger names the product as
//    QVLKERN_PRODUCT_NAME, its version as QVLKERN_VERSION_STRING and its
//    build as QVLKERN_BUILD_NUMBER, all set when the library is compiled.
//  - The bootstrap logger logger_init_t::s_simple_ is never destroyed: the
//    process logger falls back to it at exit and later teardown may still
//    log through it. The logger it replaces there is deleted only when no
//    other thread remains (the library being unloaded, or a process ending
//    alone); otherwise threads that took it before may still be writing
//    through it, so it is retired: its pending repeat summary is written,
//    its compression awaited, and it stays alive until the process ends.
//  - The line prefix caches the process id and each thread's kernel id
//    (both renewed after fork()), and per thread the zone offset and the
//    date text (renewed when the second changes). A process made by a raw
//    clone() without the fork handlers shows its parent's ids.
//  - A child of fork() logs as its parent did, whatever the parent's other
//    threads were doing: the fork waits until no other thread is inside a
//    logger's lock (each logger's mutexes are registered with the library's
//    fork handlers), and the child gets those locks free. A fork made while
//    a logger's lock is held by the forking thread itself (from a failure
//    handler, say) leaves that lock held by it in the child too. A
//    compression running at the fork goes on in the parent only: the
//    child's file logger has none in flight, so its next rotation and its
//    destruction do not wait for one.
//  - A descriptor logger's first message is always written, an empty one
//    too: before it there is no last message that it could repeat.
//  - No write of a logger raises SIGPIPE. A descriptor that is a pipe or a
//    socket when the logger gets it (standard error at start-up for the
//    bootstrap logger) is written with SIGPIPE blocked for the writing
//    thread, and the signal that a write failing with EPIPE raised is taken
//    off again, so the failure reaches the handlers as any other; a SIGPIPE
//    pending from elsewhere stays. Writes to regular files pay nothing. A
//    file logger opens its file for reading too, so that even a FIFO there
//    never lacks a reader.
//  - After a reported write failure the descriptor logger retries from one
//    byte further back on every failed write and gives up when it would step
//    before the start of the text; it then answers 0.
//  - Destroying a file logger stops the compression that its last rotation
//    started at its next 16 KiB block and waits for that (a few
//    milliseconds, not the whole of a large file): the half-written
//    temporary is removed, the plain kept file stays, a "[Logger]" line says
//    so, and the next logger opened on the name compresses it. The
//    compression thread never outlives the logger it writes its messages
//    to. logger_init_t's retirement of a logger still in use waits for the
//    compression to end instead.
//  - A logger that opens finishes what an earlier run left (a crash, a fast
//    end): temporary files of the log and of its .gz files (the names below)
//    are removed, each told in the file, and with compression on every plain
//    kept file of an index below the count is compressed again, also when a
//    .gz of it is there (the plain file is the whole text), on the
//    compression thread: the opener reads the directory once and waits for
//    nothing more.
//  - Rotation by another program (logrotate). The once-a-second check also
//    stats the path: when it names another file than the open one, or
//    nothing, the path is re-opened appending (re-created when gone), and
//    "[Logger] Log file was moved or replaced outside software and
//    re-opened" goes into the new file. A file removed (link count 0) while
//    another regular file already has its name is taken on the same way
//    rather than re-created over, so that nothing put there is lost; with
//    nothing or a link at the name it is re-created as before. A file
//    shorter than the logger's own count was truncated by someone else
//    (copytruncate): "[Logger] Log file was truncated outside software
//    (copied away?), writing on at its end"; the lines go on at the new
//    end (the file is opened appending) and the size is taken from the file.
//    A rotation by size re-reads the file's size first, so that a file
//    truncated within the second does not rotate early. Re-opening a path
//    that cannot be opened is told once in the current file, which stays in
//    use, and retried at the pace of the reopen gate.
//  - copytruncate itself loses the lines written between its copy and its
//    truncation (no writer can prevent that); "create" with a re-open
//    request loses none. README has the recipe.
//  - file_logger_t::request_reopen() is acted on by every file logger at its
//    next line (one relaxed atomic load a line); reopen() and
//    file_logger_t::reopen(l) at once. Both re-open the path appending (the
//    banner is written again, as at every open) and tell only a change of
//    file; both bypass the reopen gate, as an operator asked.
//  - Disk bounds are off by default and set by set_disk_limits, not in the
//    rotation text. Kept files are found by reading the log's directory (all
//    indexes, plain and .gz, also beyond a gap or the count); the oldest is
//    the highest index. The cap on kept bytes is applied at each rotation,
//    counting the file just rotated before its compression, and never
//    removes the newest kept file: the total holds within one file's size.
//    The floor of free space (statvfs, blocks free to unprivileged users) is
//    checked once a second and at each rotation; it removes the oldest kept
//    files, the newest too, but not while a compression runs (then at the
//    next check). Still short, the file logger writes "[Logger] Free space
//    is below %lld bytes, dropping lines until there is room" once and drops
//    the lines that follow, counting them, without ever waiting; the first
//    check with room again writes "[Logger] %llu lines were dropped while
//    free space was below %lld bytes" and lines flow again. Every removal
//    writes "[Logger] Removed old log file \"%s\" to keep ..." into the log.
//  - Permissions survive rotation: a re-created log file and every .gz get
//    the rw bits of the mode, and the owner and group, of the file they
//    stand for (taken at each open, check and rotation); when the process
//    may not give a file away, the group alone is tried, and a refusal is
//    no failure. Kept plain files keep theirs, being renamed.
//  - The one-minute gate between attempts to re-create the log file applies
//    only after a failed attempt: after a successful open, a rotation or the
//    re-creation of a removed file proceeds at once.
//  - With compression on, the shift of kept files also moves a plain file
//    of an index (one left by a compression that failed or was cut short by
//    the end of the process), so that no rotated file is overwritten.
//  - No line is lost to a failed rotation. A file that cannot be renamed,
//    or that was renamed when no new file could be opened (it then gets its
//    name back), stays the log with its descriptor: it is never truncated
//    nor re-created, the failures go into it (after the notice) and to the
//    handlers once, and the rotation is tried again at the pace of the
//    reopen gate, quietly while it fails; the retry that succeeds ends the
//    rotated file with the notice. Only a rename that fails because the
//    file has left its name already (removed, moved away) makes a new file,
//    with the failures in it. With a count of 1 the file is replaced by a
//    new one, or kept when none can be made.
//  - The shift of kept files moves only the run of indexes from 1 up to the
//    first one missing: files beyond a gap are in nobody's way and stay. A
//    rotation thus costs a rename per kept file that exists, whatever the
//    count ("1000000z,2k"), and a gap is filled rather than pushed on.
//  - A compression that fails removes its partial .gz and keeps the plain
//    file; a finished .gz is synced to disk before the plain file goes. A
//    read failure keeps both: the .gz, a whole gzip stream of what could be
//    read, is then the file "written partially" that the report names.
//  - Nothing leaves the compression thread: a report that it cannot format
//    (no memory), or whose failed write makes a handler throw, is dropped.
//  - Files that the logger makes, a re-created log file or a .gz, are
//    created under their name plus "." and six random letters or digits (the
//    name cut short where it would exceed the 255 characters a name may
//    have), exclusively and without following a link, then renamed into
//    place: what another account has put at the name (a link to a file of
//    root's, say) is replaced, never written through. A re-created log file
//    thus replaces the file at its name instead of truncating it, and is
//    opened appending, so that a tool truncating it never gets lines written
//    over.
//    Kept files are made by renames, which follow no link; the rotated file
//    is read for compression without following one.
//  - The first open follows a link at the log's name only when root or the
//    process's effective user owns it (each link of a chain checked, owner
//    and target read from the same link). Another account's link is
//    refused, and the process logger told, at class 1: "[Logger] Refused to
//    open logfile \"%s\" through a link owned by user %u because of %s",
//    with the text of EPERM. Hard links are left to the kernel's
//    protected_hardlinks.
//  - Rotation specifications: blanks around them are ignored, the letters
//    (z, p, units, "NONE") are case-insensitive, a count or number left out
//    reads as 0 (its default), and text that fits none of the forms, before
//    the comma or after the unit, is refused like an unknown unit. Numbers
//    whose limit does not fit 64 bits are refused too.
//  - Weekly periods end on Mondays at local midnight.
//  - A clock set back holds up neither the once-a-second check nor the
//    retries: a waiting time further ahead than it is ever set counts as
//    passed.
//  - The compression thread is listed in the thread registry as "logzip".
//  - The file logger's own lines (notices, failures, the banner) are
//    formatted by the process logger, which may add no line end (a chain);
//    the file logger then adds one, so that the next record starts a line.
#ifndef QVLKERN_LOGGERS_H
#define QVLKERN_LOGGERS_H

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include "amtypes.h"
#include "kern-config.h"
#include "syncers.h"
#include "time-objs.h"

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

// File logger facade.
class QVL_API file_logger_t : public virtual if_logger_t {
public:
    file_logger_t() = delete;

    // A logger on the file name (opened at once, appending), rotated as the
    // rotation text says; level INFO. The logger is returned also when the
    // file could not be opened: it tries again on later writes.
    static if_logger_t* create(char const* name, char const* rotation);
    // The same, writing the banner line at every open of the file.
    static if_logger_t* create(char const* name, char const* rotation, std::string banner);

    // Asks every file logger to re-open its file at its next write or
    // once-a-second check. Async-signal-safe: it only bumps an atomic
    // counter, so a SIGHUP handler may call it.
    static void request_reopen() noexcept;
    // How many re-opens were requested so far (each logger compares it with
    // the value it last acted on).
    static q_uint32_t reopen_requests() noexcept;
    // Re-opens now, appending, the file of every file logger in l (l itself
    // or the members of a chain, at any depth), for code outside signal
    // handlers. False when l holds no file logger.
    static bool reopen(if_logger_t* l);
    // Bounds the disk use of every file logger in l: kept_bytes caps the
    // total size of its kept files, free_bytes is a floor of free space on
    // the log's file system; -1 lifts a bound. See file_logger_impl_t. False
    // when l holds no file logger.
    static bool set_disk_limits(if_logger_t* l, q_int64_t kept_bytes, q_int64_t free_bytes);
};

// --- implementations --------------------------------------------------------
// Callers use the facades; these are visible for the file logger and for
// inspection.

class QVL_API fd_logger_impl_t : public if_logger_t {
    friend class logger_init_t;  // retiring the process logger at exit

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

    // Set by the first line: until then last_message_ holds no message, and
    // an empty first one must not count as its repetition.
    bool has_last_;
    // The descriptor given at construction is a pipe or a socket: writes
    // keep SIGPIPE off the process.
    bool const raises_sigpipe_;
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

// The file logger: the descriptor logger on a file that it opens itself,
// plus rotation, compression of rotated files and recovery of a lost file.
//
// Rotation specification: empty or "NONE": no rotation. Otherwise a count
// of files kept (the current one included; 0 means 10), then "z" to gzip
// the rotated files (the default) or "p" to keep them plain, a comma, a
// number and a unit: k, m (or none) or g rotate when the file reaches that
// many KiB, MiB or GiB (0 means 10, a negative number never), H, D or W
// rotate at the end of every that many local hours, days or weeks (0 means
// 1, a negative number never). Without the comma the file never rotates.
// Any other text is refused: "Invalid logs rotation ..." goes to the process
// logger and the file is not opened.
//
//   "10z,10m"  ten files, gzipped, a new one every 10 MiB (the default)
//   "5p,1D"    five plain files, a new one at every local midnight
//
// Kept files: index n inserts ".n" before the last extension of the name, or
// appends it when the name has none; compressed ones end in ".gz":
// agent.log, agent.1.log.gz, agent.2.log.gz ...; /var/log.d/agent,
// /var/log.d/agent.1 ...
//
// Writers are serialised by the file mutex; checks, reopening and rotation
// run inside a write on the writing thread. A rotation renames the file to
// index 1 and starts a thread that compresses it; the next rotation waits
// for that compression (the rotation lock is held from the start of one
// until its compression has ended). The compression thread writes its own
// messages through the descriptor write only.
//
// Rotation by another program: the once-a-second check also looks at the
// path. A file moved away (logrotate's "create") or replaced is let go and
// the path re-opened appending, a file truncated in place ("copytruncate")
// is written on at its new end; a "[Logger]" line in the file says which.
// file_logger_t::request_reopen() (from a SIGHUP handler, say) makes every
// file logger re-open its path at its next line, reopen() does it at once.
//
//   file_logger_t::set_disk_limits(if_logger_t::Log, 200 << 20, 1 << 30);
//       // kept files at most 200 MiB, and 1 GiB left free on the disk
class QVL_API file_logger_impl_t : public fd_logger_impl_t {
public:
    // The rotation lock held exclusively by a rotation and then by the
    // compression that it starts; released when both have dropped it.
    typedef boost::shared_ptr<xlocker_t<rwlock_t> > rotation_hold_t;
    // The clock of the logger's own timing (checks, reopen gate, periods).
    typedef timestamp_t (*clock_fn_t)();

    // Defaults, then init(name, rotation, banner).
    file_logger_impl_t(char const* name, char const* rotation, std::string banner);
    // Waits for a running compression, writes the pending repeat summary and
    // closes the file.
    ~file_logger_impl_t() override;

    // Sets the defaults (10 MiB, ten files, compressed, no period), takes
    // over the strings, parses the rotation text and opens the file
    // appending; an invalid rotation text is reported and opens nothing.
    void init(char const* name, char const* rotation, std::string banner);

    bool is_stderr() const override;
    // Checks the file (at most once a second), rotates when due, then writes
    // the text; answers the bytes written. Never throws for a file failure:
    // those become "[Logger]" lines or handler calls (once per condition).
    size_t write(char const* text) override;
    void format(msgclass_t c, std::string& out, char const* fmt, va_list ap) override;

    // The steps of write(), public for inspection. Except for the static
    // ones, callers hold the file mutex, as write() does, or are the only
    // thread using the logger.
    //
    // (Re)opens the file: appending (through trusted links only), or with
    // recreate a new empty file in place of what is at the name (then at
    // most once a minute after a failed attempt; failures go to the list).
    // Writes the banner. False when no file is open.
    bool open(bool recreate, std::string* failures);
    // Rotates when still due: shift, rename, reopen, compression thread.
    void rotate();
    // Renames, reporting a failure into failures, or into the current file
    // when failures is null; errno tells the failure.
    bool rename(std::string const& from, std::string const& to, std::string* failures);
    // Compresses from into to and removes from; the body of the compression
    // thread. Drops the hold when done.
    void pack(rotation_hold_t hold, std::string const& from, std::string const& to);
    // Reads up to size bytes of the current file at offset.
    size_t read_fd(char* buffer, q_int64_t offset, size_t size);
    // Closes the file.
    void close();

    // Waits until no compression runs.
    void wait_compression();

    // Re-opens the path now, appending (re-created when it is gone), and
    // tells in the file when it names another file than before.
    void reopen();
    // Disk bounds; -1 lifts one. kept_bytes: at each rotation the oldest
    // kept files are removed while those kept add up to more (the newest one
    // always stays). free_bytes: when free space on the file system falls
    // below it (checked once a second and at each rotation), the oldest kept
    // files are removed; if that is not enough, lines are dropped and
    // counted until there is room again. Every removal is told in the file.
    void set_disk_limits(q_int64_t kept_bytes, q_int64_t free_bytes);
    q_int64_t kept_bytes_limit() const { return kept_limit_; }
    q_int64_t free_bytes_floor() const { return free_floor_; }
    // Lines dropped for want of free space since the last report.
    q_uint64_t dropped_lines() const { return dropped_; }

    // One of the logger's own messages, formatted by the process logger's
    // format (with its prefix, its line end if it adds one, and its folding
    // of repeats).
    static void prepare(std::string& out, msgclass_t c, char const* fmt, ...) QVL_PRINTF(3, 4);
    // Appends text to the list, "\n" between entries; a null list is ignored.
    static void add_failure(std::string* list, std::string const& text);
    // out becomes the name of kept file n (see above), with ".gz" when gz.
    static void suffix(std::string& out, std::string const& name, unsigned n, bool gz);

    // True once an open has succeeded.
    bool opened() const { return opened_.load(std::memory_order_acquire); }
    // The parsed rotation: bytes (-1 none), ticks (0 none), files kept,
    // compression, and the text after the comma.
    q_int64_t size_limit() const { return size_limit_; }
    q_int64_t time_limit() const { return time_limit_; }
    q_uint32_t count() const { return count_; }
    bool compress() const { return compress_; }
    std::string const& rotation_text() const { return rotation_text_; }
    std::string const& file_name() const { return file_name_; }

    // The real time to a few milliseconds (the system's coarse clock) unless
    // a test sets its own; set it while no file logger is in use.
    static clock_fn_t clock;

private:
    // The helpers below are not exported, so that the library calls them
    // directly (write() runs for every line).
    struct pack_job_t;
    QVL_HIDDEN static void pack_main(pack_job_t* job);
    // Starts the compression thread on the job; a failure to start is told
    // in the file.
    QVL_HIDDEN void start_packing(std::unique_ptr<pack_job_t> job);

    // How open() opens: the first open (appending, trusted links, failures
    // to the process logger), a re-creation, or a re-open of the path
    // appending (failures to the list).
    enum open_kind_t { open_first, open_recreate, open_follow };
    QVL_HIDDEN bool open_as(open_kind_t kind, std::string* failures);
    // Re-opens the path appending, or re-creates it when gone; tells in the
    // file when it was moved or replaced, and a failure once. asked: at
    // once, else at the pace of the reopen gate.
    QVL_HIDDEN void follow_path(bool asked);
    // The floor of free space: kept files removed, then lines dropped until
    // there is room, and the count told.
    QVL_HIDDEN void check_free_space();
    // Removes kept files for the bounds; the newest kept file goes only for
    // free space, and only when no compression runs.
    QVL_HIDDEN void enforce_disk_limits(bool rotation_held);
    // Finishes what an earlier run left: stale temporary files removed, and
    // plain kept files compressed on the compression thread.
    QVL_HIDDEN void recover();

    // Local time of a UTC moment, with the zone offset cached by the checks.
    q_int64_t local_ticks(timestamp_t utc) const { return utc.value - zone_ticks_; }
    QVL_HIDDEN void renew_zone(timestamp_t now);
    // Rotation condition of write() step 3.
    QVL_HIDDEN bool rotation_due(timestamp_t now) const;
    // A rotation that failed keeps the file: the retry waits for the reopen
    // gate; a first failure writes its failures into the file and reports.
    QVL_HIDDEN void defer_rotation(timestamp_t now, bool retry, std::string const& failures,
                                   std::string const& report);
    // Whether kept file n exists (plain, or with compression on also .gz).
    QVL_HIDDEN bool kept_exists(q_uint32_t n) const;
    // fstat of the file: size, or the re-creation of a removed file.
    QVL_HIDDEN void check_file();
    // The rest of the check on a file still linked: truncation, the path
    // naming another file, free space.
    QVL_HIDDEN void check_path(struct stat const& open_file);
    // Writes the logger's own lines through the descriptor write, counting
    // the bytes.
    QVL_HIDDEN void write_own(std::string const& text);
    // The same without counting (the compression thread's): the text, ended
    // with a line end when it has none.
    QVL_HIDDEN size_t write_lines(std::string const& text);
    // The descriptor's new value, set under the write mutex that the
    // compression thread's messages take.
    QVL_HIDDEN void set_fd(int fd);

    rwlock_t rwlock_;
    timestamp_t next_reopen_;
    mutex_t file_mutex_;
    std::atomic<bool> file_busy_;
    timestamp_t next_check_;
    // Set when a rotation failed and was reported; its retries report
    // nothing until one succeeds.
    bool rotation_failed_;
    bool reopen_failure_reported_;
    std::atomic<bool> opened_;
    std::string file_name_;
    std::string rotation_text_;
    std::string banner_;
    q_int64_t size_limit_;
    q_int64_t time_limit_;
    q_int64_t next_rotation_;
    q_uint32_t count_;
    bool compress_;
    q_int64_t current_size_;
    // Beyond the list: the errno of the last failed open and the zone offset
    // (UTC minus local, in ticks) of the last check.
    int open_errno_;
    q_int64_t zone_ticks_;
    // The file's mode and owner, kept from the last open and check: a
    // re-created file and the compressed ones get them.
    unsigned file_mode_;
    unsigned file_uid_;
    unsigned file_gid_;
    // The reopen request count acted on; a failed re-open of the path was
    // told and is retried quietly.
    q_uint32_t reopen_seen_;
    bool follow_failed_;
    q_int64_t kept_limit_;
    q_int64_t free_floor_;
    // Lines are dropped for want of free space; how many so far.
    bool dropping_;
    q_uint64_t dropped_;
    // Set by the destructor: a compression stops between blocks.
    std::atomic<bool> stopping_;
};

// The start-up logger's teardown and the bootstrap logger.
class QVL_API logger_init_t {
public:
    logger_init_t() = default;
    // Points the process logger at the simple logger, and deletes the one it
    // replaces (unless null or the simple logger). While other threads
    // remain, which may still log through it, that logger is retired
    // instead: it writes its pending repeat summary and waits for its
    // compression, and lives on until the process ends.
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

    private:
        // Standard error was a pipe or a socket at start-up.
        bool const raises_sigpipe_;
    };

    // The one bootstrap logger; made on first use and never destroyed.
    static simple& instance();
    static simple& s_simple_;

private:
    // What destroying l would write or wait for (a pending repeat summary, a
    // running compression), with l left alive.
    static void settle(if_logger_t* l);
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
