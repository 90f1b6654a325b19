// Allocation wrappers: the counting rules, this program's and a loaded module's allocations
// reaching them, the bootstrap and the fatal lookup, allocator tuning, the memory map and the
// arena figures.
#include "unx-utils-alloc.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "code-exec-time.h"
#include "exceptions.h"
#include "loggers.h"
#include "test-support.h"

using testing::HasSubstr;
using testing::MatchesRegex;
namespace s = kern::alloc::stat;

namespace {

std::string const plugins = QVLKERN_EXAMPLES_BINARY_DIR "/plugins";

// Called through volatile pointers, so that the compiler keeps every call (it may drop a
// malloc whose block is only freed).
void* (*volatile do_malloc)(size_t) = malloc;
void* (*volatile do_calloc)(size_t, size_t) = calloc;
void* (*volatile do_realloc)(void*, size_t) = realloc;
void* (*volatile do_memalign)(size_t, size_t) = memalign;
void (*volatile do_free)(void*) = free;
size_t usable(void* p) { return malloc_usable_size(p); }

// The process's first calloc, made before any library's initialiser runs.
void* s_first_calloc = &s_first_calloc;
void first_calloc(int, char**, char**) { s_first_calloc = calloc(1, 16); }
__attribute__((section(".preinit_array"), used)) void (*const s_preinit)(int, char**, char**) = first_calloc;

// Every counter, the named ones first, then the 32 buckets.
enum { mcalls, msize, mtime, rcalls, rtime, acalls, asize, atime, fcalls, fsize, ftime, bucket0, count = bucket0 + 32 };
struct counts_t {
    q_uint64_t v[count] = {};
    q_uint64_t& operator[](int i) { return v[i]; }
    void bucket(size_t size, int n = 1) {  // by the histogram's bounds, as the wrappers should
        int i = 0;
        for (q_uint64_t bound = 1; i < 32 && bound < size; bound *= 2) ++i;
        if (i < 32) v[bucket0 + i] += n;
    }
};
counts_t now() {
    s::counter_t const* const named[] = {&s::malloc::calls,   &s::malloc::size,   &s::malloc::time,
                                         &s::realloc::calls,  &s::realloc::time,  &s::memalign::calls,
                                         &s::memalign::size,  &s::memalign::time, &s::free::calls,
                                         &s::free::size,      &s::free::time};
    counts_t c;
    for (int i = 0; i < bucket0; ++i) c[i] = named[i]->load();
    for (int i = 0; i < 32; ++i) c[bucket0 + i] = s::sizes::malloc[i];
    return c;
}
counts_t operator-(counts_t a, counts_t const& b) {
    for (int i = 0; i < count; ++i) a[i] -= b.v[i];
    return a;
}

using test_support::child_t;
using test_support::run_child;

// In a child: the process logger on standard output at the given level.
void log_to_stdout(int level) {
    if_logger_t::Log = fd_logger_t::create(1);
    if_logger_t::Log->set_level(level);
}

// The sanitizers' run-times answer mallopt and mallinfo2 themselves (the C library's
// allocator, whose figures the tests check, is not the one in use) and need descriptors of
// their own.
#ifdef QVLKERN_SANITIZED
bool const sanitized = true;
#else
bool const sanitized = false;
#endif

#define SKIP_UNLESS_WRAPPED() \
    if (!kern::alloc::wrapped()) GTEST_SKIP() << "built without the allocation wrappers"

}  // namespace

// Each call measured alone, with statistics off, on the thread's clock and on the monotonic
// clock: calls and sizes always, the histogram only while statistics are on.
TEST(alloc, counting_rules) {
    SKIP_UNLESS_WRAPPED();
    struct {
        char const* what;
        size_t before;  // a block of this size made before the call, handed to it
        void* (*call)(void* block, counts_t& want);  // answers what to free afterwards
    } const rules[] = {
        {"malloc", 0, [](void*, counts_t& w) {
             void* p = do_malloc(100);
             return w[mcalls] = 1, w[msize] = usable(p), w.bucket(usable(p)), p; }},
        {"malloc of 2^31, usable beyond it: in no bucket", 0, [](void*, counts_t& w) {
             void* p = do_malloc(size_t(1) << 31);
             EXPECT_TRUE(!p || usable(p) > size_t(1) << 31);
             return w[mcalls] = 1, w[msize] = usable(p), p; }},
        {"calloc", 0, [](void*, counts_t& w) {
             char* p = static_cast<char*>(do_calloc(10, 10));
             EXPECT_TRUE(p && std::count(p, p + 100, '\0') == 100);  // nothing allocated to check
             return w[mcalls] = 1, w[msize] = usable(p), w.bucket(usable(p)), static_cast<void*>(p); }},
        {"calloc overflowing size_t", 0, [](void*, counts_t& w) {
             errno = 0;
             void* p = do_calloc(SIZE_MAX / 2, 4);
             EXPECT_TRUE(p == nullptr && errno == ENOMEM);
             return w[mcalls] = 1, p; }},
        {"realloc to a smaller size: bucket by the 10 asked for", 100, [](void* b, counts_t& w) {
             w[fsize] = usable(b);
             void* p = do_realloc(b, 10);
             return w[rcalls] = 1, w[msize] = usable(p), w[bucket0 + 4] = 1, p; }},
        {"realloc of null", 0, [](void*, counts_t& w) {
             void* p = do_realloc(nullptr, 17);
             return w[rcalls] = 1, w[msize] = usable(p), w[bucket0 + 5] = 1, p; }},
        {"realloc of null to 2^31: the last bucket", 0, [](void*, counts_t& w) {
             void* p = do_realloc(nullptr, size_t(1) << 31);
             return w[rcalls] = 1, w[msize] = usable(p), w[bucket0 + 31] = p ? 1 : 0, p; }},
        {"realloc to 1: the first bucket", 100, [](void* b, counts_t& w) {
             w[fsize] = usable(b);
             void* p = do_realloc(b, 1);
             return w[rcalls] = 1, w[msize] = usable(p), w[bucket0] = 1, p; }},
        {"realloc to 0 frees", 100, [](void* b, counts_t& w) {
             w[fsize] = usable(b);
             void* p = do_realloc(b, 0);
             EXPECT_EQ(p, nullptr);
             return w[rcalls] = 1, p; }},
        {"memalign", 0, [](void*, counts_t& w) {
             void* p = do_memalign(256, 100);
             EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 256, 0u);
             return w[acalls] = 1, w[asize] = usable(p), w.bucket(usable(p)), p; }},
        {"free", 100, [](void* b, counts_t& w) {
             w[fcalls] = 1, w[fsize] = usable(b);
             return do_free(b), static_cast<void*>(nullptr); }},
        {"free of null", 0, [](void*, counts_t& w) {
             return do_free(nullptr), w[fcalls] = 1, static_cast<void*>(nullptr); }},
        {"strdup, inside the C library", 0, [](void*, counts_t& w) {
             char* p = strdup("reaches the wrapper");
             return w[mcalls] = 1, w[msize] = usable(p), w.bucket(usable(p)), static_cast<void*>(p); }},
        {"new and delete, inside the C++ library", 0, [](void*, counts_t& w) {
             long* p = new long[3];
             w[mcalls] = w[fcalls] = 1, w[msize] = w[fsize] = usable(p), w.bucket(usable(p));
             return delete[] p, static_cast<void*>(nullptr); }},
        {"posix_memalign: not wrapped", 0, [](void*, counts_t&) {
             void* p = nullptr;
             EXPECT_EQ(posix_memalign(&p, 64, 100), 0);
             return p; }},
    };
    for (kern::runtime::stat::mode_t mode : {0, 1, 2}) {
        for (auto const& r : rules) {
            void* block = r.before ? do_malloc(r.before) : nullptr;
            counts_t want;
            kern::runtime::stat::mode_s_ = mode;
            counts_t const before = now();
            void* const left = r.call(block, want);
            counts_t got = now() - before;
            kern::runtime::stat::mode_s_ = 0;
            do_free(left);
            for (int t : {mtime, rtime, atime, ftime}) {
                EXPECT_TRUE(mode != 0 || got[t] == 0) << r.what << ": a time while statistics are off";
                got[t] = 0;
            }
            if (mode == 0) std::fill(want.v + bucket0, want.v + count, 0);
            for (int i = 0; i < count; ++i)
                EXPECT_EQ(got[i], want[i]) << r.what << ", mode " << mode << ", counter " << i;
        }
    }
}

// With statistics on, each wrapper adds its time, on either clock.
TEST(alloc, times_while_statistics_are_on) {
    SKIP_UNLESS_WRAPPED();
    for (kern::runtime::stat::mode_t mode : {1, 2}) {
        kern::runtime::stat::mode_s_ = mode;
        counts_t const before = now();
        for (int i = 0; i < 100; ++i) do_free(do_realloc(do_memalign(64, 64), 200));
        for (int i = 0; i < 100; ++i) do_free(do_calloc(2, 32));
        counts_t got = now() - before;
        kern::runtime::stat::mode_s_ = 0;
        for (int t : {mtime, rtime, atime, ftime}) EXPECT_GT(got[t], 0u) << "mode " << mode << ", counter " << t;
    }
}

// Threads count into slots of their own, more threads than there are slots among them, and
// not one count is lost.
TEST(alloc, counts_of_many_threads_are_exact) {
    SKIP_UNLESS_WRAPPED();
    int const threads = 140, pairs = 300;
    std::atomic<int> ready(0), done(0);
    std::atomic<bool> go(false);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            do_free(do_malloc(1));  // claims the thread's slot before the measure
            ready.fetch_add(1);
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < pairs; ++i) do_free(do_malloc(static_cast<size_t>(16 + t + i)));
            done.fetch_add(1);
            while (go.load()) std::this_thread::yield();  // allocates nothing until measured
        });
    while (ready.load() < threads) std::this_thread::yield();
    counts_t const before = now();
    go.store(true);
    while (done.load() < threads) std::this_thread::yield();
    counts_t const got = now() - before;
    go.store(false);
    for (auto& t : pool) t.join();
    EXPECT_EQ(got.v[mcalls], static_cast<q_uint64_t>(threads * pairs));
    EXPECT_EQ(got.v[fcalls], got.v[mcalls]);
    EXPECT_EQ(got.v[fsize], got.v[msize]);
    EXPECT_GE(got.v[msize], static_cast<q_uint64_t>(threads * pairs * 24));
}

// A module loaded with dlopen knows nothing of the library; its malloc is the library's.
TEST(alloc, a_loaded_module_allocates_through_the_wrappers) {
    SKIP_UNLESS_WRAPPED();
    void* const module = dlopen((plugins + "/libqvlplug_alloc.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    auto const churn = reinterpret_cast<size_t (*)(unsigned, size_t)>(dlsym(module, "qvlplug_churn"));
    ASSERT_NE(churn, nullptr);
    counts_t const before = now();
    size_t const pairs = churn(50, 64);
    counts_t const got = now() - before;
    EXPECT_EQ(got.v[mcalls], 51u);  // and the calloc
    EXPECT_EQ(got.v[rcalls], 1u);
    EXPECT_EQ(got.v[fcalls], 51u);
    EXPECT_EQ(got.v[msize], got.v[fsize]);  // all given back
    EXPECT_GT(got.v[msize], pairs);
    dlclose(module);
}

// This program's malloc is the library's, and the first calloc of the process, made before
// any malloc, answered null.
TEST(alloc, this_program_and_the_bootstrap) {
    SKIP_UNLESS_WRAPPED();
    void* const library = dlopen("libqvlkern.so.1", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "malloc"), dlsym(library, "malloc"));
    EXPECT_EQ(reinterpret_cast<void*>(&calloc), dlsym(library, "calloc"));
    dlclose(library);
    EXPECT_EQ(s_first_calloc, nullptr);
    void* const p = do_calloc(1, 16);
    EXPECT_NE(p, nullptr);
    do_free(p);
}

// When the C library's functions cannot be found, the first allocation ends the process.
TEST(alloc, a_missing_allocator_is_fatal) {
    SKIP_UNLESS_WRAPPED();
    std::string const shim = plugins + "/libqvlkern_lookup_shim.so";
    child_t const c = run_child([&] {
        setenv("LD_PRELOAD", shim.c_str(), 1);
        return execl("/proc/self/exe", "unx-utils-alloc_test", "--gtest_filter=none", nullptr), 127;
    });
    EXPECT_EQ(c.status, 64175 & 0xff);
    EXPECT_THAT(c.err, MatchesRegex("\r\n\\$\\$\\$\\$ name \"malloc\" not found in glibc "
                                    "because of [^\r\n]+ \\$\\$\\$\\$\\$\r\n\r\n"));
}

// QVLSRV_MALLOC_MMAP: "on" and "off" in any case; anything else changes nothing. Whether a
// block is mapped shows in mallinfo2's figures; the allocator maps only what neither its free
// blocks nor the top of its heap can hold, so those are used up first.
TEST(alloc, setup_from_the_environment) {
    auto mapped = [](size_t size) {
        for (;;) {
            for (size_t top; (top = mallinfo2().keepcost) >= 8192;) do_malloc(top - 4096);
            struct mallinfo2 const before = mallinfo2();
            do_malloc(size);
            struct mallinfo2 const after = mallinfo2();
            if (after.hblks > before.hblks) return 'm';
            if (after.arena > before.arena) return 'h';  // the heap grew instead
        }  // else it was a free block: again
    };
    std::string const on = "[Linux] Allocation mapping is set to 8K threshold and 131070 blocks",
                      off = "[Linux] Allocation mapping is set to 2097151K threshold and 0 blocks",
                      same = "[Linux] Allocation mapping is left unchanged";
    // small: 16 KiB (below the default threshold), big: 64 MiB (above it)
    struct { char const* value; std::string message; char const* small_big; } const cases[] = {
        {nullptr, same, "hm"}, {"on", on, "mm"}, {"ON", on, "mm"}, {"oN", on, "mm"}, {"off", off, "hh"},
        {"Off", off, "hh"}, {"yes", same, "hm"}, {"", same, "hm"}, {"1", same, "hm"}, {"on ", same, "hm"},
    };
    for (auto const& c : cases) {
        child_t const r = run_child([&] {
            if (c.value) setenv("QVLSRV_MALLOC_MMAP", c.value, 1); else unsetenv("QVLSRV_MALLOC_MMAP");
            int const rc = qvl_malloc_setup();
            log_to_stdout(if_logger_t::INFO);
            qvl_malloc_setup_info();
            qvl_malloc_setup_info();  // wiped: logs nothing
            if (!sanitized) std::printf("rc=%d %c%c\n", rc, mapped(16384), mapped(64 << 20));
        });
        EXPECT_EQ(r.status, 0);
        std::string const effect = !sanitized ? "rc=1 " + std::string(c.small_big) + "\n" : "";
        EXPECT_THAT(r.out, HasSubstr(c.message + "\n" + effect)) << (c.value ? c.value : "unset");
        EXPECT_EQ(r.out.find("[Linux]"), r.out.rfind("[Linux]")) << r.out;
    }
    EXPECT_EQ(run_child([] {
                  log_to_stdout(if_logger_t::INFO);
                  qvl_malloc_setup_info();  // never set up: nothing
              }).out, "");
}

// The memory map at TRACE_3 with compact sizes in KiB; nothing below that level.
TEST(alloc, memory_map) {
    // Read-only mappings between inaccessible gaps, so that none merges with a neighbour.
    size_t const kib[] = {4, 10240, 10244, 65536, 20971520}, gap = 4096;
    std::string const sizes[] = {"     4KB", " 10240KB", "   10KKB", "   64KKB", "   20MKB"};
    size_t total = gap;
    for (size_t k : kib) total += (k << 10) + gap;
    int const anonymous = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    char* const area = static_cast<char*>(mmap(nullptr, total, PROT_NONE, anonymous, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    std::vector<std::string> ranges;
    char* at = area + gap;
    for (size_t k : kib) {
        ASSERT_EQ(mprotect(at, k << 10, PROT_READ), 0);
        char range[64];
        std::snprintf(range, sizeof range, "%08lx-%08lx", reinterpret_cast<unsigned long>(at),
                      reinterpret_cast<unsigned long>(at + (k << 10)));
        ranges.push_back(range);
        at += (k << 10) + gap;
    }
    // A mapped file that is gone since: the further field after a colon.
    std::string const gone = "/tmp/alloc_test_map." + std::to_string(getpid());
    int const fd = open(gone.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_TRUE(fd >= 0 && ftruncate(fd, 8192) == 0);
    void* const file = mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(file, MAP_FAILED);
    close(fd);
    unlink(gone.c_str());

    std::string const out = run_child([] {
        log_to_stdout(if_logger_t::TRACE_3);
        kern_n::linux_print_map();
    }).out;
    EXPECT_THAT(out, HasSubstr("[Map] Current memory layout\n"));
    for (size_t i = 0; i < ranges.size(); ++i)
        EXPECT_THAT(out, HasSubstr("[Map] " + ranges[i] + " r--p " + sizes[i] + " \n"));
    EXPECT_THAT(out, HasSubstr("KB " + gone + ":(deleted)\n"));
    size_t lines = 0;
    for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1, ++lines)
        if (lines > 0) {
            EXPECT_THAT(out.substr(at, end - at),
                        MatchesRegex(".*\\[Map\\] [0-9a-f]+-[0-9a-f]+ [-r][-w][-x][ps] +[0-9]+[KM]?KB .*"));
        }
    EXPECT_GT(lines, ranges.size() + 2);
    EXPECT_EQ(run_child([] {
                  log_to_stdout(if_logger_t::TRACE_2);
                  kern_n::linux_print_map();
              }).out, "");
    munmap(file, 8192);
    munmap(area, total);
}

// The arena figures come from a forked child through a pipe; the parent's failures are logged.
TEST(alloc, arena_figures) {
    std::vector<void*> blocks;  // mapped blocks that the report must show
    for (int i = 0; i < 3; ++i) blocks.push_back(do_malloc(1 << 20));
    std::string const out = run_child([] {
        log_to_stdout(if_logger_t::INFO);
        kern_n::linux_print_malloc_info();
    }).out;
    for (void* p : blocks) do_free(p);
    std::string const held = !sanitized ? "[0-9]{4,}K mmaped, [0-9]+ free chunks, [3-9]"  // the three blocks
                                             : "[0-9]+K mmaped, [0-9]+ free chunks, [0-9]+";
    EXPECT_THAT(out, MatchesRegex(".*\\[Linux\\] Main arena: [0-9]+K allocated, " + held + " mapped blocks\n.*"
                                  "\\[Linux\\] Main arena: [0-9]+K used, [0-9]+K unused space, [0-9]+K can be "
                                  "returned\n"));
    if (!sanitized) {  // their run-times would fail first
        std::string const no_pipe = run_child([] {
            log_to_stdout(if_logger_t::INFO);
            rlimit const few = {3, 3};  // standard input, output and error only
            setrlimit(RLIMIT_NOFILE, &few);
            kern_n::linux_print_malloc_info();
        }).out;
        EXPECT_THAT(no_pipe, HasSubstr("[Linux] Unable to create pipe because of " + std::string(strerror(EMFILE)) +
                                       " (errno=24)\n"));
    }

    // The parent's reading of a report, line by line.
    std::string const ended = "[Linux] Unable to read from pipe because of " + std::string(strerror(EPIPE)) +
                              " (errno=32)";
    struct { std::string report; bool kilobytes; std::string answer; } const lines[] = {
        {"arena 2048\n", true, "2"}, {"arena 2048\n", false, "2048"}, {"hblks 7\nrest", false, "7"},
        {"", false, ended}, {"arena 2048", false, ended},
        {"arena x\n", false, "number"},
    };
    for (auto const& l : lines) {
        int p[2];
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        ASSERT_EQ(write(p[1], l.report.data(), l.report.size()), static_cast<ssize_t>(l.report.size()));
        close(p[1]);
        std::string answer;
        try {
            answer = std::to_string(kern_n::linux_malloc_info_read_line(p[0], l.kilobytes));
        } catch (io_error_exception_shell_t const& e) {
            answer = e.what();
        } catch (number_format_exception_shell_t const&) {
            answer = "number";
        }
        close(p[0]);
        EXPECT_EQ(answer, l.answer) << l.report;
    }
}
