// numstrings.h: conversion of text to numbers.
//
// Every conversion of text to a number in the library goes through here.
// The base-10 readers below all use the library's strict decimal scanner
// (kern_n::string_to_number, numstrings-int.h): no white space is skipped,
// every byte must be part of the number, and overflow is detected per digit.
// hex_string_to_num is a separate, even stricter hexadecimal reader. Other
// bases are read by lstr_t::toi / toul / tou64 / to64 (amtypes.h) through the
// C library's strtol family.
//
// Which readers accept what:
//   string_to_num         unsigned 32-bit, sign, fraction and exponent allowed
//   string_to_num_strict  unsigned 32-bit, digits only
//   string_to_uint64      unsigned 64-bit, no sign, fraction and exponent allowed
//   string_to_int64       signed 64-bit, sign, fraction and exponent allowed
//   string_to_double      double, sign, fraction and exponent allowed
// The unsigned string_to_num (like lstr_t::toul / tou64) accepts a sign and
// negates in two's complement: "-1" gives 4294967295. A lone sign reads as 0.
//
// All failures throw number_format_exception_shell_t whose reason names the
// input and the scanning position.
//
// Choices made here:
//  - the hexadecimal reader's position in "illegal char 0x.. at position %u"
//    is zero-based, like the decimal scanner's;
//  - see numstrings-int.h for the scanner's treatment of a trailing exponent
//    marker and of integer exponents of 10 or more.
//
// Thread safety: all functions are pure and may run on any thread at once.
#ifndef QVLKERN_NUMSTRINGS_H
#define QVLKERN_NUMSTRINGS_H

#include "amtypes.h"
#include "kern-config.h"

namespace kern_n {
namespace detail {

// For callers that narrow a parsed value themselves: always throws
// number_format_exception naming the signedness and the type of the given
// size in bytes (1 "char", 2 "short", 4 "int", 8 "long", else "<bits>-bit").
[[noreturn]] QVL_API void raise_number_out_of_range(lstr_t const& s, bool is_signed,
                                                    unsigned int size);

}  // namespace detail
}  // namespace kern_n

// Unsigned 32-bit decimal; a sign, a fraction and an exponent are accepted.
QVL_API q_uint32_t string_to_num(lstr_t const& s);
// Unsigned 32-bit decimal made of digits only.
QVL_API q_uint32_t string_to_num_strict(lstr_t const& s);
// Unsigned 64-bit decimal; fraction and exponent accepted, no sign.
QVL_API q_uint64_t string_to_uint64(lstr_t const& s);
// Signed 64-bit decimal; a sign, a fraction and an exponent are accepted.
QVL_API q_int64_t string_to_int64(lstr_t const& s);
// Decimal floating point; "." and "," are both decimal separators.
QVL_API double string_to_double(lstr_t const& s);
// Unsigned 32-bit hexadecimal, digits only (no "0x", sign or blank). More
// than eight digits push the oldest ones out without an error.
QVL_API q_uint32_t hex_string_to_num(lstr_t const& s);

#endif  // QVLKERN_NUMSTRINGS_H
