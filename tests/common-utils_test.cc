// Tests of the command-line switch parser.
#include "common-utils.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

cmd_switch_t const k_table[] = {
    {"daemon", cmd_switch_t::logical},        {"count", cmd_switch_t::signed_number},
    {"size", cmd_switch_t::unsigned_number},  {"verb", cmd_switch_t::string},
    {"help", cmd_switch_t::action},           {"log", cmd_switch_t::string},
    {"login", cmd_switch_t::logical},         {"nosy", cmd_switch_t::action},
};
unsigned long const k_count = sizeof k_table / sizeof k_table[0];

// Appends "code:index:name[=value]" for each callback, blank-separated.
void record(void* ctx, int code, unsigned long index, char const* name, void* value) {
    std::string& t = *static_cast<std::string*>(ctx);
    if (!t.empty()) t += ' ';
    t += std::to_string(code) + ":" + std::to_string(index) + ":" + name;
    if (value == nullptr) return;
    t += '=';
    if (code != 0) {
        t += static_cast<char const*>(value);
        return;
    }
    switch (k_table[index].type) {
    case cmd_switch_t::logical: t += std::to_string(*static_cast<int*>(value)); break;
    case cmd_switch_t::signed_number: t += std::to_string(*static_cast<long*>(value)); break;
    case cmd_switch_t::unsigned_number: t += std::to_string(*static_cast<unsigned long*>(value)); break;
    default: t += static_cast<char const*>(value);
    }
}

// Parses the arguments (the first is the program name); returns the
// result code followed by the callbacks' trace.
std::string parse(std::initializer_list<char const*> args, char const* prefix = "--",
                  char const* sep = "=", cmd_switch_t const* table = k_table,
                  unsigned long count = k_count) {
    std::vector<std::string> store(args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : store) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    std::string trace;
    int const rc = cmd_switch_t::parse(record, &trace, store.size(), argv.data(), count, table,
                                       prefix, sep);
    return std::to_string(rc) + (trace.empty() ? "" : " " + trace);
}

TEST(CmdSwitch, ErrorTexts) {
    char const* const texts[] = {"No errors", "Invalid call parameters", "Unknown switch",
                                 "Ambiguous switch", "Switch needs value",
                                 "Invalid number value for switch",
                                 "Invalid logical value for switch",
                                 "Value for action switch supplied", "Unknown error"};
    for (int code = 0; code <= 8; ++code) EXPECT_STREQ(texts[code], cmd_switch_t::error(-code));
    EXPECT_STREQ("Unknown error", cmd_switch_t::error(1));
}

TEST(CmdSwitch, EndOfSwitches) {
    EXPECT_EQ("2 0:3:verb=2", parse({"prog", "--verb=2", "file"}));
    EXPECT_EQ("0", parse({"prog", "--"}));
    EXPECT_EQ("2", parse({"prog", "--", "x"}));
    EXPECT_EQ("3 0:4:help", parse({"prog", "--help", "--", "--daemon"}));
    EXPECT_EQ("1", parse({"prog", "-help"}));
    EXPECT_EQ("0", parse({"prog"}));
    EXPECT_EQ("0", parse({"--bogus"}));  // argv[0] is never examined
    EXPECT_EQ("4 0:2:size=7 0:3:verb=a::b 0:4:help",
              parse({"p", "/size::7", "/verb::a::b", "/help", "rest"}, "/", "::"));
    // Without a separator no value can be given.
    EXPECT_EQ("-2 -2:1:--verb=x", parse({"p", "--verb=x"}, "--", ""));
    EXPECT_EQ("-4 -4:3:verb", parse({"p", "--verb"}, "--", ""));
}

TEST(CmdSwitch, AbbreviationAndAmbiguity) {
    EXPECT_EQ("-3 -3:1:--log=x", parse({"prog", "--log=x"}));
    EXPECT_EQ("0 0:6:login=1", parse({"prog", "--logi"}));
    EXPECT_EQ("0 0:1:count=5 0:2:size=6 0:4:help", parse({"prog", "--c=5", "--si=6", "--h"}));
    EXPECT_EQ("-2 -2:1:--helpme", parse({"prog", "--helpme", "--count=1"}));
    EXPECT_EQ("-3 -3:1:--=1", parse({"prog", "--=1"}));  // an empty name matches all
    // The unknown text stops at the separator; later arguments are not read.
    EXPECT_EQ("-2 0:4:help -2:2:--zzz", parse({"prog", "--help", "--zzz=1", "--bad=="}));
}

TEST(CmdSwitch, LogicalValuesAndNegation) {
    for (char const* w : {"on", "true", "rulez", "yez", "yep", "yeah", "OK", "yes"})
        EXPECT_EQ("0 0:0:daemon=1", parse({"p", (std::string("--daemon=") + w).c_str()})) << w;
    for (char const* w : {"off", "false", "sux", "nope", "no"})
        EXPECT_EQ("0 0:0:daemon=0", parse({"p", (std::string("--daemon=") + w).c_str()})) << w;
    EXPECT_EQ("-6 -6:0:daemon=Yes", parse({"p", "--daemon=Yes"}));
    EXPECT_EQ("-6 -6:0:daemon=ok", parse({"p", "--daemon=ok"}));
    EXPECT_EQ("0 0:0:daemon=1", parse({"p", "--daemon="}));  // empty value: none

    EXPECT_EQ("0 0:0:daemon=0 0:0:daemon=0 0:6:login=0",
              parse({"p", "--no-daemon", "--no-d", "--no-login"}));
    EXPECT_EQ("-2 -2:1:--no-daemon", parse({"p", "--no-daemon=yes"}));
    EXPECT_EQ("0 0:0:daemon=0", parse({"p", "--no-daemon="}));
    EXPECT_EQ("-2 -2:1:--no-count", parse({"p", "--no-count"}));  // not logical
    EXPECT_EQ("-3 -3:1:--no-lo", parse({"p", "--no-lo"}));
    // "no" is a prefix of "nosy": no negation is tried.
    EXPECT_EQ("0 0:7:nosy", parse({"p", "--no"}));
}

TEST(CmdSwitch, TypedValues) {
    EXPECT_EQ("0 0:1:count=-42 0:2:size=18446744073709551615 0:3:verb=a b=c",
              parse({"p", "--count=-42", "--size=18446744073709551615", "--verb=a b=c"}));
    EXPECT_EQ("-5 -5:1:count=12x", parse({"p", "--count=12x"}));
    EXPECT_EQ("-4 -4:1:count", parse({"p", "--count="}));
    EXPECT_EQ("-4 -4:1:count", parse({"p", "--count"}));
    EXPECT_EQ("-4 -4:2:size", parse({"p", "--size"}));
    EXPECT_EQ("-4 -4:3:verb", parse({"p", "--verb"}));
    EXPECT_EQ("-5 -5:2:size=0x10", parse({"p", "--size=0x10"}));
    EXPECT_EQ("-5 -5:2:size=-", parse({"p", "--size=-"}));
    // Out of range saturates without an error.
    EXPECT_EQ("0 0:1:count=9223372036854775807", parse({"p", "--count=99999999999999999999"}));
    EXPECT_EQ("-7 -7:4:help=now", parse({"p", "--help=now"}));
}

TEST(CmdSwitch, InvalidCalls) {
    cmd_switch_t const bad[] = {{"a", 0}, {"b", 5}};
    EXPECT_EQ("-1", parse({"p", "--a"}, "--", "=", bad, 2));
    EXPECT_EQ("-1", parse({"p"}, "--", "=", bad, 2));  // checked before anything
    EXPECT_EQ("-1", parse({"p", "--a"}, nullptr, "="));
    EXPECT_EQ("-1", parse({"p", "--a"}, "--", nullptr));
    EXPECT_EQ("-2 -2:1:--a", parse({"p", "--a"}, "--", "=", nullptr, 0));
    // A null callback is allowed; a null argument within argc is not.
    char arg0[] = "p", arg1[] = "--help";
    char* argv[] = {arg0, arg1, nullptr};
    EXPECT_EQ(0, cmd_switch_t::parse(nullptr, nullptr, 2, argv, k_count, k_table, "--", "="));
    EXPECT_EQ(-1, cmd_switch_t::parse(nullptr, nullptr, 3, argv, k_count, k_table, "--", "="));
}

}  // namespace
