// unx-utils.h: account look-ups, daemonising, the host name, the number of
// processors and terminal echo.
//
// Daemons run under service accounts and name them in their reports. These
// functions look user and group names up by id and ids up by name in the
// system's account database (the C library's re-entrant getpw*_r and
// getgr*_r), and detach a program from its terminal:
//
//   std::string who;
//   unx_get_user_and_group(getuid(), getgid(), who);   // appends "root:root"
//   unsigned int uid = 0;
//   if (unx_get_user_id("daemon", uid)) ...
//   if (daemonize(0, 0) != 0) ...                     // in main, before any thread
//   std::string host = machine_name();               // "build7"
//   unsigned workers = cpu_found();                  // 8, or QVLSRV_CPUs
//
// Reports ask for the name of the same few ids again and again, so each
// direction id-to-name keeps a one-entry cache: the last id asked for and its
// name. An id without an account is named by its decimal digits, and that
// name is cached like any other. The cache is never invalidated: an account
// renamed while the process runs keeps its old name until another id has
// been asked for.
//
// Every look-up starts with a 2 KiB buffer and doubles it while the database
// answers ERANGE, up to 1 MiB, so that a group with thousands of members is
// still found; a larger entry counts as not found.
//
// A program asking for a password switches off the echo of its terminal
// and puts back what was there (unx-utils-term.cc):
//
//   bool const was = set_input_echo(false);   // standard input
//   read_password(...);
//   set_input_echo(was);
//
// Thread safety: the look-ups may run on any thread; each cache has its own
// mutex, held during its look-up. unx_get_user_and_group takes the user
// cache's mutex, then, after releasing it, the group cache's: never both at
// once. daemonize is for a single-threaded program at start: only the calling
// thread goes on in the detached process.
//
// Choices left open elsewhere and made here:
//  - A look-up interrupted by a signal (EINTR) is tried again; any other
//    failure but ERANGE ends it as not found.
//  - unx_get_user_id and unx_get_group_id with a null name answer false.
//  - set_input_echo changes the ECHO flag alone, at once (TCSANOW): input
//    typed ahead is kept, and a newline is echoed as the terminal's ECHONL
//    says.
//  - daemonize answers -1 when /dev/null cannot be put on descriptors 0 to 2,
//    and when /dev/null itself opened as one of them it clears its
//    close-on-exec flag, so that programs the daemon starts inherit all
//    three.
//  - machine_name is the kernel's host name (gethostname), never a name
//    service look-up, so it neither blocks nor fails on a network; empty when
//    even that fails.
//  - cpu_found answers the processors the process may run on (its CPU
//    affinity, as nproc counts them), which is what sizing a pool of workers
//    needs; the online count when the affinity cannot be read; never 0.
//    QVLSRV_CPUs, read on every call, overrides it with a count read as
//    env_get_number reads one (decimal, an optional K, M or G); a value of
//    0 or that is not such a number is ignored, and values above 65,536 are
//    cut to 65,536.
#ifndef QVLKERN_UNX_UTILS_H
#define QVLKERN_UNX_UTILS_H

#include <string>

#include "amtypes.h"
#include "syncers.h"

namespace unxs_n {
// Id of the cached user and group; all ones at load, before start-up, so
// that the first look-up of 4294967295 answers the empty cached name.
extern QVL_API q_uint32_t unx_sec_uid;
extern QVL_API q_uint32_t unx_sec_gid;
// The cached names, empty at start-up.
extern QVL_API std::string unx_sec_user;
extern QVL_API std::string unx_sec_group;
// Each cache's mutex; never destroyed, and usable in a child of fork().
extern QVL_API mutex_t& unx_sec_user_guard;
extern QVL_API mutex_t& unx_sec_group_guard;
}  // namespace unxs_n

// The id of the named user (group): true and uid (gid) set when it is found;
// false, leaving uid (gid) as it was, when it is not or the look-up fails.
// Not cached.
QVL_API bool unx_get_user_id(char const* name, unsigned int& uid);
QVL_API bool unx_get_group_id(char const* name, unsigned int& gid);

// Appends the name of the user (group) to out, or its id in decimal when it
// has none; out is not cleared. Answered from the cache when it holds the id.
QVL_API void unx_get_username(unsigned int uid, std::string& out);
QVL_API void unx_get_groupname(unsigned int gid, std::string& out);
// Appends "user:group", each part as above.
QVL_API void unx_get_user_and_group(unsigned int uid, unsigned int gid, std::string& out);

// Detaches the process from its terminal: forks, the parent ending at once
// with _exit(0) (no exit handlers, no stream flushing), and in the child
// starts a new session, changes to "/" unless nochdir, and unless noclose puts
// /dev/null on descriptors 0, 1 and 2. Answers 0 in the detached child, or -1
// with errno when a step failed: in the caller when fork failed, else in the
// child.
extern "C" QVL_API int daemonize(int nochdir, int noclose);

// The host name; see the choices above.
QVL_API std::string machine_name();
// The number of processors to plan for, at least 1; see the choices above.
QVL_API unsigned cpu_found();

// True when the terminal on fd (standard input by default) echoes what is
// typed. Throws api_exception_shell_t "unable to read the settings of
// terminal <fd> because of <error>" when fd is not a terminal.
QVL_API bool get_input_echo(int fd = 0);
// Switches the echo of the terminal on fd on or off and answers whether it
// was on. Throws api_exception_shell_t as get_input_echo does, or "unable
// to set the echo of terminal <fd> because of <error>".
QVL_API bool set_input_echo(bool on, int fd = 0);

#endif  // QVLKERN_UNX_UTILS_H
