// Account look-ups and daemonising: the one-entry caches against test account files in a private mount
// namespace, buffer growth for entries far above 2 KiB, and detaching checked from the detached process.
#include "unx-utils.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "test-support.h"

// The first look-up of the process, before any test: the cache starts at the all-ones id with an empty
// name, which that id answers instead of its digits.
static std::string const s_first_lookup = [] { std::string out = "x"; unx_get_username(~0u, out); return out; }();

// Threads ask for root:daemon and daemon:root in turn, so that most calls replace both entries.
TEST(accounts, names_of_this_system_shared_by_threads) {
    EXPECT_EQ(s_first_lookup, "x");
    unsigned int id = 7;
    EXPECT_FALSE(unx_get_user_id(nullptr, id) || unx_get_group_id(nullptr, id));
    EXPECT_TRUE(unx_get_user_id("root", id) && id == 0 && unx_get_group_id("daemon", id) && id == 1);
    std::string const want[] = {"was root:daemon", "was daemon:root"};  // as on every Debian system
    std::atomic<int> wrong(0);
    test_support::on_threads(4, [&](int t) {
        for (int i = 0; i < 500; ++i) {
            std::string out = "was ";
            unx_get_user_and_group((i + t) & 1, 1 - ((i + t) & 1), out);
            wrong += out != want[(i + t) & 1];
        }
    });
    EXPECT_EQ(wrong, 0);
}

namespace {

// A passwd or group line; extra is the comment or the member list.
std::string account(bool user, char const* name, unsigned id, std::string const& extra = "") {
    std::string const n = std::string(name) + ":x:" + std::to_string(id) + ":";
    return user ? n + std::to_string(id) + ":" + extra + ":/:/bin/false\n" : n + extra + "\n";
}

// Version 1 of a file: 4241 alpha, 4244 wide (an entry of 200 KiB, found after the buffer has grown), 4245 vast
// (2 MiB, beyond the largest buffer). Version 2 renames 4241 to beta and adds 4242 gamma and 4243 delta.
std::string accounts_file(bool user, int version) {
    if (version == 2) return account(user, "beta", 4241) + account(user, "gamma", 4242) + account(user, "delta", 4243);
    std::string wide, vast;
    for (int i = 0; wide.size() < (200u << 10); ++i) wide += (i ? ",m" : "m") + std::to_string(i);
    vast = wide;
    while (vast.size() < (2u << 20)) vast += "," + wide;
    return account(user, "alpha", 4241) + account(user, "wide", 4244, wide) + account(user, "vast", 4245, vast);
}

}  // namespace

// In a private mount namespace with test files bound over /etc/passwd and /etc/group, for users, then groups.
TEST(accounts, caches_and_buffer_growth_with_test_files) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount test files over /etc/passwd and /etc/group";
    if (!test_support::in_child()) return;
    char const* const real[] = {"/etc/group", "/etc/passwd"}, *const test[] = {"/tmp/group", "/tmp/passwd"};
    bool mounted = test_support::private_mounts("/tmp", "size=16m");
    for (int user : {0, 1}) {
        std::ofstream(test[user]) << accounts_file(user, 1);
        mounted = mounted && mount(test[user], real[user], nullptr, MS_BIND, nullptr) == 0;
    }
    if (!mounted) GTEST_SKIP() << "cannot mount test account files here";
    // Each step puts a version of the files in place (rewritten, the mounts stay), then asks by id or name.
    struct { int version; unsigned id; char const* name; char const* want; } const steps[] = {
        {1, 4241, nullptr, "alpha"},
        {2, 4241, nullptr, "alpha"},  // renamed, but answered from the cache
        {2, 4242, nullptr, "gamma"},
        {2, 4241, nullptr, "beta"},   // the cache held another id: asked again
        {1, 4243, nullptr, "4243"},   // no such account: its digits
        {2, 4243, nullptr, "4243"},   // delta now, but the digits are cached
        {1, 4244, nullptr, "wide"},   // 200 KiB: the buffer has grown
        {1, 4245, nullptr, "4245"},   // 2 MiB: beyond 1 MiB, as if there were none
        {1, 0, "wide", "4244"},       {1, 0, "vast", "-"}, {2, 0, "delta", "4243"}, {2, 0, "alpha", "-"},
    };
    for (int user : {1, 0})
        for (auto const& s : steps) {
            std::ofstream(test[user]) << accounts_file(user, s.version);
            std::string got = "<";  // appended to
            unsigned int id = 1;    // left as it was when not found
            if (!s.name)
                (user ? unx_get_username : unx_get_groupname)(s.id, got);
            else if ((user ? unx_get_user_id : unx_get_group_id)(s.name, id))
                got += std::to_string(id);
            else
                got += id == 1 ? "-" : "-, id changed";
            EXPECT_EQ(got, std::string("<") + s.want) << (user ? "user" : "group") << " step " << &s - steps;
        }
}

// A child sets up its working directory D and descriptors 0 to 2 (all on the file F, or closed), buffers unwritten
// output, and detaches. The detached process reports through a pipe: "leader" when it leads its own session, its
// working directory, then each descriptor's target ("-" when closed, "*" after it when it is close-on-exec).
TEST(daemonize, detaches_with_both_flags) {
    test_support::temp_dir_t const temp;
    char const* const dir = temp.path.c_str();
    std::string const file = temp / "std";
    struct { bool closed; int nochdir, noclose; char const* want; } const cases[] = {
        {false, 0, 0, "leader / /dev/null /dev/null /dev/null"},
        {false, 1, 0, "leader D /dev/null /dev/null /dev/null"},
        {false, 0, 1, "leader / F F F"},
        {false, 1, 1, "leader D F F F"},
        {true, 0, 0, "leader / /dev/null /dev/null /dev/null"},  // /dev/null opens as 0 and must stay inherited
        {true, 1, 1, "leader D - - -"},
    };
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // the detached process is ours to collect
    for (auto const& c : cases) {
        SCOPED_TRACE(testing::Message() << c.closed << c.nochdir << c.noclose);
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        std::fflush(nullptr);
        pid_t const pid = fork();
        if (pid == 0) {
            int const fd = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
            for (int n = 0; n < 3; ++n) c.closed ? close(n) : dup2(fd, n);
            std::fputs("unflushed", stdout);  // lost unless some process flushes its streams at exit
            if (chdir(dir) != 0 || daemonize(c.nochdir, c.noclose) != 0) _exit(3);
            char cwd[PATH_MAX] = "?", link[PATH_MAX];
            std::string r = getsid(0) == getpid() ? "leader " : "member ";
            r += getcwd(cwd, sizeof cwd) && std::strcmp(cwd, dir) == 0 ? "D" : cwd;
            for (int n = 0; n < 3; ++n) {
                ssize_t const len = readlink(("/proc/self/fd/" + std::to_string(n)).c_str(), link, sizeof link);
                std::string const target = len < 0 ? "-" : std::string(link, len);
                r += " " + (target == file ? "F" : target) + (fcntl(n, F_GETFD) > 0 ? "*" : "");
            }
            _exit(write(fds[1], r.data(), r.size()) == ssize_t(r.size()) ? 0 : 4);  // one write: read whole
        }
        close(fds[1]);
        int status = -1;
        EXPECT_TRUE(waitpid(pid, &status, 0) == pid && status == 0) << status;  // the parent side's _exit(0)
        char buf[512];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) < 0 && errno == EINTR) continue;
        close(fds[0]);
        EXPECT_EQ(std::string(buf, std::max<ssize_t>(n, 0)), c.want);
        EXPECT_GT(waitpid(-1, &status, 0), 0);  // a process of its own, ended by its own _exit
        EXPECT_EQ(status, 0);
#ifndef __SANITIZE_THREAD__  // whose _exit flushes the standard streams itself
        std::string written = "?";
        std::getline(std::ifstream(file), written, '\0');
        EXPECT_EQ(written, "");
#endif
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

// The host name is the kernel's; the processor count follows the affinity and QVLSRV_CPUs, read on each call.
TEST(host, machine_name_and_cpu_count) {
    char name[256] = {};
    ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
    EXPECT_EQ(machine_name(), name);
    cpu_set_t set;
    ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    unsigned const mine = static_cast<unsigned>(CPU_COUNT(&set));
    struct { char const* value; unsigned count; } const cases[] = {
        {nullptr, mine}, {"3", 3}, {"1", 1}, {"0", mine}, {"abc", mine}, {"", mine}, {"1k", 1024}, {"99999", 65536},
    };
    for (auto const& c : cases) {
        if (c.value) setenv("QVLSRV_CPUs", c.value, 1); else unsetenv("QVLSRV_CPUs");
        EXPECT_EQ(cpu_found(), c.count) << (c.value ? c.value : "unset");
    }
    unsetenv("QVLSRV_CPUs");
    // One processor allowed: the count follows.
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    std::thread([&] {
        ASSERT_EQ(sched_setaffinity(0, sizeof set, &set), 0);
        EXPECT_EQ(cpu_found(), 1u);
    }).join();
}
