// The exposition: accepted by promtool in both formats, values equal to the counters, the textfile written whole.
#include "metrics.h"

#include <cstdio>
#include <map>
#include <set>

#include <gmock/gmock.h>

#include "code-exec-time.h"
#include "dynamic_library.h"
#include "exceptions.h"
#include "lwp.h"
#include "quote-utils.h"
#include "random.h"
#include "test-support.h"
#include "unx-utils-alloc.h"

using kern::metrics::format_t;
namespace sd = kern::syncers::detail;

namespace {

std::string render(format_t f) {
    std::string out;
    kern::metrics::append(out, f);
    return out;
}

// promtool from QVLKERN_PROMTOOL, or where scripts/promtool.sh extracts it; empty when neither is there.
std::string promtool() {
    if (char const* p = std::getenv("QVLKERN_PROMTOOL")) return access(p, X_OK) == 0 ? p : "";
    char const* cache = std::getenv("XDG_CACHE_HOME");
    char const* home = std::getenv("HOME");
    std::string const p = (cache ? std::string(cache) : std::string(home ? home : "") + "/.cache") +
                          "/qvlkern/prometheus/usr/bin/promtool";
    return access(p.c_str(), X_OK) == 0 ? p : "";
}

// Runs a shell command; its exit status and what it wrote to stdout and stderr.
std::pair<int, std::string> shell(std::string const& cmd) {
    std::string out;
    FILE* const p = popen((cmd + " 2>&1").c_str(), "r");
    for (char buf[4096]; std::size_t n = std::fread(buf, 1, sizeof buf, p);) out.append(buf, n);
    int const status = pclose(p);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Sample lines by series text ("name{labels}"), after checking the structure: HELP and TYPE of one family before its
// samples, counters as <family>_total, histograms as _bucket and _count, no series twice, "# EOF" last.
std::map<std::string, std::string> parse(std::string const& text, bool om) {
    std::map<std::string, std::string> series;
    std::string family, type;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t const nl = text.find('\n', at);
        EXPECT_NE(nl, std::string::npos) << "unterminated last line";
        std::string const line = text.substr(at, nl - at);
        at = nl + 1;
        if (line == "# EOF") {
            EXPECT_TRUE(om && at == text.size()) << "# EOF not last or not OpenMetrics";
            return series;
        }
        char word[160];
        if (std::sscanf(line.c_str(), "# HELP %159s", word) == 1) {
            family = word, type.clear();
            continue;
        }
        if (std::sscanf(line.c_str(), "# TYPE %159s", word) == 1) {
            EXPECT_EQ(word, family) << line;
            type = line.substr(line.rfind(' ') + 1);
            continue;
        }
        std::size_t const space = line.rfind(' ');
        std::string const key = line.substr(0, space), name = key.substr(0, key.find('{'));
        std::string const base = type == "counter" && om ? family + "_total" : family;
        std::set<std::string> const allowed = type == "histogram" ? std::set<std::string>{base + "_bucket", base + "_count"}
                                                                  : std::set<std::string>{base};
        EXPECT_TRUE(allowed.count(name)) << line << " in family " << family << " " << type;
        EXPECT_TRUE(series.emplace(key, line.substr(space + 1)).second) << "twice: " << line;
    }
    EXPECT_FALSE(om) << "no # EOF";
    return series;
}

// A value in ticks of 10 ns when it has decimals, else as it stands.
q_uint64_t number(std::string const& v) {
    std::size_t const dot = v.find('.');
    if (dot == std::string::npos) return std::stoull(v);
    return std::stoull(v.substr(0, dot)) * 100000000 + std::stoull((v.substr(dot + 1) + "00000000").substr(0, 8));
}

struct stats_on_t {
    stats_on_t() { kern::runtime::stat::mode_s_ = 1; }
    ~stats_on_t() { kern::runtime::stat::mode_s_ = 0; }
};

}  // namespace

TEST(metrics, promtool_accepts_both_formats) {
    std::string const tool = promtool();
    if (tool.empty()) GTEST_SKIP() << "promtool not found: run scripts/promtool.sh or set QVLKERN_PROMTOOL";
    test_support::temp_dir_t const tmp;
    // The text format through the linter; OpenMetrics through the strict parser of its block import, which
    // wants a time stamp on every sample.
    std::string const text = tmp.file("text.prom", render(format_t::prometheus_text));
    auto const lint = shell(tool + " check metrics < " + text);
    EXPECT_EQ(lint, std::make_pair(0, std::string())) << lint.second;

    std::string om = render(format_t::openmetrics), stamped;
    for (std::size_t at = 0, nl; (nl = om.find('\n', at)) != std::string::npos; at = nl + 1)
        stamped += om.substr(at, nl - at) + (om[at] == '#' ? "\n" : " 1700000000\n");
    auto const import = shell(tool + " tsdb create-blocks-from openmetrics -q " + tmp.file("om.txt", stamped) + " " +
                              tmp.path + "/blocks");
    EXPECT_EQ(import.first, 0) << import.second;
    // The parser is strict where the escaping of thread names matters: a label value must be UTF-8.
    stamped.insert(stamped.find("# HELP qvlkern_sync_takes "), "qvlkern_sync_takes_total{kind=\"\xff\"} 1 1700000000\n");
    EXPECT_NE(shell(tool + " tsdb create-blocks-from openmetrics -q " + tmp.file("bad.txt", stamped) + " " +
                    tmp.path + "/bad").first, 0) << "the parser takes a label that is not UTF-8";
}

TEST(metrics, values_are_the_counters) {
    stats_on_t const stats;
    namespace q = kern::quote::stat;
    struct row_t {
        char const* series;
        std::function<q_uint64_t()> read;
        q_uint64_t bump;  // at least this much more than before the work below
    } const rows[] = {
        {"qvlkern_sync_objects_created_total{kind=\"mutex\"}", [] { return q_uint64_t(sd::mutex::ctor); }, 1},
        {"qvlkern_sync_takes_total{kind=\"mutex\"}", [] { return q_uint64_t(sd::mutex::take); }, 3},
        {"qvlkern_sync_releases_total{kind=\"mutex\"}", [] { return q_uint64_t(sd::mutex::free); }, 3},
        {"qvlkern_sync_takes_total{kind=\"rwlock\",mode=\"shared\"}", [] { return q_uint64_t(sd::rwlock::stake); }, 2},
        {"qvlkern_sync_takes_total{kind=\"rwlock\",mode=\"exclusive\"}", [] { return q_uint64_t(sd::rwlock::xtake); }, 1},
        {"qvlkern_sync_objects_destroyed_total{kind=\"semaphore\"}", [] { return q_uint64_t(sd::semaphore::dtor); }, 1},
        {"qvlkern_quote_calls_total{op=\"quote\"}", [] { return q::quote::calls.load(); }, 2},
        {"qvlkern_quote_input_bytes_total{op=\"quote\"}", [] { return q::quote::size.load(); }, 22},
        {"qvlkern_quote_calls_total{op=\"dequote\"}", [] { return q::dequote::calls.load(); }, 1},
        {"qvlkern_quote_seconds_total{op=\"quote\"}", [] { return q::quote::time.load(); }, 0},
        {"qvlkern_random_draws_total", [] { return kern::random::stat::calls.load(); }, 1000},
        {"qvlkern_random_seconds_total", [] { return kern::random::stat::time.load(); }, 0},
        {"qvlkern_uuid_calls_total", [] { return kern::guid::stat::calls.load(); }, 5},
        {"qvlkern_thread_entries_created_total", [] { return q_uint64_t(kern_n::runnable_t::SeqIdCnt); }, 1},
        {"qvlkern_statistics_mode{clock=\"thread\"}", [] { return q_uint64_t(1); }, 0},
        {"qvlkern_dynalib_cache_ttl_seconds", [] { return q_uint64_t(kern::dynalib::cache::s_time_to_live.value); }, 0},
    };
    std::vector<q_uint64_t> before;
    for (auto const& r : rows) before.push_back(r.read());

    {
        mutex_t m;
        for (int i = 0; i < 3; ++i) xlocker_t<mutex_t> hold(m);
        rwlock_t rw;
        rw.slock(), rw.slock(), rw.unlock(), rw.unlock(), rw.xlock(), rw.unlock();
        semaphore_t s(1);
        std::string quoted, plain;
        quote_string("a, b\r\n", 6, quoted), quote_string("sixteen bytes...", 16, quoted);
        dequote_string(lstr_t("a%Mb"), plain);
        for (int i = 0; i < 1000; ++i) sysrnd.rand();
        char uuid[37];
        for (int i = 0; i < 5; ++i) get_uuid(uuid);
    }
    // A thread whose name needs every escape and holds a byte that is not UTF-8.
    event_t go(false, true), named(false, true);
    lwp_t::shared const t = lwp_t::start("w \"x\"\\\n\xff", [&] { named.signal(), go.wait(timegap_t::infinite()); }, false);
    named.wait(timegap_t::infinite());
    std::string const text = render(format_t::openmetrics), plain = render(format_t::prometheus_text);
    go.signal();
    t->join(timegap_t::infinite());

    auto const series = parse(text, true);
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].series);
        ASSERT_TRUE(series.count(rows[i].series));
        q_uint64_t const v = number(series.at(rows[i].series));
        EXPECT_GE(v, before[i] + rows[i].bump);
        EXPECT_LE(v, rows[i].read());
    }
    std::string const tid = "tid=\"" + std::to_string(t->tid) + "\"";
    EXPECT_TRUE(series.count("qvlkern_thread_cpu_seconds_total{type=\"lwp\",name=\"w \\\"x\\\"\\\\\\n\xEF\xBF\xBD\"," +
                             tid + "}")) << text;
    EXPECT_EQ(parse(plain, false).size(), series.size());

    if (!kern::alloc::wrapped()) return;
    std::vector<char*> blocks;
    for (int i = 0; i < 5; ++i) blocks.push_back(static_cast<char*>(std::malloc(100)));  // bucket le=128
    auto const alloc = parse(render(format_t::openmetrics), true);
    for (char* b : blocks) std::free(b);
    q_uint64_t const in_128 = number(alloc.at("qvlkern_alloc_block_size_bytes_bucket{le=\"128\"}")) -
                              number(alloc.at("qvlkern_alloc_block_size_bytes_bucket{le=\"64\"}"));
    EXPECT_GE(in_128, 5u);
    EXPECT_LE(in_128, q_uint64_t(kern::alloc::stat::sizes::malloc[7]));
    EXPECT_EQ(alloc.at("qvlkern_alloc_block_size_bytes_bucket{le=\"+Inf\"}"),
              alloc.at("qvlkern_alloc_block_size_bytes_count"));
    EXPECT_GE(number(alloc.at("qvlkern_alloc_calls_total{function=\"malloc\"}")), 5u);
}

TEST(metrics, textfile_replaces_the_file_whole) {
    test_support::temp_dir_t const tmp;
    std::string const target = tmp.file("agent.prom", "old"), victim = tmp.file("victim", "keep");
    umask(022);
    std::string const missing = tmp / "none/agent.prom";
    struct { char const* name; std::function<void()> before; char const* path; char const* error; } const cases[] = {
        {"over a file", [] {}, target.c_str(), ""},
        {"over a link", [&] { unlink(target.c_str()), (void)!symlink(victim.c_str(), target.c_str()); }, target.c_str(),
         ""},
        {"missing directory", [] {}, missing.c_str(),
         "unable to create file \"%s/none/agent.prom.*.tmp\" because of No such file"},
        {"no path", [] {}, nullptr, "unable to create file \"\\(null\\)\" because of Invalid argument"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        c.before();
        try {
            kern::metrics::write_textfile(c.path);
            EXPECT_STREQ(c.error, "");
        } catch (io_error_exception_shell_t const& e) {
            EXPECT_THAT(e.what(), testing::MatchesRegex(q_format(c.error, tmp.path.c_str()) + ".*"));
        }
        if (*c.error) continue;
        struct stat st;
        ASSERT_EQ(lstat(target.c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode) && (st.st_mode & 07777) == 0644) << std::oct << st.st_mode;
        EXPECT_THAT(tmp.read("agent.prom"), testing::StartsWith("# HELP qvlkern_sync_objects_created_total "));
        EXPECT_EQ(tmp.read("victim"), "keep");
    }
    EXPECT_EQ(shell("ls " + tmp.path).second, "agent.prom\nvictim\n") << "a temporary file was left";
}

TEST(metrics, textfile_on_a_full_disk_fails_and_leaves_nothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
    test_support::temp_dir_t const tmp;
    test_support::expect_child_ok([&] {
        if (!test_support::private_mounts(tmp.path.c_str(), "size=4k")) return 10;
        std::string const path = tmp / "agent.prom";
        try {
            kern::metrics::write_textfile(path.c_str(), format_t::openmetrics);
            return 11;
        } catch (io_error_exception_shell_t const& e) {
            if (!testing::Matches(testing::MatchesRegex("unable to write into file \".*/agent\\.prom\\.[0-9]+\\.[0-9]+"
                                                        "\\.tmp\" because of No space left on device.*"))(e.what()))
                return std::fprintf(stderr, "%s\n", e.what()), 12;
        }
        return shell("ls -A " + tmp.path).second.empty() ? 0 : 13;
    });
}
