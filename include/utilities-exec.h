// utilities-exec.h: running other programs.
//
// execute starts a program with a command line given as one string, either
// waiting for it and answering its exit status, or leaving it running and
// answering its process id. The words of the command line are cut at white
// space, with no quoting: a word never holds a blank.
//
//   int rc = execute("logrotate", "-f /etc/qvl/logrotate.conf", true);   // 0..255, or -signal
//   pid_t pid = execute("/opt/qvl/bin/notify", "started", false);        // collect it yourself
//
// The child keeps descriptors 0, 1 and 2 only: close_all_nonstardard_handles
// closes every other one below the soft limit on open files, so that none of
// the daemon's files, sockets or pipes leaks into the program. The child
// inherits the signal mask and the ignored signals of the caller.
//
// Thread safety: execute may be called from any thread; the child keeps only
// the calling thread. Everything that needs memory (the words, the argument
// vector, the candidate paths of the PATH search) is prepared before fork:
// between fork and exec the child makes system calls only, so a lock that
// another thread held at the fork (the allocator's, a stream's) cannot stop
// it. While execute runs, kern::signal::do_not_wait_on_sigchild is held, so
// that code which collects children leaves this one alone.
//
// Choices left open elsewhere and made here:
//  - The PATH search of execvp is done by the parent, with execvp's rules:
//    a program containing "/" is used as it is; otherwise every directory of
//    PATH (or "/bin:/usr/bin" when it is unset, an empty entry meaning the
//    current directory) is tried in order, going on past missing files and
//    refused directories; a file the kernel cannot run is run by /bin/sh, as
//    execvp does with a script without "#!". The child then calls execve.
//  - A null args counts as empty, as does a text of white space only; a null
//    program answers -1 with errno EINVAL, nothing started.
//  - close_all_nonstardard_handles uses close_range on kernels from 5.9 on
//    (as the platform description reports them) and, where it is missing or
//    refused, closes the entries of /proc/self/fd, read with getdents64 into
//    a buffer on the stack; only without /proc does it try every number up
//    to the limit. All three paths make system calls only.
//  - A stopped child cannot be reported: waitpid is called without
//    WUNTRACED, so execute waits on until the child ends.
#ifndef QVLKERN_UTILITIES_EXEC_H
#define QVLKERN_UTILITIES_EXEC_H

#include "amtypes.h"

// Runs program (searched in PATH unless it holds a "/") with the words of
// args after it. Synchronously: the exit status; -signal when a signal other
// than SIGKILL ended it; -1 with errno ENOENT when SIGKILL did; 0 when the
// child was collected elsewhere (waitpid failed with ECHILD); -1 when fork or
// waitpid failed. A program that cannot be started ends its child with
// status 255. Asynchronously: the child's process id, or -1 when fork failed.
QVL_API int execute(char const* program, char const* args, bool synchronously);

// Closes every descriptor from 3 to one below the soft limit on open files;
// nothing when the limit cannot be read or is below 4. Async-signal-safe.
QVL_API void close_all_nonstardard_handles();

#endif  // QVLKERN_UTILITIES_EXEC_H
