// loggers-file-ops.cc: the file logger's side of the operator's tools:
// rotation by another program (a file moved away, replaced or truncated),
// re-opening on request, bounds on disk use, and what a crash or a fast end
// left behind (temporary files, plain kept files still to compress).
#include "loggers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "loggers-int.h"
#include "utilities.h"

using namespace kern_n::detail;

namespace {

// A kept file of a log: index, compressed or not, full name and size.
struct kept_file_t {
    q_uint32_t n;
    bool gz;
    std::string name;
    q_int64_t size;
};

int stat_retry(std::string const& name, struct stat& st) {
    int rc;
    do {
        rc = ::stat(name.c_str(), &st);
    } while (rc == -1 && errno == EINTR);
    return rc;
}

// Bytes that an unprivileged writer may still put on the file system of
// dir; -1 when it cannot be told.
q_int64_t free_space(std::string const& dir) {
    struct statvfs vfs;
    int rc;
    do {
        rc = ::statvfs(dir.empty() ? "." : dir.c_str(), &vfs);
    } while (rc == -1 && errno == EINTR);
    if (rc != 0) return -1;
    unsigned __int128 const bytes = static_cast<unsigned __int128>(vfs.f_bavail) * vfs.f_frsize;
    return bytes > INT64_MAX ? INT64_MAX : static_cast<q_int64_t>(bytes);
}

// The names a log's files are told apart by: the directory (with its "/",
// or empty), and the leaf's part before and after the place of the index.
struct log_names_t {
    explicit log_names_t(std::string const& name) {
        size_t const slash = name.rfind('/');
        size_t const leaf_at = slash == std::string::npos ? 0 : slash + 1;
        size_t const stem = kept_stem(name);
        dir.assign(name, 0, leaf_at);
        leaf.assign(name, leaf_at, std::string::npos);
        prefix.assign(name, leaf_at, stem - leaf_at).push_back('.');
        ext.assign(name, stem, std::string::npos);
    }

    // Whether entry names kept file n (plain, or gz when it ends in ".gz").
    bool kept(std::string const& entry, q_uint32_t& n, bool& gz) const {
        if (entry.compare(0, prefix.size(), prefix) != 0) return false;
        size_t p = prefix.size();
        if (p >= entry.size() || entry[p] < '1' || entry[p] > '9') return false;
        q_uint64_t value = 0;
        for (; p < entry.size() && entry[p] >= '0' && entry[p] <= '9' && value <= UINT32_MAX; ++p)
            value = value * 10 + static_cast<unsigned>(entry[p] - '0');
        if (value > UINT32_MAX || entry.compare(p, ext.size(), ext) != 0) return false;
        p += ext.size();
        gz = entry.size() - p == 3 && entry.compare(p, 3, ".gz") == 0;
        n = static_cast<q_uint32_t>(value);
        return gz || p == entry.size();
    }

    // Whether entry is a temporary file the logger makes for the log or for
    // a compressed kept file: the name, cut to fit, "." and six letters or
    // digits.
    bool temporary(std::string const& entry) const {
        size_t const size = entry.size();
        if (size < 8 || entry[size - 7] != '.') return false;
        for (size_t i = size - 6; i < size; ++i) {
            char const c = entry[i];
            if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z'))) return false;
        }
        std::string const made(entry, 0, size - 7);
        q_uint32_t n;
        bool gz;
        if (made == leaf || (kept(made, n, gz) && gz)) return true;
        // A name too long for the suffix was cut.
        return made.size() == NAME_MAX - 7 &&
               (leaf.compare(0, made.size(), made) == 0 || made.compare(0, prefix.size(), prefix) == 0);
    }

    std::string dir, leaf, prefix, ext;
};

// The kept files of the log name, oldest (highest index) first, and when
// temps is given the temporary files beside them. Only regular files count.
void scan(std::string const& name, std::vector<kept_file_t>& kept, std::vector<std::string>* temps) {
    log_names_t const names(name);
    int const dir_fd = open_retry(names.dir.empty() ? "." : names.dir.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (dir_fd == -1) return;
    DIR* const dir = ::fdopendir(dir_fd);
    if (!dir) {
        close_once(dir_fd);
        return;
    }
    while (struct dirent const* e = ::readdir(dir)) {
        std::string const entry = e->d_name;
        q_uint32_t n;
        bool gz;
        bool const is_kept = names.kept(entry, n, gz);
        bool const is_temp = !is_kept && temps && names.temporary(entry);
        struct stat st;
        if ((!is_kept && !is_temp) || ::fstatat(dir_fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        if (is_kept) {
            kept.push_back(kept_file_t{n, gz, names.dir + entry, st.st_size});
        } else {
            temps->push_back(names.dir + entry);
        }
    }
    ::closedir(dir);
    std::sort(kept.begin(), kept.end(),
              [](kept_file_t const& a, kept_file_t const& b) { return a.n != b.n ? a.n > b.n : a.gz < b.gz; });
}

// Calls f on every file logger in l, l itself or a chain at any depth.
template <typename F>
bool for_each_file_logger(if_logger_t* l, F const& f) {
    if (chain_logger_impl_t* const c = dynamic_cast<chain_logger_impl_t*>(l)) {
        bool const first = for_each_file_logger(c->first, f);
        return for_each_file_logger(c->second, f) || first;
    }
    file_logger_impl_t* const file = dynamic_cast<file_logger_impl_t*>(l);
    if (file) f(*file);
    return file != nullptr;
}

}  // namespace

bool file_logger_t::reopen(if_logger_t* l) {
    return for_each_file_logger(l, [](file_logger_impl_t& f) { f.reopen(); });
}

bool file_logger_t::set_disk_limits(if_logger_t* l, q_int64_t kept_bytes, q_int64_t free_bytes) {
    return for_each_file_logger(l, [&](file_logger_impl_t& f) { f.set_disk_limits(kept_bytes, free_bytes); });
}

void file_logger_impl_t::reopen() {
    spin_locker_t hold(file_mutex_, file_busy_);
    reopen_seen_ = file_logger_t::reopen_requests();
    follow_path(true);
}

void file_logger_impl_t::set_disk_limits(q_int64_t kept_bytes, q_int64_t free_bytes) {
    spin_locker_t hold(file_mutex_, file_busy_);
    kept_limit_ = kept_bytes < 0 ? -1 : kept_bytes;
    free_floor_ = free_bytes < 0 ? -1 : free_bytes;
    if (fd_ == -1) return;
    if (kept_limit_ >= 0 || free_floor_ >= 0) enforce_disk_limits(false);
    check_free_space();
}

void file_logger_impl_t::check_path(struct stat const& open_file) {
    // Our own lines only add to the file: shorter than that, it was
    // truncated by someone else. Appending, the next line goes to its new
    // end; the size follows the file.
    bool const truncated = current_size_ >= 0 && open_file.st_size < current_size_;
    current_size_ = open_file.st_size;
    file_mode_ = open_file.st_mode, file_uid_ = open_file.st_uid, file_gid_ = open_file.st_gid;
    std::string line;
    if (truncated) {
        prepare(line, INFO, "[Logger] Log file was truncated outside software (copied away?), writing on at its end");
        write_own(line);
    }
    struct stat at;
    bool const moved = stat_retry(file_name_, at) == 0 ? at.st_dev != open_file.st_dev || at.st_ino != open_file.st_ino
                                                       : errno == ENOENT;
    if (moved) follow_path(false);
    if (fd_ != -1 && (free_floor_ >= 0 || dropping_)) check_free_space();
}

void file_logger_impl_t::follow_path(bool asked) {
    struct stat before;
    bool const known = fd_ != -1 && fstat_retry(fd_, before) == 0;
    struct stat at;
    bool const gone = stat_retry(file_name_, at) == -1 && errno == ENOENT;
    // Asked for, it is tried at once; found by the check, at the pace of the
    // reopen gate while it fails.
    if (asked) next_reopen_ = timestamp_t();
    std::string failures;
    if (!open_as(gone ? open_recreate : open_follow, &failures)) {
        if (!follow_failed_ && !failures.empty()) write_own(failures);
        follow_failed_ = true;
        return;
    }
    follow_failed_ = false;
    struct stat now;
    if (known && fstat_retry(fd_, now) == 0 && now.st_dev == before.st_dev && now.st_ino == before.st_ino) return;
    std::string line;
    prepare(line, INFO, "[Logger] Log file was moved or replaced outside software and re-opened");
    write_own(line);
}

void file_logger_impl_t::check_free_space() {
    q_int64_t free = free_floor_ >= 0 ? free_space(log_names_t(file_name_).dir) : INT64_MAX;
    if (free >= 0 && free < free_floor_) {
        enforce_disk_limits(false);
        free = free_space(log_names_t(file_name_).dir);
    }
    if (free < 0) return;
    std::string line;
    if (free < free_floor_ && !dropping_) {
        dropping_ = true;
        prepare(line, WARNING, "[Logger] Free space is below %lld bytes, dropping lines until there is room",
                static_cast<long long>(free_floor_));
        write_own(line);
    } else if (free >= free_floor_ && dropping_) {
        dropping_ = false;
        prepare(line, WARNING, "[Logger] %llu lines were dropped while free space was below %lld bytes",
                static_cast<unsigned long long>(dropped_), static_cast<long long>(free_floor_));
        dropped_ = 0;
        write_own(line);
    }
}

void file_logger_impl_t::enforce_disk_limits(bool rotation_held) {
    // A running compression owns the kept files: removals wait for the next
    // check or rotation.
    if (!rotation_held && !rwlock_.try_xlock()) return;
    std::vector<kept_file_t> kept;
    scan(file_name_, kept, nullptr);
    q_int64_t total = 0;
    for (kept_file_t const& f : kept) total += f.size;
    q_uint32_t const newest = kept.empty() ? 0 : kept.back().n;
    std::string const dir = log_names_t(file_name_).dir;
    std::string line;
    for (kept_file_t const& f : kept) {
        bool const over = kept_limit_ >= 0 && total > kept_limit_ && f.n != newest;
        bool const short_of_room = !over && free_floor_ >= 0 && free_space(dir) < free_floor_;
        if (!over && !short_of_room) break;
        if (unlink_retry(f.name) == -1) {
            error_saver_t const saved;
            prepare(line, FAULT, "[Logger] Unable to remove file \"%s\" because of %s", f.name.c_str(),
                    get_last_error(saved).c_str());
        } else if (over) {
            total -= f.size;
            prepare(line, INFO, "[Logger] Removed old log file \"%s\" to keep kept files within %lld bytes",
                    f.name.c_str(), static_cast<long long>(kept_limit_));
        } else {
            total -= f.size;
            prepare(line, INFO, "[Logger] Removed old log file \"%s\" to keep %lld bytes free", f.name.c_str(),
                    static_cast<long long>(free_floor_));
        }
        write_own(line);
    }
    if (!rotation_held) rwlock_.unlock();
}

void file_logger_impl_t::recover() {
    std::vector<kept_file_t> kept;
    std::vector<std::string> temps;
    scan(file_name_, kept, &temps);
    std::string line;
    for (std::string const& temp : temps) {
        if (unlink_retry(temp) == -1) continue;
        prepare(line, INFO, "[Logger] Removed \"%s\" left unfinished by an earlier run", temp.c_str());
        write_own(line);
    }
    if (!compress_) return;
    // A plain kept file is one whose compression did not end: cut short by
    // a crash or by the logger's end (a .gz beside it may be partial only
    // when a read failed; compressing again gives the whole).
    std::unique_ptr<pack_job_t> job(new pack_job_t{this, nullptr, {}});
    std::string packed;
    for (kept_file_t const& f : kept) {
        if (f.gz || f.n >= count_) continue;
        suffix(packed, file_name_, f.n, true);
        job->files.emplace_back(f.name, packed);
    }
    if (job->files.empty()) return;
    // Nothing holds the lock yet: the logger is being made.
    job->hold.reset(new xlocker_t<rwlock_t>(rwlock_));
    start_packing(std::move(job));
}
