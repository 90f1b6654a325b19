// unx-utils.cc: account look-ups, daemonising, the host name and the number
// of processors.
#include "unx-utils.h"

#include <fcntl.h>
#include <sched.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

#include "_kern.h"
#include "numeric-triades.h"

// Constants of the image, in place before any initialiser runs; the names
// and guards are built at start-up (_kern.cc).
q_uint32_t unxs_n::unx_sec_uid = ~q_uint32_t(0);
q_uint32_t unxs_n::unx_sec_gid = ~q_uint32_t(0);

namespace {

std::size_t const first_buffer = 2048;
std::size_t const last_buffer = 1048576;

// Runs one re-entrant account look-up, call(&entry, buffer, size, &result),
// growing the buffer while the database answers ERANGE. The entry found, or
// null; its strings point into buffer.
template <class entry_t, class call_t>
entry_t* look_up(call_t call, entry_t& entry, std::vector<char>& buffer) {
    buffer.resize(first_buffer);
    for (;;) {
        entry_t* found = nullptr;
        int const rc = call(&entry, buffer.data(), buffer.size(), &found);
        if (rc == 0) return found;
        if (rc == EINTR) continue;
        if (rc != ERANGE || buffer.size() * 2 > last_buffer) return nullptr;
        buffer.resize(buffer.size() * 2);
    }
}

// The name of id, from the cache or by call; the name is then the cache's.
template <class entry_t, class call_t>
void append_name(unsigned int id, std::string& out, mutex_t& guard, q_uint32_t& cached_id,
                 std::string& cached_name, call_t call, char* entry_t::*name_of) {
    xlocker_t<mutex_t> hold(guard);
    if (id != cached_id) {
        entry_t entry;
        std::vector<char> buffer;
        std::string name;
        if (entry_t* found = look_up([id, call](entry_t* e, char* b, std::size_t n, entry_t** r) {
                return call(id, e, b, n, r);
            }, entry, buffer))
            name = found->*name_of;
        else
            add_number_to_string(id, name);
        // Swapped in whole, so a failed copy leaves the old entry intact.
        cached_name.swap(name);
        cached_id = id;
    }
    out += cached_name;
}

template <class entry_t, class call_t>
bool find_id(char const* name, unsigned int& id, call_t call, unsigned int entry_t::*id_of) {
    if (name == nullptr) return false;
    entry_t entry;
    std::vector<char> buffer;
    entry_t const* const found = look_up([name, call](entry_t* e, char* b, std::size_t n, entry_t** r) {
        return call(name, e, b, n, r);
    }, entry, buffer);
    if (found == nullptr) return false;
    id = found->*id_of;
    return true;
}

}  // namespace

bool unx_get_user_id(char const* name, unsigned int& uid) {
    return find_id<passwd>(name, uid, getpwnam_r, &passwd::pw_uid);
}

bool unx_get_group_id(char const* name, unsigned int& gid) {
    return find_id<group>(name, gid, getgrnam_r, &group::gr_gid);
}

void unx_get_username(unsigned int uid, std::string& out) {
    append_name<passwd>(uid, out, unxs_n::unx_sec_user_guard, unxs_n::unx_sec_uid, unxs_n::unx_sec_user,
                        getpwuid_r, &passwd::pw_name);
}

void unx_get_groupname(unsigned int gid, std::string& out) {
    append_name<group>(gid, out, unxs_n::unx_sec_group_guard, unxs_n::unx_sec_gid, unxs_n::unx_sec_group,
                       getgrgid_r, &group::gr_name);
}

void unx_get_user_and_group(unsigned int uid, unsigned int gid, std::string& out) {
    unx_get_username(uid, out);
    out += ':';
    unx_get_groupname(gid, out);
}

extern "C" int daemonize(int nochdir, int noclose) {
    pid_t const pid = fork();
    if (pid < 0) return -1;
    if (pid > 0) _exit(0);
    if (setsid() < 0) return -1;
    if (!nochdir && chdir("/") != 0) return -1;
    if (noclose) return 0;
    int fd;
    while ((fd = open("/dev/null", O_RDWR | O_CLOEXEC)) < 0 && errno == EINTR) continue;
    if (fd < 0) return -1;
    for (int target = 0; target < 3; ++target) {
        if (target == fd) continue;
        int rc;
        while ((rc = dup2(fd, target)) < 0 && errno == EINTR) continue;
        if (rc < 0) {
            int const saved = errno;
            if (fd > 2) close(fd);
            errno = saved;
            return -1;
        }
    }
    // dup2 clears close-on-exec on its copies, but not on /dev/null itself
    // when it landed on one of the three: started programs must inherit it.
    if (fd > 2)
        close(fd);
    else
        fcntl(fd, F_SETFD, 0);
    return 0;
}

std::string machine_name() {
    char name[256];
    if (::gethostname(name, sizeof name) != 0) return std::string();
    name[sizeof name - 1] = '\0';
    return name;
}

unsigned cpu_found() {
    unsigned long const wanted = env_get_number("QVLSRV_CPUs", 0);
    if (wanted != 0) return wanted > 65536 ? 65536u : static_cast<unsigned>(wanted);
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof set, &set) == 0) {
        int const n = CPU_COUNT(&set);
        if (n > 0) return static_cast<unsigned>(n);
    }
    long const online = ::sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<unsigned>(online) : 1u;
}
