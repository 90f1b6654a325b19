// Fatal-signal report: real faults in child processes, the report read from the child's standard error
// and the child's death checked; frame texts against backtrace_symbols; signal names; the do-not-wait
// switch.
#include "unx-utils-signal.h"

#include <execinfo.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "test-support.h"

namespace {

using test_support::child_t;
using test_support::run_child;

// Tells the parent, waiting in run_child, that the child is ready for a signal.
void signal_ready() { (void)!write(1, "r", 1); }

std::vector<std::string> lines_of(std::string const& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string hex16(unsigned long long v) {
    char buf[20];
    snprintf(buf, sizeof buf, "%016llx", v);
    return buf;
}

// The report's register block, each value as 16 hexadecimal digits.
std::vector<std::string> const k_registers = {
    "Flags=# Link=# CR2=# OMS=#", "  RAX=#  RBX=# RCX=# RDX=#", "  RDI=#  RSI=# RBP=# RSP=#",
    "  R08=#  R09=# R10=# R11=#", "  R12=#  R13=# R14=# R15=#", " TRAP=#  ERR=# EFL=#", "  RIP=#"};

// Checks the report line by line: the expected head, the register block, and with a stack its heading
// and frames in backtrace_symbols' layout.
void expect_report(std::string const& err, std::vector<std::string> const& head, bool with_stack) {
    std::vector<std::string> const got = lines_of(err);
    ASSERT_GE(got.size(), head.size() + k_registers.size()) << err;
    size_t i = 0;
    for (; i < head.size(); ++i) {
        if (head[i].rfind("~", 0) == 0)
            EXPECT_TRUE(std::regex_match(got[i], std::regex(head[i].substr(1)))) << got[i] << " !~ " << head[i];
        else
            EXPECT_EQ(got[i], head[i]);
    }
    for (std::string const& r : k_registers) {
        std::string const re = std::regex_replace(r, std::regex("#"), "[0-9a-f]{16}");
        EXPECT_TRUE(std::regex_match(got[i], std::regex(re))) << got[i];
        ++i;
    }
    if (!with_stack) {
        EXPECT_EQ(got.size(), i) << err;
        return;
    }
    ASSERT_LT(i, got.size());
    EXPECT_EQ(got[i++], "Stack contains:");
    EXPECT_GE(got.size() - i, 3u) << err;
    std::regex const frame(" ([^ ].*\\(.*[+-](0x[0-9a-f]+|0)\\) |[^ ].*\\(\\) )?\\[0x[0-9a-f]+\\]");
    bool in_library = false;
    for (; i < got.size(); ++i) {
        EXPECT_TRUE(std::regex_match(got[i], frame)) << got[i];
        in_library |= got[i].find("libqvlkern.so") != std::string::npos;
    }
    EXPECT_TRUE(in_library) << err;
}

void null_write() {
    volatile int* volatile p = nullptr;
    *p = 1;
}

volatile int s_zero = 0;

struct fault_t {
    char const* name;
    int signo;
    bool with_stack;
    std::function<void()> fault;
    bool from_parent;  // the parent sends the signal once the child is ready
};

}  // namespace

TEST(fatal_signal, report_and_death_for_each_fault) {
#if defined(QVLKERN_SANITIZED)
    if (!std::getenv("QVLKERN_FAULTS_UNDER_SANITIZER")) GTEST_SKIP() << "sanitizers install their own fault handlers";
#endif
    std::string const uid = std::to_string(getuid());
    fault_t const faults[] = {
        {"null write", SIGSEGV, true, null_write, false},
        {"kill -ILL", SIGILL, false, [] { for (;;) pause(); }, true},
        {"abort", SIGABRT, false, [] { abort(); }, false},
        {"division by zero", SIGFPE, false, [] { std::printf("%d", 7 / s_zero); }, false},
        {"raise SIGBUS", SIGBUS, true, [] { raise(SIGBUS); }, false},
    };
    for (fault_t const& f : faults) {
        SCOPED_TRACE(f.name);
        child_t const c = run_child(
            [&f] {
                unixtrap(f.with_stack);
                signal_ready();
                f.fault();
            },
            [&f](pid_t pid) { if (f.from_parent) kill(pid, f.signo); });
        ASSERT_EQ(c.status, 128 + f.signo) << c.err;
        std::vector<std::string> const lines = lines_of(c.err);
        ASSERT_FALSE(lines.empty());
        std::string const child = lines[0].substr(4, lines[0].find(' ', 4) - 4), me = std::to_string(getpid());
        std::string const head = "pid " + child + " \"" + sigdescr_np(f.signo) + "\"";
        std::string const tkill = "signo=" + std::to_string(f.signo) + " errno=0 code=-6 from kernel #-6";
        std::string const self = "signal from PID " + child + " UID " + uid + ", value 0000000000000000:0";
        std::string const at = "\" ocurred at address ";
        switch (f.signo) {
        case SIGSEGV:
            expect_report(c.err, {head, "signo=11 errno=0 code=1 from unknown #1",
                                  "\"address not mapped to object" + at + "0000000000000000"}, true);
            break;
        case SIGILL:  // the address is the union's sender fields read as one
            expect_report(c.err, {head, "signo=4 errno=0 code=0 from kill()",
                                  "signal from PID " + me + " UID " + uid + ", value 0000000000000000:0",
                                  "\"unknown SIGILL #0" + at +
                                      hex16(std::stoull(me) | std::stoull(uid) << 32)}, false);
            break;
        case SIGABRT:
            expect_report(c.err, {head, tkill, self, "no more information about unknown signal #6"}, false);
            break;
        case SIGFPE:
            expect_report(c.err, {head, "signo=8 errno=0 code=1 from unknown #1",
                                  "~\"integer divide by zero" + at + "[0-9a-f]{16}"}, false);
            break;
        case SIGBUS:
            expect_report(c.err, {head, tkill, self,
                                  "\"unknown SIGBUS #-6" + at + hex16(std::stoull(child) | std::stoull(uid) << 32)},
                          true);
            break;
        }
    }
}

// Threads that fault together, or while another thread holds the allocator or stdio busy: one report,
// death by the fault, never a hang.
TEST(fatal_signal, one_report_whatever_the_other_threads_do) {
#if defined(QVLKERN_SANITIZED)
    if (!std::getenv("QVLKERN_FAULTS_UNDER_SANITIZER")) GTEST_SKIP() << "sanitizers install their own fault handlers";
#endif
    struct scene_t {
        char const* name;
        int runs;
        std::function<void(std::atomic<long>&)> busy;  // counts its progress
        int faulting_threads;
    };
    scene_t const scenes[] = {
        {"malloc and free in a tight loop", 100,
         [](std::atomic<long>& n) {
             for (size_t i = 1;; ++i) {
                 void* volatile p = malloc(1 + (i * 7919) % 70000);
                 free(p);
                 n.fetch_add(1, std::memory_order_relaxed);
             }
         }, 1},
        {"stderr's stream locked", 5,
         [](std::atomic<long>& n) {
             flockfile(stderr);
             n = 1000;
             for (;;) pause();
         }, 1},
        {"two threads faulting at once", 20, [](std::atomic<long>& n) { n = 1000; for (;;) pause(); }, 2},
    };
    for (scene_t const& s : scenes) {
        for (int run = 0; run < s.runs; ++run) {
            SCOPED_TRACE(std::string(s.name) + ", run " + std::to_string(run));
            child_t const c = run_child([&s] {
                kern_n::seh_translator_t::dumper = [](siginfo_t*, void*) { (void)!write(2, "dumper\n", 7); };
                unixtrap(true);
                std::atomic<long> progress(0);
                std::atomic<bool> go(false);
                std::thread(s.busy, std::ref(progress)).detach();
                while (progress.load() < 1000) std::this_thread::yield();  // the busy thread is at it
                for (int t = 1; t < s.faulting_threads; ++t)
                    std::thread([&go] { while (!go) {} null_write(); }).detach();
                go = true;
                null_write();
            });
            ASSERT_EQ(c.status, 128 + SIGSEGV) << c.err;  // -1: hung
            std::vector<std::string> const lines = lines_of(c.err);
            ASSERT_GE(lines.size(), 2u) << c.err;
            EXPECT_EQ(lines[0], "dumper");
            size_t reports = 0;
            for (std::string const& l : lines) reports += l.rfind("pid ", 0) == 0;
            EXPECT_EQ(reports, 1u) << c.err;
            if (HasFailure()) return;
        }
    }
}

// The frame texts are backtrace_symbols' own: in the main program, in this library, in the C library, in
// no module at all, and at a module's very start.
TEST(fatal_signal, frame_texts_match_backtrace_symbols) {
    void* frames[64];
    int n = backtrace(frames, 64);
    std::vector<void*> addresses(frames, frames + n);
    int local = 0;
    for (void* p : {reinterpret_cast<void*>(&unixtrap), reinterpret_cast<void*>(&printf),
                    reinterpret_cast<void*>(reinterpret_cast<char*>(&printf) + 3),
                    static_cast<void*>(&local), static_cast<void*>(nullptr)})
        addresses.push_back(p);
    char** const texts = backtrace_symbols(addresses.data(), static_cast<int>(addresses.size()));
    ASSERT_NE(texts, nullptr);
    for (size_t i = 0; i < addresses.size(); ++i) {
        char buf[512];
        size_t const len = kern::signal::frame_text(addresses[i], buf, sizeof buf);
        EXPECT_EQ(std::string(buf), texts[i]) << i;
        EXPECT_EQ(len, std::strlen(texts[i]));
        char small[8];  // cut, still terminated, full length answered
        EXPECT_EQ(kern::signal::frame_text(addresses[i], small, sizeof small), len);
        EXPECT_EQ(std::string(small), std::string(texts[i]).substr(0, 7));
    }
    free(texts);
}

TEST(fatal_signal, signal_names) {
    struct { int signo; char const* name; } const cases[] = {
        {SIGSEGV, "Segmentation fault"}, {SIGILL, "Illegal instruction"}, {SIGPWR, "Power failure"},
        {70, "SIG#70"}, {65, "SIG#65"}, {-1, "SIG#4294967295"}, {34, "SIG#34"},
    };
    for (auto const& c : cases) EXPECT_STREQ(q_signalname(c.signo), c.name) << c.signo;
    char const* const a = q_signalname(70);
    EXPECT_EQ(a, q_signalname(71));  // one buffer, overwritten
    EXPECT_STREQ(a, "SIG#71");
}

// Nested switches: only the outermost one's end sends SIGCHLD, seen pending while it is blocked.
TEST(fatal_signal, do_not_wait_on_sigchild_sends_once_at_the_outermost_end) {
    child_t const c = run_child([] {
        sigset_t chld, pending;
        sigemptyset(&chld);
        sigaddset(&chld, SIGCHLD);
        sigprocmask(SIG_BLOCK, &chld, nullptr);
        auto is_pending = [&] { sigpending(&pending); return sigismember(&pending, SIGCHLD) == 1; };
        std::string trace;
        trace += kern::signal::do_not_wait_on_sigchild::enabled() ? "E" : "-";
        {
            kern::signal::do_not_wait_on_sigchild outer;
            {
                kern::signal::do_not_wait_on_sigchild inner;
                trace += std::to_string(kern::signal::ignore_sigchild.load());
                trace += kern::signal::do_not_wait_on_sigchild::enabled() ? "E" : "-";
            }
            trace += is_pending() ? "P" : "_";
            trace += std::to_string(kern::signal::ignore_sigchild.load());
        }
        trace += is_pending() ? "P" : "_";
        trace += kern::signal::do_not_wait_on_sigchild::enabled() ? "E" : "-";
        std::fputs(trace.c_str(), stderr);
    });
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.err, "E2-_1PE");
}
