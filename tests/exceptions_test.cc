// Tests of the exception records, shells, families and call-stack markers.
#include "exceptions.h"

#include "test-support.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace ::testing;

// Switches call-stack capture for one scope; markers must not outlive it.
struct capture_t {
    bool const saved = _q_exception_t::backtrace_enabled;
    explicit capture_t(bool on) { _q_exception_t::backtrace_enabled = on; }
    ~capture_t() { _q_exception_t::backtrace_enabled = saved; }
};

// A backtrace printer collecting "text @file:line" lines.
void collect(void* ctx, char const* text, char const* file, int line) {
    auto& lines = *static_cast<std::vector<std::string>*>(ctx);
    lines.push_back(std::string(text) + " @" + (file ? file : "(null)") + ":" + std::to_string(line));
}

std::string hex(void const* p) {
    return q_format("0x%016llX", static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
}

// What fn writes on standard output.
template <class F>
std::string stdout_of(F fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

// A shell's what, where, info and what_chain; then those of a record-less shell.
std::string texts(q_exception_t_shell_t const& s) {
    return std::string(s.what()) + "|" + s.where() + "|" + s.info() + "|" + s.what_chain();
}
std::string const cloned = "NOTHING: I am cloned shell.|NOWHERE: I am cloned shell.|NO INFO: I am cloned shell.|"
                           "NOTHING: I am cloned shell.";

TEST(ExceptionShell, CopyAndAssignmentMoveTheRecord) {
    q_exception_t_shell_t a("reason %d", 7);
    EXPECT_EQ(a.staging_reason, "reason 7");
    EXPECT_EQ(texts(a), cloned);  // no record yet
    a.create_impl("a.cc", 12, nullptr);
    EXPECT_TRUE(a.staging_reason.empty());
    EXPECT_STREQ(a.what(), "reason 7");

    q_exception_t_shell_t b(a);
    EXPECT_STREQ(b.what(), "reason 7");
    EXPECT_EQ(texts(a), cloned);
    q_exception_t_shell_t c(q_exception_t_shell_t("other").create_impl("c.cc", 1, nullptr));
    c = b;  // the old record of c goes
    EXPECT_STREQ(c.what(), "reason 7");
    EXPECT_EQ(texts(b), cloned);
    auto& self = c;
    c = self;
    EXPECT_STREQ(c.what(), "reason 7");

    std::unique_ptr<q_exception_t> rec(c.release());
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(texts(c), cloned);
    EXPECT_EQ(rec->file + (":" + std::to_string(rec->line)), "a.cc:12");

    // A second create_impl replaces the record; the staging text is gone.
    q_exception_t_shell_t d("first");
    d.create_impl("d.cc", 1, nullptr).create_impl("d.cc", 2, nullptr);
    EXPECT_STREQ(d.what(), "");
    EXPECT_EQ(d.impl->line, 2u);
}

TEST(ExceptionRecord, ReasonsCopiesAndFallbacks) {
    EXPECT_STREQ(q_exception_t("a.cc", 1, nullptr).what(), "NO REASON");
    EXPECT_STREQ(q_exception_t("a.cc", 2, new q_exception_t("b.cc", 3, "x"), nullptr).what(), "x");  // the cause's
    q_exception_t own("a.cc", 4, new q_exception_t("b.cc", 5, "x"), "y");
    EXPECT_EQ(q_exception_t::copy(nullptr), nullptr);

    // Copying takes over the cause; assignment drops the old chain.
    char const* const chain =
        "q_exception_t( \"y\" ) at a.cc:4 [ zero stack ], q_exception_t( \"x\" ) at b.cc:5 [ zero stack ]";
    q_exception_t moved(own);
    EXPECT_EQ(own.cause, nullptr);
    EXPECT_STREQ(own.what(), "y");
    EXPECT_STREQ(moved.info(), chain);
    q_exception_t target("t.cc", 9, new q_exception_t("u.cc", 9, "old"), "old");
    target = moved;
    EXPECT_EQ(moved.cause, nullptr);
    EXPECT_STREQ(target.info(), chain);

    // Reasons of any length, and a new reason shows in info().
    std::string const huge(200000, 'h');
    target.set_reason("<%s>", huge.c_str());
    EXPECT_EQ(target.what(), "<" + huge + ">");
    target.set_reason("%s %d", "short", 1);
    EXPECT_THAT(target.info(), HasSubstr("( \"short 1\" )"));
    api_exception_shell_t e("%s|%s", huge.c_str(), huge.c_str());
    e.create_impl("e.cc", 1, new q_exception_t("c.cc", 1, "c"));
    EXPECT_EQ(e.what_chain(), huge + "|" + huge + " because of c");
}

TEST(ExceptionShell, WhatChainInfoAndDumpFollowTheCauses) {
    io_error_exception_shell_t e("a");
    e.create_impl("a.cc", 1, api_exception_shell_t("b").create_impl("b", 2, new q_exception_t("c", 3, "c")).release());
    EXPECT_EQ(e.what_chain(), "a because of b because of c");
    // An outer record without a reason: its what() already is the cause's.
    io_error_exception_shell_t s("gone");
    s.impl = new io_error_exception("s.cc", 3, new q_exception_t("t.cc", 4, "b"), nullptr);
    EXPECT_EQ(s.what_chain(), "b because of b");

    // The outer type names every entry; no reason means no parentheses.
    io_error_exception outer("a.cc", 10, new q_exception_t("b.cc", 20, "inner"), "outer");
    char const* info = outer.info();
    EXPECT_STREQ(info, "io_error_exception( \"outer\" ) at a.cc:10 [ zero stack ], "
                       "io_error_exception( \"inner\" ) at b.cc:20 [ zero stack ]");
    EXPECT_EQ(outer.info(), info);  // kept
    EXPECT_STREQ(noent_exception(nullptr, 0, nullptr).info(), "noent_exception at UNKNOWN:0 [ zero stack ]");

    io_error_exception_shell_t d("outer");  // the dumps of a shell, its chain and a record
    d.create_impl("a.cc", 10, new q_exception_t("b.cc", 20, nullptr));
    q_exception_t const* cause = d.impl->cause;
    std::string const record = "io_error_exception@" + hex(d.impl) + " \"outer\" @" + hex(d.impl->reason) +
                               " a.cc:10 -> " + hex(cause) + " [" + hex(nullptr) + "]\n";
    EXPECT_EQ(stdout_of([&] { d.dump("P> ", true); }),
              "P> io_error_exception_shell_t@" + hex(&d) + " -> " + hex(d.impl) + "\n  2. P> " + record +
                  "  3. P> q_exception_t@" + hex(cause) + " \"NO REASON\" @" + hex(nullptr) + " b.cc:20 -> " +
                  hex(nullptr) + " [" + hex(nullptr) + "]\n");
    EXPECT_EQ(stdout_of([&] { d.dump(nullptr, false); }),
              "io_error_exception_shell_t@" + hex(&d) + " -> " + hex(d.impl) + "\n");
    EXPECT_EQ(stdout_of([&] { d.impl->dump(nullptr, false, 7); }), record);

    io_error_exception_shell_t copy(d);
    EXPECT_EQ(stdout_of([&] { d.dump("P> ", true); }),
              "P> io_error_exception_shell_t@" + hex(&d) + " -> " + hex(nullptr) + "\n  2. P> No impl\n");
}

TEST(ExceptionBacktrace, CaptureOffPrintsReasonsOnlyCaptureOnCopiesThePoint) {
    capture_t off(false);
    io_error_exception rec("a.cc", 10, new q_exception_t("b.cc", 20, nullptr), "outer");
    EXPECT_STREQ(rec.where(), "zero stack");
    std::vector<std::string> lines;
    auto take = [&lines] { return std::exchange(lines, {}); };
    rec.backtrace(&lines, collect, 1);  // every line carries the outer position
    EXPECT_THAT(take(), ElementsAre(" io_error_exception: outer @a.cc:10", "  q_exception_t: (no reason) @a.cc:10"));
    {
        QVL_CALLSTACK();
        EXPECT_EQ(pthread_getspecific(callstack_t::key), nullptr);
        callstack_t::backtrace_stack(&lines, collect, 0);
    }
    EXPECT_TRUE(lines.empty());
    rec.backtrace(reinterpret_cast<void*>(3), nullptr, 0);  // a null printer goes to the process logger
    callstack_t::backtrace_stack(reinterpret_cast<void*>(3), nullptr, 0);

    capture_t on(true);
    int marker_line = 0;
    try {
        QVL_CALLSTACK_LABEL("reader"); marker_line = __LINE__;
        callstack_t::backtrace_stack(&lines, collect, 1);
        QVL_THROW_CAUSE(io_error_exception, nullptr, "cannot read");
    } catch (io_error_exception_shell_t& e) {
        std::string const at = std::string(__FILE__) + ":" + std::to_string(marker_line);
        EXPECT_EQ(e.where(), "\"reader\" " + at);
        EXPECT_THAT(e.info(), HasSubstr("( \"cannot read\" ) at " + std::string(__FILE__)));
        EXPECT_THAT(e.info(), HasSubstr("[ \"reader\" " + at + " ]"));
        EXPECT_THAT(take(), ElementsAre(StartsWith("Last message cought at following point @"), "   at reader @" + at));
        callstack_t::backtrace_stack(&lines, collect, 1);
        EXPECT_THAT(take(), ElementsAre(StartsWith("Last message cought with no stack information @")));
        e.impl->backtrace(&lines, collect, 0);
        EXPECT_THAT(take(), ElementsAre(StartsWith("io_error_exception: cannot read @"), "  at reader @" + at));
    }
}

TEST(Callstack, MarkersAndPointChains) {
    auto slot = [] { return pthread_getspecific(callstack_t::key); };
    {
        capture_t on(true);
        ASSERT_EQ(slot(), nullptr);
        callstack_t outer(__FILE__, 1, "outer");
        EXPECT_EQ(slot(), &outer.point);
        {
            callstack_t inner(__FILE__, 2, nullptr);
            EXPECT_EQ(slot(), &inner.point);
            EXPECT_EQ(inner.point.next, nullptr);  // markers never link
            EXPECT_EQ(inner.point.where(), std::string(__FILE__) + ":2");
        }
        EXPECT_EQ(slot(), nullptr);  // leaving the inner marker empties the slot although outer is live
    }
    EXPECT_EQ(slot(), nullptr);

    callstack_t::point_t c{"c.cc", 3, "third", nullptr, nullptr};
    callstack_t::point_t b{"b.cc", 2, nullptr, &c, nullptr};
    callstack_t::point_t a{"a.cc", 1, "first", &b, nullptr};
    EXPECT_EQ(callstack_t::do_copy(nullptr), nullptr);
    callstack_t::point_t* copy = callstack_t::do_copy(&a);
    ASSERT_NE(copy, &a);
    EXPECT_STREQ(copy->where(), "\"first\" a.cc:1, b.cc:2, \"third\" c.cc:3");
    std::vector<std::string> lines;
    copy->backtrace(&lines, collect, 2);
    EXPECT_THAT(lines, ElementsAre("  at first @a.cc:1", "  by (unnamed) @b.cc:2", "  by third @c.cc:3"));
    callstack_t::point_t::dtor(copy);

    // The slot borrows a marker on its thread's stack: a thread that ends with
    // one left in it (capture switched off while the marker was live) frees
    // nothing. In a child, as a wrong free ends the process.
    test_support::expect_child_ok([] {
        _q_exception_t::backtrace_enabled = true;
        std::thread([] {
            callstack_t left(__FILE__, 3, "left");
            _q_exception_t::backtrace_enabled = false;
        }).join();
        return 0;
    });
}

// Throws a family's shell with a cause and catches it as its direct base
// (every other base follows by induction); what() also answers through
// std::exception.
template <class Shell, class Base, class Record>
void check_family(char const* name) {
    SCOPED_TRACE(name);
    q_exception_t const* cause = new q_exception_t("c.cc", 1, "cause");
    try {
        throw Shell("family %s", name).create_impl(__FILE__, __LINE__, cause);
    } catch (Base& e) {
        EXPECT_EQ(e.type(), std::string(name) + "_shell_t");
        EXPECT_STREQ(e.impl->type(), name);
        EXPECT_NE(dynamic_cast<Record*>(e.impl), nullptr);
        EXPECT_EQ(e.impl->cause, cause);
        EXPECT_EQ(static_cast<std::exception&>(e).what(), std::string("family ") + name);
    }
}

TEST(ExceptionFamilies, CaughtByTheirBases) {
    check_family<q_exception_t_shell_t, q_exception_t_shell_t, q_exception_t>("q_exception_t");
#define QVL_TEST_FAMILY(name_, base_)                                       \
    static_assert(std::is_base_of<base_, name_>::value, #name_);            \
    check_family<name_##_shell_t, base_##_shell_t, name_>(#name_);
    QVL_EXCEPTION_FAMILIES(QVL_TEST_FAMILY)
#undef QVL_TEST_FAMILY
}

TEST(ExceptionLog, PrettyPrintAndBadAlloc) {
    capture_t off(false);
    test_support::record_logger_t log(if_logger_t::INFO);
    int line = 0;
    try {
        line = __LINE__, QVL_THROW_CAUSE(io_error_exception, new noent_exception("in.cc", 5, nullptr, "no file"), "outer");
    } catch (q_exception_t_shell_t const& e) {
        pretty_print(if_logger_t::FAULT, "loading %s: 100%% %d %s", "mod", &e);
        std::string const at = " @ " + std::string(__FILE__) + ":" + std::to_string(line);
        EXPECT_THAT(log.take(), ElementsAre("1 loading mod: 100% %d %s", "1 General error \"outer\" detected",
                                            "1   io_error_exception: outer" + at, "1    noent_exception: no file" + at));
        pretty_print(if_logger_t::DEBUG, "x", nullptr, &e);  // filtered out
        q_exception_t_shell_t const copy(e);                 // e is left a cloned shell
        pretty_print(if_logger_t::CRIT, "%s", nullptr, &e);
    }
    pretty_print(if_logger_t::INFO, nullptr, nullptr, nullptr);
    bad_alloc_msg(std::bad_alloc());
    EXPECT_THAT(log.take(), ElementsAre("0 (null)", "0 General error \"NOTHING: I am cloned shell.\" detected",
                                        "4 General error \"unknown exception\" detected",
                                        "0 Memory allocation failed (std::bad_alloc)"));
    // Without memory to log, and without a logger, the line goes straight to standard error.
    log.broke = true;
    testing::internal::CaptureStderr();
    bad_alloc_msg(std::bad_alloc());
    pretty_print(if_logger_t::CRIT, "lost", nullptr, nullptr);
    if_logger_t::Log = nullptr;
    bad_alloc_msg(std::bad_alloc());
    if_logger_t::Log = &log;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Memory allocation failed (std::bad_alloc)\n"
                                                      "Memory allocation failed (std::bad_alloc)\n");
    // A standard error nobody reads any more does not end the process.
    EXPECT_EXIT(
        {
            int p[2];
            if (pipe(p) != 0 || close(p[0]) != 0 || dup2(p[1], STDERR_FILENO) < 0) _exit(2);
            if_logger_t::Log = nullptr;
            bad_alloc_msg(std::bad_alloc());
            _exit(0);
        },
        ExitedWithCode(0), "");
}

}  // namespace
