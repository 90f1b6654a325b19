// common-utils.h: command-line switches.
//
// A program describes its switches in a table of cmd_switch_t entries and
// hands its argument vector to cmd_switch_t::parse, which recognises each
// switch, converts its value by the entry's type and reports it to a
// callback. Names may be abbreviated to any prefix that selects exactly one
// entry; a logical switch also takes "no-" before its name for false:
//
//   static cmd_switch_t const table[] = {
//       {"daemon", cmd_switch_t::logical},
//       {"count", cmd_switch_t::signed_number},
//       {"help", cmd_switch_t::action},
//   };
//   int rc = cmd_switch_t::parse(on_switch, &opts, argc, argv, 3, table, "--", "=");
//   if (rc < 0) fprintf(stderr, "%s\n", cmd_switch_t::error(rc));
//
// Thread safety: parse keeps no state; it may run on any thread, provided
// nobody changes argv or the table meanwhile.
//
// Choices made here where the behaviour was open:
//  - The separator is searched in the text after the prefix; an empty
//    separator means that values cannot be given at all.
//  - A null prefix, separator, argument (within argc), table (with a
//    non-zero count) or entry name is an invalid call (-1, no callback),
//    like an entry type above 4. A null callback is allowed: parse then only
//    returns its result.
//  - The error callbacks for an unknown (-2) or ambiguous (-3) switch pass
//    the argument's index in argv and a null value; the other error
//    callbacks pass the matched entry's index and name, and the offending
//    value text (null when there is none).
//  - The string value handed to the callback points into argv, so it stays
//    valid as long as argv does.
#ifndef QVLKERN_COMMON_UTILS_H
#define QVLKERN_COMMON_UTILS_H

#include "kern-config.h"

// One entry of a switch table.
struct QVL_API cmd_switch_t {
    // Entry types.
    enum type_t : q_uint32_t {
        logical = 0,          // value: int* holding 1 or 0
        signed_number = 1,    // value: long*
        unsigned_number = 2,  // value: unsigned long*
        string = 3,           // value: char const* text
        action = 4,           // value: null
    };

    // Result codes of parse, with their texts from error().
    enum result_t : int {
        ok = 0,
        invalid_parameters = -1,
        unknown_switch = -2,
        ambiguous_switch = -3,
        needs_value = -4,
        invalid_number = -5,
        invalid_logical = -6,
        action_with_value = -7,
    };

    // Called with code 0 for every recognised switch (index and name of its
    // table entry, value by type as above), and once with the negative code
    // just before parse returns an error.
    typedef void (*callback_t)(void* ctx, int code, unsigned long index, char const* name,
                               void* value);

    char const* name;  // switch name, without the prefix
    q_uint32_t type;   // one of type_t

    // Walks argv[1..argc-1]. Returns the index of the first argument that is
    // not a switch (the one after a bare prefix), 0 when every argument was
    // consumed, or a negative result code. Never throws.
    static int parse(callback_t callback, void* ctx, unsigned long argc, char** argv,
                     unsigned long count, cmd_switch_t const* table, char const* prefix,
                     char const* separator);

    // Text of a result code; "Unknown error" for codes not listed above.
    static char const* error(int code);
};

#endif  // QVLKERN_COMMON_UTILS_H
