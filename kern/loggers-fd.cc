// loggers-fd.cc: the descriptor logger: lines, folding of repeats and the
// write loop, which the file logger inherits.
#include "loggers.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "loggers-int.h"
#include "numeric-triades.h"
#include "syncers-int.h"
#include "utilities.h"

using namespace kern_n::detail;
using kern::syncers::detail::fork_forget;
using kern::syncers::detail::fork_safe;

namespace {


char const k_repeat_head[] = "[Logger] Last message repeated ";
char const k_repeat_tail[] = " times\n";

// Largest piece handed to one write(2).
constexpr size_t k_max_piece = 0x7FFFFF;

}  // namespace

// --- descriptor logger ------------------------------------------------------------

if_logger_t* fd_logger_t::create() { return new fd_logger_impl_t(2); }
if_logger_t* fd_logger_t::create(int fd) { return new fd_logger_impl_t(fd); }
if_logger_t* fd_logger_t::create_() { return new fd_logger_impl_t(2); }

fd_logger_impl_t::fd_logger_impl_t(int fd)
    : if_logger_t(INFO),
      fd_(fd),
      failure_reported_(false),
      repeat_count_(1),
      repeat_busy_(false),
      write_busy_(false),
      has_last_(false),
      raises_sigpipe_(may_raise_sigpipe(fd)) {
    level_filter_only_ = true;
    fork_safe(repeat_mutex_);
    fork_safe(write_mutex_);
}

fd_logger_impl_t::~fd_logger_impl_t() {
    try {
        write_repeat_summary();
    } catch (...) {
        // A handler's exception has nowhere to go from here.
    }
    fork_forget(repeat_mutex_);
    fork_forget(write_mutex_);
}

bool fd_logger_impl_t::is_stderr() const { return fd_ == 2; }

size_t fd_logger_impl_t::write(char const* text) {
    if (!text || !*text) return 0;
    return write_fd(text, std::strlen(text));
}

size_t fd_logger_impl_t::write_fd(char const* text, size_t len) {
    if (len == 0) return 0;
    spin_locker_t hold(write_mutex_, write_busy_);
    // Read under the mutex: a file logger replaces its descriptor while its
    // compression thread may be writing a message.
    int const fd = fd_;
    if (fd == -1) return 0;
    sigpipe_guard_t pipe_guard(raises_sigpipe_);
    // pos is both the position in text and the count of bytes written.
    std::ptrdiff_t pos = 0;
    size_t left = len;
    while (left > 0) {
        ssize_t const r = ::write(fd, text + pos, std::min(left, k_max_piece));
        if (r >= 0) {
            failure_reported_ = false;
            pos += r;
            left -= static_cast<size_t>(r);
            continue;
        }
        if (errno == EINTR) continue;
        pipe_guard.failed(errno);
        if (!failure_reported_) {
            error_saver_t const saved;
            std::string const error = get_last_error(saved);
            failure_reported_ = true;
            notify_error(if_logger_error_t::write_failed, error);
            return static_cast<size_t>(pos);
        }
        // A failure that was already reported is not reported again, and the
        // loop does not give up: it takes the failed result as a count of -1
        // and tries again from one byte further back, until a write goes
        // through or it reaches a zero byte. The byte before the text counts
        // as the zero that ends the previous one.
        pos -= 1;
        left += 1;
        if (pos < 0 || text[pos] == '\0') return 0;
    }
    return static_cast<size_t>(pos);
}

void fd_logger_impl_t::format(msgclass_t c, std::string& out, char const* fmt, va_list ap) {
    // The common line is built in one stack buffer: prefix, then message.
    thread_state_t& t = this_thread();
    char line[k_prefix_max + k_name_max + 8 + k_message_max];
    size_t const head = put_prefix_head(t, line, c);
    lstr_t const name = thread_name();
    if (name.length() <= k_name_max) {
        size_t const plen = head + put_name(line + head, name);
        size_t mlen;
        if (put_simple_format(line + plen, k_message_max, mlen, fmt, ap)) {
            line[plen + mlen] = '\n';
            emit_line(out, line, plen, line + plen, mlen);
            return;
        }
    }
    // A long name or a format that needs printf: the same line in strings.
    scratch_lease_t prefix(t, slot_prefix);
    scratch_lease_t message(t, slot_message);
    prefix.get().assign(line, head).append(name.ptr(), name.length());
    prefix.get().append(name.length() < 6 ? 7 - name.length() : 1, ' ');
    format_user(message.get(), fmt, ap);
    emit_line(out, prefix.get().data(), prefix.get().size(), message.get().data(), message.get().size());
}

namespace {

// out becomes prefix, message and a line end; one copy when the three
// already follow each other.
void put_line(std::string& out, char const* prefix, size_t plen, char const* message, size_t mlen) {
    if (message == prefix + plen && message[mlen] == '\n') {
        out.assign(prefix, plen + mlen + 1);
    } else {
        out.assign(prefix, plen).append(message, mlen).push_back('\n');
    }
}

}  // namespace

void fd_logger_impl_t::emit_line(std::string& out, char const* prefix, size_t plen, char const* message,
                                 size_t mlen) {
    if (!fd_logger_t::last_repeated_avail) {
        put_line(out, prefix, plen, message, mlen);
        return;
    }
    spin_locker_t hold(repeat_mutex_, repeat_busy_);
    if (has_last_ && mlen == last_message_.size() && std::memcmp(message, last_message_.data(), mlen) == 0) {
        // Only the text counts: the same text in another class repeats too.
        last_prefix_.assign(prefix, plen);
        ++repeat_count_;
        return;
    }
    put_line(out, prefix, plen, message, mlen);
    // The summary goes out before this line, stamped with the time of the
    // last repetition.
    if (repeat_count_ != 1) write_repeat_summary_locked();
    // The last prefix is read only by a summary, and every repetition that
    // leads to one stores its own prefix first: a line that starts a new
    // message need not store it.
    last_message_.assign(message, mlen);
    has_last_ = true;
}

void fd_logger_impl_t::write_repeat_summary() {
    spin_locker_t hold(repeat_mutex_, repeat_busy_);
    if (repeat_count_ != 1) write_repeat_summary_locked();
}

void fd_logger_impl_t::write_repeat_summary_locked() {
    // The count includes the first occurrence, which was written in full.
    std::string line;
    line.reserve(last_prefix_.size() + sizeof k_repeat_head + sizeof k_repeat_tail + 12);
    line.append(last_prefix_).append(k_repeat_head);
    add_number_to_string(repeat_count_, line);
    line.append(k_repeat_tail);
    repeat_count_ = 1;
    write_fd(line.data(), line.size());
}
