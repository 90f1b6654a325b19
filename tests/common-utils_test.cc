// Tests of the command-line switch parser.
#include "common-utils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

cmd_switch_t const k_table[] = {
    {"daemon", cmd_switch_t::logical},        {"count", cmd_switch_t::signed_number},
    {"size", cmd_switch_t::unsigned_number},  {"verb", cmd_switch_t::string},
    {"help", cmd_switch_t::action},           {"log", cmd_switch_t::string},
    {"login", cmd_switch_t::logical},         {"nosy", cmd_switch_t::action},
};

// Appends "code:index:name[=value]" per callback; error callbacks pass text.
void record(void* ctx, int code, unsigned long index, char const* name, void* value) {
    std::string& t = *static_cast<std::string*>(ctx);
    t += (t.empty() ? "" : " ") + std::to_string(code) + ":" + std::to_string(index) + ":" + name;
    if (value == nullptr) return;
    q_uint32_t const type = code != 0 ? q_uint32_t(cmd_switch_t::string) : k_table[index].type;
    t += '=' + (type == cmd_switch_t::logical           ? std::to_string(*static_cast<int*>(value))
                : type == cmd_switch_t::signed_number   ? std::to_string(*static_cast<long*>(value))
                : type == cmd_switch_t::unsigned_number ? std::to_string(*static_cast<unsigned long*>(value))
                                                        : std::string(static_cast<char const*>(value)));
}

// Parses the arguments (the first is the program name); returns the result code, then the callbacks' trace.
std::string parse(std::initializer_list<char const*> args, char const* prefix = "--", char const* sep = "=",
                  cmd_switch_t const* table = k_table, unsigned long count = std::size(k_table)) {
    std::vector<std::string> store(args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : store) argv.push_back(&s[0]);
    std::string trace;
    int const rc = cmd_switch_t::parse(record, &trace, store.size(), argv.data(), count, table, prefix, sep);
    return std::to_string(rc) + (trace.empty() ? "" : " " + trace);
}

TEST(CmdSwitch, ErrorTextsAndInvalidCalls) {
    char const* const texts[] = {"No errors", "Invalid call parameters", "Unknown switch", "Ambiguous switch",
        "Switch needs value", "Invalid number value for switch", "Invalid logical value for switch",
        "Value for action switch supplied", "Unknown error"};
    for (int code = 0; code <= 8; ++code) EXPECT_STREQ(texts[code], cmd_switch_t::error(-code));
    EXPECT_STREQ("Unknown error", cmd_switch_t::error(1));

    cmd_switch_t const bad[] = {{"a", 0}, {"b", 5}};
    EXPECT_EQ("-1", parse({"p"}, "--", "=", bad, 2));  // the table is checked before anything
    EXPECT_EQ("-1", parse({"p", "--a"}, nullptr, "="));
    EXPECT_EQ("-1", parse({"p", "--a"}, "--", nullptr));
    EXPECT_EQ("-2 -2:1:--a", parse({"p", "--a"}, "--", "=", nullptr, 0));
    // A null callback is allowed; a null argument within argc is not.
    char arg0[] = "p", arg1[] = "--help";
    char* argv[] = {arg0, arg1, nullptr};
    EXPECT_EQ(0, cmd_switch_t::parse(nullptr, nullptr, 2, argv, std::size(k_table), k_table, "--", "="));
    EXPECT_EQ(-1, cmd_switch_t::parse(nullptr, nullptr, 3, argv, std::size(k_table), k_table, "--", "="));
}

TEST(CmdSwitch, Parsing) {
    EXPECT_EQ("2 0:3:verb=2", parse({"prog", "--verb=2", "file"}));
    EXPECT_EQ("2", parse({"prog", "--", "x"}));
    EXPECT_EQ("3 0:4:help", parse({"prog", "--help", "--", "--daemon"}));
    EXPECT_EQ("0", parse({"--bogus"}));  // argv[0] is never examined
    EXPECT_EQ("4 0:2:size=7 0:3:verb=a::b 0:4:help",
              parse({"p", "/size::7", "/verb::a::b", "/help", "rest"}, "/", "::"));
    EXPECT_EQ("-2 -2:1:--verb=x", parse({"p", "--verb=x"}, "--", ""));  // no separator, no value
    EXPECT_EQ("-4 -4:3:verb", parse({"p", "--verb"}, "--", ""));
    EXPECT_EQ("0 0:1:count=5 0:2:size=6 0:4:help", parse({"prog", "--c=5", "--si=6", "--h"}));
    EXPECT_EQ("-2 -2:1:--helpme", parse({"prog", "--helpme", "--count=1"}));
    // The unknown text stops at the separator; later arguments are not read.
    EXPECT_EQ("-2 0:4:help -2:2:--zzz", parse({"prog", "--help", "--zzz=1", "--bad=="}));
    EXPECT_EQ("0 0:0:daemon=0 0:0:daemon=0 0:6:login=0", parse({"p", "--no-daemon", "--no-d", "--no-login"}));

    // One switch each. An empty name matches every entry; "no" is a prefix of "nosy", so no negation is tried; an
    // empty value is no value; logical words are case-sensitive; a number out of range saturates.
    struct { char const* arg; char const* want; } const cases[] = {
        {"--", "0"}, {"-help", "1"}, {"--log=x", "-3 -3:1:--log=x"}, {"--logi", "0 0:6:login=1"},
        {"--=1", "-3 -3:1:--=1"}, {"--no", "0 0:7:nosy"}, {"--no-lo", "-3 -3:1:--no-lo"},
        {"--no-count", "-2 -2:1:--no-count"}, {"--no-daemon=yes", "-2 -2:1:--no-daemon"},
        {"--no-daemon=", "0 0:0:daemon=0"}, {"--daemon=", "0 0:0:daemon=1"},
        {"--daemon=Yes", "-6 -6:0:daemon=Yes"}, {"--daemon=ok", "-6 -6:0:daemon=ok"},
        {"--count=12x", "-5 -5:1:count=12x"}, {"--count=", "-4 -4:1:count"}, {"--verb", "-4 -4:3:verb"},
        {"--size=0x10", "-5 -5:2:size=0x10"}, {"--size=-", "-5 -5:2:size=-"}, {"--help=now", "-7 -7:4:help=now"},
        {"--count=99999999999999999999", "0 0:1:count=9223372036854775807"}, {"--count=-42", "0 0:1:count=-42"},
        {"--size=18446744073709551615", "0 0:2:size=18446744073709551615"}, {"--verb=a b=c", "0 0:3:verb=a b=c"}};
    for (auto const& c : cases) EXPECT_EQ(c.want, parse({"p", c.arg})) << c.arg;
    for (char const* w : {"on", "true", "rulez", "yez", "yep", "yeah", "OK", "yes"})
        EXPECT_EQ("0 0:0:daemon=1", parse({"p", (std::string("--daemon=") + w).c_str()})) << w;
    for (char const* w : {"off", "false", "sux", "nope", "no"})
        EXPECT_EQ("0 0:0:daemon=0", parse({"p", (std::string("--daemon=") + w).c_str()})) << w;
}

}  // namespace
