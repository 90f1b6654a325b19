// Tests of the exception records, shells, families and call-stack markers.
#include "exceptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

#include "numstrings.h"

namespace {

using ::testing::HasSubstr;

// Switches call-stack capture for one scope; markers must not outlive it.
class capture_t {
public:
    explicit capture_t(bool on) : saved_(_q_exception_t::backtrace_enabled) { _q_exception_t::backtrace_enabled = on; }
    ~capture_t() { _q_exception_t::backtrace_enabled = saved_; }

private:
    bool saved_;
};

struct printed_t {
    std::string text;
    std::string file;
    int line;
};

void collect(void* ctx, char const* text, char const* file, int line) {
    static_cast<std::vector<printed_t>*>(ctx)->push_back({text, file ? file : "<null>", line});
}

std::string hex(void const* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%016llX", static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
    return buf;
}

// What fn writes on standard output.
template <class F>
std::string stdout_of(F fn) {
    std::fflush(stdout);
    FILE* tmp = std::tmpfile();
    int const saved = dup(1);
    dup2(fileno(tmp), 1);
    fn();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string out;
    std::rewind(tmp);
    for (int c; (c = std::fgetc(tmp)) != EOF;) out += static_cast<char>(c);
    std::fclose(tmp);
    return out;
}

void* const no_ptr = nullptr;

TEST(ExceptionShell, CopyAndAssignmentMoveTheRecord) {
    q_exception_t_shell_t a("reason %d", 7);
    EXPECT_EQ(a.staging_reason, "reason 7");
    EXPECT_STREQ(a.what(), "NOTHING: I am cloned shell.");  // no record yet
    a.create_impl("a.cc", 12, nullptr);
    EXPECT_TRUE(a.staging_reason.empty());
    EXPECT_STREQ(a.what(), "reason 7");

    q_exception_t_shell_t b(a);
    EXPECT_STREQ(b.what(), "reason 7");
    EXPECT_EQ(a.impl, nullptr);
    EXPECT_STREQ(a.what(), "NOTHING: I am cloned shell.");
    EXPECT_STREQ(a.where(), "NOWHERE: I am cloned shell.");
    EXPECT_STREQ(a.info(), "NO INFO: I am cloned shell.");
    EXPECT_EQ(a.what_chain(), "NOTHING: I am cloned shell.");

    q_exception_t_shell_t c("other");
    c.create_impl("c.cc", 1, nullptr);
    c = b;  // the old record of c goes
    EXPECT_STREQ(c.what(), "reason 7");
    EXPECT_STREQ(b.what(), "NOTHING: I am cloned shell.");
    auto& self = c;
    c = self;
    EXPECT_STREQ(c.what(), "reason 7");

    q_exception_t* rec = c.release();
    ASSERT_NE(rec, nullptr);
    EXPECT_STREQ(c.what(), "NOTHING: I am cloned shell.");
    EXPECT_STREQ(rec->file, "a.cc");
    EXPECT_EQ(rec->line, 12u);
    delete rec;

    // A second create_impl replaces the record; the staging text is gone.
    q_exception_t_shell_t d("first");
    d.create_impl("d.cc", 1, nullptr).create_impl("d.cc", 2, nullptr);
    EXPECT_STREQ(d.what(), "");
    EXPECT_EQ(d.impl->line, 2u);
}

TEST(ExceptionRecord, ReasonsCopiesAndFallbacks) {
    q_exception_t bare("a.cc", 1, nullptr);
    EXPECT_STREQ(bare.what(), "NO REASON");
    q_exception_t borrowed("a.cc", 2, new q_exception_t("b.cc", 3, "x"), nullptr);
    EXPECT_STREQ(borrowed.what(), "x");
    q_exception_t own("a.cc", 4, new q_exception_t("b.cc", 5, "x"), "y");
    EXPECT_STREQ(own.what(), "y");

    EXPECT_EQ(q_exception_t::copy(nullptr), nullptr);
    char* text = q_exception_t::copy("abc");
    EXPECT_STREQ(text, "abc");
    delete[] text;

    // Copying takes over the cause; assignment drops the old chain.
    q_exception_t moved(own);
    EXPECT_EQ(own.cause, nullptr);
    EXPECT_STREQ(own.what(), "y");
    ASSERT_NE(moved.cause, nullptr);
    EXPECT_STREQ(moved.cause->what(), "x");
    EXPECT_STREQ(moved.info(), "q_exception_t( \"y\" ) at a.cc:4 [ zero stack ], q_exception_t( \"x\" ) at b.cc:5 [ zero stack ]");
    q_exception_t target("t.cc", 9, new q_exception_t("u.cc", 9, "old"), "old");
    target = moved;
    EXPECT_STREQ(target.what(), "y");
    EXPECT_STREQ(target.cause->what(), "x");
    EXPECT_EQ(moved.cause, nullptr);
    EXPECT_STREQ(target.info(), "q_exception_t( \"y\" ) at a.cc:4 [ zero stack ], q_exception_t( \"x\" ) at b.cc:5 [ zero stack ]");

    // Reasons of any length, and a new reason shows in info().
    std::string const huge(200000, 'h');
    target.set_reason("<%s>", huge.c_str());
    EXPECT_EQ(target.what(), "<" + huge + ">");
    target.set_reason("%s %d", "short", 1);
    EXPECT_THAT(target.info(), HasSubstr("( \"short 1\" )"));
    try {
        QVL_THROW(api_exception, "%s|%s", huge.c_str(), huge.c_str());
    } catch (q_exception_t_shell_t& e) {
        EXPECT_EQ(e.what(), huge + "|" + huge);
    }
}

TEST(ExceptionShell, WhatChainAndInfoFollowTheCauses) {
    try {
        try {
            try {
                QVL_THROW(q_exception_t, "c");
            } catch (q_exception_t_shell_t& e) {
                QVL_THROW_CAUSE(api_exception, e.release(), "b");
            }
        } catch (q_exception_t_shell_t& e) {
            QVL_THROW_CAUSE(io_error_exception, e.release(), "a");
        }
    } catch (io_error_exception_shell_t& e) {
        EXPECT_EQ(e.what_chain(), "a because of b because of c");
        EXPECT_STREQ(e.impl->cause->type(), "api_exception");
        EXPECT_STREQ(e.impl->cause->cause->type(), "q_exception_t");
    }

    // Outer record without a reason: its what() already is the cause's.
    io_error_exception_shell_t s("gone");
    s.create_impl("s.cc", 3, new q_exception_t("t.cc", 4, "b"));
    delete[] s.impl->reason;
    s.impl->reason = nullptr;
    EXPECT_EQ(s.what_chain(), "b because of b");

    // The outer type names every entry; no reason means no parentheses.
    io_error_exception outer("a.cc", 10, new q_exception_t("b.cc", 20, "inner"), "outer");
    char const* info = outer.info();
    EXPECT_STREQ(info,
                 "io_error_exception( \"outer\" ) at a.cc:10 [ zero stack ], "
                 "io_error_exception( \"inner\" ) at b.cc:20 [ zero stack ]");
    EXPECT_EQ(outer.info(), info);  // kept
    noent_exception plain(nullptr, 0, nullptr);
    EXPECT_STREQ(plain.info(), "noent_exception at UNKNOWN:0 [ zero stack ]");
}

TEST(ExceptionDump, LayoutOfShellsAndRecords) {
    io_error_exception_shell_t s("outer");
    s.create_impl("a.cc", 10, new q_exception_t("b.cc", 20, nullptr));
    q_exception_t const* cause = s.impl->cause;
    std::string const expected = "P> io_error_exception_shell_t@" + hex(&s) + " -> " + hex(s.impl) + "\n" +
                                 "  2. P> io_error_exception@" + hex(s.impl) + " \"outer\" @" + hex(s.impl->reason) +
                                 " a.cc:10 -> " + hex(cause) + " [" + hex(no_ptr) + "]\n" +
                                 "  3. P> q_exception_t@" + hex(cause) + " \"NO REASON\" @" + hex(no_ptr) +
                                 " b.cc:20 -> " + hex(no_ptr) + " [" + hex(no_ptr) + "]\n";
    EXPECT_EQ(stdout_of([&] { s.dump("P> ", true); }), expected);
    EXPECT_EQ(stdout_of([&] { s.dump(nullptr, false); }),
              "io_error_exception_shell_t@" + hex(&s) + " -> " + hex(s.impl) + "\n");
    EXPECT_EQ(stdout_of([&] { s.impl->dump(nullptr, false, 7); }),
              "io_error_exception@" + hex(s.impl) + " \"outer\" @" + hex(s.impl->reason) + " a.cc:10 -> " +
                  hex(cause) + " [" + hex(no_ptr) + "]\n");

    io_error_exception_shell_t copy(s);
    EXPECT_EQ(stdout_of([&] { s.dump("P> ", true); }),
              "P> io_error_exception_shell_t@" + hex(&s) + " -> " + hex(no_ptr) + "\n  2. P> No impl\n");
}

TEST(ExceptionBacktrace, CaptureOffPrintsReasonsOnly) {
    capture_t off(false);
    io_error_exception rec("a.cc", 10, new q_exception_t("b.cc", 20, nullptr), "outer");
    EXPECT_STREQ(rec.where(), "zero stack");
    std::vector<printed_t> lines;
    rec.backtrace(&lines, collect, 1);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, " io_error_exception: outer");
    EXPECT_EQ(lines[1].text, "  q_exception_t: (no reason)");
    for (auto const& l : lines) {  // every line carries the outer position
        EXPECT_EQ(l.file, "a.cc");
        EXPECT_EQ(l.line, 10);
    }
    lines.clear();
    {
        QVL_CALLSTACK_LABEL("ignored");
        callstack_t::backtrace_stack(&lines, collect, 0);
    }
    EXPECT_TRUE(lines.empty());
    rec.backtrace(reinterpret_cast<void*>(3), nullptr, 0);  // no logger: prints nothing, must not fail
    callstack_t::backtrace_stack(reinterpret_cast<void*>(3), nullptr, 0);
}

TEST(ExceptionBacktrace, CaptureOnCopiesTheCurrentPoint) {
    capture_t on(true);
    std::vector<printed_t> lines;
    int marker_line = 0;
    try {
        QVL_CALLSTACK_LABEL("reader"); marker_line = __LINE__;
        callstack_t::backtrace_stack(&lines, collect, 1);
        QVL_THROW(io_error_exception, "cannot read");
    } catch (io_error_exception_shell_t& e) {
        std::string const where = std::string("\"reader\" ") + __FILE__ + ":" + std::to_string(marker_line);
        EXPECT_EQ(e.where(), where);
        EXPECT_THAT(e.info(), HasSubstr("( \"cannot read\" ) at " + std::string(__FILE__)));
        EXPECT_THAT(e.info(), HasSubstr("[ " + where + " ]"));
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].text, "Last message cought at following point");
        EXPECT_EQ(lines[1].text, "   at reader");
        EXPECT_EQ(lines[1].file, __FILE__);
        EXPECT_EQ(lines[1].line, marker_line);
        lines.clear();
        callstack_t::backtrace_stack(&lines, collect, 1);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "Last message cought with no stack information");
        lines.clear();
        e.impl->backtrace(&lines, collect, 0);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].text, "io_error_exception: cannot read");
        EXPECT_EQ(lines[1].text, "  at reader");
        EXPECT_EQ(lines[1].line, marker_line);
    }
}

TEST(Callstack, MarkersAndPointChains) {
    {
        capture_t on(true);
        ASSERT_EQ(pthread_getspecific(callstack_t::key), nullptr);
        callstack_t outer(__FILE__, 1, "outer");
        EXPECT_EQ(pthread_getspecific(callstack_t::key), &outer.point);
        {
            callstack_t inner(__FILE__, 2, nullptr);
            EXPECT_EQ(pthread_getspecific(callstack_t::key), &inner.point);
            EXPECT_EQ(inner.point.next, nullptr);  // markers never link
            EXPECT_EQ(inner.point.where(), std::string(__FILE__) + ":2");
        }
        // Leaving the inner marker empties the slot although outer is live.
        EXPECT_EQ(pthread_getspecific(callstack_t::key), nullptr);
    }
    EXPECT_EQ(pthread_getspecific(callstack_t::key), nullptr);
    {
        capture_t off(false);
        QVL_CALLSTACK();
        EXPECT_EQ(pthread_getspecific(callstack_t::key), nullptr);
    }

    callstack_t::point_t c{"c.cc", 3, "third", nullptr, nullptr};
    callstack_t::point_t b{"b.cc", 2, nullptr, &c, nullptr};
    callstack_t::point_t a{"a.cc", 1, "first", &b, nullptr};
    EXPECT_EQ(callstack_t::do_copy(nullptr), nullptr);
    callstack_t::point_t* copy = callstack_t::do_copy(&a);
    ASSERT_NE(copy, &a);
    EXPECT_STREQ(copy->where(), "\"first\" a.cc:1, b.cc:2, \"third\" c.cc:3");
    EXPECT_EQ(copy->where(), copy->where());
    std::vector<printed_t> lines;
    copy->backtrace(&lines, collect, 2);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "  at first");
    EXPECT_EQ(lines[1].text, "  by (unnamed)");
    EXPECT_EQ(lines[2].text, "  by third");
    EXPECT_EQ(lines[2].file, "c.cc");
    EXPECT_EQ(lines[2].line, 3);
    callstack_t::point_t::dtor(copy);

    // The slot's destructor frees what a thread leaves in it.
    pthread_t t;
    ASSERT_EQ(pthread_create(
                  &t, nullptr,
                  [](void*) -> void* {
                      pthread_setspecific(callstack_t::key, std::malloc(64));
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_join(t, nullptr);
}

TEST(ExceptionFamilies, ThrownInsideTheLibraryCaughtByFamily) {
    try {
        kern_n::detail::raise_number_out_of_range(lstr_t("300"), false, 1);
        ADD_FAILURE() << "nothing thrown";
    } catch (number_format_exception_shell_t& e) {
        EXPECT_THAT(e.what(), HasSubstr("\"300\""));
        EXPECT_STREQ(e.type(), "number_format_exception_shell_t");
        EXPECT_NE(dynamic_cast<number_format_exception*>(e.impl), nullptr);
        EXPECT_STREQ(e.impl->file, "kern/numstrings.cc");
    }
}

// Family traits generated from the one family list.
template <class Shell>
struct family_t;
template <>
struct family_t<q_exception_t_shell_t> {
    using record = q_exception_t;
    using base_shell = void;
    static constexpr char const* name = "q_exception_t";
};
#define QVL_TEST_FAMILY_TRAITS(name_, base_)              \
    template <>                                           \
    struct family_t<name_##_shell_t> {                    \
        using record = name_;                             \
        using base_shell = base_##_shell_t;               \
        static constexpr char const* name = #name_;       \
    };                                                    \
    static_assert(std::is_base_of<base_, name_>::value, #name_);
QVL_EXCEPTION_FAMILIES(QVL_TEST_FAMILY_TRAITS)
#define QVL_TEST_FAMILY_TYPE(name_, base_) , name_##_shell_t
using families_t = ::testing::Types<q_exception_t_shell_t QVL_EXCEPTION_FAMILIES(QVL_TEST_FAMILY_TYPE)>;

// Throws Thrown and catches it as Catch, then as each base of Catch.
template <class Thrown, class Catch>
void expect_caught_along_chain(q_exception_t const* cause) {
    using thrown_t = family_t<Thrown>;
    bool caught = false;
    try {
        throw Thrown("family %s", thrown_t::name).create_impl(__FILE__, __LINE__, cause);
    } catch (Catch& e) {
        caught = true;
        EXPECT_EQ(e.type(), std::string(thrown_t::name) + "_shell_t");
        EXPECT_STREQ(e.impl->type(), thrown_t::name);
        EXPECT_NE(dynamic_cast<typename thrown_t::record*>(e.impl), nullptr);
        EXPECT_NE(dynamic_cast<typename family_t<Catch>::record*>(e.impl), nullptr);
        EXPECT_EQ(e.impl->cause, cause);
        EXPECT_EQ(e.what(), std::string("family ") + thrown_t::name);
    } catch (...) {
    }
    EXPECT_TRUE(caught) << thrown_t::name << " as " << family_t<Catch>::name;
    if constexpr (!std::is_void<typename family_t<Catch>::base_shell>::value)
        expect_caught_along_chain<Thrown, typename family_t<Catch>::base_shell>(nullptr);
}

template <class Shell>
class ExceptionFamily : public ::testing::Test {};
TYPED_TEST_SUITE(ExceptionFamily, families_t);

TYPED_TEST(ExceptionFamily, CaughtByEveryBase) {
    expect_caught_along_chain<TypeParam, TypeParam>(new q_exception_t("c.cc", 1, "cause"));
    try {
        throw TypeParam("as %s", "std::exception").create_impl(__FILE__, __LINE__, nullptr);
    } catch (std::exception& e) {
        EXPECT_STREQ(e.what(), "as std::exception");
    }
}

}  // namespace
