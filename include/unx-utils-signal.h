// unx-utils-signal.h: the fatal-signal report, signal names and the switch
// that keeps other code from collecting child processes.
//
// A daemon that dies of a fault must leave enough on standard error to find
// the fault. unixtrap installs one handler for the fault and termination
// signals; the first of them to strike in the process writes who sent it,
// what its code means, the faulting address, the machine registers and, on
// request, the stack, then puts the default actions back so that the process
// dies of that same signal, with its core:
//
//   int main(int argc, char** argv) {
//       unixtrap(true);                       // first thing, before any thread
//       ...
//   }
//
// A report reads:
//
//   pid 4711 "Segmentation fault"
//   signo=11 errno=0 code=1 from unknown #1
//   "address not mapped to object" ocurred at address 0000000000000000
//   Flags=0000000000000000 Link=0000000000000000 CR2=0000000000000000 OMS=0000000000000000
//     RAX=...  RBX=... RCX=... RDX=...        (four lines of registers)
//    TRAP=000000000000000e  ERR=0000000000000006 EFL=0000000000010246
//     RIP=000055d0c0de1234
//   Stack contains:
//    /usr/lib/libqvlkern.so.1(+0x4a2f1) [0x7f3b2c04a2f1]
//    ./agent(main+0x1d) [0x55d0c0de1234]
//
// The texts are the ones the product's support tools read, misspellings
// ("ocurred", "bon-existent", "dubscript") included.
//
// A fault may strike anywhere: inside the allocator with its lock held,
// inside stdio with a stream locked, inside the dynamic loader. So the
// handler takes no lock that code outside it could hold, allocates nothing
// and uses only async-signal-safe calls: each line is formatted into a small
// buffer on the handler's stack by code of this file and written with
// write(2) to descriptor 2, retrying interruptions and partial writes. The
// stack trace needs the unwinder, which the C library loads on first use
// (dlopen, malloc): unixtrap calls backtrace() once so that it is loaded
// before any fault. The frame texts are not made by backtrace_symbols
// (which allocates) nor by dladdr (which takes the loader's lock): frame_text
// finds the module through _dl_find_object, which takes no lock, and the
// nearest exported symbol in the module's own dynamic symbol table, and
// writes them in backtrace_symbols' layout, byte for byte.
//
// Thread safety: unixtrap, like any change of signal actions, belongs to the
// start of a program. The handler may run on several threads at once: one
// writes the report, the others wait for it to end. q_signalname writes an
// unknown number into one process-wide buffer (not thread-safe, as the
// interface has it); the switch's counter is atomic and may be used
// anywhere.
//
// Choices left open elsewhere and made here:
//  - Output goes to descriptor 2 through write(2), never through stdio: a
//    stdio stream's lock may be held by the very code that faulted.
//  - Whether the report is still to be written is decided by an atomic
//    exchange, not under post_morten_dump_flag_guard: a mutex is not
//    async-signal-safe, its failure would throw inside a handler, and it is
//    gone during teardown while faults can still strike. The guard is built
//    at start-up all the same, for programs that share the report's state.
//  - A thread whose signal arrives while another thread writes the report
//    waits (nanosleep) until the report is out and the defaults are back,
//    instead of returning at once into the same fault again and again.
//  - The sender's process and user ids are read only for the codes whose
//    information carries them (kill, sigqueue, tkill and raise, message
//    queues): for a fault the same bytes hold the faulting address.
//  - Returning from the handler re-runs a faulting instruction, which then
//    meets the default action; a signal sent by a process (kill, raise,
//    abort) would not come again, so the handler sends it once more to its
//    own thread after restoring the defaults. It stays pending until the
//    handler returns, then ends the process, with its core, as the original
//    would have.
//  - The handler is installed with SA_ONSTACK too, so that a program which
//    gives a thread an alternate signal stack (sigaltstack) also gets a
//    report for that thread's stack overflow.
//  - Frames outside any module read "[0x...]", as backtrace_symbols writes
//    them; the main program is named by its argv[0], as dladdr does.
//  - q_signalname answers "SIG#%u" also for numbers the C library's table
//    leaves without a description (0, 32, 33, the real-time signals) and for
//    negative ones, which the table cannot index.
#ifndef QVLKERN_UNX_UTILS_SIGNAL_H
#define QVLKERN_UNX_UTILS_SIGNAL_H

#include <signal.h>

#include <atomic>
#include <cstddef>

#include "amtypes.h"
#include "syncers.h"

// Guards the report-written state for programs that share it; the handler
// itself never takes it (see the choices above). Built at start-up.
extern QVL_API mutex_t& post_morten_dump_flag_guard;

// Stores with_stack as the stack-trace flag and installs the report for
// SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSTKFLT, SIGXCPU,
// SIGXFSZ, SIGPWR and SIGSYS, then once more for SIGABRT; every signal is
// blocked while the handler runs. Answers the last sigaction's result.
QVL_API int unixtrap(bool with_stack);

// The C library's description of a signal ("Segmentation fault"); "SIG#%u"
// in a process-wide buffer, overwritten by the next such call, for any
// other number (q_signalname(70) is "SIG#70").
QVL_API char const* q_signalname(int signo);

namespace kern_n {
class QVL_API seh_translator_t {
public:
    // Called by the report handler, on the first fatal signal only, before
    // the report is written: with the signal information and the machine
    // context (a ucontext_t). It runs inside a signal handler. Null by
    // default.
    typedef void (*dumper_t)(siginfo_t* info, void* context);
    static dumper_t dumper;
};
}  // namespace kern_n

namespace kern {
namespace signal {

// How many do_not_wait_on_sigchild switches are alive; 0 at start-up.
extern QVL_API std::atomic<q_uint32_t> ignore_sigchild;

// Held while a child process of the library's is being waited for: code that
// collects children (a SIGCHLD handler calling wait) is asked to leave them
// alone while enabled() is false. When the last switch goes, SIGCHLD is sent
// to the own process, so that exits which happened meanwhile are collected
// then. Switches nest; only the outermost one sends.
class QVL_API do_not_wait_on_sigchild {
public:
    do_not_wait_on_sigchild() noexcept;
    ~do_not_wait_on_sigchild();
    do_not_wait_on_sigchild(do_not_wait_on_sigchild const&) = delete;
    do_not_wait_on_sigchild& operator=(do_not_wait_on_sigchild const&) = delete;

    // True while no switch is alive: children may be collected.
    static bool enabled() noexcept;
};

// Writes the text backtrace_symbols gives for one return address into out
// ("module(symbol+0x1d) [0x7f...]", "module(+0x4a2f1) [0x7f...]" or
// "[0x7f...]"), cut to size - 1 characters and NUL-terminated; answers the
// length of the whole text. Async-signal-safe: no lock, no allocation.
QVL_API std::size_t frame_text(void const* address, char* out, std::size_t size) noexcept;

}  // namespace signal
}  // namespace kern

#endif  // QVLKERN_UNX_UTILS_SIGNAL_H
