// filestr.h: whole-file reading and writing.
//
// read_entire_file appends a file's contents to a string; read_file reads a
// range of it into any sink; lstr2file replaces (or appends to) a file's
// contents in one write. Every failure is thrown as an io_error_exception
// family shell whose reason names the file and, for a failed system call,
// ends with " because of " and the system's error text. Interrupted calls
// are retried, descriptors are close-on-exec and are closed on every path,
// also when an exception leaves.
//
//   std::string conf;
//   read_entire_file(conf, "/etc/agent.conf");
//   lstr2file("/var/lib/agent/state", state,
//             kern::file::sync | kern::file::create_path | kern::file::private_mode);
//
// Thread safety: the functions keep no state; any thread may call them.
// Two writers of one file at a time get whatever the file system makes of
// their calls.
//
// Choices made here where the behaviour was open:
//  - str_memreader_t::extend grows its string by exactly the bytes asked
//    for (resize, zero-filled); after a failed read_file that room stays
//    in the string.
//  - read_entire_file reads 4096 bytes per call, except that it asks for a
//    regular file's whole size at once when that is larger, so that such a
//    file costs one read and the read that sees its end. On a failure it
//    leaves out as it was.
//  - lstr2file never writes through another user's symbolic link: it
//    follows a link at the file's name only when the link belongs to the
//    caller or to root, and otherwise fails with ELOOP's text. (Without
//    append the old name was just removed, so a link found there was put
//    there by somebody else meanwhile.)
//  - lstr2file sets the mode even on a file it did not create; when the
//    private mode (0600) cannot be set, it writes nothing and throws
//    "unable to change mode of file \"%s\" because of %s", as the data
//    would otherwise be readable by others. A failure to set 0644 is
//    ignored.
//  - With create_path, a directory that another writer creates at the same
//    moment counts as created (kern_n::create_path_to_file itself still
//    reports EEXIST).
//  - lstr2file also reports a failed close ("unable to close file \"%s\"
//    because of %s"): some file systems (NFS) report a lost write only
//    there.
//  - A write into a pipe without a reader answers EPIPE (a thrown
//    "unable to write into file") and raises no SIGPIPE.
#ifndef QVLKERN_FILESTR_H
#define QVLKERN_FILESTR_H

#include <string>

#include "amtypes.h"

// A sink for file contents.
class QVL_API if_memreader_t : public virtual if_root_t {
public:
    // Makes room for n more bytes and returns where to write them.
    virtual char* extend(unsigned long n) const = 0;
};

// Appends to a string that outlives it.
class QVL_API str_memreader_t : public if_memreader_t {
public:
    explicit str_memreader_t(std::string& s) noexcept : s_(&s) {}
    char* extend(unsigned long n) const override;

private:
    std::string* s_;
};

// Appends the whole file to out. Throws io_error_exception_shell_t:
// "unable to open file \"%s\" for read because of %s",
// "unable to read file \"%s\" because of %s".
QVL_API void read_entire_file(std::string& out, char const* path);

// Reads length bytes from offset into the sink with one read; a length of
// all ones reads from offset to the end of the file as it was when opened,
// counted from 0 (so any offset above 0 then throws). Throws
// noent_exception_shell_t when the file does not exist,
// invalid_io_range_exception_shell_t for a range outside the file or a short
// read, io_error_exception_shell_t otherwise; a sink's std::bad_alloc or
// other standard exception comes back as io_error_exception_shell_t.
QVL_API void read_file(if_memreader_t const& sink, char const* path, unsigned long offset, unsigned long length);

namespace kern {
namespace file {
// Flags of lstr2file.
enum : int {
    sync = 1,          // data-synchronous writes, then fsync
    create_path = 2,   // create missing directories
    private_mode = 4,  // mode 0600 instead of 0644
    append = 8,        // keep the old contents, write after them
};
}  // namespace file
}  // namespace kern

// Writes data as the file's contents (after them with kern::file::append),
// with one write call: a short write is reported, not continued. Without
// append the old file is removed first, so readers that hold it open keep
// the old contents. Throws io_error_exception_shell_t.
QVL_API void lstr2file(lstr_t const& path, lstr_t const& data, int flags);

namespace kern_n {

// Creates the missing directories above file (mode 0755), the nearest last.
// Meant for a file whose directory is known to be missing: a directory
// that exists already throws like any other failure. Throws
// dir_create_exception_shell_t "unable to create path because of parse
// failed" for a name without a "/" after its first character, and
// "unable to create directory <%s> because of %s".
QVL_API void create_path_to_file(lstr_t const& file);

}  // namespace kern_n

#endif  // QVLKERN_FILESTR_H
