// Module handles, the module cache and the environment factory, on the plug-ins of examples/plugins.
#include "dynamic_library.h"

#include <dlfcn.h>
#include <fstream>

#include <atomic>
#include <cerrno>
#include <regex>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>

#include "exceptions.h"
#include "test-support.h"

using namespace ::testing;
namespace kd = kern::dynalib;
namespace kc = kern::dynalib::cache;

static std::string const dir = QVLKERN_EXAMPLES_BINARY_DIR "/plugins";
static std::string file_of(std::string const& lib) { return dir + "/lib" + lib + ".so"; }

// True while the file is mapped in this process. Read from /proc rather than
// through dl_iterate_phdr, whose ThreadSanitizer interceptor reads a module's
// name after the loader's lock and so reports an unload elsewhere as a race.
static bool mapped(std::string const& file) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.size() > file.size() && line.compare(line.size() - file.size(), file.size(), file) == 0 &&
            line[line.size() - file.size() - 1] == ' ')
            return true;
    return false;
}

using capture_t = test_support::record_logger_t;

// Matches the lines written as pattern, one for each "|"-separated piece, after the class: "~" at the start stands
// for "[DynaLib] ", %p for any pointer, %t for a 17-digit time stamp and %s for any text.
static Matcher<std::vector<std::string>> story(std::string const& pattern) {
    std::vector<Matcher<std::string const&>> lines;
    std::istringstream in(pattern);
    for (std::string piece; std::getline(in, piece, '|');) {
        if (piece[0] == '~') piece.replace(0, 1, "[DynaLib] ");
        std::string re = std::regex_replace(piece, std::regex(R"([\\^$.?*+()[\]{}])"), R"(\$&)");
        for (auto const& [from, to] : {std::pair("%p", "0x[0-9a-f]+"), {"%t", "[0-9]{17}"}, {"%s", ".*"}})
            re = std::regex_replace(re, std::regex(from), to);
        lines.push_back(MatchesRegex("[0-9]+ " + re));
    }
    return ElementsAreArray(lines);
}

template <class F> F fn(dynamic_library_t const& lib, char const* name) { return reinterpret_cast<F>(lib.get_symbol(name)); }
static int answer(dynamic_library_t const& lib) { return fn<int (*)()>(lib, "qvlplug_answer")(); }

struct dynalib : Test {
    void SetUp() override {
        ASSERT_EQ(access(file_of("qvlplug_sig").c_str(), R_OK), 0) << "test plug-ins missing: the examples build makes them";
        kc::flush_all_now();
    }
    void TearDown() override { kc::flush_all_now(), kd::DEBUG = false; }
};

TEST(dynalib_names, file_names_and_empty_handles) {
    dynamic_library_t::impl a("foo", "/opt/m");
    EXPECT_TRUE(a.handle == nullptr && a.symbol("anything") == nullptr);  // not the whole process
    struct { char const *lib, *path, *name; } const names[] = {
        {"libbar.so.2", nullptr, "libbar.so.2"}, {"libbaz", "", "libbaz.so"}, {"x.so", "/p", "/p/libx.so"},
        {"foo", "/p/", "/p//libfoo.so"}, {"lib", "/p", "/p/lib.so"}, {"foo", "/opt/m", "/opt/m/libfoo.so"}};
    for (auto const& n : names) EXPECT_EQ(dynamic_library_t::impl(n.lib, n.path).name, n.name);

    dynamic_library_t empty;
    EXPECT_TRUE(empty.get_name().empty() && empty.get_symbol("malloc") == nullptr && !empty.is_loaded());
    empty.reset();
}

TEST_F(dynalib, cache_shares_one_image_and_keeps_it_until_flushed) {
    std::string const file = file_of("qvlplug_sig"), sig = "qvlplug_sig test module 1.0";
    capture_t log(if_logger_t::DEBUG_3);
    kc::set_enabled();
    dynamic_library_t a("qvlplug_sig", dir.c_str()), b("qvlplug_sig", dir.c_str());
    EXPECT_EQ(a.get_impl(), b.get_impl());
    EXPECT_EQ(a.get_impl().use_count(), 3);  // a, b and the cache
    EXPECT_EQ(answer(b), 42);
    EXPECT_EQ(b.get_symbol("qvlplug_nothing"), nullptr);
    // Loaded once; the signature called and logged at trace level 1 at each opening.
    EXPECT_THAT(log.take(), story("Loading library \"" + file + "\"|" + sig + "|" + sig +
                                  "|Unable to find symbol `qvlplug_nothing' in library `" + file + "' because of %s"));
    auto const calls = fn<int (*)()>(b, "qvlplug_signature_calls");
    int const called = calls();
    void* const image = b.get_impl().get();
    a.reset();
    b.reset();
    kc::flush_if_need();  // idle for less than the time to live
    EXPECT_TRUE(mapped(file));
    log.set_level(if_logger_t::TRACE);  // one level short: the signature is not even looked up
    dynamic_library_t c("qvlplug_sig", dir.c_str());
    EXPECT_TRUE(c.get_impl().get() == image && calls() == called && log.take().empty());  // found, not loaded again
    log.set_level(if_logger_t::DEBUG_3);
    c.reset();
    kc::flush_all_now();
    EXPECT_TRUE(!mapped(file) && !kc::s_storage);  // flushing all disables the cache

    // Without the cache each handle opens its own image, which the loader counts.
    dynamic_library_t d("qvlplug_sig", dir.c_str()), e("qvlplug_sig", dir.c_str());
    EXPECT_TRUE(d.get_impl() != e.get_impl() && d.get_impl()->handle == e.get_impl()->handle);
    EXPECT_THAT(log.take(), story("Unloading library %s|Loading library %s|" + sig + "|Loading library %s|" + sig));
    d.reset();
    EXPECT_TRUE(mapped(file));
    e.reset();
    EXPECT_FALSE(mapped(file));
}

TEST_F(dynalib, load_failures_keep_an_unloaded_image) {
    kc::set_enabled();
    std::pair<char const*, char const*> const cases[] = {
        {"qvlplug_none", "cannot open shared object"}, {"qvlplug_unresolved", "undefined symbol: qvlplug_missing_function"}};
    for (auto const& [lib, cause] : cases) {
        std::string const file = file_of(lib);
        ASSERT_EQ(dlopen(file.c_str(), RTLD_NOW), nullptr);
        std::string const why = dlerror();  // the loader's own words
        EXPECT_THAT(why, HasSubstr(cause));
        dynamic_library_t h;
        errno = EINVAL;
        EXPECT_THAT([&] { h.init(lib, dir.c_str()); },
                    ThrowsMessage<library_load_exception_shell_t>("load library \"" + file + "\" failed because of " + why));
        EXPECT_EQ(errno, 0);
        ASSERT_TRUE(h.get_impl());  // the unloaded image stays
        std::string const image = q_format("(this=%p \"%s\")", static_cast<void*>(h.get_impl().get()), file.c_str());
        EXPECT_TRUE(!h.is_loaded() && h.get_symbol("qvlplug_answer") == nullptr);
        kd::DEBUG = true;
        capture_t log(if_logger_t::DEBUG_3);
        h.reset();  // never cached
        EXPECT_THAT(log.take(), story("~Reset not loaded library (this=%p)|~Not loaded impl " + image));
    }
    EXPECT_EQ(kc::s_storage->count, 0u);
}

TEST_F(dynalib, debug_messages_tell_the_cache_story) {
    std::string const file = file_of("qvlplug_nosig"), name = "\"libqvlplug_nosig.so\"";  // shortened by the libdir
    std::string const nosig = "|Unable to find symbol `signature' in library `" + file + "' because of %s";
    std::string const index = std::to_string(lstr_t("qvlplug_nosig").calc_hash64() % 5);
    std::string const use2 = "(use=2 this=%p handle=%p last=%t) " + name;
    kd::DEBUG = true;
    capture_t log(if_logger_t::DEBUG_3);
    kc::set_libdir(dir);
    kc::set_enabled();
    kc::set_enabled();
    EXPECT_THAT(log.take(), story("~Set libdir to \"" + dir + "\"|~Set mode to enabled|~Storage created @%p|~Already enabled"));
    {
        dynamic_library_t a("qvlplug_nosig", dir.c_str()), b("qvlplug_nosig", dir.c_str());
        b.reset();
        kc::flush_if_need();
        EXPECT_THAT(log.take(), story("~Create library (this=%p)|~Init library (this=%p lib=\"qvlplug_nosig\" path=\"" +
                                      dir + "\")|~Not found library " + name + "|~Locking DSO index=" + index +
                                      " \"qvlplug_nosig\"|Loading library \"" + file + "\"|~Loading impl (this=%p " + name +
                                      ")|~Loaded impl (this=%p handle=%p " + name + ")|~Stored impl " + use2 + nosig +
                                      "|~Create library (this=%p)|~Init library %s|~Found library " + use2 +
                                      "|~Not loaded impl (this=%p " + name + ")" + nosig +
                                      "|~Free loaded library (this=%p " + name + ")|" +
                                      "~Duplicate impl (use=3 this=%p handle=%p last=%t) " + name +
                                      "|~Flush (if olded %t) started (1 here)|~Keep library " + use2));
    }
    kc::flush_all_now();
    EXPECT_THAT(log.take(), story("~Reset not loaded library (this=%p)|~Destroy library (this=%p)|~Free loaded library %s|"
                                  "~Duplicate impl (use=2 %s|~Destroy library (this=%p)|~Flush (all now) started (1 here)|"
                                  "~Storage destroying @%p|~Destroy impl (this=%p handle=%p " + name + ")|Unloading library " +
                                  "\"" + file + "\"|~Destroyed impl (this=%p handle=%p " + name + ")"));
    dynamic_library_t c;  // the cache is now disabled
    c.init("qvlplug_nosig", dir.c_str());
    kc::flush_all_now();
    kc::flush_if_need();
    kc::set_disabled();
    kc::set_enabled();
    kc::set_disabled();
    EXPECT_THAT(log.take(), story("~Create @%p library|~Init library %s|~Locate not enabled, library " + name +
                                  "|~Locking DSO %s|Loading library %s|~Loading impl %s|~Loaded impl %s|~Store not enabled, "
                                  "library " + name + nosig + "|~Flush (all now) not enabled|~Flush (if olded %t) not "
                                  "available|~Already disabled|~Set mode to enabled|~Storage created @%p|~Set mode to disabled|"
                                  "~Flush (all now) started (0 here)|~Storage destroying @%p"));
    struct { char const *set, *kept, *dropped; } const dirs[] = {
        {"/opt/x", "/opt/x/", "liba.so"}, {"/opt/x/", "/opt/x/", "liba.so"}, {"", "", "/opt/x/liba.so"}};
    for (auto const& d : dirs) {
        kc::set_libdir(d.set);
        EXPECT_TRUE(kc::s_libdir == d.kept && kd::drop_root("/opt/x/liba.so") == d.dropped &&
                    kd::drop_root("/opt/xy/liba.so") == "/opt/xy/liba.so") << d.set;
    }
}

// Threads open the same and other modules at once: one image a name. Then they use and release modules while another
// flushes idle ones with no time to live: none may go while a handle holds it. Each worker waits now and then, holding
// its handles, for a whole flush to pass, so flushes overlap the work however the threads are scheduled.
TEST_F(dynalib, concurrent_opens_and_flushes) {
    using test_support::on_threads;
    std::vector<std::string> libs{"qvlplug_nosig", "qvlplug_sig"};
    for (int i = 0; i < 8; ++i) libs.push_back("qvlplug_multi_" + std::to_string(i));
    kc::set_enabled();
    int const threads = 16;
    std::vector<std::vector<std::unique_ptr<dynamic_library_t>>> held(threads);
    on_threads(threads, [&](int t) {
        for (size_t k = 0; k < libs.size(); ++k)
            held[t].emplace_back(new dynamic_library_t(libs[(k + t) % libs.size()].c_str(), dir.c_str()));
    });
    int shared = 0;  // by every thread's handle and the cache; the module's constructors ran once
    for (auto& mine : held)
        for (auto& h : mine) {
            int (*const constructed)() = fn<int (*)()>(*h, "qvlplug_constructed");
            shared += h->get_impl().use_count() == threads + 1 && (!constructed || constructed() == 1);
        }
    EXPECT_EQ(shared, threads * static_cast<int>(libs.size()));
    held.clear();

    libs.erase(libs.begin());  // those that give an answer: 42, then the multi_ numbers
    timegap_t const ttl = kc::s_time_to_live;
    kc::s_time_to_live = timegap_t(0);
    std::atomic<int> working(8), wrong(0);
    std::atomic<long> flushes(0);
    on_threads(9, [&](int t) {
        if (t == 8) {
            do kc::flush_if_need(), ++flushes;
            while (working.load() > 0);
            return;
        }
        for (int round = 0; round < 300; ++round) {
            size_t const k = static_cast<size_t>(round * 7 + t) % libs.size();
            dynamic_library_t a(libs[k].c_str(), dir.c_str()), b(libs[(k + 1) % libs.size()].c_str(), dir.c_str());
            int const expect = k == 0 ? 42 : static_cast<int>(k - 1);
            for (int i = 0; i < 20; ++i) wrong += answer(a) != expect;
            if (round % 100 == 50)  // the flush in progress may have looked at the cache already
                for (long const seen = flushes.load(); flushes.load() < seen + 2;) std::this_thread::yield();
            wrong += round % 50 == 0 && (!mapped(a.get_name()) || answer(a) != expect);
            if (round % 3 == 0) a.reset();
            if (round % 100 == 99 && t == 0) kc::flush_all_now(), kc::set_enabled();
            wrong += answer(b) < 0;
        }
        --working;
    });
    kc::flush_if_need();
    kc::s_time_to_live = ttl;
    EXPECT_EQ(wrong, 0) << flushes << " flushes";
    EXPECT_EQ(kc::s_storage->count, 0u);  // all idle, all dropped
    for (auto& l : libs) EXPECT_FALSE(mapped(file_of(l))) << l;
}

// A module whose initialiser opens another module whose name shares its name lock: the nested load goes ahead instead
// of waiting for the lock its own thread holds (an error with the error-checking mutex kind, a hang with the normal
// one), takes no name lock, and leaves the next load to take its own.
TEST_F(dynalib, nested_load_under_a_shared_name_lock) {
    ASSERT_EQ(lstr_t("qvlplug_nested").calc_hash64() % kd::dso_lock_count,
              lstr_t("qvlplug_multi_3").calc_hash64() % kd::dso_lock_count);
    kd::DEBUG = true;
    for (bool cached : {false, true}) {
        if (cached) kc::set_enabled();
        capture_t log(if_logger_t::DEBUG_3);
        dynamic_library_t outer("qvlplug_nested", dir.c_str()), next("qvlplug_sig", dir.c_str());
        EXPECT_EQ(answer(outer), 3) << cached;
        EXPECT_TRUE(!cached || kc::s_storage->count == 3);  // the inner module stored as well
        std::vector<std::string> locks;
        for (auto const& line : log.take())
            if (line.find("Locking DSO") != std::string::npos) locks.push_back(line);
        EXPECT_THAT(locks, ElementsAre(HasSubstr("\"qvlplug_nested\""), HasSubstr("\"qvlplug_sig\""))) << cached;
    }
}

// Records the progress reports and whether the module was mapped then.
struct progress_t : kern_n::if_environment_t::if_progress_cb_t {
    void progress(int percent, char const* text) override {
        seen.push_back(std::to_string(percent) + " " + text + (mapped(file_of("qvlplug_env")) ? " mapped" : " gone"));
    }
    std::vector<std::string> seen;
};

TEST_F(dynalib, environment_factory_keeps_errors_and_destroys_the_object_first) {
    typedef kern_n::if_environment_t::factory_t factory_t;
    progress_t cb;
    {
        factory_t f("qvlplug_env", dir.c_str(), &cb);
        ASSERT_TRUE(f.get_error().empty() && f.get_env()) << f.get_error();
        EXPECT_EQ(f.get_env()->execute(21, nullptr), 42);
    }
    // Without the cache the factory held the module's last reference.
    EXPECT_THAT(cb.seen, ElementsAre("0 created mapped", "100 destroyed mapped"));
    EXPECT_FALSE(mapped(file_of("qvlplug_env")));

    factory_t none("qvlplug_env", dir.c_str(), nullptr), nocreate("qvlplug_nosig", dir.c_str(), &cb);
    EXPECT_TRUE(none.get_env() == nullptr && none.get_error().empty());
    EXPECT_TRUE(nocreate.get_env() == nullptr && nocreate.is_loaded());
    EXPECT_EQ(nocreate.get_error(), "Unable to find \"create\" symbol");
    factory_t thrown("qvlplug_throw", dir.c_str(), &cb), missing("qvlplug_none", dir.c_str(), &cb);
    EXPECT_TRUE(thrown.get_env() == nullptr && missing.get_env() == nullptr);
    EXPECT_EQ(thrown.get_error(), "qvlplug_throw refuses to create");
    EXPECT_EQ(factory_t("qvlplug_throw", dir.c_str(), nullptr).get_error(), "general error");
    EXPECT_THAT(missing.get_error(), StartsWith("load library \"" + file_of("qvlplug_none") + "\" failed because of "));
}

// QVLSRV_DYNALIB_TTL is read at load, so each value runs in a child. At 0 every idle entry that only the cache holds
// drops at the next flush; a held one stays. A count of seconds too large for a time value saturates instead of
// wrapping below zero, which would drop every idle entry at once.
TEST_F(dynalib, ttl_in_a_child) {
    char const* const ttl = getenv("QVLSRV_DYNALIB_TTL");
    if (!getenv("QVLKERN_TEST_CHILD")) {
        for (char const* value : {"QVLSRV_DYNALIB_TTL=0", "QVLSRV_DYNALIB_TTL=100G",
                                  "QVLSRV_DYNALIB_TTL=18446744073709551615"})
            test_support::in_child({value});
        return;
    }
    std::string const sig = file_of("qvlplug_sig"), nosig = file_of("qvlplug_nosig"), gone = nosig + "\"";
    kc::set_enabled();
    dynamic_library_t held("qvlplug_sig", dir.c_str()), idle("qvlplug_nosig", dir.c_str());
    idle.reset();
    kd::DEBUG = true;
    capture_t log(if_logger_t::DEBUG_3);
    kc::flush_if_need();
    if (std::string(ttl) != "0") {
        EXPECT_EQ(kc::s_time_to_live.get(0), INT64_MAX / kern::time::ticks_per_second);
        EXPECT_THAT(log.take(), story("~Flush (if olded 00000000000000000) started (2 here)|~Keep library (use=1 %s\"" + gone +
                                      "|~Keep library (use=2 %s\"" + sig + "\""));
        return;
    }
    EXPECT_THAT(log.take(), story("~Flush (if olded %t) started (2 here)|~Drop library (use=1 %s\"" + gone +
                                  "|~Keep library (use=2 %s\"" + sig + "\"|~Destroy impl (this=%p handle=%p \"" + gone +
                                  ")|Unloading library \"" + gone + "|~Destroyed impl (this=%p handle=%p \"" + gone + ")"));
    EXPECT_TRUE(!mapped(nosig) && mapped(sig));
    held.reset();
    kc::flush_if_need();
    EXPECT_TRUE(!mapped(sig) && kc::s_storage->count == 0);
}
