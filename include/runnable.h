// runnable.h: the registry of the process's threads.
//
// kern_n::runnable_t is the registry entry of one thread. An entry is put
// into one process-wide list (runnable_t::runnables, in registration order)
// once it is complete and taken out again before it is destroyed; the list
// can be walked (enum_all), printed (running_list) and summarised in the log
// (show_threads). An entry also gives its thread a name, which the loggers
// show in their line prefixes, a per-thread store of named objects, and a
// clean-up (cleanup_all) that the thread runs as its last act. The static
// resource readers report the process's CPU, paging, I/O, memory and
// descriptor figures for the statistics reports.
//
// Light-weight processes (lwp.h) are the usual entries. Any other thread,
// the program's main thread first of all, names itself with one call; do it
// before init_logger so that the very first lines carry the name:
//
//   int main() {
//       kern_n::runnable_t::set_self_name("main");   // logs show "main"
//       init_logger("INFO", "/var/log/agent.log", "10z,10m", nullptr);
//
// A thread that needs an entry of its own kind adopts it for a scope; the
// class that completes the entry lists it last thing in its constructor and
// takes it out first thing in its destructor:
//
//   struct main_entry_t : kern_n::runnable_t {
//       main_entry_t() { set_name("main"); register_in_list(); }
//       ~main_entry_t() override { deregister_from_list(); }
//       char const* type() const override { return "main"; }
//   } entry;
//   kern_n::runnable_t::wrap_helper_t adopt(&entry);   // logs show "main"
//
// Thread safety: runnables_guard serialises registration, deregistration
// and every walk of the list; the function given to enum_all runs under it
// and must neither register nor deregister entries nor walk the list again
// (the guard is not re-entrant). The id fields (tid, pid, handle,
// cpu_clock) are written with atomic stores and may be read from any
// thread; the name is written under runnables_guard (set_name) and read
// without a lock only by the entry's own thread. The per-thread store and
// self_key are touched by their own thread only. SeqIdCnt is incremented
// atomically. All static readers may run on any thread at once.
//
// Choices left open elsewhere and made here:
//  - The list is an intrusive doubly-linked list in registration order
//    (runnable_list_t): registration and deregistration cost the same
//    whatever the number of live entries.
//  - The error printer's severity 1 is the FAULT class of the loggers:
//    registration failures go to default_print_exception at that level.
//  - The base constructor does not list the entry. A base cannot know when
//    the derived parts are complete, and a walk on another thread that
//    reached the entry before then, or once its destruction has begun, would
//    call type() on an object whose derived part is not alive (a pure
//    virtual call while the base is built or destroyed). So the class that
//    completes an entry calls register_in_list() at the end of its
//    constructor and deregister_from_list() at the start of its destructor,
//    as light-weight processes do; the base destructor still takes out an
//    entry left listed, so the list never points at freed memory.
//    runnable_t(deferred_t) is the default constructor under another name,
//    kept for the code that names it.
//  - thread_cpu() on an entry whose ids were never set (tid 0) answers 0:
//    its clock field does not name a thread yet.
//  - vm_usage logs its failures at the DEBUG class, like io_usage.
//  - blocked_signals is the set a daemon keeps off its worker threads
//    (pthread_sigmask on its own threads); the library only provides it.
//  - set_self_name gives a thread without an entry one of the library's
//    own (type "main" on the process's main thread, "thread" elsewhere),
//    owned by a thread_local holder: when the thread ends, and for the main
//    thread when the process exits (before the library's teardown), the
//    holder runs the thread's clean-up (cleanup_all, as an adopted thread's
//    scope end does) and takes the entry out and frees it. The kernel's
//    name of the thread (comm) is left alone: on the main thread it is the
//    process's name, which ps, pkill and the journal show.
//  - get_key and set_key are static: they act on the calling thread's store,
//    whichever entry they are called through.
//  - runnables_guard, unknown_name and kern_runnable_sleep_event refer to
//    objects that are never destroyed, so that threads still running while
//    the process ends can list themselves, log and sleep (_kern.h).
#ifndef QVLKERN_RUNNABLE_H
#define QVLKERN_RUNNABLE_H

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/function.hpp>

#include "amtypes.h"
#include "kern-config.h"
#include "syncers.h"
#include "time-objs.h"

namespace kern_n {

class runnable_t;

// Memory figures of the process, filled by runnable_t::vm_usage.
struct QVL_API vminfo_t {
    q_uint64_t vm_size;       // virtual size, bytes
    q_uint64_t vm_rss;        // resident size, bytes
    q_uint64_t threads;       // system threads of the process
    q_uint64_t ctx_switches;  // voluntary plus involuntary
    q_uint64_t page_faults;   // minor plus major
};

// The registry list: entries in registration order, linked through the
// entries themselves. Read it only under runnable_t::runnables_guard.
class QVL_API runnable_list_t {
public:
    class const_iterator {
    public:
        explicit const_iterator(runnable_t* e) noexcept : e_(e) {}
        runnable_t* operator*() const noexcept { return e_; }
        const_iterator& operator++() noexcept;
        bool operator==(const_iterator const& o) const noexcept { return e_ == o.e_; }
        bool operator!=(const_iterator const& o) const noexcept { return e_ != o.e_; }

    private:
        runnable_t* e_;
    };

    constexpr runnable_list_t() noexcept : head_(nullptr), tail_(nullptr), size_(0) {}
    // Leaves the links alone: an entry that outlives the library's teardown
    // can still take itself out.
    ~runnable_list_t() = default;
    runnable_list_t(runnable_list_t const&) = delete;
    runnable_list_t& operator=(runnable_list_t const&) = delete;

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    const_iterator begin() const noexcept { return const_iterator(head_); }
    const_iterator end() const noexcept { return const_iterator(nullptr); }
    runnable_t* front() const noexcept { return head_; }
    runnable_t* back() const noexcept { return tail_; }
    // True when e is in this list.
    bool contains(runnable_t const* e) const noexcept;

private:
    friend class runnable_t;
    void push_back(runnable_t* e) noexcept;
    void unlink(runnable_t* e) noexcept;

    runnable_t* head_;
    runnable_t* tail_;
    std::size_t size_;
};

class QVL_API runnable_t : public virtual if_root_t {
public:
    // Takes the next seq_id; the entry is not listed yet (see the choices
    // above: the completing class calls register_in_list()).
    runnable_t();
    // Takes out an entry still listed: too late for walks, which may already
    // have met it half-destroyed; the completing class deregisters first.
    ~runnable_t() override;
    runnable_t(runnable_t const&) = delete;
    runnable_t& operator=(runnable_t const&) = delete;

    // The kind of entry, as listed ("lwp" for a light-weight process).
    virtual char const* type() const = 0;

    // Lists the entry at the end of the list; an entry already listed is
    // moved there, never listed twice. Failures are logged, never thrown.
    void register_in_list();
    // Takes the entry out; an entry not listed is left alone. Failures are
    // logged, never thrown.
    void deregister_from_list();
    // Run by the entry's own thread: kernel thread id, process id, the
    // thread's CPU clock, and the POSIX handle when it is still unknown.
    // Throws thread_exception when the clock cannot be had.
    void set_ids();
    // Renames the entry; call it from the entry's own thread or before the
    // thread starts (loggers read the name without a lock).
    void set_name(std::string const& n);

    // Adopts the calling thread for its scope: the entry becomes the
    // thread's entry (set_ids() runs; its exception passes on); the
    // destructor runs cleanup_all().
    class QVL_API wrap_helper_t {
    public:
        explicit wrap_helper_t(runnable_t* entry);
        ~wrap_helper_t();
        wrap_helper_t(wrap_helper_t const&) = delete;
        wrap_helper_t& operator=(wrap_helper_t const&) = delete;
    };

    // --- the calling thread -------------------------------------------------
    // The calling thread's entry, or null.
    static runnable_t* self() noexcept;
    // The calling thread's entry name, or unknown_name; valid while the
    // entry keeps its name.
    static lstr_t self_name() noexcept;
    // Names the calling thread: its entry is renamed, or, for a thread
    // without one, an entry of the library's own is made, listed and
    // adopted, and goes when the thread ends. Loggers show the name from the
    // next line on. Answers the thread's entry. Throws thread_exception when
    // the thread's ids or its slot cannot be had.
    static runnable_t* set_self_name(std::string const& n);

    // The object stored under name in the calling thread's store, or null.
    static if_root_t* get_key(char const* name);
    // Stores value under name (the pointer is kept: use literals), taking
    // ownership; an object already stored there is destroyed. Throws
    // thread_exception when the store cannot be attached to the thread, after
    // destroying value.
    static void set_key(char const* name, if_root_t* value);
    // The calling thread's last act: destroys its stored objects in key
    // order, frees the store, runs the extra clean-up, and releases the
    // thread's entry. Never throws.
    static void cleanup_all() noexcept;
    // Runs extra_thread_cleanup when one is set; swallows its exceptions.
    static void do_extra_thread_cleanup() noexcept;

    // --- listing --------------------------------------------------------------
    // Calls fn for each entry in registration order under runnables_guard;
    // an exception from fn releases the guard and passes on.
    static void enum_all(boost::function<void(runnable_t const&)> const& fn);
    // Appends one text per entry: type, "#", pid and tid as "%06lu/%06lu", a
    // blank and the name (in double quotes when it holds a blank).
    static void running_list(std::vector<std::string>& out);
    // Logs the thread summary and the entries, several per line, at NOTICE.
    static void show_threads();
    // Logs the default stack size of a new thread at TRACE.
    static void show_stack_info();
    // Waits for gap on kern_runnable_sleep_event, which nothing signals;
    // timegap_t::infinite() sleeps for ever.
    static void sleep(timegap_t gap);

    // --- resource figures -----------------------------------------------------
    // Times in 10 ns ticks. Any result pointer may be null; a failed system
    // call gives 0 in every requested result.
    // Process user and system CPU time.
    static void cpu_usage(q_uint64_t* user, q_uint64_t* system);
    // The entry's thread CPU time: user and system apart when called by
    // that thread, otherwise all of it as user time and 0 as system time.
    void thread_cpu(q_uint64_t* user, q_uint64_t* system) const;
    // Minor and major page faults and swaps of the process.
    static void paging_usage(q_uint64_t* minor, q_uint64_t* major, q_uint64_t* swaps);
    // Block input and output operations (on kernels before 2.6.22 the read
    // and write calls of /proc/self/io).
    static void io_usage(q_uint64_t* reads, q_uint64_t* writes);
    // Memory, thread, context switch and fault figures; see vminfo_t.
    static void vm_usage(vminfo_t* info);
    // Open descriptors, counting the one used to list them.
    static unsigned handles_count();

    // --- fields -----------------------------------------------------------------
    // Hands the entry over between threads (lwp start and thread entry).
    mutex_t guard;
    // Kernel thread id; 0 until set_ids().
    q_int64_t tid;
    // POSIX thread handle; all bits set while unknown.
    q_uint64_t handle;
    // "noname" until set.
    std::string name;
    // Process id; 0 until set_ids().
    std::int32_t pid;
    // Taken from SeqIdCnt at construction; 1 for the first entry, never
    // reused.
    q_uint32_t seq_id;
    // The thread's CPU-time clock; 0 until set_ids().
    clockid_t cpu_clock;

    // --- process-wide state, built at library start-up ---------------------------
    // Other subsystems' per-thread clean-up, run by cleanup_all().
    static boost::function<void()> extra_thread_cleanup;
    // SIGURG, SIGIO, SIGWINCH, SIGUSR1, SIGUSR2, SIGHUP, SIGTERM, SIGQUIT,
    // SIGINT, SIGPIPE, SIGCHLD.
    static sigset_t blocked_signals;
    // "noname": the name shown for threads without an entry.
    static std::string& unknown_name;
    // Value: the calling thread's entry.
    static pthread_key_t self_key;
    // Value: the calling thread's store of named objects.
    static pthread_key_t tls_key;
    static std::atomic<q_uint32_t> SeqIdCnt;
    static runnable_list_t runnables;
    static mutex_t& runnables_guard;

    // Start-up helpers: a thread-specific key without destructor (throws
    // q_exception_t "unable to initialize thread engine"), and the set of
    // blocked_signals.
    static pthread_key_t make_thread_key();
    static sigset_t make_blocked_signals() noexcept;

protected:
    struct deferred_t {};
    // The default constructor under its former name.
    explicit runnable_t(deferred_t);

private:
    friend class runnable_list_t;

    runnable_t* prev_;
    runnable_t* next_;
    bool listed_;
};

inline runnable_list_t::const_iterator& runnable_list_t::const_iterator::operator++() noexcept {
    e_ = e_->next_;
    return *this;
}

}  // namespace kern_n

// The event runnable_t::sleep waits on; never signalled.
extern QVL_API event_t& kern_runnable_sleep_event;

#endif  // QVLKERN_RUNNABLE_H
