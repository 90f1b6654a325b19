// fs-stat.cc: file system state: free space, file size, temporary directory.
#include "fs-stat.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>

#include "filestr-int.h"

using kern_n::detail::retry_eintr;

bool kern_n::fs_stat(char const* path, q_uint64_t* avail, q_uint64_t* nodes) noexcept {
    struct statvfs st;
    if (retry_eintr([&] { return ::statvfs(path, &st); }) != 0) return false;
    if (avail) *avail = static_cast<q_uint64_t>(st.f_frsize) * st.f_bavail;
    if (nodes) *nodes = st.f_ffree;
    return true;
}

int kern_n::change_file_size(int fd, unsigned long length) noexcept {
    return retry_eintr([&] { return ::ftruncate(fd, static_cast<off_t>(length)); });
}

char const* kern_n::temp_dir() noexcept {
    for (char const* var : {"TEMP", "TMP"}) {
        char const* const value = std::getenv(var);
        if (value && *value) return value;
    }
    for (char const* dir : {"/var/tmp", "/tmp", "/usr/tmp"}) {
        struct stat st;
        if (::stat(dir, &st) == 0 && S_ISDIR(st.st_mode)) return dir;
    }
    return ".";
}
