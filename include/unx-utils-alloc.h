// unx-utils-alloc.h: allocation statistics and allocator tuning.
//
// The library defines the process's malloc, calloc, realloc, memalign and
// free. Each forwards to the next definition of its name (the C library's)
// and counts calls and the usable bytes of the blocks it hands out and takes
// back; while run-time statistics are on (kern::runtime::stat::mode_s_,
// code-exec-time.h) it also adds the time spent and keeps a histogram of
// block sizes. Every program linked with the library is counted this way,
// and so is every module it loads:
//
//   qvl_malloc_setup();                 // first thing in main: QVLSRV_MALLOC_MMAP
//   init_logger("INFO", "-", nullptr, nullptr);
//   qvl_malloc_setup_info();            // "[Linux] Allocation mapping is ..."
//   namespace s = kern::alloc::stat;
//   q_uint64_t const live = s::malloc::size - s::free::size;   // bytes held
//   kern_n::linux_print_malloc_info();  // the main arena's figures, at INFO
//
// What is counted:
//   malloc, calloc   malloc::calls +1; malloc::size + usable size of the
//                    block; malloc::time
//   realloc          realloc::calls +1; free::size + usable size of the old
//                    block, malloc::size + that of the new one; realloc::time
//   memalign         memalign::calls, memalign::size, memalign::time
//   free             free::calls +1 (a null pointer too); free::size + usable
//                    size of the block; free::time
//   sizes::malloc    bucket i counts blocks of more than 2^(i-1) and at most
//                    2^i bytes (bucket 0: at most 1); larger than 2^31: none.
//                    malloc, calloc and memalign count the usable size,
//                    realloc the size asked for.
// Times (ticks of 10 ns on the clock the mode names) and the histogram grow
// only while the mode is not 0; calls and sizes always. calloc answers null,
// counting nothing, until the first malloc has found the C library's: the
// dynamic loader asks for zeroed memory while it looks that up. When a name
// cannot be found the process ends at once with status 64175 (175 as the
// parent sees it) after writing, with plain writes to descriptor 2:
//   \r\n$$$$ name "malloc" not found in glibc because of <loader text> $$$$$\r\n\r\n
// The other allocation functions of the C library (posix_memalign,
// aligned_alloc, valloc, ...) are not wrapped: their blocks are counted only
// when they are freed.
//
// Thread safety: the wrappers run on every thread and take no lock, log
// nothing and allocate nothing (the first call of the process also looks
// the C library's functions up). The counters are exact when read under their
// names: each thread adds into a cache-line slot of its own, shared with the
// synchronisation counters (syncers.h, counter_t), and a read sums the
// slots. qvl_malloc_setup is for the start of main, before other threads.
// The printing functions log through if_logger_t::Log from any thread.
//
// Building with QVLKERN_MALLOC_WRAPPERS=OFF (as the sanitizer builds do,
// whose run-times bring their own allocator) leaves the five entry points
// out: the counters then stay 0 and kern::alloc::wrapped() answers false.
// The rest works the same.
//
// Choices left open elsewhere and made here:
//  - The wrappers are noexcept, as the C headers declare them; a real
//    function that threw would end the process, so there is no time to add
//    on that way out.
//  - The four real functions are looked up together, at the first call of
//    any wrapper, rather than each at its own first use: the dynamic loader
//    formats its error text with the allocator, and a lookup made from
//    there would reset the loader's error state under it. A wrapper called
//    by that lookup itself uses what is found already; without its
//    function, malloc, realloc and memalign answer null (as calloc does
//    before malloc is known) and free keeps the block, all without counting.
//  - calloc refuses a count times size that does not fit in size_t (null,
//    errno ENOMEM, the call still counted): forwarding the wrapped product
//    would hand out a block smaller than the caller believes it has.
//  - linux_print_map logs each line of /proc/self/maps at TRACE_3 as the
//    address range, the permissions, the size in KiB through the compact
//    form (plain up to 10240, then "<n>K" up to 10485760, then "<n>M") and
//    the path; a line whose path is followed by a further field, such as
//    " (deleted)", shows it after a colon: "/tmp/x:(deleted)".
//  - linux_print_malloc_info forks the child (fork is the clone that keeps
//    the allocator's locks consistent in the child): the child adds up the
//    arenas' free lists with mallinfo2 on its copy of the heap, so that the
//    program's threads do not wait on the arena locks during the walk, and
//    writes the seven figures as "<name> <value>" lines into a pipe; the
//    parent waits at most ten seconds for each line. mallinfo2 adds up
//    every arena: in a program with one thread that is the main arena the
//    lines name. A failure of the wait or of the read (a report that ends
//    early) is logged at FAULT with its message; anything else (a figure
//    that is not a number, a failed waitpid) gives
//    "linux_print_malloc_info_parent faild because of <text>".
//  - When the functions found are the C library's own, the usable size is
//    read from its chunk header instead of calling malloc_usable_size, once
//    both ways have agreed on a few blocks at the first call; the call
//    would be the larger part of the wrappers' cost.
//  - When malloc itself cannot be found, the loader cannot allocate its
//    error text either, and the fatal message says what the loader then
//    reports ("out of memory" with the GNU C library).
//  - The message of qvl_malloc_setup is kept in library memory until
//    qvl_malloc_setup_info logs and wipes it.
#ifndef QVLKERN_UNX_UTILS_ALLOC_H
#define QVLKERN_UNX_UTILS_ALLOC_H

#include <cstddef>

#include "kern-config.h"
#include "syncers.h"

namespace kern {
namespace alloc {

// True when the library was built with its allocation wrappers.
QVL_API bool wrapped() noexcept;

namespace stat {
using kern::syncers::detail::counter_t;

namespace malloc {
extern QVL_API counter_t calls;  // malloc and calloc
extern QVL_API counter_t size;   // usable bytes handed out by malloc, calloc, realloc
extern QVL_API counter_t time;   // ticks spent in malloc and calloc
}  // namespace malloc
namespace realloc {
extern QVL_API counter_t calls;
extern QVL_API counter_t time;
}  // namespace realloc
namespace memalign {
extern QVL_API counter_t calls;
extern QVL_API counter_t size;
extern QVL_API counter_t time;
}  // namespace memalign
namespace free {
extern QVL_API counter_t calls;
extern QVL_API counter_t size;  // usable bytes given back by free and realloc
extern QVL_API counter_t time;
}  // namespace free
namespace sizes {
// Bucket i: blocks of at most 2^i bytes and more than the bucket before.
extern QVL_API counter_t malloc[32];
}  // namespace sizes

}  // namespace stat
}  // namespace alloc
}  // namespace kern

// Tunes the C library allocator's use of memory mappings from
// QVLSRV_MALLOC_MMAP: "on" (any case) allows 131070 mappings and maps blocks
// from 8 KiB up, "off" allows none (threshold 2147483647 bytes), anything
// else or nothing leaves them as they are. Then sets the heap-check action
// to 0 and answers that mallopt call's result. Keeps a "[Linux] ..." message
// for qvl_malloc_setup_info.
extern "C" QVL_API int qvl_malloc_setup();
// Logs the kept message at INFO and wipes it; nothing when there is none.
extern "C" QVL_API void qvl_malloc_setup_info();

namespace kern_n {

// Logs the main arena's figures in two "[Linux] Main arena: ..." lines at
// INFO, gathered by a forked child through a pipe (see above).
QVL_API void linux_print_malloc_info();
// Reads one "<name> <value>" line of the child's report from fd, waiting at
// most ten seconds for it, and answers the value, in KiB when kilobytes.
// Throws io_error_exception_shell_t with the "[Linux] Unable to wait data
// from pipe" or "[Linux] Unable to read from pipe" message when the wait or
// the read fails (a report that ends early fails the read with EPIPE's
// text), and the parser's exception when the value is not a number.
QVL_API q_uint64_t linux_malloc_info_read_line(int fd, bool kilobytes);
// Logs "/proc/self/maps" at TRACE_3, one "[Map] ..." line per mapping after
// "[Map] Current memory layout"; nothing when the file cannot be opened or
// TRACE_3 is not logged.
QVL_API void linux_print_map();

}  // namespace kern_n

#endif  // QVLKERN_UNX_UTILS_ALLOC_H
