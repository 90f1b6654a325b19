// File system state: free space and nodes on a tmpfs of known size, file size, the temporary directory.
#include "fs-stat.h"

#include <cerrno>
#include <cstring>

#include "test-support.h"

namespace {

using test_support::in_child;
using test_support::private_mounts;

TEST(FsStat, SpaceNodesAndFileSize) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a private tmpfs";
    if (!in_child()) return;
    if (!private_mounts("/mnt", "size=64k,nr_inodes=16"))
        GTEST_SKIP() << "cannot mount a private tmpfs: " << std::strerror(errno);
    q_uint64_t avail = 0, nodes = 0, again = 0;
    ASSERT_TRUE(kern_n::fs_stat("/mnt", &avail, &nodes));
    EXPECT_EQ(avail, 64u << 10);
    int const fd = open("/mnt/f", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(write(fd, "x", 1), 1);
    ASSERT_TRUE(kern_n::fs_stat("/mnt/f", &again, nullptr));  // any path inside it
    EXPECT_EQ(again, avail - 4096);
    ASSERT_TRUE(kern_n::fs_stat("/mnt", nullptr, &again));
    EXPECT_EQ(again, nodes - 1);
    EXPECT_TRUE(kern_n::fs_stat("/mnt", nullptr, nullptr));
    EXPECT_FALSE(kern_n::fs_stat("/mnt/missing/x", &avail, &nodes));

    struct stat st;
    for (unsigned long size : {8192ul, 3ul, 0ul}) {
        EXPECT_EQ(kern_n::change_file_size(fd, size), 0);
        EXPECT_TRUE(fstat(fd, &st) == 0 && st.st_size == off_t(size)) << size;
    }
    close(fd);
    EXPECT_EQ(kern_n::change_file_size(fd, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

// In a root of its own: the variables first, then the fixed list, directories only.
TEST(FsStat, TempDirOrder) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a root of its own";
    if (!in_child()) return;
    // /proc stays reachable: the sanitizers read it at exit.
    if (!private_mounts("/mnt") || mkdir("/mnt/proc", 0755) != 0 ||
        mount("/proc", "/mnt/proc", nullptr, MS_BIND | MS_REC, nullptr) != 0 || chroot("/mnt") != 0 || chdir("/") != 0)
        GTEST_SKIP() << "cannot make a private root: " << std::strerror(errno);
    struct { char const* temp; char const* tmp; char const* make; char const* want; } const steps[] = {
        {"/t1", "/t2", nullptr, "/t1"}, {nullptr, "/t2", nullptr, "/t2"}, {"", "/t2", nullptr, "/t2"},
        {"", "", nullptr, "."}, {nullptr, nullptr, "/usr/tmp", "/usr/tmp"},
        {nullptr, nullptr, "/tmp=", "/usr/tmp"},  // a file named /tmp is no directory
        {nullptr, nullptr, "/tmp", "/tmp"}, {nullptr, nullptr, "/var/tmp", "/var/tmp"},
    };
    for (auto const& c : steps) {
        c.temp ? setenv("TEMP", c.temp, 1) : unsetenv("TEMP");
        c.tmp ? setenv("TMP", c.tmp, 1) : unsetenv("TMP");
        std::string const make = c.make ? c.make : "";
        if (!make.empty() && make.back() == '=') {
            close(open(make.substr(0, make.size() - 1).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        } else if (!make.empty()) {
            unlink(make.c_str());
            mkdir(make.substr(0, make.rfind('/')).c_str(), 0755);
            ASSERT_EQ(mkdir(make.c_str(), 0755), 0) << make;
        }
        EXPECT_STREQ(kern_n::temp_dir(), c.want) << make;
    }
}

}  // namespace
