// loggers-pack.cc: the compression of rotated log files, on a thread of
// its own that each rotation of a file logger starts.
#include "loggers.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>

#include <boost/thread/thread.hpp>

#include "loggers-int.h"
#include "runnable.h"
#include "utilities.h"

using namespace kern_n::detail;

namespace {

// The compression copies the rotated file in blocks of this size.
constexpr size_t k_pack_block = 16384;

// A descriptor closed at the end of the scope.
class fd_holder_t {
public:
    explicit fd_holder_t(int fd) : fd_(fd) {}
    ~fd_holder_t() {
        if (fd_ != -1) close_once(fd_);
    }
    fd_holder_t(fd_holder_t const&) = delete;
    fd_holder_t& operator=(fd_holder_t const&) = delete;
    int get() const { return fd_; }
    int release() {
        int const fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// A gzip stream closed at the end of the scope unless closed before.
class gz_holder_t {
public:
    explicit gz_holder_t(gzFile gz) : gz_(gz) {}
    ~gz_holder_t() {
        if (gz_) gzclose(gz_);
    }
    gz_holder_t(gz_holder_t const&) = delete;
    gz_holder_t& operator=(gz_holder_t const&) = delete;
    gzFile get() const { return gz_; }
    gzFile release() {
        gzFile const gz = gz_;
        gz_ = nullptr;
        return gz;
    }

private:
    gzFile gz_;
};

// A file being written, removed at the end of the scope unless kept: a
// failure, also one that throws (no memory), leaves no partial .gz behind.
class partial_file_t {
public:
    explicit partial_file_t(std::string const& name) : name_(&name) {}
    ~partial_file_t() {
        if (name_) unlink_retry(*name_);
    }
    partial_file_t(partial_file_t const&) = delete;
    partial_file_t& operator=(partial_file_t const&) = delete;
    void keep() { name_ = nullptr; }

private:
    std::string const* name_;
};

void report_create_failure(std::string const& to, std::string& message) {
    error_saver_t const saved;
    file_logger_impl_t::prepare(message, if_logger_t::INFO, "[Logger] Unable to create file \"%s\" because of %s",
                                to.c_str(), get_last_error(saved).c_str());
}

// Compresses from into to and removes from. On a failure message becomes
// the report, the partial to is removed and from stays, so that the rotated
// lines are never lost nor left only in a truncated .gz; after a read
// failure both stay. A stop seen between blocks ends it the same way, with
// no report, and answers true. The .gz gets the mode and owner of from. The
// thread that runs this blocks every signal, so zlib's own writes see no
// EINTR.
bool compress_file(std::string const& from, std::string const& to, std::string& message,
                   std::atomic<bool> const& stop) {
    fd_holder_t in(open_retry(from.c_str(), O_RDONLY | O_NOCTTY | O_NOFOLLOW, 0));
    if (in.get() == -1) {
        error_saver_t const saved;
        file_logger_impl_t::prepare(message, if_logger_t::INFO, "[Logger] Unable to open file \"%s\" because of %s",
                                    from.c_str(), get_last_error(saved).c_str());
        return false;
    }
    // Written under a name of its own and renamed to to when whole: a link
    // at to is replaced, never written through.
    std::string temp;
    fd_holder_t out(create_fresh(to, O_RDWR | O_NOCTTY, temp));
    if (out.get() == -1) {
        report_create_failure(to, message);
        return false;
    }
    partial_file_t partial(temp);
    struct stat source;
    if (fstat_retry(in.get(), source) == 0) copy_access(out.get(), source.st_mode, source.st_uid, source.st_gid);
    // The stream gets a descriptor of its own and closes it; out stays open
    // for the fsync after the stream has written its trailer.
    fd_holder_t stream_fd(::fcntl(out.get(), F_DUPFD_CLOEXEC, 0));
    gz_holder_t gz(stream_fd.get() == -1 ? nullptr : gzdopen(stream_fd.get(), "wb9"));
    if (!gz.get()) {
        std::string const error = stream_fd.get() == -1 ? get_last_error() : std::string(zError(Z_MEM_ERROR));
        file_logger_impl_t::prepare(message, if_logger_t::INFO,
                                    "[Logger] Unable to create compressed file \"%s\" because of %s", to.c_str(),
                                    error.c_str());
        return false;
    }
    stream_fd.release();

    std::unique_ptr<char[]> const block(new char[k_pack_block]);
    // A read failure ends the copy but not the stream: what was read is
    // kept in a whole .gz, as the report says, and the plain file stays.
    bool read_all = true;
    for (;;) {
        if (stop.load(std::memory_order_relaxed)) return true;
        ssize_t got;
        do {
            got = ::read(in.get(), block.get(), k_pack_block);
        } while (got == -1 && errno == EINTR);
        if (got == 0) break;
        if (got < 0) {
            error_saver_t const saved;
            file_logger_impl_t::prepare(
                message, if_logger_t::INFO,
                "[Logger] File \"%s\" written partially because of unable to read file \"%s\" because of %s",
                to.c_str(), from.c_str(), get_last_error(saved).c_str());
            read_all = false;
            break;
        }
        for (ssize_t put = 0; put < got;) {
            int const n = gzwrite(gz.get(), block.get() + put, static_cast<unsigned>(got - put));
            if (n <= 0) {
                int code = 0;
                std::string const error = gzerror(gz.get(), &code);
                file_logger_impl_t::prepare(message, if_logger_t::INFO,
                                            "[Logger] Unable to write into file \"%s\" because of %s", to.c_str(),
                                            error.c_str());
                gzclose(gz.release());
                return false;
            }
            put += n;
        }
    }
    // The trailer goes out at the close, and it can fail as any write can.
    int const rc = gzclose(gz.release());
    int synced = -1;
    if (rc == Z_OK) {
        do {
            synced = ::fsync(out.get());
        } while (synced == -1 && errno == EINTR);
    }
    if (rc != Z_OK || synced == -1) {
        error_saver_t const saved;
        std::string const error = rc == Z_OK || rc == Z_ERRNO ? get_last_error(saved) : std::string(zError(rc));
        file_logger_impl_t::prepare(message, if_logger_t::INFO,
                                    "[Logger] Unable to write into file \"%s\" because of %s", to.c_str(),
                                    error.c_str());
        return false;
    }
    if (rename_retry(temp, to) == -1) {
        report_create_failure(to, message);
        return false;
    }
    partial.keep();
    close_once(out.release());
    close_once(in.release());
    if (read_all && unlink_retry(from) == -1) {
        error_saver_t const saved;
        file_logger_impl_t::prepare(message, if_logger_t::INFO, "[Logger] Unable to remove file \"%s\" because of %s",
                                    from.c_str(), get_last_error(saved).c_str());
    }
    return false;
}

// The compression thread's entry in the thread registry: its lines show
// "logzip" and it is listed with the other threads.
class pack_entry_t : public kern_n::runnable_t {
public:
    pack_entry_t() : runnable_t(deferred_t()) {
        set_name("logzip");
        register_in_list();
    }
    ~pack_entry_t() override { deregister_from_list(); }
    char const* type() const override { return "logzip"; }
};

}  // namespace

void file_logger_impl_t::pack_main(pack_job_t* raw) {
    std::unique_ptr<pack_job_t> const job(raw);
    // This copy is the thread's last hold: it goes after the registry entry,
    // so that a logger destroyed at exit waits until the thread is done with
    // every part of the library.
    rotation_hold_t hold = job->hold;
    job->hold.reset();
    {
        std::unique_ptr<pack_entry_t> entry;
        std::unique_ptr<kern_n::runnable_t::wrap_helper_t> adopt;
        try {
            entry.reset(new pack_entry_t);
            adopt.reset(new kern_n::runnable_t::wrap_helper_t(entry.get()));
        } catch (...) {
            // Unlisted, the thread shows as noname; the compression goes on.
        }
        for (auto const& file : job->files) {
            if (job->logger->stopping_.load(std::memory_order_relaxed)) break;
            job->logger->pack(hold, file.first, file.second);
        }
    }
    hold.reset();
}

void file_logger_impl_t::pack(rotation_hold_t hold, std::string const& from, std::string const& to) {
    // Nothing leaves the compression thread: formatting a report can run out
    // of memory, and writing it can fail and call a handler, which may throw.
    // Only a cancellation unwinds on.
    try {
        std::string message;
        try {
            if (compress_file(from, to, message, stopping_))
                prepare(message, INFO, "[Logger] Compression of \"%s\" stopped as the logger ends; the next start "
                        "finishes it", from.c_str());
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (boost::thread_interrupted const&) {
            prepare(message, INFO, "[Logger] Compression of \"%s\" was interrupted", from.c_str());
        } catch (std::exception const& e) {
            prepare(message, INFO, "[Logger] Compression of \"%s\" failed because of %s", from.c_str(), e.what());
        } catch (...) {
            prepare(message, INFO, "[Logger] Compression of \"%s\" failed because of an unknown exception",
                    from.c_str());
        }
        write_lines(message);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        // The report could not be made or a handler threw: the compression
        // is over all the same, and there is no one left to tell.
    }
    hold.reset();
}

void file_logger_impl_t::start_packing(std::unique_ptr<pack_job_t> job) {
    // The thread takes no signals: those belong to the program's own
    // threads, and it inherits the mask from here.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    try {
        pack_job_t* const raw = job.get();
        boost::thread thread([raw] { pack_main(raw); });
        job.release();
        thread.detach();
    } catch (std::exception const& e) {
        std::string line;
        prepare(line, FAULT, "[Logger] Unable to start compression of \"%s\" because of %s",
                job->files.front().first.c_str(), e.what());
        job.reset();
        write_lines(line);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void file_logger_impl_t::wait_compression() {
    xlocker_t<rwlock_t> const hold(rwlock_);
}
