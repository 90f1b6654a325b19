// common-utils.cc: command-line switches.
#include "common-utils.h"

#include <alloca.h>

#include <cstdlib>
#include <cstring>

namespace {

char const* const s_true_words[] = {"on", "true", "rulez", "yez", "yep", "yeah", "OK", "yes"};
char const* const s_false_words[] = {"off", "false", "sux", "nope", "no"};

// 1 for a true word, 0 for a false word, -1 for anything else.
int logical_word(char const* v) {
    for (char const* w : s_true_words)
        if (std::strcmp(v, w) == 0) return 1;
    for (char const* w : s_false_words)
        if (std::strcmp(v, w) == 0) return 0;
    return -1;
}

// Counts the entries whose name begins with the len bytes at name; *found
// receives the index of the last of them.
unsigned long count_matches(cmd_switch_t const* table, unsigned long count, char const* name,
                            unsigned long len, unsigned long* found) {
    unsigned long matches = 0;
    for (unsigned long i = 0; i < count; ++i) {
        if (std::strncmp(table[i].name, name, len) == 0) {
            ++matches;
            *found = i;
        }
    }
    return matches;
}

struct reporter_t {
    cmd_switch_t::callback_t callback;
    void* ctx;

    int fail(int code, unsigned long index, char const* name, void* value) const {
        if (callback) callback(ctx, code, index, name, value);
        return code;
    }
    void report(unsigned long index, char const* name, void* value) const {
        if (callback) callback(ctx, cmd_switch_t::ok, index, name, value);
    }
};

}  // namespace

int cmd_switch_t::parse(callback_t callback, void* ctx, unsigned long argc, char** argv,
                        unsigned long count, cmd_switch_t const* table, char const* prefix,
                        char const* separator) {
    if (count != 0 && table == nullptr) return invalid_parameters;
    for (unsigned long i = 0; i < count; ++i)
        if (table[i].type > action || table[i].name == nullptr) return invalid_parameters;
    if (argc < 2) return ok;
    if (argv == nullptr || prefix == nullptr || separator == nullptr) return invalid_parameters;
    for (unsigned long i = 1; i < argc; ++i)
        if (argv[i] == nullptr) return invalid_parameters;

    reporter_t const rep{callback, ctx};
    std::size_t const prefix_len = std::strlen(prefix);
    std::size_t const sep_len = std::strlen(separator);

    for (unsigned long a = 1; a < argc; ++a) {
        char* const arg = argv[a];
        if (std::strcmp(arg, prefix) == 0) return a + 1 < argc ? static_cast<int>(a + 1) : 0;
        if (std::strncmp(arg, prefix, prefix_len) != 0) return static_cast<int>(a);

        char const* const name = arg + prefix_len;
        char const* const sep = sep_len != 0 ? std::strstr(name, separator) : nullptr;
        unsigned long const name_len = sep ? sep - name : std::strlen(name);
        // The value runs to the end of the argument, so it is already
        // terminated; an empty one counts as none.
        char* value = sep ? const_cast<char*>(sep) + sep_len : nullptr;
        if (value != nullptr && *value == '\0') value = nullptr;

        unsigned long entry = 0;
        unsigned long matches = count_matches(table, count, name, name_len, &entry);
        bool negated = false;
        if (matches == 0 && value == nullptr && name_len >= 3 && std::strncmp(name, "no-", 3) == 0) {
            matches = count_matches(table, count, name + 3, name_len - 3, &entry);
            if (matches == 1 && table[entry].type != logical) matches = 0;
            negated = true;
        }
        if (matches > 1) return rep.fail(ambiguous_switch, a, arg, nullptr);
        if (matches == 0) {
            char const* text = arg;
            if (sep != nullptr) {
                // The argument up to the separator, as its own string.
                std::size_t const n = sep - arg;
                char* copy = static_cast<char*>(alloca(n + 1));
                std::memcpy(copy, arg, n);
                copy[n] = '\0';
                text = copy;
            }
            return rep.fail(unknown_switch, a, text, nullptr);
        }

        char const* const entry_name = table[entry].name;
        switch (table[entry].type) {
        case logical: {
            int flag = negated ? 0 : 1;
            if (value != nullptr) {
                flag = logical_word(value);
                if (flag < 0) return rep.fail(invalid_logical, entry, entry_name, value);
            }
            rep.report(entry, entry_name, &flag);
            break;
        }
        case signed_number: {
            if (value == nullptr) return rep.fail(needs_value, entry, entry_name, nullptr);
            char* end = nullptr;
            long number = std::strtol(value, &end, 10);
            if (*end != '\0') return rep.fail(invalid_number, entry, entry_name, value);
            rep.report(entry, entry_name, &number);
            break;
        }
        case unsigned_number: {
            if (value == nullptr) return rep.fail(needs_value, entry, entry_name, nullptr);
            char* end = nullptr;
            unsigned long number = std::strtoul(value, &end, 10);
            if (*end != '\0') return rep.fail(invalid_number, entry, entry_name, value);
            rep.report(entry, entry_name, &number);
            break;
        }
        case string:
            if (value == nullptr) return rep.fail(needs_value, entry, entry_name, nullptr);
            rep.report(entry, entry_name, value);
            break;
        default:  // action
            if (value != nullptr) return rep.fail(action_with_value, entry, entry_name, value);
            rep.report(entry, entry_name, nullptr);
            break;
        }
    }
    return ok;
}

char const* cmd_switch_t::error(int code) {
    switch (code) {
    case ok: return "No errors";
    case invalid_parameters: return "Invalid call parameters";
    case unknown_switch: return "Unknown switch";
    case ambiguous_switch: return "Ambiguous switch";
    case needs_value: return "Switch needs value";
    case invalid_number: return "Invalid number value for switch";
    case invalid_logical: return "Invalid logical value for switch";
    case action_with_value: return "Value for action switch supplied";
    default: return "Unknown error";
    }
}
