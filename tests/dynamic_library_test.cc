// Module handles, the module cache and the environment factory, on the test
// plug-ins built in examples/plugins.
#include "dynamic_library.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exceptions.h"
#include "loggers.h"
#include "utilities.h"

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
namespace kd = kern::dynalib;
namespace kc = kern::dynalib::cache;

namespace {

std::string const dir = QVLKERN_EXAMPLES_BINARY_DIR "/plugins";
std::string file_of(char const* lib) { return dir + "/lib" + lib + ".so"; }

// True while the loader has the file mapped.
bool mapped(std::string const& file) {
    auto seen = [](dl_phdr_info* info, size_t, void* arg) -> int {
        return info->dlpi_name && *static_cast<std::string*>(arg) == info->dlpi_name;
    };
    return dl_iterate_phdr(seen, const_cast<std::string*>(&file)) != 0;
}

// Takes over the process logger for its life and keeps the message texts.
class capture_t : public if_logger_t {
public:
    explicit capture_t(msgclass_t level) : if_logger_t(level), saved_(if_logger_t::Log) { if_logger_t::Log = this; }
    ~capture_t() override { if_logger_t::Log = saved_; }
    bool is_stderr() const override { return false; }
    size_t write(char const*) override { return 0; }
    void log_va(msgclass_t c, char const* fmt, va_list ap) override {
        if (!is_logged(c)) return;
        std::string text = q_format_va(fmt, ap);
        std::lock_guard<std::mutex> hold(m_);
        lines_.push_back(text);
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> hold(m_);
        return std::move(lines_);
    }
    // Lines beginning with prefix.
    std::vector<std::string> with(std::string const& prefix) {
        std::vector<std::string> out;
        for (auto& l : take())
            if (l.compare(0, prefix.size(), prefix) == 0) out.push_back(l);
        return out;
    }

private:
    if_logger_t* saved_;
    std::mutex m_;
    std::vector<std::string> lines_;
};

template <class F>
F fn(dynamic_library_t const& lib, char const* name) {
    return reinterpret_cast<F>(lib.get_symbol(name));
}
int answer(dynamic_library_t const& lib) { return fn<int (*)()>(lib, "qvlplug_answer")(); }

// Runs this program again with only `test` selected and the variables set;
// answers the exit status, with standard output and error in out.
int run_child(char const* test, std::vector<std::string> env, std::string& out) {
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "QVLSRV_", 7) != 0) env.push_back(*e);
    env.push_back("QVLKERN_CHILD=1");
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::string exe = "/proc/self/exe", filter = std::string("--gtest_filter=") + test;
    char* argv[] = {&exe[0], &filter[0], nullptr};
    char name[] = "/tmp/dynalib_test.XXXXXX";
    int const fd = mkostemp(name, O_CLOEXEC);
    unlink(name);
    pid_t const pid = fork();
    if (pid == 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        execve(exe.c_str(), argv, envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    out.clear();
    char buf[4096];
    ssize_t n;
    while ((n = pread(fd, buf, sizeof buf, static_cast<off_t>(out.size()))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
bool in_child() { return getenv("QVLKERN_CHILD") != nullptr; }

class dynalib : public ::testing::Test {
protected:
    void SetUp() override {
        if (access(file_of("qvlplug_sig").c_str(), R_OK) != 0) FAIL() << "test plug-ins missing: the examples build makes them";
        kc::flush_all_now();
    }
    void TearDown() override {
        kc::flush_all_now();
        kd::DEBUG = false;
    }
};

}  // namespace

TEST(dynalib_names, file_names_and_empty_handles) {
    timestamp_t const before = kern::time::now();
    dynamic_library_t::impl a("foo", "/opt/m");
    EXPECT_EQ(a.name, "/opt/m/libfoo.so");
    EXPECT_EQ(a.handle, nullptr);
    EXPECT_LE(before, a.last);
    EXPECT_EQ(a.symbol("anything"), nullptr);  // not the whole process
    EXPECT_EQ(dynamic_library_t::impl("libbar.so.2", nullptr).name, "libbar.so.2");
    EXPECT_EQ(dynamic_library_t::impl("libbaz", "").name, "libbaz.so");
    EXPECT_EQ(dynamic_library_t::impl("x.so", "/p").name, "/p/libx.so");
    EXPECT_EQ(dynamic_library_t::impl("foo", "/p/").name, "/p//libfoo.so");
    EXPECT_EQ(dynamic_library_t::impl("lib", "/p").name, "/p/lib.so");

    dynamic_library_t empty;
    EXPECT_EQ(empty.get_name(), "");
    EXPECT_EQ(&empty.get_name(), &dynamic_library_t().get_name());
    EXPECT_EQ(empty.get_symbol("malloc"), nullptr);
    EXPECT_FALSE(empty.is_loaded());
    empty.reset();
}

TEST_F(dynalib, cache_shares_one_image_and_keeps_it_until_flushed) {
    std::string const file = file_of("qvlplug_sig");
    capture_t log(if_logger_t::DEBUG_3);
    kc::set_enabled();
    {
        dynamic_library_t a("qvlplug_sig", dir.c_str());
        dynamic_library_t b("qvlplug_sig", dir.c_str());
        EXPECT_EQ(a.get_impl(), b.get_impl());
        EXPECT_EQ(a.get_impl().use_count(), 3);  // a, b and the cache
        EXPECT_EQ(a.get_name(), file);
        EXPECT_EQ(answer(b), 42);
        EXPECT_EQ(fn<int (*)()>(a, "qvlplug_constructed")(), 1);
        EXPECT_EQ(log.with("Loading library"), std::vector<std::string>{"Loading library \"" + file + "\""});
        a.reset();
        EXPECT_FALSE(a.get_impl());
        EXPECT_TRUE(mapped(file));
    }
    kc::flush_if_need();  // idle for less than the time to live
    EXPECT_TRUE(mapped(file));
    dynamic_library_t c("qvlplug_sig", dir.c_str());  // found, not loaded again
    EXPECT_TRUE(log.with("Loading library").empty());
    c.reset();
    kc::flush_all_now();
    EXPECT_FALSE(mapped(file));
    EXPECT_FALSE(kc::s_storage);  // flushing all disables the cache
}

TEST_F(dynalib, without_cache_each_handle_opens_its_own_image) {
    std::string const file = file_of("qvlplug_sig");
    capture_t log(if_logger_t::DEBUG_3);
    dynamic_library_t a("qvlplug_sig", dir.c_str());
    dynamic_library_t b("qvlplug_sig", dir.c_str());
    EXPECT_NE(a.get_impl(), b.get_impl());
    EXPECT_EQ(a.get_impl()->handle, b.get_impl()->handle);  // the loader counts
    EXPECT_EQ(log.with("Loading library").size(), 2u);
    a.reset();
    EXPECT_TRUE(mapped(file));
    b.reset();
    EXPECT_FALSE(mapped(file));
}

TEST_F(dynalib, load_failures_and_missing_symbols) {
    auto loader_text = [](std::string const& file) {
        void* h = dlopen(file.c_str(), RTLD_NOW);
        EXPECT_EQ(h, nullptr);
        return std::string(dlerror());
    };
    kc::set_enabled();
    for (char const* lib : {"qvlplug_none", "qvlplug_unresolved"}) {
        std::string const file = file_of(lib);
        dynamic_library_t h;
        errno = EINVAL;
        try {
            h.init(lib, dir.c_str());
            ADD_FAILURE() << lib << " loaded";
        } catch (library_load_exception_shell_t const& e) {
            EXPECT_EQ(errno, 0);
            EXPECT_EQ(std::string(e.what()),
                      "load library \"" + file + "\" failed because of " + loader_text(file));
        }
        ASSERT_TRUE(h.get_impl());  // the unloaded image stays
        std::string const ptr = q_format("%p", static_cast<void*>(h.get_impl().get()));
        EXPECT_FALSE(h.is_loaded());
        EXPECT_EQ(h.get_symbol("qvlplug_answer"), nullptr);
        EXPECT_EQ(h.get_name(), file);
        kd::DEBUG = true;
        capture_t log(if_logger_t::DEBUG_3);
        h.reset();  // never cached
        EXPECT_THAT(log.take(), ElementsAre(MatchesRegex("\\[DynaLib\\] Reset not loaded library \\(this=0x[0-9a-f]+\\)"),
                                            "[DynaLib] Not loaded impl (this=" + ptr + " \"" + file + "\")"));
        kd::DEBUG = false;
    }
    EXPECT_THAT(loader_text(file_of("qvlplug_unresolved")), HasSubstr("undefined symbol: qvlplug_missing_function"));
    EXPECT_EQ(kc::s_storage->count, 0u);

    dynamic_library_t lib("qvlplug_nosig", dir.c_str());
    capture_t log(if_logger_t::TRACE_1);
    EXPECT_EQ(lib.get_symbol("qvlplug_nothing"), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(StartsWith("Unable to find symbol `qvlplug_nothing' in library `" +
                                                   file_of("qvlplug_nosig") + "' because of ")));
}

TEST_F(dynalib, signature_is_called_and_logged_at_trace_level_1) {
    kc::set_enabled();
    dynamic_library_t first("qvlplug_sig", dir.c_str());
    auto const calls = fn<int (*)()>(first, "qvlplug_signature_calls");
    int const before = calls();
    {
        capture_t log(if_logger_t::TRACE);  // one level short: not even looked up
        dynamic_library_t again("qvlplug_sig", dir.c_str());
        EXPECT_EQ(calls(), before);
        EXPECT_TRUE(log.take().empty());
    }
    capture_t log(if_logger_t::TRACE_1);
    dynamic_library_t again("qvlplug_sig", dir.c_str());
    EXPECT_EQ(calls(), before + 1);
    dynamic_library_t nosig("qvlplug_nosig", dir.c_str());
    EXPECT_THAT(log.take(), ElementsAre("qvlplug_sig test module 1.0",
                                        StartsWith("Unable to find symbol `signature' in library `" +
                                                   file_of("qvlplug_nosig") + "' because of ")));
}

TEST_F(dynalib, debug_messages_tell_the_cache_story) {
    std::string const name = "libqvlplug_nosig.so";
    std::string const P = "0x[0-9a-f]+", T = "[0-9]{17}";
    kd::DEBUG = true;
    capture_t log(if_logger_t::DEBUG_3);
    kc::set_libdir(dir);
    EXPECT_EQ(kc::s_libdir, dir + "/");
    kc::set_enabled();
    kc::set_enabled();
    EXPECT_THAT(log.take(), ElementsAre("[DynaLib] Set libdir to \"" + dir + "\"", "[DynaLib] Set mode to enabled",
                                        MatchesRegex("\\[DynaLib\\] Storage created @" + P),
                                        "[DynaLib] Already enabled"));
    {
        dynamic_library_t a("qvlplug_nosig", dir.c_str());
        unsigned const index = static_cast<unsigned>(lstr_t("qvlplug_nosig").calc_hash64() % 5);
        EXPECT_THAT(log.take(),
                    ElementsAre(MatchesRegex("\\[DynaLib\\] Create library \\(this=" + P + "\\)"),
                                MatchesRegex("\\[DynaLib\\] Init library \\(this=" + P + " lib=\"qvlplug_nosig\" path=\"" +
                                             dir + "\"\\)"),
                                "[DynaLib] Not found library \"" + name + "\"",
                                "[DynaLib] Locking DSO index=" + std::to_string(index) + " \"qvlplug_nosig\"",
                                "Loading library \"" + dir + "/" + name + "\"",
                                MatchesRegex("\\[DynaLib\\] Loading impl \\(this=" + P + " \"" + name + "\"\\)"),
                                MatchesRegex("\\[DynaLib\\] Loaded impl \\(this=" + P + " handle=" + P + " \"" + name + "\"\\)"),
                                MatchesRegex("\\[DynaLib\\] Stored impl \\(use=2 this=" + P + " handle=" + P + " last=" + T +
                                             "\\) \"" + name + "\""),
                                StartsWith("Unable to find symbol `signature'")));
        dynamic_library_t b("qvlplug_nosig", dir.c_str());
        EXPECT_THAT(log.take(),
                    ElementsAre(MatchesRegex("\\[DynaLib\\] Create library \\(this=" + P + "\\)"),
                                StartsWith("[DynaLib] Init library"),
                                MatchesRegex("\\[DynaLib\\] Found library \\(use=2 this=" + P + " handle=" + P + " last=" + T +
                                             "\\) \"" + name + "\""),
                                MatchesRegex("\\[DynaLib\\] Not loaded impl \\(this=" + P + " \"" + name + "\"\\)"),
                                StartsWith("Unable to find symbol `signature'")));
        b.reset();
        kc::flush_if_need();
        EXPECT_THAT(log.take(),
                    ElementsAre(MatchesRegex("\\[DynaLib\\] Free loaded library \\(this=" + P + " \"" + name + "\"\\)"),
                                MatchesRegex("\\[DynaLib\\] Duplicate impl \\(use=3 this=" + P + " handle=" + P + " last=" + T +
                                             "\\) \"" + name + "\""),
                                MatchesRegex("\\[DynaLib\\] Flush \\(if olded " + T + "\\) started \\(1 here\\)"),
                                MatchesRegex("\\[DynaLib\\] Keep library \\(use=2 this=" + P + " handle=" + P + " last=" + T +
                                             "\\) \"" + name + "\"")));
    }
    EXPECT_THAT(log.take(), ElementsAre(StartsWith("[DynaLib] Reset not loaded library (this=0x"),
                                        StartsWith("[DynaLib] Destroy library (this=0x"),
                                        StartsWith("[DynaLib] Free loaded library"), StartsWith("[DynaLib] Duplicate impl (use=2 "),
                                        StartsWith("[DynaLib] Destroy library (this=0x")));
    kc::flush_all_now();
    EXPECT_THAT(log.take(),
                ElementsAre("[DynaLib] Flush (all now) started (1 here)", MatchesRegex("\\[DynaLib\\] Storage destroying @" + P),
                            MatchesRegex("\\[DynaLib\\] Destroy impl \\(this=" + P + " handle=" + P + " \"" + name + "\"\\)"),
                            "Unloading library \"" + dir + "/" + name + "\"",
                            MatchesRegex("\\[DynaLib\\] Destroyed impl \\(this=" + P + " handle=" + P + " \"" + name + "\"\\)")));

    dynamic_library_t c;  // the cache is now disabled
    c.init("qvlplug_nosig", dir.c_str());
    EXPECT_THAT(log.take(), ElementsAre(MatchesRegex("\\[DynaLib\\] Create @" + P + " library"), StartsWith("[DynaLib] Init library"),
                                        "[DynaLib] Locate not enabled, library \"" + name + "\"", StartsWith("[DynaLib] Locking DSO"),
                                        StartsWith("Loading library"), StartsWith("[DynaLib] Loading impl"),
                                        StartsWith("[DynaLib] Loaded impl"), "[DynaLib] Store not enabled, library \"" + name + "\"",
                                        StartsWith("Unable to find symbol `signature'")));
    kc::flush_all_now();
    kc::flush_if_need();
    kc::set_disabled();
    kc::set_enabled();
    kc::set_disabled();
    EXPECT_THAT(log.take(), ElementsAre("[DynaLib] Flush (all now) not enabled",
                                        MatchesRegex("\\[DynaLib\\] Flush \\(if olded " + T + "\\) not available"),
                                        "[DynaLib] Already disabled", "[DynaLib] Set mode to enabled", StartsWith("[DynaLib] Storage created @"),
                                        "[DynaLib] Set mode to disabled", "[DynaLib] Flush (all now) started (0 here)",
                                        StartsWith("[DynaLib] Storage destroying @")));
    kc::set_libdir("/opt/x");
    EXPECT_EQ(kc::s_libdir, "/opt/x/");
    EXPECT_EQ(kd::drop_root("/opt/x/liba.so"), "liba.so");
    EXPECT_EQ(kd::drop_root("/opt/xy/liba.so"), "/opt/xy/liba.so");
    kc::set_libdir("/opt/x/");
    EXPECT_EQ(kc::s_libdir, "/opt/x/");
    kc::set_libdir("");
    EXPECT_EQ(kc::s_libdir, "");
    EXPECT_EQ(kd::drop_root("/opt/x/liba.so"), "/opt/x/liba.so");
}

// Many threads open the same and different modules at once: every name is
// opened by the loader once, and all handles on a name share its image.
TEST_F(dynalib, concurrent_opens_load_each_name_once) {
    std::vector<std::string> libs{"qvlplug_sig", "qvlplug_nosig"};
    for (int i = 0; i < 8; ++i) libs.push_back("qvlplug_multi_" + std::to_string(i));
    capture_t log(if_logger_t::DEBUG_3);
    kc::set_enabled();
    int const threads = 16;
    std::vector<std::vector<std::unique_ptr<dynamic_library_t>>> held(threads);
    std::atomic<int> ready(0);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            ++ready;
            while (ready.load() < threads) {
            }
            for (size_t k = 0; k < libs.size(); ++k)
                held[t].emplace_back(new dynamic_library_t(libs[(k + t) % libs.size()].c_str(), dir.c_str()));
        });
    for (auto& th : pool) th.join();
    std::map<std::string, int> loads;
    for (auto& line : log.with("Loading library")) ++loads[line];
    EXPECT_EQ(loads.size(), libs.size());
    for (auto& l : loads) EXPECT_EQ(l.second, 1) << l.first;
    for (int t = 0; t < threads; ++t)
        for (auto& h : held[t]) {
            // every thread's handle on the name, and the cache
            EXPECT_EQ(h->get_impl().use_count(), threads + 1);
            if (void* f = h->get_symbol("qvlplug_constructed")) {
                EXPECT_EQ(reinterpret_cast<int (*)()>(f)(), 1);
            }
        }
}

// Threads open, use and release modules while another flushes idle ones
// with no time to live at all: a module must never go while a handle holds
// it (calling into it would then crash), and nothing leaks or races.
TEST_F(dynalib, flushing_never_unloads_a_held_module) {
    std::vector<std::string> libs{"qvlplug_sig"};
    for (int i = 0; i < 8; ++i) libs.push_back("qvlplug_multi_" + std::to_string(i));
    timegap_t const ttl = kc::s_time_to_live;
    kc::s_time_to_live = timegap_t(0);
    kc::set_enabled();
    std::atomic<bool> stop(false);
    std::atomic<long> flushes(0);
    std::thread flusher([&] {
        while (!stop.load()) {
            kc::flush_if_need();
            ++flushes;
        }
    });
    std::atomic<int> wrong(0);
    std::vector<std::thread> pool;
    for (int t = 0; t < 8; ++t)
        pool.emplace_back([&, t] {
            for (int round = 0; round < 300; ++round) {
                size_t const k = static_cast<size_t>(round * 7 + t) % libs.size();
                dynamic_library_t a(libs[k].c_str(), dir.c_str());
                dynamic_library_t b(libs[(k + 1) % libs.size()].c_str(), dir.c_str());
                int const expect = k == 0 ? 42 : static_cast<int>(k - 1);
                for (int i = 0; i < 20; ++i)
                    if (answer(a) != expect) ++wrong;
                if (round % 50 == 0 && !mapped(a.get_name())) ++wrong;
                if (round % 3 == 0) a.reset();
                if (round % 100 == 99 && t == 0) kc::flush_all_now(), kc::set_enabled();
                if (answer(b) < 0) ++wrong;
            }
        });
    for (auto& th : pool) th.join();
    stop = true;
    flusher.join();
    kc::flush_if_need();
    kc::s_time_to_live = ttl;
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(flushes.load(), 0);
    EXPECT_EQ(kc::s_storage->count, 0u);  // all idle, all dropped
    for (auto& l : libs) EXPECT_FALSE(mapped(file_of(l.c_str()))) << l;
}

namespace {

// Records the progress reports and whether the module was mapped then.
struct progress_t : kern_n::if_environment_t::if_progress_cb_t {
    void progress(int percent, char const* text) override {
        seen.push_back(std::to_string(percent) + " " + text + (mapped(file_of("qvlplug_env")) ? " mapped" : " gone"));
    }
    std::vector<std::string> seen;
};

}  // namespace

TEST_F(dynalib, environment_factory_keeps_errors_and_destroys_the_object_first) {
    typedef kern_n::if_environment_t::factory_t factory_t;
    progress_t cb;
    {
        factory_t f("qvlplug_env", dir.c_str(), &cb);
        EXPECT_EQ(f.get_error(), "");
        ASSERT_NE(f.get_env(), nullptr);
        EXPECT_EQ(f.get_env()->execute(21, nullptr), 42);
        EXPECT_EQ(f.get_env()->start("x"), 1);
    }
    // Without the cache the factory held the module's last reference.
    EXPECT_THAT(cb.seen, ElementsAre("0 created mapped", "100 destroyed mapped"));
    EXPECT_FALSE(mapped(file_of("qvlplug_env")));

    factory_t none("qvlplug_env", dir.c_str(), nullptr);
    EXPECT_EQ(none.get_env(), nullptr);
    EXPECT_EQ(none.get_error(), "");

    factory_t nocreate("qvlplug_nosig", dir.c_str(), &cb);
    EXPECT_EQ(nocreate.get_error(), "Unable to find \"create\" symbol");
    EXPECT_EQ(nocreate.get_env(), nullptr);
    EXPECT_TRUE(nocreate.is_loaded());

    factory_t thrown("qvlplug_throw", dir.c_str(), &cb);
    EXPECT_EQ(thrown.get_error(), "qvlplug_throw refuses to create");
    EXPECT_EQ(thrown.get_env(), nullptr);
    EXPECT_EQ(factory_t("qvlplug_throw", dir.c_str(), nullptr).get_error(), "general error");

    factory_t missing("qvlplug_none", dir.c_str(), &cb);
    EXPECT_THAT(missing.get_error(), StartsWith("load library \"" + file_of("qvlplug_none") + "\" failed because of "));
    EXPECT_EQ(missing.get_env(), nullptr);
    EXPECT_THAT(factory_t("qvlplug_unresolved", dir.c_str(), &cb).get_error(),
                HasSubstr("undefined symbol: qvlplug_missing_function"));
}

// In a child with QVLSRV_DYNALIB_TTL=0: every idle entry that only the cache
// holds drops at the next flush; a held one stays.
TEST(dynalib_child, ttl_zero) {
    if (!in_child()) GTEST_SKIP() << "runs in a child process";
    ASSERT_EQ(kc::s_time_to_live, timegap_t(0));
    std::string const sig = file_of("qvlplug_sig"), nosig = file_of("qvlplug_nosig");
    kc::set_enabled();
    dynamic_library_t held("qvlplug_sig", dir.c_str());
    dynamic_library_t idle("qvlplug_nosig", dir.c_str());
    idle.reset();
    kd::DEBUG = true;
    capture_t log(if_logger_t::DEBUG_3);
    kc::flush_if_need();
    EXPECT_THAT(log.with("[DynaLib] "), ElementsAre(StartsWith("[DynaLib] Flush (if olded "),
                                                    ContainsRegex("^\\[DynaLib\\] Drop library \\(use=1 .*\"" + nosig + "\""),
                                                    ContainsRegex("^\\[DynaLib\\] Keep library \\(use=2 .*\"" + sig + "\""),
                                                    StartsWith("[DynaLib] Destroy impl"), StartsWith("[DynaLib] Destroyed impl")));
    EXPECT_FALSE(mapped(nosig));
    EXPECT_TRUE(mapped(sig));
    held.reset();
    kc::flush_if_need();
    EXPECT_FALSE(mapped(sig));
    EXPECT_EQ(kc::s_storage->count, 0u);
}

TEST(dynalib_child, ttl_zero_runs) {
    std::string out;
    EXPECT_EQ(run_child("dynalib_child.ttl_zero", {"QVLSRV_DYNALIB_TTL=0"}, out), 0) << out;
    EXPECT_THAT(out, HasSubstr("[  PASSED  ] 1 test"));
}
