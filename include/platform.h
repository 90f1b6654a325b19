// platform.h: what the library runs on, and the start-up report of it.
//
// platform_base_t describes the machine: system, kernel, distribution, C
// library, in fixed-size buffers filled once. platform_t::base is the one
// built at library start-up; a program writes its description to the log
// when it starts, and code that depends on the kernel asks for its version:
//
//   platform_t::base.info(argc, argv, "/opt/qvl/bin");   // the NOTICE lines below
//   if (platform_base_t::is_linux_greater_or_equal(5, 9, 0)) ...   // close_range exists
//   std::string name;
//   platform_base_t::sys2str(name, platform_t::base.system);       // "Linux"
//
// On a Debian 12 host the buffers read: tag "lnx-x86_64", arch "x86_64",
// sysname "Linux", description "Linux 6.1.0-18-amd64 x86_64; Debian GNU/Linux
// 12; glibc 2.36; NPTL 2.36", and info writes:
//
//   Running at "build7" computer under "Linux 6.1.0-18-amd64 x86_64; ..." operating system
//   CPU features are ""
//   Running under "root:root" account
//   (the thread registry's stack figures)
//   [Linux] System uptime is 03-04:05:06
//   [Linux] Now there are 312 processes, load average: 0.15 0.20 0.18
//   [Linux] Low memory: 15934MB total, 9731MB available, 1022MB shared, 402MB buffers
//   [Linux] Swap: 976MB total, 976MB available
//   Using command line: ./agent --config "/etc/qvl/agent 2.conf"
//
// The optional probe program "qvlvmx" in info's directory tells the CPU
// features (its first output line) and the name of the virtual machine the
// host is a guest of (its second line); info then reads "Running at "build7"
// KVM guest under ...". Each byte of its output is waited for at most
// platform_base_t::probe_byte_wait_ms milliseconds (30,000); reading stops
// there, at the end of output, at a byte 0xFF or at the second line feed.
//
// Thread safety: the constructor, unix_add_issue and linux_add_glibc change
// the object and belong to its owner; platform_t::base is built at start-up
// and only read afterwards. The static functions and info may run on any
// thread; info logs through the process logger.
//
// Choices left open elsewhere and made here:
//  - The family-2 server names answer "Brand new" for a version their table
//    does not list. Only the listed versions (5, 7, 9, 11, 13) reach that
//    table, so the text is kept but never shown; other versions read
//    "NT/unknown". Family-1 systems without a name read "Posix/unknown",
//    families from 4 up "unknown". The system of a family-2 code is its bits
//    16-19, as bits 20-23 hold the processor.
//  - sys_statistics writes its lines at NOTICE, as part of the start-up
//    report, and is const, so that info can call it.
//  - The probe's path is put between single quotes for the shell (a quote
//    inside it becoming '\''), so a directory holding blanks, quotes, "$" or
//    ";" neither breaks the command nor runs another one. The probe runs in
//    a process group of its own with only descriptors 0 to 2 and its output
//    pipe. When reading ends before the end of its output (a wait ran out, a
//    0xFF, the second line feed), the group is killed at once; after the end
//    of its output the probe is waited for at most probe_byte_wait_ms more,
//    then killed too. Nothing of it outlives info.
//  - probe_byte_wait_ms may be lowered, by tests mainly, to reach the end of
//    a silent probe quickly.
//  - unix_add_issue takes a first line ending in CR LF without the CR.
//  - The kernel version numbers are plain process-wide values set at
//    start-up; a test may set them to act as another kernel.
#ifndef QVLKERN_PLATFORM_H
#define QVLKERN_PLATFORM_H

#include <string>

#include "amtypes.h"

// The first three numbers of the running kernel's release, set at start-up:
// 2, 6 and 32 for "2.6.32-431.el6".
extern QVL_API q_uint32_t platform_linux_version_1;
extern QVL_API q_uint32_t platform_linux_version_2;
extern QVL_API q_uint32_t platform_linux_version_3;

class QVL_API platform_base_t {
public:
    // Fills the buffers from the kernel, /etc/issue.net (or /etc/issue) and
    // the C library. Never throws; a failed query leaves its part empty.
    platform_base_t();

    // Operating-system code, see sys2str; 0x1010000 (Linux).
    q_uint32_t system;
    // "<sysname> <release> <machine>; <distribution>; <libc>; <threads>".
    char description[512];
    // "lnx-<machine>".
    char tag[128];
    // The kernel's system name, "Linux".
    char sysname[64];
    // The machine, "x86_64".
    char arch[32];

    // The numbers of platform_linux_version_1 to _3.
    static unsigned linux_version_1();
    static unsigned linux_version_2();
    static unsigned linux_version_3();
    // Whether the running kernel is version a.b.c or later.
    static bool is_linux_greater_or_equal(unsigned a, unsigned b, unsigned c);
    // The index-th (0, 1, 2) dot-separated part of a kernel release read as
    // the decimal digits at its start; 0 when it has none or is missing. A
    // null release is the running kernel's.
    static unsigned release_number(unsigned index, char const* release = nullptr);

    // Appends "; " and the first line of the file at path, cut at its first
    // backslash or else at its first " - Kernel", to description; true when
    // something was appended.
    bool unix_add_issue(char const* path);
    // Appends "; " and the C library's version, then "; " and the threads
    // library's, each when the system names one.
    void linux_add_glibc();

    // The probe program's second line in dir ("." when null); empty without
    // a probe.
    static std::string virtual_vm(char const* dir);
    // Appends the display name of an operating-system code: bits 24-30 the
    // family, 16-23 the system, 8-15 the version, 0-7 the edition.
    static void sys2str(std::string& out, unsigned code);
    // Uptime, process count and loads, memory and swap, at NOTICE.
    void sys_statistics() const;
    // The start-up report, see the top of this file; argv's words joined by
    // blanks, a word holding a blank put between double quotes.
    void info(int argc, char** argv, char const* dir) const;

    // How long the probe program's output is waited for, per byte.
    static int probe_byte_wait_ms;
};

class QVL_API platform_t {
public:
    // The description of this machine, built at start-up.
    static platform_base_t base;
};

#endif  // QVLKERN_PLATFORM_H
