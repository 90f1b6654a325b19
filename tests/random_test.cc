// ISAAC random numbers against a reference computation, shared generators, and identifiers.
#include "random.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "code-exec-time.h"
#include "syncers.h"

namespace {

typedef std::uint32_t ub4;

// ISAAC as its author published it (pointer walk, seeding with the flag
// set), written apart from the library's version.
struct ref_isaac_t {
    ub4 randrsl[256] = {}, mm[256], aa = 0, bb = 0, cc = 0;

#define ind(x) (*(ub4*)((unsigned char*)mm + ((x) & (255 << 2))))
#define rngstep(mix)                          \
    {                                         \
        x = *m;                               \
        a = (a ^ (mix)) + *(m2++);            \
        *(m++) = y = ind(x) + a + b;          \
        *(r++) = b = ind(y >> 8) + x;         \
    }
    void isaac() {
        ub4 a = aa, b = bb + (++cc), x, y, *m = mm, *m2 = mm + 128, *r = randrsl, *mend = m2;
        for (; m < mend;) { rngstep(a << 13); rngstep(a >> 6); rngstep(a << 2); rngstep(a >> 16); }
        for (m2 = mm; m2 < mend;) { rngstep(a << 13); rngstep(a >> 6); rngstep(a << 2); rngstep(a >> 16); }
        bb = b;
        aa = a;
    }
#undef rngstep
#undef ind
#define mix(a, b, c, d, e, f, g, h) \
    {                               \
        a ^= b << 11; d += a; b += c; \
        b ^= c >> 2; e += b; c += d;  \
        c ^= d << 8; f += c; d += e;  \
        d ^= e >> 16; g += d; e += f; \
        e ^= f << 10; h += e; f += g; \
        f ^= g >> 4; a += f; g += h;  \
        g ^= h << 8; b += g; h += a;  \
        h ^= a >> 9; c += h; a += b;  \
    }
    void randinit() {
        ub4 a, b, c, d, e, f, g, h;
        a = b = c = d = e = f = g = h = 0x9e3779b9;
        for (int i = 0; i < 4; ++i) mix(a, b, c, d, e, f, g, h);
        for (int pass = 0; pass < 2; ++pass) {
            ub4 const* src = pass ? mm : randrsl;
            for (int i = 0; i < 256; i += 8) {
                a += src[i]; b += src[i + 1]; c += src[i + 2]; d += src[i + 3];
                e += src[i + 4]; f += src[i + 5]; g += src[i + 6]; h += src[i + 7];
                mix(a, b, c, d, e, f, g, h);
                mm[i] = a; mm[i + 1] = b; mm[i + 2] = c; mm[i + 3] = d;
                mm[i + 4] = e; mm[i + 5] = f; mm[i + 6] = g; mm[i + 7] = h;
            }
        }
        isaac();
    }
#undef mix

    // The next block, first word first.
    std::vector<ub4> block() {
        std::vector<ub4> v(randrsl, randrsl + 256);
        isaac();
        return v;
    }
};

// The next 256 draws, put back in block order (a block is handed out last word first).
std::vector<ub4> draw_block(random_t& r) {
    std::vector<ub4> v(256);
    for (int i = 255; i >= 0; --i) v[i] = r.rand();
    return v;
}

// Runs one test of this program again in a child with the variables set; true in that child.
bool in_child(char const* test, std::vector<char const*> env = {}) {
    if (getenv("RANDOM_TEST_CHILD")) return true;
    pid_t const pid = fork();
    if (pid == 0) {
        setenv("RANDOM_TEST_CHILD", "1", 1);
        for (char const* e : env) putenv(const_cast<char*>(e));
        std::string const filter = std::string("--gtest_filter=") + test;
        execl("/proc/self/exe", "random_test", filter.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return false;
}

bool private_mounts() {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

TEST(Isaac, WholeBlocksMatchTheReference) {
    unsigned int zeros[256] = {}, mixed[256];
    for (unsigned i = 0; i < 256; ++i) mixed[i] = i * 0x9e3779b1u + 1;
    for (unsigned int const* seed : {zeros, mixed}) {
        random_t r(seed);
        ref_isaac_t ref;
        std::copy(seed, seed + 256, ref.randrsl);
        ref.randinit();
        for (int b = 0; b < 3; ++b) EXPECT_EQ(draw_block(r), ref.block()) << "block " << b;
    }
    random_t r(zeros);
    EXPECT_EQ(r.rand(), 0x182600f3u);  // the last word of the block seeding made
}

// Eight threads draw from one generator behind a mutex: together they get
// exactly the values one thread would have drawn.
TEST(Isaac, SharedGeneratorHandsOutEachValueOnce) {
    unsigned int seed[256];
    for (unsigned i = 0; i < 256; ++i) seed[i] = i ^ 0x5a5a5a5a;
    mutex_t lock;
    random_t shared(seed, &lock), alone(seed);
    int const threads = 8, per = 20000;
    std::vector<std::vector<ub4>> got(threads);
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
        ts.emplace_back([&, t] {
            for (int i = 0; i < per; ++i) got[t].push_back(shared.rand());
        });
    std::vector<ub4> all, want;
    for (int t = 0; t < threads; ++t) {
        ts[t].join();
        all.insert(all.end(), got[t].begin(), got[t].end());
    }
    for (int i = 0; i < threads * per; ++i) want.push_back(alone.rand());
    std::sort(all.begin(), all.end());
    std::sort(want.begin(), want.end());
    EXPECT_TRUE(all == want);
}

TEST(Isaac, StatisticsOnlyWhileOn) {
    unsigned int seed[256] = {};
    char id[37];
    auto const calls = kern::random::stat::calls.load(), ids = kern::guid::stat::calls.load();
    auto const time = kern::random::stat::time.load(), id_time = kern::guid::stat::time.load();
    for (kern::runtime::stat::mode_t mode : {0, 1, 2}) {
        kern::runtime::stat::mode_s_ = mode;
        random_t r(seed);
        for (int i = 0; i < 300; ++i) r.rand();
        for (int i = 0; i < 5; ++i) get_uuid(id);
    }
    kern::runtime::stat::mode_s_ = 0;
    EXPECT_EQ(kern::random::stat::calls - calls, 600u);  // two modes on, 300 draws each
    EXPECT_EQ(kern::guid::stat::calls - ids, 10u);
    EXPECT_GT(kern::random::stat::time.load(), time);
    EXPECT_GT(kern::guid::stat::time.load(), id_time);
}

// Without /dev/urandom the seed comes from the C library's rand().
TEST(Isaac, SeedsFromRandWithoutUrandom) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hide /dev/urandom";
    if (!in_child("Isaac.SeedsFromRandWithoutUrandom")) return;
    if (!private_mounts() || mount("tmpfs", "/dev", "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "cannot mount a private /dev: " << std::strerror(errno);
    ASSERT_NE(access("/dev/urandom", F_OK), 0);
    ref_isaac_t ref;
    srand(7);
    for (ub4& w : ref.randrsl) w = static_cast<ub4>(rand());
    ref.randinit();
    srand(7);
    random_t r;
    EXPECT_EQ(draw_block(r), ref.block());
}

// --- identifiers ---------------------------------------------------------------------------

// The time value of an internal identifier (bytes lowest first, the version digit skipped).
std::uint64_t time_of(char const* id) {
    static int const at[7] = {0, 2, 4, 6, 9, 11, 14};
    std::uint64_t v = std::stoull(std::string(id + 17, 1), nullptr, 16) << 56;
    for (int k = 0; k < 7; ++k) v |= std::stoull(std::string(id + at[k], 2), nullptr, 16) << (8 * k);
    return v;
}

std::uint64_t now_100ns() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return std::uint64_t(tv.tv_sec) * 10000000 + std::uint64_t(tv.tv_usec) * 10 + 0x01B21DD213814000ULL;
}

// The node's first two bytes, from a process id.
std::string pid_node(pid_t pid) {
    unsigned const v = (unsigned(pid) << 7) ^ unsigned(pid);
    char buf[5];
    std::snprintf(buf, sizeof buf, "%02x%02x", (v | 0x80) & 0xff, (v >> 8) & 0xff);
    return buf;
}

void expect_internal(char const* id) {
    ASSERT_EQ(std::strlen(id), 36u);
    for (int i = 0; i < 36; ++i)
        EXPECT_TRUE(i == 8 || i == 13 || i == 18 || i == 23 ? id[i] == '-' : std::isxdigit(id[i]) && !std::isupper(id[i]))
            << id;
    EXPECT_EQ(id[16], '1') << id;
    EXPECT_TRUE(id[19] >= '0' && id[19] <= '3') << id;
    EXPECT_TRUE(std::strchr("89abcdef", id[24])) << id;
    EXPECT_EQ(std::string(id + 24, 4), pid_node(getpid())) << id;
}

TEST(Uuid, KernelFileByDefault) {
    EXPECT_FALSE(kern::uuid::use_internal_generator);
    char a[37], b[37];
    get_uuid(a);
    get_uuid(b);
    EXPECT_EQ(std::strlen(a), 36u);
    EXPECT_STRNE(a, b);
    EXPECT_EQ(a[14], '4') << a;  // the kernel's random identifiers
    // Each identifier and each seeding opens a file: none stays open.
    auto const fds = [] {
        int n = 0;
        for (int fd = 0; fd < 1024; ++fd) n += fcntl(fd, F_GETFD) != -1;
        return n;
    };
    int const before = fds();
    for (int i = 0; i < 10000; ++i) {
        get_uuid(a);
        random_t r;
    }
    EXPECT_EQ(fds(), before);
}

// QVLSRV_INTERNAL_UUID, even empty: one thread's identifiers never go back in
// time and advance the clock sequence one by one.
TEST(Uuid, InternalGeneratorLayout) {
    if (!in_child("Uuid.InternalGeneratorLayout", {"QVLSRV_INTERNAL_UUID="})) return;
    EXPECT_TRUE(kern::uuid::use_internal_generator);
    char id[37];
    std::uint64_t const before = now_100ns();
    std::uint64_t last = 0;
    unsigned last_seq = 0;
    for (int i = 0; i < 1000; ++i) {
        get_uuid(id);
        expect_internal(id);
        unsigned const seq = unsigned(std::stoul(std::string(id + 19, 4), nullptr, 16));
        std::uint64_t const v = time_of(id);
        if (i != 0) {
            EXPECT_GE(v, last) << id;
            EXPECT_EQ(seq, (last_seq + 1) & 0x3fff) << id;
        }
        last = v;
        last_seq = seq;
    }
    EXPECT_GE(time_of(id), before);
    EXPECT_LE(time_of(id), now_100ns() + 1000);  // at most one step ahead per identifier
}

// A missing or short kernel file: internal identifiers, the first ten failures logged.
TEST(Uuid, UnreadableFileFallsBackAndLogsTenTimes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hide the kernel's file";
    if (!in_child("Uuid.UnreadableFileFallsBackAndLogsTenTimes", {"QVLSRV_NO_LASTREPEAT=1"})) return;
    char const* const file = "/proc/sys/kernel/random/uuid";
    if (!private_mounts() || mount("tmpfs", "/proc/sys/kernel/random", "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "cannot hide the kernel's file: " << std::strerror(errno);
    int const fd = open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(write(fd, "0123456789abcdef\n", 17), 17);
    close(fd);
    char log[] = "/tmp/random_test.XXXXXX";
    int const out = mkstemp(log), saved = dup(2);
    dup2(out, 2);
    char id[37];
    get_uuid(id);
    expect_internal(id);
    unlink(file);
    for (int i = 0; i < 14; ++i) {
        get_uuid(id);
        expect_internal(id);
    }
    dup2(saved, 2);
    std::string text(1 << 16, '\0');
    text.resize(std::max<ssize_t>(pread(out, &text[0], text.size(), 0), 0));
    unlink(log);
    std::vector<std::string> lines, want;
    for (std::size_t pos = 0; (pos = text.find("[UUID]", pos)) != std::string::npos; ++pos)
        lines.push_back(text.substr(pos, text.find('\n', pos) - pos));
    std::string const head = std::string("[UUID] Unable to read file \"") + file + "\" because of ";
    want.push_back(head + "short data has been readed from file \"" + file + "\"");
    want.resize(10, head + "unable to open file \"" + file + "\" for read because of " + std::strerror(ENOENT) +
                        " (errno=2)");
    EXPECT_EQ(lines, want) << text;
}

// Eight threads draw 100,000 internal identifiers each: all differ. A forked
// child draws with its own process id in the node.
TEST(Uuid, InternalIdentifiersAreUnique) {
    kern::uuid::use_internal_generator = true;
    int const threads = 8, per = 100000;
    std::vector<std::array<char, 37>> ids(std::size_t(threads) * per);
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
        ts.emplace_back([&, t] {
            for (int i = 0; i < per; ++i) get_uuid(ids[std::size_t(t) * per + i].data());
        });
    for (auto& t : ts) t.join();
    std::sort(ids.begin(), ids.end());
    EXPECT_TRUE(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
    expect_internal(ids[0].data());

    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pid_t const pid = fork();
    if (pid == 0) {
        char id[37];
        get_uuid(id);
        _exit(write(p[1], id, 37) == 37 ? 0 : 1);
    }
    char id[37] = {};
    EXPECT_EQ(read(p[0], id, 37), 37);
    waitpid(pid, nullptr, 0);
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(std::string(id + 24, 4), pid_node(pid)) << id;
    kern::uuid::use_internal_generator = false;
}

}  // namespace
