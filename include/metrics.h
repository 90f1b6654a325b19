// metrics.h: the library's counters as a Prometheus / OpenMetrics exposition.
//
// One call renders every counter the library keeps: the synchronisation
// primitives, quoting, random draws, UUIDs, the allocation wrappers (when
// the library was built with them), the module cache, the thread registry
// with each thread's CPU time, the process's resource figures and the
// run-time statistics switch. The C++ counters keep their names; the
// exposition follows the Prometheus conventions: a "qvlkern_" prefix, base
// units (seconds, bytes), counters ending in "_total", a HELP and a TYPE
// line per family, labels where a family has several members.
//
//   std::string body;
//   kern::metrics::append_openmetrics(body);   // serve with content_type()
//   // for node_exporter's textfile collector, once a minute or so:
//   kern::metrics::write_textfile("/var/lib/node_exporter/textfile/agent.prom");
//
// Families (labels in braces):
//   qvlkern_sync_objects_created_total{kind}      kind: mutex event semaphore
//   qvlkern_sync_objects_destroyed_total{kind}          condvar rwlock
//   qvlkern_sync_takes_total{kind[,mode]}    locks, lock attempts and waits;
//                                            rwlock: mode shared|exclusive
//   qvlkern_sync_releases_total{kind}        unlocks, signals and posts
//   qvlkern_quote_calls_total{op}, qvlkern_quote_input_bytes_total{op},
//   qvlkern_quote_seconds_total{op}          op: quote dequote
//   qvlkern_random_draws_total, qvlkern_random_seconds_total
//   qvlkern_uuid_calls_total, qvlkern_uuid_seconds_total
//   qvlkern_alloc_calls_total{function}      malloc realloc memalign free
//   qvlkern_alloc_bytes_total{function}      malloc memalign free
//   qvlkern_alloc_seconds_total{function}
//   qvlkern_alloc_block_size_bytes           histogram, le 1 .. 2147483648
//   qvlkern_dynalib_cache_enabled, qvlkern_dynalib_cache_images,
//   qvlkern_dynalib_cache_images_held, qvlkern_dynalib_cache_ttl_seconds
//   qvlkern_threads, qvlkern_thread_entries_created_total,
//   qvlkern_thread_cpu_seconds_total{type,name,tid}
//   qvlkern_process_cpu_seconds_total{mode}  user system
//   qvlkern_process_page_faults_total{kind}  minor major
//   qvlkern_process_swaps_total, qvlkern_process_context_switches_total,
//   qvlkern_process_block_io_operations_total{direction}  read write
//   qvlkern_process_virtual_memory_bytes, qvlkern_process_resident_memory_bytes,
//   qvlkern_process_system_threads, qvlkern_process_open_fds
//   qvlkern_statistics_mode{clock}           0 disabled, 1 thread, 2 real:
//                                            mode_s_ and its type()
// The quoting, random, UUID and allocation times, and the allocation
// histogram, grow only while kern::runtime::stat::mode_s_ is not 0, on the
// clock it names (code-exec-time.h); so do the quoting, random and UUID
// call counts.
//
// Locks: the rendering takes runnable_t::runnables_guard just long enough
// to copy each registry entry's type, name and ids, and the module cache's
// s_storage_guard just long enough to count the cached images; it formats
// after letting each go. It takes no logger's lock, no rwlock, no name
// lock and not sysrnd's mutex, and logs nothing itself (the process
// figures' readers log a failure to read /proc at DEBUG, holding no lock). The counters are read
// without a lock: one exposition may mix values from slightly different
// moments, as log_syncers_stat may.
//
// Thread safety: any thread may render or write at any time; two writers of
// one path each write a whole file and the last rename wins.
//
// Choices made here:
//  - Two formats. OpenMetrics 1.0 names a counter family without "_total"
//    and ends with "# EOF"; the Prometheus text format 0.0.4 names the
//    family with it and has no end marker. node_exporter's textfile
//    collector (and `promtool check metrics`) parse only the text format,
//    where an OpenMetrics counter would lose its type, so write_textfile
//    writes the text format unless told otherwise. Samples, labels and
//    values are the same in both.
//  - Times are counted in 10-nanosecond ticks and shown as seconds with
//    eight decimals, exactly; the thread CPU times with nine.
//  - The allocation histogram has no _sum: the wrappers keep no sum of the
//    sizes they bucket (malloc::size also counts realloc's new blocks by
//    their usable size, while realloc buckets by the size asked). Blocks
//    above 2^31 bytes are bucketed nowhere, so +Inf equals the last bound.
//  - One thread series per kernel thread id of this process: entries whose
//    thread has not started (tid 0), entries inherited from the parent of a
//    fork, and a second entry adopted by the same thread are left out, as
//    is a thread that ended between the copy and the clock read. A thread's
//    CPU time is read from its CPU clock (user and system together).
//  - A label value is escaped (backslash, double quote, line feed) and a
//    byte that is not part of well-formed UTF-8 is shown as U+FFFD: the
//    formats require UTF-8 and a thread name may hold any bytes.
//  - The textfile is written to "<path>.<pid>.<n>.tmp" beside it, created
//    exclusively (O_EXCL|O_NOFOLLOW|O_CLOEXEC, mode 0644 before the umask,
//    so that an exporter running as another user can read it), written,
//    synced, closed and renamed over path. The temporary name never ends in
//    ".prom", so a collector never reads a partial file; it is removed on
//    any failure. The rename replaces a link at path, never its target.
//    The directory is not synced: after a crash the old file may come back,
//    never a partial one.
#ifndef QVLKERN_METRICS_H
#define QVLKERN_METRICS_H

#include <string>

#include "kern-config.h"

namespace kern {
namespace metrics {

enum class format_t {
    openmetrics,      // OpenMetrics 1.0
    prometheus_text,  // Prometheus text exposition 0.0.4
};

// The HTTP content type of a format, charset included.
QVL_API char const* content_type(format_t format) noexcept;

// Appends the exposition of every counter in the given format to out.
QVL_API void append(std::string& out, format_t format);
// append(out, format_t::openmetrics).
QVL_API void append_openmetrics(std::string& out);

// Replaces the file at path by the exposition, atomically (see above); a
// null path fails with EINVAL's text.
// Throws io_error_exception_shell_t: "unable to create file \"%s\" because
// of %s", "unable to write into file \"%s\" because of %s", "unable to
// synchronize file \"%s\" because of %s", "unable to close file \"%s\"
// because of %s" (naming the temporary file), "unable to rename file \"%s\"
// to \"%s\" because of %s".
QVL_API void write_textfile(char const* path, format_t format = format_t::prometheus_text);

}  // namespace metrics
}  // namespace kern

#endif  // QVLKERN_METRICS_H
