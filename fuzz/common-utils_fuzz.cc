// Fuzzes cmd_switch_t::parse with argument vectors cut from the input at NUL
// bytes, each argument in a heap block of exactly its length plus the NUL.
// The first input byte picks the prefix and separator. The table has every
// type and names that are prefixes of one another. Checks: the result is
// one of the documented ones, every value handed to the callback is
// readable, and an error return comes after exactly one error callback.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "common-utils.h"

namespace {

cmd_switch_t const k_table[] = {
    {"daemon", cmd_switch_t::logical},        {"count", cmd_switch_t::signed_number},
    {"size", cmd_switch_t::unsigned_number},  {"verb", cmd_switch_t::string},
    {"help", cmd_switch_t::action},           {"log", cmd_switch_t::string},
    {"login", cmd_switch_t::logical},         {"no-op", cmd_switch_t::action},
};
unsigned long const k_count = sizeof k_table / sizeof k_table[0];

struct tally_t {
    unsigned long found = 0;
    unsigned long errors = 0;
    int last_error = 0;
};

void check(bool ok) {
    if (!ok) std::abort();
}

void on_switch(void* ctx, int code, unsigned long index, char const* name, void* value) {
    auto* t = static_cast<tally_t*>(ctx);
    check(name != nullptr);
    volatile std::size_t sink = std::strlen(name);
    (void)sink;
    if (code != 0) {
        ++t->errors;
        t->last_error = code;
        if (value) sink = std::strlen(static_cast<char const*>(value));
        return;
    }
    ++t->found;
    check(index < k_count && std::strcmp(name, k_table[index].name) == 0);
    switch (k_table[index].type) {
    case cmd_switch_t::logical: {
        int const v = *static_cast<int*>(value);
        check(v == 0 || v == 1);
        break;
    }
    case cmd_switch_t::signed_number: sink = static_cast<std::size_t>(*static_cast<long*>(value)); break;
    case cmd_switch_t::unsigned_number: sink = *static_cast<unsigned long*>(value); break;
    case cmd_switch_t::string: check(*static_cast<char const*>(value) != '\0'); break;
    default: check(value == nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static char const* const prefixes[] = {"--", "-", "/", ""};
    static char const* const separators[] = {"=", ":", "::", ""};
    unsigned const pick = size ? data[0] : 0;
    char const* const prefix = prefixes[pick & 3];
    char const* const separator = separators[(pick >> 2) & 3];

    std::vector<std::unique_ptr<char[]>> store;
    std::size_t start = size ? 1 : 0;
    for (std::size_t i = start; i <= size; ++i) {
        if (i == size || data[i] == 0) {
            std::size_t const n = i - start;
            store.emplace_back(new char[n + 1]);
            std::memcpy(store.back().get(), data + start, n);
            store.back()[n] = '\0';
            start = i + 1;
        }
    }
    std::vector<char*> argv;
    for (auto& a : store) argv.push_back(a.get());
    argv.push_back(nullptr);
    unsigned long const argc = store.size();

    tally_t t;
    int const rc = cmd_switch_t::parse(on_switch, &t, argc, argv.data(), k_count, k_table, prefix, separator);
    check(cmd_switch_t::error(rc) != nullptr);
    if (rc < 0) {
        check(rc >= -7 && rc != -1);
        check(t.errors == 1 && t.last_error == rc);
    } else {
        check(t.errors == 0);
        check(rc == 0 || static_cast<unsigned long>(rc) < argc);
        check(t.found < argc);
    }
    return 0;
}
