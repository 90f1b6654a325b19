// Platform description: kernel versions, this host's buffers, issue files, the operating-system names, and the
// start-up report with real probe programs.
#include "platform.h"

#include <gnu/libc-version.h>
#include <signal.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include "test-support.h"
#include "unx-utils.h"

using test_support::record_logger_t;
using test_support::temp_dir_t;

TEST(platform, kernel_version_numbers_and_comparison) {
    struct { char const* release; unsigned n[3]; } const releases[] = {
        {"2.6.32-431.el6", {2, 6, 32}}, {"6.18.44-fc", {6, 18, 44}}, {"3.0", {3, 0, 0}},
        {"5.x.1", {5, 0, 1}}, {"", {0, 0, 0}}, {"4.19rc.7", {4, 19, 7}},
    };
    for (auto const& r : releases)
        for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(platform_base_t::release_number(i, r.release), r.n[i]) << r.release;
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    unsigned const running[3] = {platform_base_t::linux_version_1(), platform_base_t::linux_version_2(),
                                 platform_base_t::linux_version_3()};
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(running[i], platform_base_t::release_number(i, u.release));
        EXPECT_EQ(running[i], platform_base_t::release_number(i));
    }
    struct { unsigned kernel[3]; bool at_least_2_6_22; } const kernels[] = {
        {{2, 6, 22}, true}, {{2, 6, 21}, false}, {{2, 7, 0}, true},
        {{2, 5, 99}, false}, {{3, 0, 0}, true}, {{1, 99, 99}, false},
    };
    for (auto const& k : kernels) {
        platform_linux_version_1 = k.kernel[0];
        platform_linux_version_2 = k.kernel[1];
        platform_linux_version_3 = k.kernel[2];
        EXPECT_EQ(platform_base_t::is_linux_greater_or_equal(2, 6, 22), k.at_least_2_6_22) << k.kernel[0] << k.kernel[1];
    }
    platform_linux_version_1 = running[0];
    platform_linux_version_2 = running[1];
    platform_linux_version_3 = running[2];
}

TEST(platform, buffers_describe_this_host) {
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    char libc[64], threads[64];
    confstr(_CS_GNU_LIBC_VERSION, libc, sizeof libc);
    confstr(_CS_GNU_LIBPTHREAD_VERSION, threads, sizeof threads);
    platform_base_t const p;
    EXPECT_EQ(p.system, 0x1010000u);
    EXPECT_EQ(std::string(p.tag), std::string("lnx-") + u.machine);
    EXPECT_STREQ(p.arch, u.machine);
    EXPECT_STREQ(p.sysname, u.sysname);
    std::string const d = p.description, head = std::string(u.sysname) + " " + u.release + " " + u.machine + "; ";
    EXPECT_EQ(d.substr(0, head.size()), head);
    std::string const tail = std::string("; ") + libc + "; " + threads;
    ASSERT_GE(d.size(), head.size() + tail.size());
    EXPECT_EQ(d.substr(d.size() - tail.size()), tail);
    EXPECT_STREQ(platform_t::base.description, p.description);
}

TEST(platform, issue_files_give_their_first_line) {
    temp_dir_t dir;
    struct { char const* text; char const* appended; } const cases[] = {
        {"Debian GNU/Linux 12 \\n \\l\n\n", "; Debian GNU/Linux 12 "},
        {"Distro 7\nsecond \\S\n", "; Distro 7"},
        {"CentOS release 6.5 (Final) - Kernel 2.6 on x86\n", "; CentOS release 6.5 (Final)"},
        {"A - Kernel B \\r\n", "; A - Kernel B "},  // the backslash rule comes first
        {"Dos line\r\nnext\n", "; Dos line"}, {"no line end", "; no line end"},
        {"\\S\nKernel \\r on an \\m\n", nullptr}, {" - Kernel \\r\n", ";  - Kernel "},
        {" - Kernel 5\n", nullptr}, {"", nullptr}, {"\n", nullptr},
    };
    platform_base_t p;
    for (auto const& c : cases) {
        std::string const path = dir.file("issue", c.text);
        std::strcpy(p.description, "X");
        EXPECT_EQ(p.unix_add_issue(path.c_str()), c.appended != nullptr) << c.text;
        EXPECT_EQ(std::string(p.description), std::string("X") + (c.appended ? c.appended : "")) << c.text;
    }
    EXPECT_FALSE(p.unix_add_issue((dir.path + "/missing").c_str()));
    EXPECT_FALSE(p.unix_add_issue(dir.path.c_str()));  // a directory reads as nothing
    // Appends stop at the buffer's end, still terminated.
    std::string const full(505, 'd');
    std::strcpy(p.description, full.c_str());
    EXPECT_TRUE(p.unix_add_issue(dir.file("issue", "abcdefghij\n").c_str()));
    EXPECT_EQ(std::string(p.description), full + "; abcd");
}

TEST(platform, operating_system_names) {
    struct { unsigned code; char const* name; } const cases[] = {
        {0x0123456, "unknown"}, {0x3000000, "Netware"}, {0x1000000, "Posix/unknown"}, {0x1010000, "Linux"},
        {0x81010000, "Linux"}, {0x1050200, "Android Tabblet"}, {0x1050300, "Android Unknown"}, {0x1820000, "OpenBSD"},
        {0x1830280, "MacOS  Leopard Server"}, {0x1830600, "MacOS "}, {0x2040000, "Windows/unknown"},
        {0x2010200, "Win32s"}, {0x2020400, "Windows9x/unknown"}, {0x2230101, "Windows NT 3.51"},
        {0x2030283, "Windows NT 4.0 Enterprise Server"}, {0x2030205, "Windows NT 4.0"},
        {0x2130381, "Windows 2000 Server"}, {0x2130402, "Windows XP Professional IA64"},
        {0x2230D85, "Windows Server 2012 R2 Storage Server x64"}, {0x2230589, "Windows 2003 Essentials x64"},
        {0x2230806, "Windows 7 Ultimate x64"}, {0x2230C07, "Windows 8.1 Pro x64"}, {0x2230E00, "Windows NT/unknown x64"},
        {0x2030000, "Windows NT/unknown x86"},
    };
    for (auto const& c : cases) {
        std::string out = "<";
        platform_base_t::sys2str(out, c.code);
        EXPECT_EQ(out, std::string("<") + c.name) << std::hex << c.code;
    }
}

// The report with and without a probe, in a directory named to break a shell command or run another one.
TEST(platform, start_up_report_and_probe_programs) {
    temp_dir_t base;
    std::string const marker = "platform_test_pwned_" + std::to_string(getpid());
    std::string const sub = "a b'c\"$HOME;touch " + marker + ";$(touch " + marker + ")`touch " + marker + "`\\";
    std::string const dir = base / sub;
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    std::string const host = machine_name(), description = platform_t::base.description;
    std::string account;
    unx_get_user_and_group(geteuid(), getegid(), account);
    struct sysinfo si;
    ASSERT_EQ(sysinfo(&si), 0);
    std::string const total = std::to_string((static_cast<unsigned long long>(si.totalram) * si.mem_unit) >> 20);
    char* argv[] = {const_cast<char*>("./agent"), const_cast<char*>("--config"),
                    const_cast<char*>("/etc/qvl/agent 2.conf")};

    struct { char const* probe; char const* cpu; char const* vm; } const probes[] = {
        {nullptr, "", ""},
        {"#!/bin/sh\nprintf 'sse4 avx\\r\\nKVM\\nignored\\n'\n", "sse4 avx", "KVM"},
        {"#!/bin/sh\nprintf 'cpu\\377more\\nvm\\n'\n", "cpu", ""},
        {"#!/bin/sh\nprintf 'one\\nVMware\\n'; exec sleep 1000\n", "one", "VMware"},  // never waited for
    };
    for (auto const& p : probes) {
        SCOPED_TRACE(p.probe ? p.probe : "no probe");
        unlink((dir + "/qvlvmx").c_str());
        if (p.probe) base.file(sub + "/qvlvmx", p.probe, 0755);
        EXPECT_EQ(platform_base_t::virtual_vm(dir.c_str()), p.vm);
        EXPECT_EQ(platform_base_t::virtual_vm((dir + "/").c_str()), p.vm);
        record_logger_t log(if_logger_t::NOTICE);
        platform_t::base.info(3, argv, dir.c_str());
        std::string const vm = *p.vm ? std::string(p.vm) + " guest" : "computer";
        std::vector<std::string> const want = {
            "3 Running at \"" + host + "\" " + vm + " under \"" + description + "\" operating system",
            std::string("3 CPU features are \"") + p.cpu + "\"",
            "3 Running under \"" + account + "\" account",
            "~3 \\[Linux\\] System uptime is ([0-9]{2}-)?[0-9]{2}:[0-9]{2}:[0-9]{2}",
            "~3 \\[Linux\\] Now there are [0-9]+ processes, load average: ([0-9]+\\.[0-9]{2} ?){3}",
            "~3 \\[Linux\\] Low memory: " + total + "MB total, [0-9]+MB available, [0-9]+MB shared, [0-9]+MB buffers",
            "~3 \\[Linux\\] Swap: [0-9]+MB total, [0-9]+MB available",
            "3 Using command line: ./agent --config \"/etc/qvl/agent 2.conf\"",
        };
        ASSERT_EQ(log.lines.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i) {
            if (want[i][0] == '~')
                EXPECT_TRUE(std::regex_match(log.lines[i], std::regex(want[i].substr(1)))) << log.lines[i];
            else
                EXPECT_EQ(log.lines[i], want[i]);
        }
    }
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "the directory's name ran a command";
    EXPECT_EQ(platform_base_t::virtual_vm((base.path + "/missing").c_str()), "");

    // At DEBUG3 the C library's version follows the CPU features; without arguments no command line.
    record_logger_t log(if_logger_t::DEBUG_3);
    platform_t::base.info(0, nullptr, dir.c_str());
    ASSERT_GE(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[2], std::string("12 GNU libc is ") + gnu_get_libc_version() + " (" + gnu_get_libc_release() + ")");
    EXPECT_EQ(log.lines.back().find("Using command line"), std::string::npos);
}

// A probe that writes nothing and never ends: given up after the per-byte wait, and gone when virtual_vm returns.
TEST(platform, silent_probe_is_given_up_and_killed) {
    temp_dir_t dir;
    std::string const pid_file = dir.path + "/pid";
    dir.file("qvlvmx", "#!/bin/sh\necho $$ > '" + pid_file + "'\nexec sleep 1000\n", 0755);
    int const saved = platform_base_t::probe_byte_wait_ms;
    platform_base_t::probe_byte_wait_ms = 300;
    EXPECT_EQ(platform_base_t::virtual_vm(dir.path.c_str()), "");
    platform_base_t::probe_byte_wait_ms = saved;
    long pid = 0;
    std::ifstream(pid_file) >> pid;
    ASSERT_GT(pid, 0);
    EXPECT_NE(kill(static_cast<pid_t>(pid), 0), 0);
    EXPECT_EQ(errno, ESRCH);
}
