// numstrings-int.h: the library's strict decimal scanner.
//
// kern_n::string_to_number<R> reads an optional sign, integer digits, an
// optional fraction and an optional exponent from a slice, in place, and
// detects overflow digit by digit. Every base-10 conversion of the library
// (numstrings.h, lstr_t::toi and friends) is a call to it with fixed flags.
// It is instantiated for int, unsigned int, long, unsigned long and double.
//
// What it accepts:
//  - with allow_sign, one leading "-" or "+"; a lone sign reads as 0;
//  - decimal digits, never white space;
//  - unless integer_only: one decimal separator, "." or ",", and one
//    exponent marker "e"/"E" optionally followed by "+" or "-"; the marker
//    may come after the fraction but nothing but digits may follow it.
// Positions in messages count scanning steps after the sign, starting at 0;
// an exponent marker and its sign together make one step.
//
// Integer results:
//  - the value is negated in the result type, also when it is unsigned
//    ("-5" as unsigned int is 4294967291);
//  - without an exponent a fraction is dropped ("12.9" is 12);
//  - with an exponent and a decimal separator the value is computed in
//    floating point from the already negated integer part plus the fraction,
//    and negated once more when the input was negative: "-1.5e1" gives 5,
//    "1.5e1" 15. Callers rely on this; it is kept;
//  - with an exponent and no separator the value is scaled exactly by an
//    integer power of ten (divided for a negative exponent, truncating).
// Double results are the integer part plus the fraction, negated, scaled by
// the power of ten; nothing is truncated.
//
// Choices made here:
//  - the scanner never looks outside the slice: an exponent marker, or a
//    marker and its sign, at the end of the slice means exponent 0. The
//    "no exponent present ..." failure therefore never happens;
//  - for integer results without a separator, exponents of 10 or more (either
//    sign) are rejected with "integer overflow detected in string \"...\" at
//    exponent applying" since ten to that power no longer fits the 32-bit
//    factor;
//  - when the floating-point path (exponent with separator) yields a value
//    that the integer result type cannot hold (or not a number), the same
//    "at exponent applying" failure is thrown; for an unsigned result a
//    negative value down to minus the type's range is wrapped like "-5".
//
// The scanner allocates nothing unless it throws.
//
// Thread safety: all functions are pure and may run on any thread at once.
#ifndef QVLKERN_NUMSTRINGS_INT_H
#define QVLKERN_NUMSTRINGS_INT_H

#include "amtypes.h"
#include "kern-config.h"

namespace kern_n {

// Reads s as a decimal number of type R; see above. Throws
// number_format_exception_shell_t.
template <typename R>
QVL_API R string_to_number(lstr_t const& s, bool allow_sign, bool integer_only);

namespace detail {

// value * 10 + digit in T's own (wrapping) arithmetic; throws the per-digit
// overflow message when the result is smaller than value. Only a wrap that
// makes the value smaller is caught: that simple test is the rule.
// s and position serve the message only.
template <typename T>
QVL_API T add_digit(T value, unsigned char digit, lstr_t s, int position);

// 10 raised to e, as the C library's pow computes it.
template <typename T>
QVL_API double pow10(T e);

extern template QVL_API int add_digit<int>(int, unsigned char, lstr_t, int);
extern template QVL_API unsigned int add_digit<unsigned int>(unsigned int, unsigned char, lstr_t, int);
extern template QVL_API long add_digit<long>(long, unsigned char, lstr_t, int);
extern template QVL_API unsigned long add_digit<unsigned long>(unsigned long, unsigned char, lstr_t, int);
extern template QVL_API double add_digit<double>(double, unsigned char, lstr_t, int);
extern template QVL_API double pow10<int>(int);

}  // namespace detail

extern template QVL_API int string_to_number<int>(lstr_t const&, bool, bool);
extern template QVL_API unsigned int string_to_number<unsigned int>(lstr_t const&, bool, bool);
extern template QVL_API long string_to_number<long>(lstr_t const&, bool, bool);
extern template QVL_API unsigned long string_to_number<unsigned long>(lstr_t const&, bool, bool);
extern template QVL_API double string_to_number<double>(lstr_t const&, bool, bool);

}  // namespace kern_n

#endif  // QVLKERN_NUMSTRINGS_INT_H
