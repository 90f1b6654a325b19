// Tests of the command-line switch parser.
#include "common-utils.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

// What one callback reported, the value rendered as text.
struct call_t {
    int code;
    unsigned long index;
    std::string name;
    std::string value;

    bool operator==(call_t const& o) const {
        return code == o.code && index == o.index && name == o.name && value == o.value;
    }
};

std::ostream& operator<<(std::ostream& os, call_t const& c) {
    return os << "{" << c.code << ", " << c.index << ", " << c.name << ", " << c.value << "}";
}

cmd_switch_t const k_table[] = {
    {"daemon", cmd_switch_t::logical},       // 0
    {"count", cmd_switch_t::signed_number},  // 1
    {"size", cmd_switch_t::unsigned_number}, // 2
    {"verb", cmd_switch_t::string},          // 3
    {"help", cmd_switch_t::action},          // 4
    {"log", cmd_switch_t::string},           // 5
    {"login", cmd_switch_t::logical},        // 6
    {"nosy", cmd_switch_t::action},          // 7
};
unsigned long const k_count = sizeof k_table / sizeof k_table[0];

struct run_t {
    std::vector<call_t> calls;
    int rc = 0;
};

void record(void* ctx, int code, unsigned long index, char const* name, void* value) {
    auto* calls = static_cast<std::vector<call_t>*>(ctx);
    std::string v = "-";
    if (value != nullptr && code == 0 && index < k_count) {
        switch (k_table[index].type) {
        case cmd_switch_t::logical: v = std::to_string(*static_cast<int*>(value)); break;
        case cmd_switch_t::signed_number: v = std::to_string(*static_cast<long*>(value)); break;
        case cmd_switch_t::unsigned_number:
            v = std::to_string(*static_cast<unsigned long*>(value));
            break;
        default: v = static_cast<char const*>(value);
        }
    } else if (value != nullptr) {
        v = static_cast<char const*>(value);
    }
    calls->push_back({code, index, name ? name : "(null)", v});
}

run_t parse(std::initializer_list<char const*> args, char const* prefix = "--",
            char const* sep = "=", cmd_switch_t const* table = k_table,
            unsigned long count = k_count) {
    std::vector<std::string> store(args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : store) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    run_t r;
    r.rc = cmd_switch_t::parse(record, &r.calls, store.size(), argv.data(), count, table, prefix,
                               sep);
    return r;
}

TEST(CmdSwitch, ErrorTexts) {
    EXPECT_STREQ("No errors", cmd_switch_t::error(0));
    EXPECT_STREQ("Invalid call parameters", cmd_switch_t::error(-1));
    EXPECT_STREQ("Unknown switch", cmd_switch_t::error(-2));
    EXPECT_STREQ("Ambiguous switch", cmd_switch_t::error(-3));
    EXPECT_STREQ("Switch needs value", cmd_switch_t::error(-4));
    EXPECT_STREQ("Invalid number value for switch", cmd_switch_t::error(-5));
    EXPECT_STREQ("Invalid logical value for switch", cmd_switch_t::error(-6));
    EXPECT_STREQ("Value for action switch supplied", cmd_switch_t::error(-7));
    EXPECT_STREQ("Unknown error", cmd_switch_t::error(-8));
    EXPECT_STREQ("Unknown error", cmd_switch_t::error(1));
}

TEST(CmdSwitch, EndOfSwitches) {
    run_t r = parse({"prog", "--verb=2", "file"});
    EXPECT_EQ(2, r.rc);
    EXPECT_EQ((std::vector<call_t>{{0, 3, "verb", "2"}}), r.calls);

    EXPECT_EQ(0, parse({"prog", "--"}).rc);
    EXPECT_EQ(2, parse({"prog", "--", "x"}).rc);
    EXPECT_EQ(3, parse({"prog", "--help", "--", "--daemon"}).rc);
    EXPECT_EQ(1, parse({"prog", "-help"}).rc);
    EXPECT_EQ(0, parse({"prog"}).rc);
    EXPECT_EQ(0, parse({"prog", "--help", "--count=-3"}).rc);
    // argv[0] is never looked at, even when it looks like a switch.
    EXPECT_EQ(0, parse({"--bogus"}).rc);
    EXPECT_TRUE(parse({"--bogus"}).calls.empty());
    // Other prefix and separator, several characters long.
    r = parse({"p", "/size::7", "/verb::a::b", "/help", "rest"}, "/", "::");
    EXPECT_EQ(4, r.rc);
    EXPECT_EQ((std::vector<call_t>{{0, 2, "size", "7"}, {0, 3, "verb", "a::b"}, {0, 4, "help", "-"}}),
              r.calls);
}

TEST(CmdSwitch, AbbreviationAndAmbiguity) {
    run_t r = parse({"prog", "--log=x"});
    EXPECT_EQ(-3, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-3, 1, "--log=x", "-"}}), r.calls);
    r = parse({"prog", "--logi"});
    EXPECT_EQ(0, r.rc);
    EXPECT_EQ((std::vector<call_t>{{0, 6, "login", "1"}}), r.calls);
    r = parse({"prog", "--c=5", "--si=6", "--h"});
    EXPECT_EQ((std::vector<call_t>{{0, 1, "count", "5"}, {0, 2, "size", "6"}, {0, 4, "help", "-"}}),
              r.calls);
    // A name longer than the entry does not match it.
    r = parse({"prog", "--helpme", "--count=1"});
    EXPECT_EQ(-2, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-2, 1, "--helpme", "-"}}), r.calls);
    // An empty name is a prefix of every entry.
    EXPECT_EQ(-3, parse({"prog", "--=1"}).rc);
    // Unknown with a value: the text reported stops at the separator;
    // later arguments are not examined.
    r = parse({"prog", "--help", "--zzz=1", "--bad=="});
    EXPECT_EQ(-2, r.rc);
    EXPECT_EQ((std::vector<call_t>{{0, 4, "help", "-"}, {-2, 2, "--zzz", "-"}}), r.calls);
}

TEST(CmdSwitch, LogicalValuesAndNegation) {
    for (char const* w : {"on", "true", "rulez", "yez", "yep", "yeah", "OK", "yes"}) {
        run_t r = parse({"p", (std::string("--daemon=") + w).c_str()});
        EXPECT_EQ((std::vector<call_t>{{0, 0, "daemon", "1"}}), r.calls) << w;
    }
    for (char const* w : {"off", "false", "sux", "nope", "no"}) {
        run_t r = parse({"p", (std::string("--daemon=") + w).c_str()});
        EXPECT_EQ((std::vector<call_t>{{0, 0, "daemon", "0"}}), r.calls) << w;
    }
    run_t r = parse({"p", "--daemon=Yes"});
    EXPECT_EQ(-6, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-6, 0, "daemon", "Yes"}}), r.calls);
    EXPECT_EQ(-6, parse({"p", "--daemon=ok"}).rc);
    EXPECT_EQ(-6, parse({"p", "--daemon=1"}).rc);
    // An empty value is no value: true.
    EXPECT_EQ((std::vector<call_t>{{0, 0, "daemon", "1"}}), parse({"p", "--daemon="}).calls);

    r = parse({"p", "--no-daemon", "--no-d", "--no-login"});
    EXPECT_EQ(0, r.rc);
    EXPECT_EQ((std::vector<call_t>{{0, 0, "daemon", "0"}, {0, 0, "daemon", "0"}, {0, 6, "login", "0"}}),
              r.calls);
    r = parse({"p", "--no-daemon=yes"});
    EXPECT_EQ(-2, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-2, 1, "--no-daemon", "-"}}), r.calls);
    EXPECT_EQ(0, parse({"p", "--no-daemon="}).rc);
    // Negating a non-logical switch is unknown; an ambiguous rest too is -3.
    EXPECT_EQ(-2, parse({"p", "--no-count"}).rc);
    r = parse({"p", "--no-lo"});
    EXPECT_EQ(-3, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-3, 1, "--no-lo", "-"}}), r.calls);
    // "no" alone is a prefix of the entry "nosy", so no negation is tried.
    EXPECT_EQ((std::vector<call_t>{{0, 7, "nosy", "-"}}), parse({"p", "--no"}).calls);
}

TEST(CmdSwitch, TypedValues) {
    run_t r = parse({"p", "--count=-42", "--size=18446744073709551615", "--verb=a b=c"});
    EXPECT_EQ(0, r.rc);
    EXPECT_EQ((std::vector<call_t>{{0, 1, "count", "-42"},
                                   {0, 2, "size", "18446744073709551615"},
                                   {0, 3, "verb", "a b=c"}}),
              r.calls);
    r = parse({"p", "--count=12x"});
    EXPECT_EQ(-5, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-5, 1, "count", "12x"}}), r.calls);
    r = parse({"p", "--count="});
    EXPECT_EQ(-4, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-4, 1, "count", "-"}}), r.calls);
    EXPECT_EQ(-4, parse({"p", "--count"}).rc);
    EXPECT_EQ(-4, parse({"p", "--size"}).rc);
    EXPECT_EQ(-4, parse({"p", "--verb"}).rc);
    EXPECT_EQ(-5, parse({"p", "--size=0x10"}).rc);
    EXPECT_EQ(-5, parse({"p", "--size=-"}).rc);
    // Out of range saturates without an error.
    EXPECT_EQ((std::vector<call_t>{{0, 1, "count", "9223372036854775807"}}),
              parse({"p", "--count=99999999999999999999"}).calls);
    r = parse({"p", "--help=now"});
    EXPECT_EQ(-7, r.rc);
    EXPECT_EQ((std::vector<call_t>{{-7, 4, "help", "now"}}), r.calls);
}

TEST(CmdSwitch, InvalidCalls) {
    cmd_switch_t const bad[] = {{"a", 0}, {"b", 5}};
    run_t r = parse({"p", "--a"}, "--", "=", bad, 2);
    EXPECT_EQ(-1, r.rc);
    EXPECT_TRUE(r.calls.empty());
    // Checked even when there is nothing to parse.
    EXPECT_EQ(-1, parse({"p"}, "--", "=", bad, 2).rc);
    EXPECT_EQ(-1, parse({"p", "--a"}, nullptr, "=").rc);
    EXPECT_EQ(-1, parse({"p", "--a"}, "--", nullptr).rc);
    // An empty table knows no switch; a null callback is allowed.
    EXPECT_EQ(-2, parse({"p", "--a"}, "--", "=", nullptr, 0).rc);
    char arg0[] = "p", arg1[] = "--help";
    char* argv[] = {arg0, arg1, nullptr};
    EXPECT_EQ(0, cmd_switch_t::parse(nullptr, nullptr, 2, argv, k_count, k_table, "--", "="));
    EXPECT_EQ(-1, cmd_switch_t::parse(nullptr, nullptr, 3, argv, k_count, k_table, "--", "="));
}

}  // namespace
