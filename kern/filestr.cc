// filestr.cc: whole-file reading and writing.
#include "filestr.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "exceptions.h"
#include "filestr-int.h"
#include "utilities.h"

using kern_n::detail::fd_holder_t;
using kern_n::detail::open_retry;
using kern_n::detail::read_retry;
using kern_n::detail::retry_eintr;

namespace kern_n {
namespace detail {

int open_retry(char const* path, int flags, mode_t mode) noexcept {
    return retry_eintr([&] { return ::open(path, flags | O_CLOEXEC, mode); });
}

ssize_t read_retry(int fd, void* buf, std::size_t n) noexcept {
    return retry_eintr([&] { return ::read(fd, buf, n); });
}

ssize_t write_retry(int fd, void const* buf, std::size_t n, bool to_pipe) noexcept {
    sigpipe_guard_t guard(to_pipe);
    ssize_t const r = retry_eintr([&] { return ::write(fd, buf, n); });
    if (r == -1) guard.failed(errno);
    return r;
}

}  // namespace detail
}  // namespace kern_n

namespace {

// Throws family with "<text> because of <error text>" for the errno saved
// right after the failing call.
#define QVL_THROW_ERRNO(family, fmt, ...)                                                 \
    do {                                                                                  \
        error_saver_t const qvl_saved_;                                                   \
        QVL_THROW(family, fmt, __VA_ARGS__, get_last_error(qvl_saved_).c_str());          \
    } while (0)

// The text of dir before its last "/" that is not its first character.
std::string parent_of(std::string const& dir) {
    for (std::size_t i = dir.size(); i-- > 1;)
        if (dir[i] == '/') return dir.substr(0, i);
    QVL_THROW(dir_create_exception, "unable to create path because of parse failed");
}

// Creates dir, and its missing parents first when it has none. EEXIST is
// a failure unless existing_ok.
void make_dir(std::string const& dir, bool existing_ok) {
    auto const mk = [&] { return ::mkdir(dir.c_str(), 0755); };
    int rc = retry_eintr(mk);
    if (rc == -1 && errno == ENOENT) {
        make_dir(parent_of(dir), existing_ok);
        rc = retry_eintr(mk);
    }
    if (rc == 0 || (existing_ok && errno == EEXIST)) return;
    QVL_THROW_ERRNO(dir_create_exception, "unable to create directory <%s> because of %s", dir.c_str());
}

void read_range(if_memreader_t const& sink, char const* path, unsigned long offset, unsigned long length) {
    fd_holder_t fd(open_retry(path, O_RDONLY | O_NOCTTY));
    if (fd.get() == -1) {
        if (errno == ENOENT) QVL_THROW_ERRNO(noent_exception, "unable to open file \"%s\" because of %s", path);
        QVL_THROW_ERRNO(io_error_exception, "unable to open file \"%s\" because of %s", path);
    }
    struct stat st;
    if (retry_eintr([&] { return ::fstat(fd.get(), &st); }) != 0)
        QVL_THROW_ERRNO(io_error_exception, "unable to get information about file \"%s\" because of %s", path);
    unsigned long const size = static_cast<unsigned long>(st.st_size);
    if (length == ~0UL) {
        if (size > 0xFFFFFFFFUL) QVL_THROW(io_error_exception, "file \"%s\" is too big to read", path);
        length = size;
    }
    if (offset != 0) {
        if (offset >= size) QVL_THROW(invalid_io_range_exception, "read start point is out of file \"%s\"", path);
        if (::lseek(fd.get(), static_cast<off_t>(offset), SEEK_SET) == -1)
            QVL_THROW_ERRNO(io_error_exception, "unable to set file \"%s\" read pointer because of %s", path);
    }
    // offset <= size here, so the difference cannot wrap.
    if (length > size - offset)
        QVL_THROW(invalid_io_range_exception, "unable to read after end of file \"%s\"", path);
    char* const room = sink.extend(length);
    ssize_t const got = read_retry(fd.get(), room, length);
    if (got == -1) QVL_THROW_ERRNO(io_error_exception, "unable to read file \"%s\" because of %s", path);
    if (static_cast<unsigned long>(got) < length)
        QVL_THROW(invalid_io_range_exception, "short data has been readed from file \"%s\"", path);
}

// Opens name without following a symbolic link there, unless the link
// belongs to the caller or to root.
int open_for_write(char const* name, int how, mode_t mode) {
    int const fd = open_retry(name, how | O_NOFOLLOW, mode);
    if (fd != -1 || errno != ELOOP) return fd;
    struct stat st;
    if (::lstat(name, &st) == 0 && S_ISLNK(st.st_mode) && (st.st_uid == ::geteuid() || st.st_uid == 0))
        return open_retry(name, how, mode);
    errno = ELOOP;
    return -1;
}

}  // namespace

char* str_memreader_t::extend(unsigned long n) const {
    std::size_t const old = s_->size();
    s_->resize(old + n);
    return &(*s_)[0] + old;
}

void read_entire_file(std::string& out, char const* path) {
    fd_holder_t fd(open_retry(path, O_RDONLY | O_NOCTTY));
    if (fd.get() == -1)
        QVL_THROW_ERRNO(io_error_exception, "unable to open file \"%s\" for read because of %s", path);
    std::size_t const kept = out.size();
    try {
        // A regular file's known size is read in one call; what follows (a
        // file that grew, or one whose size says nothing, as in /proc) in
        // 4096-byte steps until a read answers 0.
        struct stat st;
        std::size_t want = 0;
        if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 4096)
            want = static_cast<std::size_t>(st.st_size);
        char buf[4096];
        for (;;) {
            ssize_t got;
            if (want != 0) {
                out.resize(kept + want);
                got = read_retry(fd.get(), &out[kept], want);
                if (got >= 0) out.resize(kept + static_cast<std::size_t>(got));
                want = 0;
            } else {
                got = read_retry(fd.get(), buf, sizeof buf);
                if (got > 0) out.append(buf, static_cast<std::size_t>(got));
            }
            if (got == 0) return;
            if (got == -1) QVL_THROW_ERRNO(io_error_exception, "unable to read file \"%s\" because of %s", path);
        }
    } catch (...) {
        out.resize(kept);
        throw;
    }
}

void read_file(if_memreader_t const& sink, char const* path, unsigned long offset, unsigned long length) {
    try {
        read_range(sink, path, offset, length);
    } catch (q_exception_t_shell_t const&) {
        throw;
    } catch (std::bad_alloc const&) {
        QVL_THROW(io_error_exception, "unable to open file \"%s\" because of %s", path,
                  "no enough memory to store entire file");
    } catch (std::exception const& e) {
        QVL_THROW(io_error_exception, "unable to open file \"%s\" because of %s", path, e.what());
    }
}

void lstr2file(lstr_t const& path, lstr_t const& data, int flags) {
    std::string const file(path.data(), path.size());
    char const* const name = file.c_str();
    mode_t const mode = (flags & kern::file::private_mode) ? 0600 : 0644;
    int const how = O_WRONLY | O_CREAT | O_NOCTTY | ((flags & kern::file::append) ? O_APPEND : O_TRUNC) |
                    ((flags & kern::file::sync) ? O_DSYNC : 0);
    if (!(flags & kern::file::append)) retry_eintr([&] { return ::unlink(name); });  // gone already is fine
    int raw = open_for_write(name, how, mode);
    if (raw == -1 && errno == ENOENT && (flags & kern::file::create_path)) {
        std::string why;
        try {
            make_dir(parent_of(file), true);
        } catch (std::exception const& e) {
            why = e.what();
            if (why.empty()) why = "Unknown error while create directory";
        } catch (...) {
            why = "Unknown error while create directory";
        }
        if (!why.empty()) QVL_THROW(io_error_exception, "unable to open file \"%s\" because of %s", name, why.c_str());
        raw = open_for_write(name, how, mode);
    }
    fd_holder_t fd(raw);
    if (raw == -1) QVL_THROW_ERRNO(io_error_exception, "unable to open file \"%s\" because of %s", name);

    // The mode also reaches a file that existed (appending), so private
    // data is never left readable by others.
    if (retry_eintr([&] { return ::fchmod(raw, mode); }) != 0 && (flags & kern::file::private_mode))
        QVL_THROW_ERRNO(io_error_exception, "unable to change mode of file \"%s\" because of %s", name);
    struct stat st;
    bool const to_pipe = ::fstat(raw, &st) != 0 || S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode);
    // One write: a short one is reported, not continued.
    ssize_t const put = kern_n::detail::write_retry(raw, data.data(), data.size(), to_pipe);
    if (put == -1) QVL_THROW_ERRNO(io_error_exception, "unable to write into file \"%s\" because of %s", name);
    if (static_cast<unsigned long>(put) < data.size())
        QVL_THROW(io_error_exception, "short data has been written into file \"%s\"", name);
    if ((flags & kern::file::sync) && retry_eintr([&] { return ::fsync(raw); }) != 0)
        QVL_THROW_ERRNO(io_error_exception, "unable to synchronize file \"%s\" because of %s", name);
    // A file system may report a lost write only here (NFS, a full disk).
    if (fd.close() != 0 && errno != EINTR)
        QVL_THROW_ERRNO(io_error_exception, "unable to close file \"%s\" because of %s", name);
}

void kern_n::create_path_to_file(lstr_t const& file) {
    make_dir(parent_of(std::string(file.data(), file.size())), false);
}
