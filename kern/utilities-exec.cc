// utilities-exec.cc: running other programs, and closing the descriptors a
// child must not inherit.
#include "utilities-exec.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "loggers.h"
#include "platform.h"
#include "unx-utils-signal.h"

namespace {

// Closes the descriptors from 3 up to limit - 1 that /proc/self/fd lists;
// false when the listing cannot be opened.
bool close_listed(int limit) noexcept {
    int dir;
    while ((dir = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) < 0 && errno == EINTR) continue;
    if (dir < 0) return false;
    alignas(dirent64) char buf[4096];
    for (;;) {
        ssize_t const n = ::getdents64(dir, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        for (ssize_t at = 0; at < n;) {
            auto const* const d = reinterpret_cast<dirent64 const*>(buf + at);
            at += d->d_reclen;
            int fd = 0;
            char const* p = d->d_name;
            if (*p < '0' || *p > '9') continue;  // "." and ".."
            while (*p >= '0' && *p <= '9' && fd < limit) fd = fd * 10 + (*p++ - '0');
            // Closing while listing is safe: the directory's position is a
            // descriptor number, not an index.
            if (fd >= 3 && fd < limit && fd != dir) ::close(fd);
        }
    }
    ::close(dir);
    return true;
}

// Words of args at runs of white space; one blank alone counts as empty.
std::vector<std::string> split_words(char const* args) {
    std::vector<std::string> words;
    if (!args) return words;
    char const* p = args;
    while (*p) {
        while (*p && std::isspace(static_cast<unsigned char>(*p))) ++p;
        char const* const start = p;
        while (*p && !std::isspace(static_cast<unsigned char>(*p))) ++p;
        if (p > start) words.emplace_back(start, p);
    }
    return words;
}

// The paths execvp would try for program, in its order.
std::vector<std::string> candidates(char const* program) {
    std::vector<std::string> out;
    std::string const name(program);
    if (name.find('/') != std::string::npos || name.empty()) {
        out.push_back(name);
        return out;
    }
    char const* path = std::getenv("PATH");
    std::string const dirs = path ? path : "/bin:/usr/bin";
    std::size_t start = 0;
    for (;;) {
        std::size_t const end = dirs.find(':', start);
        std::string const dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
        out.push_back(dir.empty() ? name : dir + "/" + name);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return out;
}

// The child's side, system calls only: every candidate in turn, a file the
// kernel refuses to run as a program through /bin/sh, as execvp does.
[[noreturn]] void run_child(std::vector<std::string> const& paths, char* const* argv, char** sh_argv) noexcept {
    close_all_nonstardard_handles();
    for (std::string const& path : paths) {
        ::execve(path.c_str(), argv, environ);
        int const e = errno;
        if (e == ENOEXEC) {
            sh_argv[1] = const_cast<char*>(path.c_str());
            ::execve("/bin/sh", sh_argv, environ);
            break;
        }
        if (e != ENOENT && e != EACCES && e != ENOTDIR && e != ESTALE && e != ENODEV && e != ETIMEDOUT) break;
    }
    ::_exit(-1);
}

}  // namespace

void close_all_nonstardard_handles() {
    struct rlimit rl;
    int rc;
    while ((rc = ::getrlimit(RLIMIT_NOFILE, &rl)) != 0 && errno == EINTR) continue;
    if (rc != 0 || rl.rlim_cur < 4) return;
    // A limit past int's range still ends at the largest descriptor number.
    int const limit = rl.rlim_cur > 0x7fffffff ? 0x7fffffff : static_cast<int>(rl.rlim_cur);
    if (platform_base_t::is_linux_greater_or_equal(5, 9, 0) &&
        ::close_range(3, static_cast<unsigned>(limit - 1), 0) == 0)
        return;
    if (close_listed(limit)) return;
    for (int fd = 3; fd < limit; ++fd) ::close(fd);
}

int execute(char const* program, char const* args, bool synchronously) {
    if (!program) {
        errno = EINVAL;
        return -1;
    }
    if (args && args[0] == ' ' && args[1] == '\0') args = "";
    if (!args) args = "";
    if_logger_t* const log = if_logger_t::Log;
    if (log && log->is_logged(if_logger_t::TRACE_3))
        log->log_TRACE_3("Executing \"%s%s%s\" %ssynchronously", program, *args ? " " : "", args,
                         synchronously ? "" : "a");

    // Everything the child needs, made before the fork.
    std::vector<std::string> words = split_words(args);
    std::vector<std::string> const paths = candidates(program);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program));
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    std::vector<char*> sh_argv;
    sh_argv.push_back(const_cast<char*>("/bin/sh"));
    sh_argv.insert(sh_argv.end(), argv.begin(), argv.end());  // [1] becomes the path tried

    int result, error = 0;
    {
        kern::signal::do_not_wait_on_sigchild hold;
        pid_t const pid = ::fork();
        if (pid == 0) run_child(paths, argv.data(), sh_argv.data());
        if (pid < 0 || !synchronously) return pid < 0 ? -1 : pid;
        int status = 0;
        pid_t r;
        while ((r = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) continue;
        if (r < 0) {
            result = errno == ECHILD ? 0 : -1;
            error = errno;
        } else if (WIFEXITED(status)) {
            result = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL) {
            result = -WTERMSIG(status);
        } else {
            result = -1;
            if (WIFSIGNALED(status)) error = ENOENT;
        }
    }
    if (error) errno = error;
    return result;
}
