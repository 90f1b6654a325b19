// platform.cc: the platform description, the operating-system names and the
// start-up report.
#include "platform.h"

#include <fcntl.h>
#include <gnu/libc-version.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "filestr-int.h"
#include "loggers.h"
#include "runnable.h"
#include "time-objs.h"
#include "unx-utils-signal.h"
#include "unx-utils.h"
#include "utilities-exec.h"
#include "utilities.h"

int platform_base_t::probe_byte_wait_ms = 30000;

namespace {

// Appends text[0, length) to the NUL-terminated buffer of size bytes, cutting
// what does not fit.
template <std::size_t size>
void append(char (&buffer)[size], char const* text, std::size_t length) {
    std::size_t const used = std::strlen(buffer);
    std::size_t const n = std::min(length, size - 1 - used);
    std::memcpy(buffer + used, text, n);
    buffer[used + n] = '\0';
}
template <std::size_t size>
void append(char (&buffer)[size], char const* text) {
    append(buffer, text, std::strlen(text));
}

// The file's first bytes, up to limit; false when it cannot be read.
bool read_head(char const* path, std::string& out, std::size_t limit) {
    kern_n::detail::fd_holder_t fd(kern_n::detail::open_retry(path, O_RDONLY));
    if (fd.get() < 0) return false;
    char buf[4096];
    while (out.size() < limit) {
        ssize_t const n = kern_n::detail::read_retry(fd.get(), buf, sizeof buf);
        if (n < 0) return false;
        if (n == 0) break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    return true;
}

// text put between single quotes for /bin/sh.
std::string shell_quoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

long long ms_now() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits at most ms for fd to become readable; false when the wait ran out or
// failed.
bool wait_readable(int fd, int ms) {
    long long const deadline = ms_now() + ms;
    for (;;) {
        long long const left = deadline - ms_now();
        struct pollfd p = {fd, POLLIN, 0};
        int const rc = ::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
        if (rc > 0) return true;
        if (rc == 0 || errno != EINTR) return false;
    }
}

// The probe program's two lines: CPU features, then the virtual machine.
struct probe_t {
    std::string cpu, vm;
};

probe_t run_probe(char const* dir) {
    probe_t out;
    std::string path = dir ? dir : ".";
    if (path.empty() || path.back() != '/') path += '/';
    path += "qvlvmx";
    if (::access(path.c_str(), F_OK) != 0) return out;
    // exec: the probe itself is the child, so that it is the one waited for.
    std::string command = "exec " + shell_quoted(path);
    char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), &command[0], nullptr};
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return out;
    kern::signal::do_not_wait_on_sigchild hold;
    pid_t const pid = ::fork();
    if (pid == 0) {
        // System calls only from here on; dup2 leaves the copy inheritable.
        ::setpgid(0, 0);
        if (pipe_fds[1] == STDOUT_FILENO)
            ::fcntl(STDOUT_FILENO, F_SETFD, 0);
        else
            ::dup2(pipe_fds[1], STDOUT_FILENO);
        close_all_nonstardard_handles();
        ::execve("/bin/sh", argv, environ);
        ::_exit(127);
    }
    ::close(pipe_fds[1]);
    if (pid < 0) {
        ::close(pipe_fds[0]);
        return out;
    }
    ::setpgid(pid, pid);  // also here, so that the kill below finds the group whoever runs first
    bool at_end = false;
    int lines = 0;
    for (;;) {
        if (!wait_readable(pipe_fds[0], platform_base_t::probe_byte_wait_ms)) break;
        unsigned char c;
        ssize_t const n = ::read(pipe_fds[0], &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            at_end = n == 0;
            break;
        }
        if (c == 0xFF) break;
        if (c == '\r') continue;
        if (c == '\n') {
            if (++lines == 2) break;
            continue;
        }
        (lines == 0 ? out.cpu : out.vm) += static_cast<char>(c);
    }
    ::close(pipe_fds[0]);
    if (at_end) {
        // The probe has closed its output and is about to end: give it the
        // same time as a byte to do so.
        int const pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        if (pidfd >= 0) {
            at_end = wait_readable(pidfd, platform_base_t::probe_byte_wait_ms);
            ::close(pidfd);
        } else {
            at_end = false;
        }
    }
    if (!at_end) ::kill(-pid, SIGKILL);
    int status;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return out;
}

struct nt_edition_t {
    unsigned edition;
    char const* name;
};

// The edition text of an NT-family code; prefix goes before it.
void add_edition(std::string& out, nt_edition_t const* table, std::size_t count, unsigned edition,
                 char const* otherwise) {
    char const* name = otherwise;
    for (std::size_t i = 0; i < count; ++i)
        if (table[i].edition == edition) name = table[i].name;
    if (name) out.append(" ").append(name);
}

void add_windows_nt(std::string& out, unsigned version, unsigned edition, unsigned processor) {
    static nt_edition_t const nt4[] = {{1, "Workstation"}, {129, "Server"}, {130, "Advanced Server"},
                                       {131, "Enterprise Server"}};
    static nt_edition_t const w2000[] = {{129, "Server"}, {130, "Advanced Server"}, {131, "Datacenter Server"}};
    static nt_edition_t const xp[] = {{2, "Professional"}};
    static nt_edition_t const server[] = {{129, "Standard Edition"}, {130, "Web Edition"},
                                          {131, "Enterprise Edition"}, {132, "Datacenter Edition"},
                                          {133, "Storage Server"}, {134, "Compute Cluster"},
                                          {136, "Foundation"}, {137, "Essentials"}};
    static nt_edition_t const desktop[] = {{2, "Basic"}, {3, "Home Premium"}, {4, "Enterprise"},
                                           {5, "Business"}, {6, "Ultimate"}, {7, "Professional"}};
    out += "Windows ";
    bool with_processor = true;
    switch (version) {
    case 1:
        out += "NT 3.51";
        with_processor = false;
        break;
    case 2:
        out += "NT 4.0";
        add_edition(out, nt4, 4, edition, nullptr);
        with_processor = false;
        break;
    case 3:
        out += "2000";
        add_edition(out, w2000, 3, edition, "Workstation");
        with_processor = false;
        break;
    case 4:
        out += "XP";
        add_edition(out, xp, 1, edition, "Home Edition");
        break;
    case 5: case 7: case 9: case 11: case 13:
        switch (version) {
        case 5: out += "2003"; break;
        case 7: out += "Server 2008"; break;
        case 9: out += "Server 2008 R2"; break;
        case 11: out += "Server 2012"; break;
        case 13: out += "Server 2012 R2"; break;
        default: out += "Brand new"; break;  // unreachable, see the header
        }
        add_edition(out, server, 8, edition, "Workstation");
        break;
    case 6: case 8:
        out += version == 6 ? "Vista" : "7";
        add_edition(out, desktop, 6, edition, "Starter");
        break;
    case 10: case 12:
        out += version == 10 ? "8" : "8.1";
        if (edition == 4) out += " Enterprise";
        if (edition == 7) out += " Pro";
        break;
    default:
        out += "NT/unknown";
        break;
    }
    if (with_processor) out += processor == 2 ? " x64" : processor == 1 ? " IA64" : " x86";
}

}  // namespace

// --- kernel version --------------------------------------------------------------

unsigned platform_base_t::linux_version_1() { return platform_linux_version_1; }
unsigned platform_base_t::linux_version_2() { return platform_linux_version_2; }
unsigned platform_base_t::linux_version_3() { return platform_linux_version_3; }

bool platform_base_t::is_linux_greater_or_equal(unsigned a, unsigned b, unsigned c) {
    if (platform_linux_version_1 != a) return platform_linux_version_1 > a;
    if (platform_linux_version_2 != b) return platform_linux_version_2 > b;
    return platform_linux_version_3 >= c;
}

unsigned platform_base_t::release_number(unsigned index, char const* release) {
    struct utsname u;
    if (!release) {
        if (::uname(&u) != 0) return 0;
        release = u.release;
    }
    char const* p = release;
    for (unsigned skipped = 0; skipped < index; ++skipped) {
        p = std::strchr(p, '.');
        if (!p) return 0;
        ++p;
    }
    unsigned value = 0;
    while (*p >= '0' && *p <= '9') value = value * 10 + static_cast<unsigned>(*p++ - '0');
    return value;
}

// --- the description ---------------------------------------------------------------

platform_base_t::platform_base_t() : system(0x1010000) {
    description[0] = sysname[0] = '\0';
    std::strcpy(arch, "i386");
    std::strcpy(tag, "lnx");
    struct utsname u;
    if (::uname(&u) == 0) {
        append(tag, "-");
        append(description, u.sysname);
        append(description, " ");
        append(description, u.release);
        append(description, " ");
        append(sysname, u.sysname);
        append(tag, u.machine);
        append(description, u.machine);
        arch[0] = '\0';
        append(arch, u.machine);
    } else {
        u.version[0] = '\0';
    }
    if (!unix_add_issue("/etc/issue.net") && !unix_add_issue("/etc/issue") && u.version[0]) {
        append(description, "; ");
        append(description, u.version + 1);  // without the leading '#'
    }
    linux_add_glibc();
}

bool platform_base_t::unix_add_issue(char const* path) {
    std::string text;
    if (!path || !read_head(path, text, 65536)) return false;
    std::size_t end = text.find('\n');
    if (end == std::string::npos) end = text.size();
    if (end > 0 && text[end - 1] == '\r') --end;
    text.resize(end);
    std::size_t const cut = text.find('\\');
    text.resize(cut != std::string::npos ? cut : std::min(text.find(" - Kernel"), text.size()));
    if (text.empty()) return false;
    append(description, "; ");
    append(description, text.data(), text.size());
    return true;
}

void platform_base_t::linux_add_glibc() {
    int const names[] = {_CS_GNU_LIBC_VERSION, _CS_GNU_LIBPTHREAD_VERSION};
    for (int name : names) {
        char buf[128];
        std::size_t const n = ::confstr(name, buf, sizeof buf);
        if (n > 1) {
            append(description, "; ");
            append(description, buf);
        }
    }
}

// --- names -------------------------------------------------------------------------

void platform_base_t::sys2str(std::string& out, unsigned code) {
    unsigned const family = (code >> 24) & 0x7F, version = (code >> 8) & 0xFF, edition = code & 0xFF;
    if (family == 1) {
        static char const* const android[] = {"", " Phone", " Tabblet"};
        static char const* const mac[] = {"", " Tiger", " Leopard", " Snow Leopard", " Lion", " Mountain Lion"};
        switch ((code >> 16) & 0xFF) {
        case 0x01: out += "Linux"; break;
        case 0x02: out += "SunOS"; break;
        case 0x03: out += "HP-UX"; break;
        case 0x04: out += "AIX"; break;
        case 0x05: out.append("Android").append(version < 3 ? android[version] : " Unknown"); break;
        case 0x80: out += "FreeBSD"; break;
        case 0x81: out += "NetBSD"; break;
        case 0x82: out += "OpenBSD"; break;
        case 0x83:
            out.append("MacOS ").append(version < 6 ? mac[version] : "");
            if (edition & 0x80) out += " Server";
            break;
        default: out += "Posix/unknown"; break;
        }
    } else if (family == 2) {
        switch ((code >> 16) & 0xF) {
        case 1: out += version == 1 ? "Windows CE" : "Win32s"; break;
        case 2:
            out += version == 1   ? "Windows 95"
                   : version == 2 ? "Windows 98"
                   : version == 3 ? "Windows Me"
                                  : "Windows9x/unknown";
            break;
        case 3: add_windows_nt(out, version, edition, (code >> 20) & 0xF); break;
        default: out += "Windows/unknown"; break;
        }
    } else {
        out += family == 3 ? "Netware" : "unknown";
    }
}

std::string platform_base_t::virtual_vm(char const* dir) { return run_probe(dir).vm; }

// --- the report ----------------------------------------------------------------------

void platform_base_t::sys_statistics() const {
    struct sysinfo si;
    if (::sysinfo(&si) != 0) return;
    if_logger_t* const log = if_logger_t::Log;
    if (!log || !log->is_logged(if_logger_t::NOTICE)) return;
    std::string uptime;
    format_uptime(timegap_t(static_cast<long>(si.uptime), 0), uptime);
    log->log_NOTICE("[Linux] System uptime is %s", uptime.c_str());
    auto whole = [](unsigned long load) { return load >> 16; };
    auto hundredths = [](unsigned long load) { return ((load & 0xFFFF) * 25) >> 14; };
    log->log_NOTICE("[Linux] Now there are %u processes, load average: %lu.%02lu %lu.%02lu %lu.%02lu",
                    static_cast<unsigned>(si.procs), whole(si.loads[0]), hundredths(si.loads[0]),
                    whole(si.loads[1]), hundredths(si.loads[1]), whole(si.loads[2]), hundredths(si.loads[2]));
    auto mb = [&si](unsigned long amount) {
        return (static_cast<unsigned long long>(amount) * si.mem_unit) >> 20;
    };
    log->log_NOTICE("[Linux] Low memory: %lluMB total, %lluMB available, %lluMB shared, %lluMB buffers",
                    mb(si.totalram), mb(si.freeram), mb(si.sharedram), mb(si.bufferram));
    log->log_NOTICE("[Linux] Swap: %lluMB total, %lluMB available", mb(si.totalswap), mb(si.freeswap));
}

void platform_base_t::info(int argc, char** argv, char const* dir) const {
    std::string account;
    unx_get_user_and_group(::geteuid(), ::getegid(), account);
    probe_t const probe = run_probe(dir);
    if_logger_t* const log = if_logger_t::Log;
    if (!log) return;
    if (log->is_logged(if_logger_t::NOTICE)) {
        log->log_NOTICE("Running at \"%s\" %s%s under \"%s\" operating system", machine_name().c_str(),
                        probe.vm.c_str(), probe.vm.empty() ? "computer" : " guest", description);
        log->log_NOTICE("CPU features are \"%s\"", probe.cpu.c_str());
    }
    if (log->is_logged(if_logger_t::DEBUG_3))
        log->log_DEBUG_3("GNU libc is %s (%s)", gnu_get_libc_version(), gnu_get_libc_release());
    if (log->is_logged(if_logger_t::NOTICE)) log->log_NOTICE("Running under \"%s\" account", account.c_str());
    kern_n::runnable_t::show_stack_info();
    sys_statistics();
    if (argc >= 1 && argv && log->is_logged(if_logger_t::NOTICE)) {
        std::string line;
        for (int i = 0; i < argc && argv[i]; ++i) {
            if (i) line += ' ';
            bool const quoted = std::strchr(argv[i], ' ') != nullptr;
            if (quoted) line += '"';
            line += argv[i];
            if (quoted) line += '"';
        }
        log->log_NOTICE("Using command line: %s", line.c_str());
    }
}
