// Running commands: exit statuses and signals of real programs, argument words, the PATH search, and the
// descriptors a child keeps, listed by a child program while the parent has files, sockets and pipes open.
#include "utilities-exec.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <set>

#include "platform.h"
#include "test-support.h"

namespace {

// Run as a child program with QVLKERN_LIST_FDS set: writes the descriptors /proc/self/fd lists (less the
// listing's own) to that file, before any test starts.
int const s_lister = [] {
    char const* const out = std::getenv("QVLKERN_LIST_FDS");
    if (!out) return 0;
    std::string fds;
    if (DIR* d = opendir("/proc/self/fd")) {
        std::set<int> found;
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.' && std::atoi(e->d_name) != dirfd(d)) found.insert(std::atoi(e->d_name));
        closedir(d);
        for (int fd : found) fds += (fds.empty() ? "" : " ") + std::to_string(fd);
    }
    std::ofstream(out) << fds;
    _exit(0);
}();

using test_support::temp_dir_t;

// Runs body in a forked child and answers its result, passed back through a file that the child opens
// only once body is done (body may close every descriptor).
std::string in_child(std::function<std::string()> const& body) {
    std::string const path = "/tmp/exec_test_result." + std::to_string(getpid());
    pid_t const pid = fork();
    if (pid == 0) {
        std::string const result = body();
        std::ofstream(path) << result;
        _exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
    std::string out;
    std::getline(std::ifstream(path), out, '\0');
    unlink(path.c_str());
    return out;
}

// Raises the soft limit on open files to 1048576, or to the hard limit where that is lower and cannot be
// raised (without CAP_SYS_RESOURCE); answers the limit.
int raise_open_files_limit() {
    struct rlimit rl = {1048576, 1048576};
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    return static_cast<int>(rl.rlim_cur);
}

}  // namespace

TEST(execute, statuses_words_and_path_search) {
    temp_dir_t dir;
    std::string const args = dir.file("args.sh", "#!/bin/sh\nprintf '%s|%s|' \"$0\" $# > " + dir.path +
                                                     "/args.out\nprintf '<%s>' \"$@\" >> " + dir.path + "/args.out\n",
                                      0755);
    dir.file("plain", "echo plain > " + dir.path + "/plain.out\nexit 4\n", 0755);  // no "#!": run by /bin/sh
    dir.file("term.sh", "kill -TERM $$\n", 0755);
    dir.file("kill.sh", "kill -KILL $$\n", 0755);
    dir.file("locked", "#!/bin/sh\nexit 9\n", 0644);
    std::string const path = std::getenv("PATH");
    setenv("PATH", ("/nonexistent:" + dir.path + "/locked:" + dir.path + ":" + path).c_str(), 1);
    struct { char const* program; std::string args; int result; int error; char const* out; std::string text; } const cases[] = {
        {"true", "", 0, 0, nullptr, ""},
        {"true", " ", 0, 0, nullptr, ""},
        {"false", " ", 1, 0, nullptr, ""},
        {"sh", "-c exit 3", 0, 0, nullptr, ""},  // "exit" alone runs, 3 is its $0
        {"sh", "-c\t'exit 3'", 2, 0, nullptr, ""},  // no quoting: the shell reads "'exit"
        {"/nonexistent/program", "", 255, 0, nullptr, ""},
        {"no-such-program-anywhere", "x", 255, 0, nullptr, ""},
        {"sh", dir.path + "/term.sh", -15, 0, nullptr, ""},
        {"sh", dir.path + "/kill.sh", -1, ENOENT, nullptr, ""},
        {args.c_str(), "  a\tb\n c  ", 0, 0, "args.out", args + "|3|<a><b><c>"},
        {"args.sh", "one", 0, 0, "args.out", dir.path + "/args.sh|1|<one>"},  // found in PATH
        {"plain", "", 4, 0, "plain.out", "plain\n"},
        {"locked", "", 255, 0, nullptr, ""},  // not executable: refused, and no other "locked" in PATH
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string(c.program) + " [" + c.args + "]");
        errno = 0;
        EXPECT_EQ(execute(c.program, c.args.c_str(), true), c.result);
        if (c.error) { EXPECT_EQ(errno, c.error); }
        if (c.out) { EXPECT_EQ(dir.read(c.out), c.text); }
    }
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(execute("true", nullptr, true), 0);
    errno = 0;
    EXPECT_EQ(execute(nullptr, "", true), -1);
    EXPECT_EQ(errno, EINVAL);

    // Asynchronously: the caller collects the child.
    pid_t const pid = execute("sh", (dir.path + "/args.sh x").c_str(), false);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // A child collected elsewhere (SIGCHLD ignored: the kernel reaps it) reads as 0.
    EXPECT_EQ(in_child([] {
        signal(SIGCHLD, SIG_IGN);
        return std::to_string(execute("false", "", true));
    }), "0");
}

// What a started program keeps: 0, 1 and 2, whatever the parent holds and however high its limit (1048576
// where the hard limit allows). Each way of closing the rest is tested below.
TEST(execute, child_keeps_only_the_standard_descriptors) {
    temp_dir_t dir;
    std::string const got = in_child([&]() -> std::string {
        int const top = raise_open_files_limit() - 1;
        if_logger_t* const log = file_logger_t::create((dir.path + "/agent.log").c_str(), "3,1m");
        int p[2], s[2];
        if (pipe(p) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, s) != 0) return "setup";
        int const null = open("/dev/null", O_RDONLY);
        dup2(null, top);
        dup2(null, 1000);
        setenv("QVLKERN_LIST_FDS", (dir.path + "/fds").c_str(), 1);
        int const rc = execute("/proc/self/exe", "", true);
        delete log;
        return std::to_string(rc) + ":" + dir.read("fds");
    });
    EXPECT_EQ(got, "0:0 1 2");
}

// close_all_nonstardard_handles itself, on each of its paths, with descriptors below and above the limit;
// "top" is the highest descriptor the raised limit allows.
TEST(execute, close_all_paths_and_limits) {
    struct { char const* name; bool old_kernel, hide_proc; rlim_t limit; char const* open_after; } const cases[] = {
        {"close_range", false, false, 0, "0 1 2"},
        {"/proc listing", true, false, 0, "0 1 2"},
        {"every number", true, true, 0, "0 1 2"},
        {"limit 500", false, false, 500, "0 1 2 1000 top"},
        {"limit 500, listing", true, false, 500, "0 1 2 1000 top"},
        {"limit 3", false, false, 3, "0 1 2 10 11 12 13 1000 top"},
    };
    for (auto const& c : cases) {
        std::string const got = in_child([&]() -> std::string {
            int const top = raise_open_files_limit() - 1;
            if (c.hide_proc && !test_support::private_mounts("/proc"))
                return "skip";
            if (c.old_kernel) platform_linux_version_1 = 5, platform_linux_version_2 = 8;
            int p[2], s[2];
            if (pipe(p) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, s) != 0) return "setup";
            int const fds[] = {p[0], p[1], s[0], s[1]};
            for (int i = 0; i < 4; ++i) dup2(fds[i], 10 + i), close(fds[i]);
            dup2(10, 1000);
            dup2(10, top);
            if (c.limit) {
                struct rlimit rl;
                getrlimit(RLIMIT_NOFILE, &rl);
                rl.rlim_cur = c.limit;
                setrlimit(RLIMIT_NOFILE, &rl);
            }
            close_all_nonstardard_handles();
            std::string open_fds;
            for (int fd : {0, 1, 2, 10, 11, 12, 13, 1000, top})
                if (fcntl(fd, F_GETFD) >= 0) open_fds += (open_fds.empty() ? "" : " ") + (fd == top ? "top" : std::to_string(fd));
            raise_open_files_limit();  // room for the result file after a limit of 3
            return open_fds;
        });
        if (got == "skip") GTEST_SKIP() << "needs root for a private mount namespace";
        EXPECT_EQ(got, c.open_after) << c.name;
    }
}
