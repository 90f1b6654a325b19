// Whole-file reading and writing: contents, modes, links, every failure text, descriptors.
#include "filestr.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "exceptions.h"
#include "test-support.h"

namespace {

std::string err(int code) { return std::string(std::strerror(code)) + " (errno=" + std::to_string(code) + ")"; }

using test_support::open_fds;
using scene_t = test_support::temp_dir_t;

// What a call throws: "<family> <what>" ("io_error", "noent", ...), or "ok".
std::string outcome(std::function<void()> const& call) {
    try {
        call();
        return "ok";
    } catch (q_exception_t_shell_t const& e) {
        std::string const type = e.type();
        return type.substr(0, type.find("_exception")) + " " + e.what();
    }
}

// A sink that runs a step before handing out its room.
struct sink_t : str_memreader_t {
    std::function<void()> before;
    explicit sink_t(std::string& s, std::function<void()> b = {}) : str_memreader_t(s), before(std::move(b)) {}
    char* extend(unsigned long n) const override {
        if (before) before();
        return str_memreader_t::extend(n);
    }
};

TEST(FileHelpers, ContentsRoundTripWhateverTheSize) {
    scene_t s;
    for (std::size_t n : {0ul, 1ul, 4095ul, 4096ul, 4097ul, (1ul << 20) + 3}) {
        std::string data(n, '\0');
        for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<char>(i * 7 + i / 251);
        lstr2file(s / "f", data, 0);
        std::string got("kept:");
        read_entire_file(got, (s / "f").c_str());
        EXPECT_EQ(got, "kept:" + data) << n;
        std::string part("p");
        if (n != 0) {
            read_file(str_memreader_t(part), (s / "f").c_str(), n / 2, n - n / 2);
            EXPECT_EQ(part, "p" + data.substr(n / 2)) << n;
        }
    }
    std::string comm;
    read_entire_file(comm, "/proc/self/comm");
    EXPECT_EQ(comm, "filestr_test\n");  // a size of 0 that is not the end
}

TEST(FileHelpers, ModesFlagsAndLinks) {
    scene_t s;
    mode_t const mask = umask(077);  // the mode is set, not left to the umask
    struct { int flags; mode_t before; char const* data; char const* want; mode_t mode; } const cases[] = {
        {0, 0666, "new", "new", 0644},
        {kern::file::private_mode, 0644, "new", "new", 0600},
        {kern::file::append, 0600, "+more", "old+more", 0644},
        {kern::file::append | kern::file::private_mode, 0644, "+more", "old+more", 0600},
        {kern::file::sync, 0644, "", "", 0644},
        {kern::file::sync | kern::file::append, 0, "", "", 0644},  // 0: no file before
    };
    for (auto const& c : cases) {
        std::string const f = s / "m";
        unlink(f.c_str());
        if (c.before) {
            lstr2file(f, "old", 0);
            chmod(f.c_str(), c.before);
        }
        lstr2file(f, c.data, c.flags);
        struct stat st;
        ASSERT_EQ(stat(f.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, c.mode) << c.flags;
        EXPECT_EQ(s.read("m"), c.want) << c.flags;
    }
    umask(mask);
    // Without append the old file is removed, not overwritten: a hard link keeps it.
    lstr2file(s / "m", "old", 0);
    ASSERT_EQ(link((s / "m").c_str(), (s / "keep").c_str()), 0);
    lstr2file(s / "m", "fresh", 0);
    EXPECT_EQ(s.read("keep"), "old");

    // A link is followed only when it is the writer's (or root's); another user's is refused.
    lstr2file(s / "target", "t", 0);
    ASSERT_EQ(symlink((s / "target").c_str(), (s / "own").c_str()), 0);
    ASSERT_EQ(symlink((s / "target").c_str(), (s / "foreign").c_str()), 0);
    ASSERT_EQ(lchown((s / "foreign").c_str(), 4242, 4242), 0);
    EXPECT_EQ(outcome([&] { lstr2file(s / "own", "+own", kern::file::append); }), "ok");
    EXPECT_EQ(outcome([&] { lstr2file(s / "foreign", "+x", kern::file::append); }),
              "io_error unable to open file \"" + s / "foreign" + "\" because of " + err(ELOOP));
    lstr2file(s / "foreign", "replaced", 0);  // the link itself goes
    EXPECT_EQ(s.read("target"), "t+own");
    EXPECT_EQ(s.read("foreign"), "replaced");

    lstr2file(s / "a/b/c.txt", "deep", kern::file::create_path);
    EXPECT_EQ(s.read("a/b/c.txt"), "deep");
    kern_n::create_path_to_file(s / "x/y/z.txt");  // creates x, then x/y
    struct stat st;
    EXPECT_TRUE(stat((s / "x/y").c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 0777) == (0755 & ~022));
}

TEST(FileHelpers, FailureTexts) {
    scene_t s;
    std::string const ten = s / "ten", dir = s / "d", gone = s / "gone", q = "\"";
    lstr2file(ten, "0123456789", 0);
    mkdir(dir.c_str(), 0755);
    std::string out;
    auto range = [&](unsigned long offset, unsigned long length, std::function<void()> before = {}) {
        return [=, &out] {
            out.clear();
            read_file(sink_t(out, before), ten.c_str(), offset, length);
        };
    };
    struct { std::function<void()> call; std::string want; } const cases[] = {
        {[&] { read_entire_file(out, gone.c_str()); },
         "io_error unable to open file \"" + gone + "\" for read because of " + err(ENOENT)},
        {[&] { read_entire_file(out, dir.c_str()); },
         "io_error unable to read file \"" + dir + "\" because of " + err(EISDIR)},
        {[&] { read_file(str_memreader_t(out), gone.c_str(), 0, 1); },
         "noent unable to open file \"" + gone + "\" because of " + err(ENOENT)},
        {[&] { read_file(str_memreader_t(out), (ten + "/x").c_str(), 0, 1); },
         "io_error unable to open file \"" + ten + "/x\" because of " + err(ENOTDIR)},
        {[&] { read_file(str_memreader_t(out), dir.c_str(), 0, ~0ul); },
         "io_error unable to read file \"" + dir + "\" because of " + err(EISDIR)},
        {range(4, 6), "ok"},
        {range(10, 0), "invalid_io_range read start point is out of file " + q + ten + q},
        {range(0, 11), "invalid_io_range unable to read after end of file " + q + ten + q},
        {range(4, ~0ul), "invalid_io_range unable to read after end of file " + q + ten + q},  // the size, not the rest
        {range(9, ~0ul - 5), "invalid_io_range unable to read after end of file " + q + ten + q},  // no wrap-around
        {range(0, 10, [&] { truncate(ten.c_str(), 4); }),  // shrinks between fstat and read
         "invalid_io_range short data has been readed from file " + q + ten + q},
        {range(0, 4, [] { throw std::bad_alloc(); }),
         "io_error unable to open file " + q + ten + q + " because of no enough memory to store entire file"},
        {range(0, 4, [] { throw std::runtime_error("sink broke"); }),
         "io_error unable to open file " + q + ten + q + " because of sink broke"},
        {[&] { lstr2file(dir, "x", 0); }, "io_error unable to open file \"" + dir + "\" because of " + err(EISDIR)},
        {[&] { lstr2file(s / "no/f", "x", 0); },
         "io_error unable to open file \"" + s / "no/f" + "\" because of " + err(ENOENT)},
        {[&] { lstr2file(ten + "/f", "x", kern::file::create_path); },
         "io_error unable to open file \"" + ten + "/f\" because of " + err(ENOTDIR)},
        {[&] { kern_n::create_path_to_file("plain.txt"); }, "dir_create unable to create path because of parse failed"},
        {[&] { kern_n::create_path_to_file("/root.txt"); }, "dir_create unable to create path because of parse failed"},
        {[&] { kern_n::create_path_to_file(dir + "/f"); },
         "dir_create unable to create directory <" + dir + "> because of " + err(EEXIST)},
        {[&] { kern_n::create_path_to_file(ten + "/a/f"); },
         "dir_create unable to create directory <" + ten + "/a> because of " + err(ENOTDIR)},
    };
    for (auto const& c : cases) {
        out = "before";
        EXPECT_EQ(outcome(c.call), c.want);
    }
    out = "before";
    outcome(cases[1].call);  // a failed whole-file read leaves the string as it was
    EXPECT_EQ(out, "before");

    // A size above 32 bits is refused when the whole file is asked for.
    ASSERT_EQ(truncate(ten.c_str(), 5l << 30), 0);
    EXPECT_EQ(outcome(range(0, ~0ul)), "io_error file " + q + ten + q + " is too big to read");
}

// A writer whose reader goes away gets an error, not SIGPIPE; the mask and
// pending set are as they were. In a child: a missed signal would end it.
TEST(FileHelpers, PipeWithoutReaderRaisesNoSignal) {
    scene_t s;
    std::string const fifo = s / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    test_support::expect_child_ok([&] {
        std::thread reader([&] {  // takes one byte, then leaves
            int const fd = open(fifo.c_str(), O_RDONLY | O_CLOEXEC);
            char c;
            while (read(fd, &c, 1) != 1) continue;
            close(fd);
        });
        std::string const got = outcome([&] { lstr2file(fifo, std::string(1 << 20, 'p'), kern::file::append); });
        reader.join();
        sigset_t mask, pending;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        sigpending(&pending);
        bool const clean = !sigismember(&mask, SIGPIPE) && !sigismember(&pending, SIGPIPE);
        return got == "io_error short data has been written into file \"" + fifo + "\"" && clean ? 0 : 1;
    });
}

// A full disk and a read-only one, on a private 64 KiB tmpfs.
TEST(FileHelpers, FullAndReadOnlyFileSystem) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a private tmpfs";
    if (!test_support::in_child()) return;
    scene_t s;
    if (!test_support::private_mounts(s.path.c_str())) GTEST_SKIP() << "cannot mount a private tmpfs: " << std::strerror(errno);
    std::string const big = s / "big", small = s / "small", q = "\"";
    EXPECT_EQ(outcome([&] { lstr2file(big, std::string(100 << 10, 'b'), 0); }),
              "io_error short data has been written into file " + q + big + q);
    EXPECT_EQ(outcome([&] { lstr2file(small, "s", 0); }),
              "io_error unable to write into file " + q + small + q + " because of " + err(ENOSPC));
    ASSERT_EQ(mount(nullptr, s.path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(outcome([&] { lstr2file(big, "b", 0); }),
              "io_error unable to open file " + q + big + q + " because of " + err(EROFS));
    EXPECT_EQ(outcome([&] { lstr2file(s / "x/y/f", "f", kern::file::create_path); }),
              "io_error unable to open file " + q + s / "x/y/f" + q + " because of unable to create directory <" +
                  s / "x" + "> because of " + err(EROFS));
    EXPECT_EQ(s.read("big").size(), 64u << 10);  // what fitted stays
    umount(s.path.c_str());
}

// Every helper, succeeding and failing, 10,000 times: no descriptor is left behind.
TEST(FileHelpers, NoDescriptorGrowth) {
    scene_t s("/dev/shm");  // a disk's journal makes 10,000 directories slow
    std::string const f = s / "f", gone = s / "gone/f", sub = s / "sub/f";
    lstr2file(f, "0123456789", 0);
    int const before = open_fds();
    std::string out;
#ifdef __SANITIZE_THREAD__
    int const rounds = 1000;  // the thread sanitizer maps fresh memory for every exception thrown
#else
    int const rounds = 10000;
#endif
    for (int i = 0; i < rounds; ++i) {
        lstr2file(f, "0123456789", i % 2 ? kern::file::append | kern::file::sync * (i % 1000 == 1) : 0);
        outcome([&] { lstr2file(gone, "x", 0); });
        lstr2file(sub, "x", kern::file::create_path);
        outcome([&] { lstr2file(s.path, "x", kern::file::append); });
        out.clear();
        read_entire_file(out, f.c_str());
        outcome([&] { read_entire_file(out, gone.c_str()); });
        read_file(str_memreader_t(out), f.c_str(), 1, 2);
        outcome([&] { read_file(str_memreader_t(out), f.c_str(), 100, 2); });
        outcome([&] { read_file(sink_t(out, [] { throw std::bad_alloc(); }), f.c_str(), 0, 2); });
        outcome([&] { kern_n::create_path_to_file(sub); });
        unlink(sub.c_str());
        rmdir((s / "sub").c_str());
    }
    EXPECT_EQ(open_fds(), before);
}

}  // namespace
