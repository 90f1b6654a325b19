// fs-stat.h: file system state: free space, file size, temporary directory.
//
//   q_uint64_t bytes = 0;
//   if (kern_n::fs_stat("/var/log", &bytes, nullptr) && bytes < (64ULL << 20))
//       if_logger_t::Log->log_WARNING("[App] less than 64 MiB left for logs");
//   std::string scratch = std::string(kern_n::temp_dir()) + "/agent.tmp";
//
// Thread safety: the functions keep no state. temp_dir reads the
// environment: do not change it while other threads call temp_dir.
//
// Choices made here where the behaviour was open:
//  - fs_stat counts available bytes in the file system's fragment size
//    (f_frsize), the unit in which the kernel counts blocks; on Linux file
//    systems it equals the block size.
//  - temp_dir takes a directory from TEMP or TMP only when the variable is
//    set and not empty, and from the fixed list only what exists as a
//    directory. The answer points into the environment or at a constant;
//    copy it before changing the environment.
#ifndef QVLKERN_FS_STAT_H
#define QVLKERN_FS_STAT_H

#include "amtypes.h"

namespace kern_n {

// False when the file system holding path cannot be queried. Otherwise
// stores, where the pointer is not null, the bytes available to
// unprivileged users and the number of free file nodes.
QVL_API bool fs_stat(char const* path, q_uint64_t* avail, q_uint64_t* nodes) noexcept;

// Truncates or extends the file to length bytes (ftruncate, retried while
// interrupted); 0, or -1 with errno.
QVL_API int change_file_size(int fd, unsigned long length) noexcept;

// $TEMP, else $TMP, else the first of "/var/tmp", "/tmp", "/usr/tmp" that
// exists, else ".".
QVL_API char const* temp_dir() noexcept;

}  // namespace kern_n

#endif  // QVLKERN_FS_STAT_H
