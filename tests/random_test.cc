// ISAAC against a reference computation, shared generators, and identifiers.
#include "random.h"

#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <gmock/gmock.h>

#include "syncers.h"
#include "test-support.h"

namespace {

typedef std::uint32_t ub4;

// The next blocks of draws (a block is handed out last word first) as "first last hash" per block, in
// block order; the hash is h = (h ^ word) * 16777619 from 2166136261.
std::string blocks_of(random_t& r, int n) {
    std::string out;
    for (int b = 0; b < n; ++b) {
        std::vector<ub4> v(256);
        for (int i = 255; i >= 0; --i) v[i] = r.rand();
        ub4 h = 2166136261u;
        for (ub4 w : v) h = (h ^ w) * 16777619u;
        char buf[32];
        std::snprintf(buf, sizeof buf, "%s%08x %08x %08x", b ? " " : "", v[0], v[255], h);
        out += buf;
    }
    return out;
}

// Known answers from the author's published program (the zero seed's second block begins f650e4c8, as in randvect.txt).
TEST(Isaac, WholeBlocksMatchTheReference) {
    unsigned int zeros[256] = {}, mixed[256];
    for (unsigned i = 0; i < 256; ++i) mixed[i] = i * 0x9e3779b1u + 1;
    random_t z(zeros), m(mixed);
    EXPECT_EQ(blocks_of(z, 3), "e76dd339 182600f3 732c4ad3 f650e4c8 7a68710f 164cbab2 82ac484f 4bb5af29 4c92a51c");
    EXPECT_EQ(blocks_of(m, 3), "3c373074 08fa6170 eeff7e9c 0b7ef382 7bc2bd99 5ec68042 6c57cf44 6e33d4ba 90e273ca");
}

// Eight threads sharing a locked generator draw, together, what one thread would; statistics count only while on.
TEST(Isaac, SharedGeneratorAndStatistics) {
    unsigned int seed[256];
    for (unsigned i = 0; i < 256; ++i) seed[i] = i ^ 0x5a5a5a5a;
    mutex_t lock;
    random_t shared(seed, &lock), alone(seed);
    int const threads = 8, per = 2000;
    std::vector<ub4> all(threads * per), want(threads * per);
    test_support::on_threads(threads, [&](int t) {
        std::generate_n(&all[t * per], per, [&] { return shared.rand(); });
    });
    std::generate(want.begin(), want.end(), [&] { return alone.rand(); });
    std::sort(all.begin(), all.end());
    std::sort(want.begin(), want.end());
    EXPECT_TRUE(all == want);

    namespace r = kern::random::stat;
    namespace g = kern::guid::stat;
    std::uint64_t const before[] = {r::calls, r::time, g::calls, g::time};
    for (kern::runtime::stat::mode_t mode : {0, 1, 2}) {
        kern::runtime::stat::mode_s_ = mode;
        random_t own(seed);
        for (int i = 0; i < 300; ++i) own.rand();
        char id[37];
        for (int i = 0; i < 5; ++i) get_uuid(id);
    }
    kern::runtime::stat::mode_s_ = 0;
    EXPECT_EQ(r::calls - before[0], 600u);  // two modes on, 300 draws each
    EXPECT_EQ(g::calls - before[2], 10u);
    EXPECT_TRUE(r::time > before[1] && g::time > before[3]);
}

// Without /dev/urandom the seed comes from the C library's rand().
TEST(Isaac, SeedsFromRandWithoutUrandom) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hide /dev/urandom";
    if (!test_support::in_child()) return;
    if (!test_support::private_mounts("/dev")) GTEST_SKIP() << "cannot mount a private /dev: " << std::strerror(errno);
    srand(7);  // the seed is 256 calls of rand() after srand(7)
    random_t r;
    EXPECT_EQ(blocks_of(r, 1), "183addff 735a0368 850fac08");
}

// The time value of an internal identifier: bytes 0 to 6 lowest first, then the nibble after the version digit.
std::uint64_t time_of(char const* id) {
    std::uint64_t v = std::stoull(std::string(id + 17, 1), nullptr, 16) << 56;
    int k = 0;
    for (int at : {0, 2, 4, 6, 9, 11, 14}) v |= std::stoull(std::string(id + at, 2), nullptr, 16) << (8 * k++);
    return v;
}

std::uint64_t now_100ns() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return std::uint64_t(tv.tv_sec) * 10000000 + std::uint64_t(tv.tv_usec) * 10 + 0x01B21DD213814000ULL;
}

// An internal identifier of process pid: version 1, clock sequence digit 0 to 3, the node's first two bytes from
// the pid (top bit set).
testing::Matcher<char const*> internal_of(pid_t pid) {
    unsigned const v = (unsigned(pid) << 7) ^ unsigned(pid);
    char node[5];
    std::snprintf(node, sizeof node, "%02x%02x", (v | 0x80) & 0xff, (v >> 8) & 0xff);
    return testing::MatchesRegex(std::string("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{2}1[0-9a-f]-[0-3][0-9a-f]{3}-") + node +
                                 "[0-9a-f]{8}");
}

TEST(Uuid, KernelFileByDefaultLeavesNoDescriptor) {
    EXPECT_FALSE(kern::uuid::use_internal_generator);
    char a[37], b[37];
    get_uuid(a);
    get_uuid(b);
    EXPECT_THAT(a, testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}"));
    EXPECT_STRNE(a, b);
    // Each identifier and each seeding opens a file: none stays open.
    int const before = test_support::open_fds();
    for (int i = 0; i < 10000; ++i) get_uuid(a), random_t();
    EXPECT_EQ(test_support::open_fds(), before);
}

// QVLSRV_INTERNAL_UUID, even empty: one thread's identifiers never go back in time, the sequence steps by one.
TEST(Uuid, InternalGeneratorLayout) {
    if (!test_support::in_child({"QVLSRV_INTERNAL_UUID="})) return;
    EXPECT_TRUE(kern::uuid::use_internal_generator);
    char id[37];
    std::uint64_t const before = now_100ns();
    std::uint64_t last = 0;
    unsigned last_seq = 0;
    for (int i = 0; i < 1000; ++i) {
        get_uuid(id);
        ASSERT_THAT(id, internal_of(getpid()));
        unsigned const seq = unsigned(std::stoul(std::string(id + 19, 4), nullptr, 16));
        EXPECT_TRUE(i == 0 || (time_of(id) >= last && seq == ((last_seq + 1) & 0x3fff))) << id;
        last = time_of(id);
        last_seq = seq;
    }
    EXPECT_GE(last, before);
    EXPECT_LE(last, now_100ns() + 1000);  // at most one step ahead per identifier
}

// A short, then a missing kernel file: internal identifiers, the first ten failures logged.
TEST(Uuid, UnreadableFileFallsBackAndLogsTenTimes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hide the kernel's file";
    if (!test_support::in_child({"QVLSRV_NO_LASTREPEAT=1"})) return;
    char const* const file = "/proc/sys/kernel/random/uuid";
    if (!test_support::private_mounts("/proc/sys/kernel/random")) GTEST_SKIP() << "cannot hide it: " << std::strerror(errno);
    int const fd = open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(write(fd, "0123456789abcdef\n", 17), 17);
    close(fd);
    testing::internal::CaptureStderr();
    char id[37];
    for (int i = 0; i < 15; ++i) {
        get_uuid(id);
        EXPECT_THAT(id, internal_of(getpid()));
        unlink(file);
    }
    std::string const text = testing::internal::GetCapturedStderr();
    std::vector<std::string> lines, want;
    for (std::size_t pos = 0; (pos = text.find("[UUID]", pos)) != std::string::npos; ++pos)
        lines.push_back(text.substr(pos, text.find('\n', pos) - pos));
    std::string const head = std::string("[UUID] Unable to read file \"") + file + "\" because of ";
    want.push_back(head + "short data has been readed from file \"" + file + "\"");
    want.resize(10, head + "unable to open file \"" + file + "\" for read because of " + std::strerror(ENOENT) +
                        " (errno=2)");
    EXPECT_EQ(lines, want) << text;
}

// Eight threads draw 100,000 internal identifiers each: all differ. A forked child puts its own pid in the node.
TEST(Uuid, InternalIdentifiersAreUnique) {
    kern::uuid::use_internal_generator = true;
    int const threads = 8, per = 100000;
    std::vector<std::array<char, 37>> ids(std::size_t(threads) * per);
    test_support::on_threads(threads, [&](int t) {
        for (int i = 0; i < per; ++i) get_uuid(ids[std::size_t(t) * per + i].data());
    });
    std::sort(ids.begin(), ids.end());
    EXPECT_TRUE(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
    EXPECT_THAT(ids[0].data(), internal_of(getpid()));

    test_support::expect_child_ok([] {
        char id[37];
        get_uuid(id);
        return testing::Matches(internal_of(getpid()))(id) ? 0 : 1;
    });
    kern::uuid::use_internal_generator = false;
}

}  // namespace
