// Tests of the file logger: real files, gzip streams read back with zlib and checked with the gzip command, a private
// tmpfs for the full-disk case, and a clock of the tests' own for periods, checks and the reopen gate.
#include "loggers.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "test-support.h"

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

constexpr q_int64_t k_tps = kern::time::ticks_per_second;
constexpr q_int64_t k_hour = 3600 * k_tps;

std::string read_file(std::string const& name) {
    std::ostringstream s;
    s << std::ifstream(name, std::ios::binary).rdbuf();
    return s.str();
}

bool exists(std::string const& name) { return fs::exists(name); }

std::string name_of(std::string const& base, unsigned n, bool gz) {
    std::string out;
    file_logger_impl_t::suffix(out, base, n, gz);
    return out;
}

// The text of kept file n of base; when gz, read with zlib, and only when it is a whole gzip stream that the gzip
// command finds sound too.
std::string kept(std::string const& base, unsigned n, bool gz) {
    std::string const name = name_of(base, n, gz), raw = read_file(name);
    if (!gz) return raw;
    gzFile f = raw.compare(0, 2, "\x1f\x8b") == 0 ? gzopen(name.c_str(), "rb") : nullptr;
    std::string out;
    char buf[65536];
    int k = -1;
    while (f && (k = gzread(f, buf, sizeof buf)) > 0) out.append(buf, size_t(k));
    bool const sound = f && gzclose(f) == Z_OK && k == 0 && std::system(("gzip -t '" + name + "'").c_str()) == 0;
    return sound ? out : "<not a sound gzip file>";
}

// The message after the prefix of a six-letter thread name (noname, logzip).
std::string body(std::string const& line) {
    size_t const p = line.find("] ");
    return p == std::string::npos || line.size() < p + 9 ? line : line.substr(p + 9);
}

strings split_lines(std::string const& s, bool bodies = false) {
    std::istringstream in(s);
    strings out;
    for (std::string line; std::getline(in, line);) out.push_back(bodies ? body(line) : line);
    return out;
}

strings file_bodies(std::string const& name) { return split_lines(read_file(name), true); }

// Keeps each line as its class and message: " ERR text".
struct record_logger_t : if_logger_t {
    record_logger_t() : if_logger_t(INFO) {}
    bool is_stderr() const override { return false; }
    size_t write(char const* t) override {
        return lines.push_back(std::string(t).substr(18, 5) + body(t)), std::strlen(t);
    }
    strings lines;
};

// Records each call as "type: text", then throws when asked to (handlers may).
struct handler_t : if_logger_error_t {
    void notify(if_logger_t*, error_type_t type, std::string const& text) override {
        calls.push_back(std::to_string(int(type)) + ": " + text);
        if (throws) throw std::runtime_error("handler");
    }
    strings calls;
    bool throws = false;
};

// The tests' clock: UTC ticks set by hand.
std::atomic<q_int64_t> g_now{0};
timestamp_t fake_now() { return timestamp_t(g_now.load()); }

// UTC ticks of a local moment in the zone "XXX-3" (three hours east).
q_int64_t local_at(int year, int month, int day, int hour, int minute, int second) {
    return timestamp_t().init(second, minute, hour, day, month, year).value - 3 * k_hour;
}

struct zone_guard_t {
    char const* saved = std::getenv("TZ");
    std::string text = saved ? saved : "";
    zone_guard_t() { setenv("TZ", "XXX-3", 1), tzset(); }
    ~zone_guard_t() { (saved ? setenv("TZ", text.c_str(), 1) : unsetenv("TZ")), tzset(); }
};

// A temporary directory, the log's name and a logger on it; the process logger and the clock come back afterwards.
// fake sets the tests' clock.
struct scene_t {
    if_logger_t* saved = if_logger_t::Log;
    file_logger_impl_t::clock_fn_t clock = file_logger_impl_t::clock;
    test_support::temp_dir_t tmp;
    std::string dir = tmp.path, name = tmp / "agent.log";
    std::unique_ptr<file_logger_impl_t> l;
    explicit scene_t(bool fake = false) {
        if (fake) file_logger_impl_t::clock = fake_now, g_now = local_at(2020, 6, 15, 10, 0, 0);
    }
    ~scene_t() { close(), file_logger_impl_t::clock = clock; }
    // A new logger that, as after init_logger, formats its own messages.
    file_logger_impl_t* open(char const* rotation, char const* banner = "") {
        close();
        l.reset(new file_logger_impl_t(name.c_str(), rotation, banner));
        return if_logger_t::Log = l.get(), l.get();
    }
    // Destroys the logger, which waits for its compression, and only then the process logger that the compression
    // formats its reports with.
    void close() { l.reset(), if_logger_t::Log = saved; }
    // Writes numbered lines until the file has rotated n times.
    void rotate(int n) {
        for (size_t i = 0, last = 0, size = 0; n > 0; ++i, last = size) {
            l->log_INFO("a line to fill the file quickly %06zu %zu", i, i * 7919);
            size = size_t(fs::file_size(name));
            n -= size < last;
        }
    }
};

TEST(FileLoggerNames, SuffixAndPrepare) {
    struct { char const *base, *want; unsigned n; bool gz; } const names[] = {
        {"agent.log", "agent.1.log", 1, false},       {"agent.log", "agent.1.log.gz", 1, true},
        {"/var/log/agent", "/var/log/agent.12", 12, false}, {"/var/log.d/agent", "/var/log.d/agent.1.gz", 1, true},
        {"c:\\logs.d\\agent", "c:\\logs.d\\agent.2", 2, false}, {"a.tar.log", "a.tar.3.log", 3, false},
        {".agent", ".agent.1", 1, false},             {"/x/.agent", "/x/.agent.1", 1, false},
        {"/x/.agent.log", "/x/.agent.1.log", 1, false}, {"agent.", "agent.1.", 1, false}};
    for (auto const& c : names) EXPECT_EQ(name_of(c.base, c.n, c.gz), c.want);

    // Formatted by the process logger: no line end from the base format.
    scene_t s;
    if_logger_t::Log = &logger_init_t::s_simple_;
    std::string out = "old";
    file_logger_impl_t::prepare(out, 4, "[Logger] x %d", 5);
    EXPECT_EQ(out.substr(18, 5) + body(out), " inf [Logger] x 5");
    std::unique_ptr<if_logger_t> fd(fd_logger_t::create(-1));
    if_logger_t::Log = fd.get();
    file_logger_impl_t::prepare(out, 2, "[Logger] y");
    EXPECT_EQ(body(out), "[Logger] y\n");
    file_logger_impl_t::prepare(out, 2, "[Logger] y");
    EXPECT_EQ(out, "");
}

TEST(FileLoggerSpec, GrammarTableAndInitLogger) {
    // rotation|size limit, period in seconds, files kept, z or p, rotation text
    char const* const rows[] = {
        "|-1 0s 10 z ",          "NONE|-1 0s 10 z ",          "none|-1 0s 10 z ",
        "10z|-1 0s 10 z ",       "3p|-1 0s 3 p ",             "0z,0m|10485760 0s 10 z 0m",
        "3p,2k|2048 0s 3 p 2k",  "3P,2K|2048 0s 3 p 2K",      "10z,10m|10485760 0s 10 z 10m",
        "7,5|5242880 0s 7 z 5",  "7z,|10485760 0s 7 z ",      "2z,0k|10240 0s 2 z 0k",
        "2z,3g|3221225472 0s 2 z 3g",                         "2z,-1m|-1 0s 2 z -1m",
        "5p,1D|-1 86400s 5 p 1D", "5p,0d|-1 86400s 5 p 0d",   "5p,2H|-1 7200s 5 p 2H",
        "5p,1w|-1 604800s 5 p 1w", "5p,-1H|-1 0s 5 p -1H",    " 4z,1k |1024 0s 4 z 1k",
        "z,1k|1024 0s 10 z 1k"};
    scene_t s;
    std::string got, want;
    for (char const* row : rows) {
        std::string const rotation(row, std::strchr(row, '|'));
        file_logger_impl_t l(s.name.c_str(), rotation.c_str(), "");
        EXPECT_TRUE(l.opened() && l.get_level() == 4 && !l.is_stderr()) << rotation;
        got += q_format("%s|%lld %llds %u %c %s\n", rotation.c_str(), static_cast<long long>(l.size_limit()),
                        static_cast<long long>(l.time_limit() / k_tps), l.count(), l.compress() ? 'z' : 'p',
                        l.rotation_text().c_str());
        want += row + std::string("\n");
    }
    EXPECT_EQ(got, want);

    // Refused: reported through the process logger, nothing opened.
    record_logger_t rec;
    if_logger_t::Log = &rec;
    strings refused;
    for (char const* rotation : {"10z,5x", "10z,5mb", "10x,5m", "-1z,5m", "10z,-m", "10m", "99999999999z,1m",
                             "1z,9999999999g", "1z,99999999999999w"}) {
        EXPECT_FALSE(file_logger_impl_t((s.dir + "/never.log").c_str(), rotation, "banner").opened()) << rotation;
        refused.push_back(q_format(" ERR Invalid logs rotation \"%s\"", rotation));
    }
    EXPECT_EQ(rec.lines, refused);
    EXPECT_FALSE(exists(s.dir + "/never.log"));

    // init_logger: the banner formatted by the logger that is replaced.
    if_logger_t::Log = fd_logger_t::create(-1);
    EXPECT_TRUE(init_logger("DEBUG", s.name.c_str(), "3z,1k", "the banner", nullptr));
    auto* fl = dynamic_cast<file_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(fl && fl->get_level() == 9 && fl->size_limit() == 1024);
    fl->log_DEBUG("after %s", "init");
    EXPECT_EQ(file_bodies(s.name), (strings{"the banner", "after init"}));
    // The library's banner, and a chain with the extra logger.
    record_logger_t* extra = new record_logger_t;
    EXPECT_TRUE(init_logger("INFO", s.name.c_str(), "", extra));
    auto* chain = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(chain && dynamic_cast<file_logger_impl_t*>(chain->first) && chain->second == extra);
    EXPECT_EQ(file_bodies(s.name).at(2).substr(0, 36), "[Logger] Logfile has been opened by ");
    // Refused: standard error, and the old logger, the extra, kept.
    if_logger_t::Log = extra;
    chain->second = nullptr;
    delete chain;
    EXPECT_TRUE(init_logger("INFO", s.name.c_str(), "1z,1q", extra));
    EXPECT_EQ(extra->lines, (strings{" ERR Invalid logs rotation \"1z,1q\"",
                                     " wrn Using stderr instead of \"" + s.name + "\""}));
    chain = dynamic_cast<chain_logger_impl_t*>(if_logger_t::Log);
    ASSERT_TRUE(chain && chain->second == extra);
    delete chain;
}

// 600 numbered lines rotated at 2 KiB: each kept file holds exactly the bytes rotated and the notice, and the lines
// run on from the oldest to the current.
void check_size_rotation(unsigned count, bool gz) {
    SCOPED_TRACE("count " + std::to_string(count) + (gz ? " compressed" : " plain"));
    scene_t s;
    file_logger_impl_t* l = s.open((std::to_string(count) + (gz ? "z" : "p") + ",2k").c_str());
    int rotations = 0;
    for (int i = 0; i < 600; ++i) {
        std::string const before = read_file(s.name);
        l->log_INFO("line %05d", i);
        std::string const now = read_file(s.name);
        if (now.size() >= before.size()) continue;
        ++rotations;
        EXPECT_GE(before.size(), 2048u);
        EXPECT_EQ(body(now), q_format("line %05d\n", i));
        if (count == 1) continue;
        l->wait_compression();
        EXPECT_FALSE(exists(name_of(s.name, 1, !gz)));
        std::string const rotated = kept(s.name, 1, gz);
        ASSERT_EQ(rotated.compare(0, before.size(), before), 0);
        EXPECT_EQ(body(rotated.substr(before.size())), "[Logger] Logfile has grown over \"2k\" limit, rotating\n");
    }
    EXPECT_GE(rotations, 12);
    s.close();

    unsigned const files = std::min<unsigned>(count - 1, unsigned(rotations));
    std::string all;
    for (unsigned n = files; n >= 1; --n) all += kept(s.name, n, gz);
    EXPECT_EQ(size_t(std::distance(fs::directory_iterator(s.dir), {})), files + 1);
    int expect = -1;
    for (std::string const& b : split_lines(all + read_file(s.name), true)) {
        if (b.compare(0, 9, "[Logger] ") == 0) continue;
        EXPECT_TRUE(expect < 0 || std::atoi(b.c_str() + 5) == expect) << b;
        expect = std::atoi(b.c_str() + 5) + 1;
    }
    EXPECT_EQ(expect, 600);
}

TEST(FileLoggerRotation, BySizeKeepsCountFiles) {
    for (unsigned count : {1u, 2u, 3u, 10u, 4000000000u}) {  // the last: a rename per file there is
        check_size_rotation(count, false);
        check_size_rotation(count, true);
    }
}

// A chain as the process logger formats the file logger's own lines (the notice ending a file, the banner opening the
// next) without a line end: every record must still be a line of its own, starting with its stamp.
TEST(FileLoggerRotation, OwnLinesEndUnderAChain) {
    scene_t s;
    if_logger_t::Log = fd_logger_t::create(-1);  // replaced, and deleted, by init_logger
    ASSERT_TRUE(init_logger("INFO", s.name.c_str(), "10p,1k", "banner", syslog_logger_t::create(184)));
    std::unique_ptr<if_logger_t> chain(if_logger_t::Log);
    dynamic_cast<chain_logger_impl_t&>(*chain).second->set_level(-1);  // nothing to the system log
    for (int i = 0; i < 100; ++i) chain->log_INFO("line %02d", i);
    strings texts{read_file(s.name)};
    for (unsigned n = 1; exists(name_of(s.name, n, false)); ++n) texts.push_back(read_file(name_of(s.name, n, false)));
    EXPECT_GE(texts.size(), 4u);  // about five rotations
    int records = 0;
    for (std::string const& text : texts) {
        EXPECT_TRUE(!text.empty() && text.back() == '\n');
        for (std::string const& line : split_lines(text)) {
            bool stamped = line.size() > 18;
            for (size_t i = 0; stamped && i < 18; ++i)
                stamped = i == 8 || i == 15 ? line[i] == '.' : line[i] >= '0' && line[i] <= '9';
            EXPECT_TRUE(stamped) << line;
            records += body(line).size() == 7 && body(line).compare(0, 5, "line ") == 0;
        }
    }
    EXPECT_EQ(records, 100);
}

TEST(FileLoggerRotation, ByLocalPeriodsAndFirstLineStamp) {
    zone_guard_t zone;
    scene_t s(true);
    std::string const rotated = name_of(s.name, 1, false);
    file_logger_impl_t* l = nullptr;
    // A new logger at a given time, on the file as it is.
    auto fresh = [&](char const* rotation, q_int64_t at) { g_now = at, l = s.open(rotation); };
    // A clock step and one line; answers whether that rotated.
    auto step = [&](q_int64_t at) {
        g_now = at;
        std::remove(rotated.c_str());
        l->log_INFO("at %lld", static_cast<long long>(at));
        return exists(rotated);
    };

    // Daily: local midnight, three hours before UTC midnight here.
    fresh("5p,1D", local_at(2020, 6, 15, 10, 0, 0));
    EXPECT_FALSE(step(local_at(2020, 6, 15, 23, 59, 59) + 99 * k_tps / 100));
    EXPECT_TRUE(step(local_at(2020, 6, 16, 0, 0, 0)));
    EXPECT_NE(read_file(rotated).find("[Logger] Logfile has grown over \"1D\" limit, rotating"), std::string::npos);
    EXPECT_FALSE(step(local_at(2020, 6, 16, 23, 0, 0)));
    EXPECT_TRUE(step(local_at(2020, 6, 18, 7, 0, 0)));  // a missed day: one rotation
    EXPECT_FALSE(step(local_at(2020, 6, 18, 8, 0, 0)));
    // Every two hours: on even local hours.
    std::remove(s.name.c_str());
    fresh("3p,2H", local_at(2020, 6, 15, 10, 30, 0));
    EXPECT_FALSE(step(local_at(2020, 6, 15, 11, 59, 59)));
    EXPECT_TRUE(step(local_at(2020, 6, 15, 12, 0, 0)));
    EXPECT_FALSE(step(local_at(2020, 6, 15, 13, 59, 0)));
    EXPECT_TRUE(step(local_at(2020, 6, 15, 14, 0, 1)));
    // Weekly: Mondays (2020-06-22) at local midnight.
    std::remove(s.name.c_str());
    fresh("3p,1W", local_at(2020, 6, 17, 12, 0, 0));
    EXPECT_FALSE(step(local_at(2020, 6, 21, 23, 59, 59)));
    EXPECT_TRUE(step(local_at(2020, 6, 22, 0, 0, 0)));

    // The period counts from the first line's stamp when it is earlier than now (begun yesterday: rotated at once),
    // else from now.
    for (char const* first : {"20200614.100000.00", "20200615.080000.00", "20200616.080000.00",
                              "2020061x.080000.00", "20201315.080000.00", "short"}) {
        std::ofstream(s.name, std::ios::trunc) << first << " inf [00001 00001] noname old\n";
        fresh("5p,1D", local_at(2020, 6, 15, 9, 0, 0));
        bool const yesterday = std::strncmp(first, "20200614", 8) == 0;
        EXPECT_EQ(step(local_at(2020, 6, 15, 9, 0, 1)) && read_file(rotated).find("noname old\n") != std::string::npos,
                  yesterday)
            << first;
        EXPECT_FALSE(step(local_at(2020, 6, 15, 23, 59, 59))) << first;
        EXPECT_TRUE(step(local_at(2020, 6, 16, 0, 0, 0))) << first;
    }
}

TEST(FileLoggerRecovery, RemovedFileRecreatedWithinASecond) {
    scene_t s(true);
    file_logger_impl_t* l = s.open("3z,1m", "banner");
    // A second later; again (no minute to wait after a successful open); and with the clock set back an hour, which
    // does not suspend the check.
    for (q_int64_t step : {k_tps, k_tps, -3600 * k_tps}) {
        ASSERT_EQ(std::remove(s.name.c_str()), 0);
        l->log_INFO("within the second");  // into the removed file
        EXPECT_FALSE(exists(s.name));
        g_now += step;
        std::string const after = "after " + std::to_string(step / k_tps);
        l->log_INFO("%s", after.c_str());
        EXPECT_EQ(file_bodies(s.name), (strings{"banner",
                                                "[Logger] Log file was suddenly lost (removed outside software?) and "
                                                "re-created",
                                                after}));
    }
    EXPECT_EQ(split_lines(read_file(s.name)).at(1).substr(18, 5), " wrn ");
}

TEST(FileLoggerRecovery, UnwritableDirectoryReportsOnce) {
    handler_t h;
    scene_t s(true);
    record_logger_t rec;
    if_logger_t::Log = &rec;
    std::string const sub = s.dir + "/sub", name = sub + "/agent.log";
    std::string const why = "because of Not a directory (errno=20)";
    std::ofstream(sub) << "a regular file where the directory should be";
    std::unique_ptr<file_logger_impl_t> l(new file_logger_impl_t(name.c_str(), "3z,1m", ""));
    EXPECT_FALSE(l->opened());
    EXPECT_EQ(rec.lines, strings{" ERR [Logger] Unable to open logfile \"" + name + "\" " + why});
    l->insert_handler(&h);
    for (int i = 0; i < 5; ++i) l->log_INFO("dropped %d", i);
    g_now += 61 * k_tps;  // a retry that fails again: still reported once
    l->log_INFO("dropped");
    EXPECT_EQ(h.calls, strings{"0: unable to re-open log file " + why});

    // The directory appears: the next attempt, a minute later, opens the file.
    std::remove(sub.c_str());
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    g_now += 30 * k_tps;
    l->log_INFO("still gated");
    EXPECT_FALSE(exists(name));
    g_now += 31 * k_tps;
    l->log_INFO("back");
    EXPECT_TRUE(l->opened());
    EXPECT_EQ(body(read_file(name)), "back\n");

    // Lost again, with the directory gone: reported again, once.
    ASSERT_EQ(std::rename(sub.c_str(), (s.dir + "/moved").c_str()), 0);
    std::ofstream(sub) << "file";
    std::remove((s.dir + "/moved/agent.log").c_str());
    g_now += k_tps;
    for (int i = 0; i < 3; ++i) l->log_INFO("dropped again %d", i);
    EXPECT_EQ(h.calls, strings(2, "0: unable to re-open log file " + why));
}

TEST(FileLoggerRecovery, RenameAndCompressionFailures) {
    handler_t h;
    scene_t s(true);
    std::string const first = name_of(s.name, 1, false), packed = name_of(s.name, 1, true);
    std::string const why = "because of Is a directory (errno=21)";
    // The rotated name taken: the file kept with the failures in it, reported once; retried at the reopen gate's
    // pace, quietly while that fails.
    ASSERT_EQ(mkdir(first.c_str(), 0755), 0);
    std::ofstream(first + "/x") << "x";
    file_logger_impl_t* l = s.open("2z,1k");
    l->insert_handler(&h);
    int i = 0;
    // Fills the file up to its limit: the next line rotates it.
    auto fill = [&] {
        while (read_file(s.name).size() < 1024) l->log_INFO("line %d", i++);
        return read_file(s.name);
    };
    strings want = split_lines(fill(), true);
    want.insert(want.end(), {"[Logger] Logfile has grown over \"1k\" limit, rotating",
                             "[Logger] Unable to rename \"" + s.name + "\" to \"" + first + "\" " + why, "",
                             "[Logger] Old log file will not be compressed because of rename operation failed"});
    // The failure; within the minute; a retry that fails; and with the name free again, 30 s after that retry, still
    // within its minute.
    for (int step : {0, 59, 2, 30}) {
        if (step == 30) fs::remove_all(first);
        g_now += step * k_tps;
        l->log_INFO("after %d", step);
        want.push_back("after " + std::to_string(step));
    }
    std::string const before = read_file(s.name);
    EXPECT_EQ(split_lines(before, true), want);
    EXPECT_EQ(h.calls, strings{"1: Unable to rename log file " + why});

    // A minute after the last retry: every line and the notice rotated.
    g_now += 31 * k_tps;
    l->log_INFO("rotated");
    l->wait_compression();
    std::string const text = kept(s.name, 1, true);
    EXPECT_EQ(text.compare(0, before.size(), before), 0);
    EXPECT_EQ(body(text.substr(std::min(before.size(), text.size()))),
              "[Logger] Logfile has grown over \"1k\" limit, rotating\n");
    EXPECT_EQ(file_bodies(s.name), strings{"rotated"});

    // The .gz name taken: told by the compression thread, plain file kept.
    std::remove(packed.c_str());
    ASSERT_EQ(mkdir(packed.c_str(), 0755), 0);
    fill();
    l->log_INFO("after");
    l->wait_compression();
    strings lines;  // thread name and message
    for (std::string const& line : split_lines(read_file(s.name))) lines.push_back(line.substr(37));
    std::sort(lines.begin(), lines.end());  // the thread's line may come first
    EXPECT_EQ(lines, (strings{"logzip [Logger] Unable to create file \"" + packed + "\" " + why, "noname after"}));
    EXPECT_NE(read_file(first).find("noname rotated\n"), std::string::npos);

    // A read failure: the .gz keeps what was read, as told, and the source.
    std::string const partial = name_of(s.dir + "/p.log", 1, true);
    l->pack(nullptr, "/proc/self/mem", partial);
    EXPECT_EQ(file_bodies(s.name).back(), "[Logger] File \"" + partial +
                                              "\" written partially because of unable to read file \"/proc/self/mem\" "
                                              "because of Input/output error (errno=5)");
    EXPECT_EQ(kept(s.dir + "/p.log", 1, true), "");
}

// A log directory owned by nobody, who plants links to a file of root's: refused at the first open, replaced by the
// file re-created after a loss and by the compressed file. Root's own link is followed.
TEST(FileLoggerRecovery, OtherUsersLinksNeverWrittenThrough) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give links to another user";
    scene_t s(true);
    record_logger_t rec;
    if_logger_t::Log = &rec;
    std::string const logs = s.dir + "/logs", name = logs + "/agent.log", victim = s.dir + "/victim";
    ASSERT_TRUE(mkdir(logs.c_str(), 0755) == 0 && chown(logs.c_str(), 65534, 65534) == 0);
    std::ofstream(victim) << "victim\n";
    auto plant = [&](std::string const& at, uid_t owner) {
        return symlink(victim.c_str(), at.c_str()) == 0 && lchown(at.c_str(), owner, owner) == 0;
    };
    auto is_link = [](std::string const& at) { return fs::is_symlink(fs::symlink_status(at)); };
    ASSERT_TRUE(plant(name, 65534));
    std::unique_ptr<file_logger_impl_t> l(new file_logger_impl_t(name.c_str(), "2z,1k", ""));
    EXPECT_FALSE(l->opened());
    EXPECT_EQ(rec.lines, strings{" ERR [Logger] Refused to open logfile \"" + name +
                                 "\" through a link owned by user 65534 because of Operation not permitted (errno=1)"});
    g_now += 61 * k_tps;  // the retry makes a file of its own in the link's place
    l->log_INFO("fresh");
    EXPECT_TRUE(!is_link(name) && file_bodies(name) == strings{"fresh"});

    // Lost, and a link in its place: the new file replaces the link.
    ASSERT_TRUE(std::remove(name.c_str()) == 0 && plant(name, 65534));
    g_now += k_tps;
    l->log_INFO("re-created");
    EXPECT_FALSE(is_link(name));
    // A link named like the .gz: replaced by the compressed file.
    ASSERT_TRUE(plant(name_of(name, 1, true), 65534));
    for (int i = 0; !exists(name_of(name, 1, false)); ++i) l->log_INFO("line %d", i);
    l->wait_compression();
    EXPECT_FALSE(is_link(name_of(name, 1, true)));
    EXPECT_NE(kept(name, 1, true).find("noname re-created\n"), std::string::npos);
    EXPECT_EQ(read_file(victim), "victim\n");

    // Root's link is followed.
    std::string const own = logs + "/own.log";
    ASSERT_TRUE(plant(own, 0));
    l.reset(new file_logger_impl_t(own.c_str(), "", ""));
    l->log_INFO("through root's link");
    EXPECT_EQ(file_bodies(victim), (strings{"victim", "through root's link"}));
}

// No inode to spare, in a child on a private tmpfs: the rotation renames the file but cannot make a new one; the file
// gets its name back and every line, and a minute later the rotation goes ahead with all of them. The name has 250
// characters: the new file's temporary name is cut to fit.
TEST(FileLoggerRecovery, RotationWithoutInodes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a private tmpfs";
    handler_t h;
    scene_t s(true);
    s.name = s.dir + "/" + std::string(246, 'a') + ".log";
    test_support::expect_child_ok([&] {
        if (!test_support::private_mounts(s.dir.c_str(), "size=1m,nr_inodes=16")) return 77;
        file_logger_impl_t* l = s.open("2p,1k");
        l->insert_handler(&h);
        for (int i = 0; fs::file_size(s.name) < 1024; ++i) l->log_INFO("line %d", i);
        auto filler = [&](int k) { return s.dir + "/" + std::to_string(k); };
        for (int k = 0; ::close(creat(filler(k).c_str(), 0600)) == 0; ++k) continue;
        for (int i = 0; i < 3; ++i) l->log_INFO("kept %d", i);
        for (int k = 0; std::remove(filler(k).c_str()) == 0; ++k) continue;
        std::string const before = read_file(s.name), why = "because of No space left on device (errno=28)";
        strings const tail = split_lines(before, true);
        EXPECT_EQ(strings(tail.end() - std::min<size_t>(tail.size(), 5), tail.end()),
                  (strings{"[Logger] Logfile has grown over \"1k\" limit, rotating",
                           "[Logger] Unable to open logfile \"" + s.name + "\" " + why, "kept 0", "kept 1", "kept 2"}));
        g_now += 61 * k_tps;
        l->log_INFO("rotated");
        EXPECT_EQ(read_file(name_of(s.name, 1, false)).compare(0, before.size(), before), 0);
        EXPECT_EQ(file_bodies(s.name), strings{"rotated"});
        EXPECT_EQ(h.calls, strings{"1: Unable to re-open log file " + why});
        return int(testing::Test::HasFailure());
    });
}

// The full disk, in a child with a private 256 KiB tmpfs. Answers 0, 77 when no tmpfs could be mounted, or the number
// of the check that failed.
int full_disk_child(std::string const& mnt) {
    if (!test_support::private_mounts(mnt.c_str(), "size=256k")) return 77;
    std::string const name = mnt + "/agent.log", filler = mnt + "/filler";
    handler_t h;
    file_logger_impl_t l(name.c_str(), "4z,16k", "");
    l.insert_handler(&h);
    for (int k = 0; k < 2000; ++k) l.log_INFO("before full %d", k);
    l.wait_compression();
    // Whatever room is left goes to another file.
    std::ofstream(filler) << std::string(256 << 10, 'f');
    for (int k = 0; k < 3000; ++k) l.log_INFO("while full %d", k);
    if (h.calls.size() != 1 || h.calls[0].find("0: No space left on device") != 0) return 3;
    std::remove(filler.c_str());
    for (int k = 0; k < 300; ++k) l.log_INFO("after %d", k);
    l.wait_compression();
    if (read_file(name).find("noname after 299\n") == std::string::npos) return 4;
    for (unsigned n = 1; n < 4; ++n)
        if (exists(name_of(name, n, true)) && kept(name, n, true)[0] == '<') return 5;
    if (h.calls.size() != 1) return 6;

    // Full again with room left only in the last page of the file (and no kept file whose overwriting would free
    // one): the rotation's notice fits, the compression's .gz and its report into the new, empty file do not. The
    // handler told of that throws on the compression thread, which must swallow it and keep the plain file.
    for (unsigned n = 1; n < 4; ++n) std::remove(name_of(name, n, true).c_str());
    for (int k = 0; fs::file_size(name) < 16384; ++k) l.log_INFO("refill %d", k);
    std::ofstream(filler) << std::string(256 << 10, 'f');
    h.throws = true;
    l.write("");
    l.wait_compression();
    h.throws = false;
    std::remove(filler.c_str());
    if (h.calls.size() != 2 || h.calls[1].find("0: No space left on device") != 0) return 7;
    if (!exists(name_of(name, 1, false)) || exists(name_of(name, 1, true))) return 8;
    return 0;
}

TEST(FileLoggerRecovery, FullDirectoryReportsOnceAndResumes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a private 256 KiB tmpfs";
    scene_t s;
    test_support::expect_child_ok([&] { return full_disk_child(s.dir); });  // the status holds the failed check
}

// Four threads write numbered lines through one logger rotating every 256 KiB with compression; every line must be
// found exactly once, whole. QVLKERN_FULL_LOAD=1: 250,000 lines a thread.
TEST(FileLoggerLoad, LosslessWhileRotatingAndCompressing) {
    char const* full = std::getenv("QVLKERN_FULL_LOAD");
    int const per_thread = full && std::strcmp(full, "1") == 0 ? 250000 : 20000;
    scene_t s;
    file_logger_impl_t* l = s.open("1000z,256k");
    int const threads = 4;
    test_support::on_threads(threads, [&](int t) {
        for (int i = 0; i < per_thread; ++i) l->log_INFO("load %d %07d", t, i);
    });
    l->wait_compression();  // the end of the logger would stop it
    s.close();

    std::string text = read_file(s.name);
    unsigned gz_files = 0;
    while (exists(name_of(s.name, gz_files + 1, true))) text += kept(s.name, ++gz_files, true);
    EXPECT_EQ(size_t(std::distance(fs::directory_iterator(s.dir), {})), gz_files + 1) << "plain files left";
    // Whole lines: stamp, " inf ", "[PPPPP TTTTT]", " ", "noname ", "load t nnnnnnn".
    strings got, want;
    for (std::string const& line : split_lines(text)) {
        if (body(line).compare(0, 9, "[Logger] ") == 0) continue;
        got.push_back(line.size() == 58 && line.compare(18, 6, " inf [") == 0 ? body(line) : "damaged: " + line);
    }
    for (int t = 0; t < threads; ++t)
        for (int i = 0; i < per_thread; ++i) want.push_back(q_format("load %d %07d", t, i));
    std::sort(got.begin(), got.end());
    auto const wrong = std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first;
    EXPECT_TRUE(got == want) << got.size() << " lines for " << want.size() << "; first wrong or extra one: "
                             << (wrong == got.end() ? "none" : *wrong);
    // 59-byte lines, 256 KiB files.
    EXPECT_GE(gz_files, size_t(threads) * size_t(per_thread) * 58 / (256 * 1024) - 1);
}

// Writers, rotations, compressions reporting failures (.gz name taken) and re-creations of a file that another thread
// keeps removing: lines are lost by design; nothing may break, under the thread sanitizer too.
TEST(FileLoggerLoad, WritersRaceRemovalsRotationsAndCompressions) {
    scene_t s(true);
    ASSERT_EQ(mkdir(name_of(s.name, 1, true).c_str(), 0755), 0);
    file_logger_impl_t* l = s.open("2z,4k", "banner");
    std::atomic<int> writing{3}, written{0};
    test_support::on_threads(4, [&](int t) {
        if (t < 3) {
            for (int i = 0; i < 6000; ++i, ++written) l->log_INFO("race %d %d", t, i);
            return (void)--writing;
        }
        for (int next = 0; writing > 0; std::this_thread::yield()) {  // a removal every 20 lines
            if (written < next) continue;
            std::remove(s.name.c_str());
            g_now += 61 * k_tps;  // past every check and retry gate
            next = written + 20;
        }
    });
    l->log_INFO("last");
    s.close();
    EXPECT_NE(read_file(s.name).find("] noname last\n"), std::string::npos);
}

// --- the operator's tools ----------------------------------------------------------------------------------------

std::string const k_moved = "[Logger] Log file was moved or replaced outside software and re-opened";

// What another program does to the file, and how the logger learns of it (the check a second later, a request, or
// reopen()): line a goes in before that, b after. Then a truncated file rotates by its real size.
TEST(FileLoggerOperator, FollowsMovesReplacementsTruncationAndRequests) {
    scene_t s(true);
    std::string const away = s.dir + "/away.log";
    enum { check, request, call };
    struct { char const* what; int how; strings log, moved_away; } const rows[] = {
        {"moved", check, {k_moved, "b"}, {"a"}},
        {"moved, a new one made", check, {k_moved, "b"}, {"a"}},
        {"replaced", check, {"other", k_moved, "b"}, {}},
        {"truncated", check,
         {"a", "[Logger] Log file was truncated outside software (copied away?), writing on at its end", "b"}, {}},
        {"moved, requested", request, {k_moved, "a", "b"}, {}},
        {"moved, reopen()", call, {k_moved, "a", "b"}, {}},
        {"requested, unchanged", request, {"a", "b"}, {}}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        std::remove(s.name.c_str()), std::remove(away.c_str());
        file_logger_impl_t* l = s.open("3p,4k");
        std::string const what = row.what;
        if (what.compare(0, 5, "moved") == 0) std::rename(s.name.c_str(), away.c_str());
        if (what == "moved, a new one made") std::ofstream(s.name).flush();
        if (what == "replaced") std::ofstream(away) << "other\n", std::rename(away.c_str(), s.name.c_str());
        if (what == "truncated") l->log_INFO("before"), fs::resize_file(s.name, 0);
        if (row.how == request) file_logger_t::request_reopen();
        if (row.how == call) file_logger_t::reopen(l);
        l->log_INFO("a");
        g_now += k_tps;
        l->log_INFO("b");
        EXPECT_EQ(file_bodies(s.name), row.log);
        EXPECT_EQ(file_bodies(away), row.moved_away);
    }

    // Truncated within the second before a rotation: rotated at the limit of what the file holds, not of what was
    // written.
    std::remove(s.name.c_str());
    file_logger_impl_t* l = s.open("3p,4k");
    for (int i = 0; fs::file_size(s.name) < 3000; ++i) l->log_INFO("line %d", i);
    fs::resize_file(s.name, 0);
    for (int i = 0; !exists(name_of(s.name, 1, false)) && i < 1000; ++i) l->log_INFO("line %d", i);
    EXPECT_GE(fs::file_size(name_of(s.name, 1, false)), 4096u);
}

// An operator's 0600 and group survive rotation: the new file, the kept one and the compressed ones.
TEST(FileLoggerOperator, ModeAndGroupSurviveRotation) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the log to another group";
    scene_t s;
    file_logger_impl_t* l = s.open("4z,1k");
    ASSERT_TRUE(chmod(s.name.c_str(), 0600) == 0 && chown(s.name.c_str(), 0, 65534) == 0);
    for (int i = 0; !exists(name_of(s.name, 2, true)); ++i) l->log_INFO("line %d", i), l->wait_compression();
    l->log_INFO("one more");
    for (std::string const& f : {s.name, name_of(s.name, 1, true), name_of(s.name, 2, true)}) {
        struct stat st;
        ASSERT_EQ(stat(f.c_str(), &st), 0) << f;
        EXPECT_EQ(st.st_mode & 07777, 0600u) << f;
        EXPECT_EQ(st.st_gid, 65534u) << f;
    }
}

// The sum of the kept files after 1,000 rotations stays within the cap and one file; every removal is told. No
// descriptor is left behind by the rotations, compressions and removals, nor by the logger's end.
TEST(FileLoggerOperator, KeptFilesCapHoldsAndRemovalsAreTold) {
    int const fds = test_support::open_fds();
    scene_t s;
    file_logger_impl_t* l = s.open("100000z,1k");
    EXPECT_FALSE(file_logger_t::set_disk_limits(nullptr, 8192, -1));
    EXPECT_TRUE(file_logger_t::set_disk_limits(l, 8192, -1) && l->kept_bytes_limit() == 8192);
    s.rotate(1000);
    l->wait_compression();
    EXPECT_EQ(test_support::open_fds(), fds + 1);
    q_int64_t total = 0, largest = 0;
    for (auto const& e : fs::directory_iterator(s.dir)) {
        if (e.path() == s.name) continue;
        total += q_int64_t(e.file_size()), largest = std::max(largest, q_int64_t(e.file_size()));
    }
    EXPECT_LE(total, 8192 + largest);
    // The latest files tell of removals (not every rotation needs one).
    int told = 0;
    for (std::string const& b : split_lines(read_file(s.name) + kept(s.name, 1, true) + kept(s.name, 2, true), true)) {
        std::string const head = "[Logger] Removed old log file \"", tail = "\" to keep kept files within 8192 bytes";
        if (b.compare(0, head.size(), head) != 0) continue;
        ++told;
        EXPECT_TRUE(b.size() > head.size() + tail.size() && b.compare(b.size() - tail.size(), tail.size(), tail) == 0)
            << b;
    }
    EXPECT_GE(told, 1);
    s.close();
    EXPECT_EQ(test_support::open_fds(), fds);
}

// A floor of free space on a private 512 KiB tmpfs: old files go first, then lines are dropped and counted, never
// blocking, and the count is told when there is room again.
TEST(FileLoggerOperator, FreeSpaceFloorRemovesThenDrops) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a private tmpfs";
    scene_t s(true);
    test_support::expect_child_ok([&] {
        if (!test_support::private_mounts(s.dir.c_str(), "size=512k")) return 77;
        handler_t h;
        file_logger_impl_t* l = s.open("100000p,16k");
        l->insert_handler(&h);
        file_logger_t::set_disk_limits(l, -1, 256 << 10);
        for (int i = 0; i < 40000; ++i) {  // 2.3 MiB of lines through a 512 KiB disk
            if (i % 100 == 0) g_now += k_tps;
            l->log_INFO("line %07d", i);
        }
        EXPECT_TRUE(h.calls.empty()) << h.calls.at(0);
        EXPECT_FALSE(exists(name_of(s.name, 1, false)) && exists(name_of(s.name, 20, false)));
        EXPECT_NE(read_file(s.name).find("to keep 262144 bytes free\n"), std::string::npos);

        std::ofstream(s.dir + "/filler") << std::string(300 << 10, 'f');
        g_now += k_tps;
        for (int i = 0; i < 100; ++i) l->log_INFO("dropped %d", i);
        EXPECT_EQ(l->dropped_lines(), 100u);
        std::remove((s.dir + "/filler").c_str());
        g_now += k_tps;
        l->log_INFO("back");
        strings const tail = file_bodies(s.name);
        EXPECT_EQ(strings(tail.end() - 3, tail.end()),
                  (strings{"[Logger] Free space is below 262144 bytes, dropping lines until there is room",
                           "[Logger] 100 lines were dropped while free space was below 262144 bytes", "back"}));
        EXPECT_TRUE(h.calls.empty());
        return int(testing::Test::HasFailure());
    });
}

// Whether a temporary file of the compressed kept file 1 is there.
bool packing(std::string const& name) {
    std::string const temp = name_of(name, 1, true) + ".";
    for (auto const& e : fs::directory_iterator(fs::path(name).parent_path()))
        if (e.path().string().compare(0, temp.size(), temp) == 0) return true;
    return false;
}

// Killed in the middle of a compression: the next start removes the half file and compresses again; ended while it
// does that, the logger stops it between blocks and leaves the plain file; the start after that finishes. No line is
// lost or doubled, and no half .gz ever bears the final name.
TEST(FileLoggerOperator, CrashAndFastEndLeaveNoHalfGzip) {
    scene_t s;
    int const lines = 160000;  // 8 MiB rotated, the rest in the new file
    ASSERT_EQ(test_support::run_child([&] {
        file_logger_impl_t l(s.name.c_str(), "5z,8m", "");
        for (int i = 0; i < lines; ++i) l.log_INFO("crash %07d", i);
        while (!packing(s.name) && !exists(name_of(s.name, 1, true))) sched_yield();
        kill(getpid(), SIGKILL);
    }).status, 128 + SIGKILL);
    EXPECT_TRUE(packing(s.name) && exists(name_of(s.name, 1, false)) && !exists(name_of(s.name, 1, true)));

    {
        file_logger_impl_t restarted(s.name.c_str(), "5z,8m", "");
        while (!packing(s.name)) sched_yield();  // the stale file gone, the compression begun anew
    }
    EXPECT_TRUE(!packing(s.name) && exists(name_of(s.name, 1, false)) && !exists(name_of(s.name, 1, true)));

    file_logger_impl_t(s.name.c_str(), "5z,8m", "").wait_compression();
    EXPECT_FALSE(packing(s.name) || exists(name_of(s.name, 1, false)));
    strings got;
    for (std::string const& b : split_lines(kept(s.name, 1, true) + read_file(s.name), true))
        if (b.compare(0, 9, "[Logger] ") != 0) got.push_back(b);
    std::sort(got.begin(), got.end());
    strings want;
    for (int i = 0; i < lines; ++i) want.push_back(q_format("crash %07d", i));
    EXPECT_TRUE(got == want) << got.size() << " lines for " << want.size();
    std::string const told = read_file(s.name);
    EXPECT_NE(told.find("\" left unfinished by an earlier run\n"), std::string::npos);
    EXPECT_NE(told.find("\" stopped as the logger ends; the next start finishes it\n"), std::string::npos);
}

// logrotate itself, with its own state file, rotates the log three times while four threads write numbered lines.
// create: the daemon's recipe, postrotate sends SIGHUP, whose handler asks for a re-open; every line is then in
// exactly one file. copytruncate: lines written between logrotate's copy and its truncation are lost by the way it
// works, but none is doubled or torn apart, and the writers go on at the file's new start, with no hole of zeros.
void sighup_reopen(int) { file_logger_t::request_reopen(); }

int logrotate_child(std::string const& dir, char const* mode) {
    std::string const name = dir + "/agent.log", conf = dir + "/logrotate.conf";
    std::ofstream(conf) << name << " {\n  rotate 100\n  " << mode << "\n  nocompress\n  missingok\n"
                        << (std::strcmp(mode, "create") == 0
                                ? "  postrotate\n    kill -HUP " + std::to_string(getpid()) + "\n  endscript\n"
                                : "")
                        << "}\n";
    struct sigaction sa = {};
    sa.sa_handler = sighup_reopen;
    sigaction(SIGHUP, &sa, nullptr);
    std::unique_ptr<if_logger_t> l(file_logger_t::create(name.c_str(), "NONE"));
    std::atomic<int> written{0};
    std::atomic<bool> stop{false};
    std::atomic<int> counts[4] = {};
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&, t] {
            for (; !stop; ++counts[t], ++written) l->log_INFO("rot %d %07d", t, counts[t].load());
        });
    for (int run = 0; run <= 3; ++run) {
        // Every writer writes after each rotation, however the threads are scheduled: so its last line comes after
        // the last copy and truncation.
        int base[4];
        for (int t = 0; t < 4; ++t) base[t] = counts[t];
        auto lagging = [&] {
            for (int t = 0; t < 4; ++t)
                if (counts[t] < base[t] + 1000) return true;
            return false;
        };
        for (int const target = written + 20000; written < target || lagging();) sched_yield();
        if (run < 3 && std::system(("/usr/sbin/logrotate -f -s " + dir + "/state " + conf).c_str()) != 0) return 2;
    }
    stop = true;
    for (auto& w : writers) w.join();
    l.reset();

    std::string const text = read_file(name);
    if (text.find('\0') != std::string::npos) return 3;
    std::vector<std::vector<int>> seen(4);
    for (int n = 0; n <= 3; ++n) {
        std::string kept = n ? read_file(name + "." + std::to_string(n)) : text;
        // A copy may end in the middle of a line that was being written: that line is in none of the files.
        if (!kept.empty() && kept.back() != '\n') kept.erase(kept.rfind('\n') + 1);
        for (std::string const& line : split_lines(kept)) {
            int t = -1, i = -1;
            if (body(line).compare(0, 9, "[Logger] ") == 0) continue;
            if (std::sscanf(body(line).c_str(), "rot %d %d", &t, &i) != 2 || t < 0 || t > 3 || line.size() != 57)
                return 4;  // a torn line
            seen[size_t(t)].push_back(i);
        }
    }
    for (int t = 0; t < 4; ++t) {
        std::vector<int>& v = seen[size_t(t)];
        std::sort(v.begin(), v.end());
        if (std::adjacent_find(v.begin(), v.end()) != v.end()) return 5;  // doubled
        if (std::strcmp(mode, "create") == 0 && v.size() != size_t(counts[t])) return 6;  // lost
        if (v.empty() || v.back() != counts[t] - 1) return 7;  // the last line, in the file at its new start
    }
    return 0;
}

TEST(FileLoggerOperator, RealLogrotateCreateAndCopytruncate) {
    if (access("/usr/sbin/logrotate", X_OK) != 0) GTEST_SKIP() << "logrotate is not installed";
    for (char const* mode : {"create", "copytruncate"}) {
        SCOPED_TRACE(mode);
        scene_t s;
        test_support::expect_child_ok([&] { return logrotate_child(s.dir, mode); });
    }
}

}  // namespace
