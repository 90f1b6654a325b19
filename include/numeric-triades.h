// numeric-triades.h: number formatting without the printf family.
//
// add_number_to_string writes the decimal text of an integer straight into a
// caller's std::string (appending) or character buffer. Digits are produced
// into a small stack buffer from the least significant end and copied out in
// one piece, so the only allocation is the growth of the target string. The
// character-buffer forms never allocate; they serve formatters that build a
// line in a fixed buffer. Beside them: fixed-width hexadecimal texts, digit
// grouping with apostrophes, a human-readable size text, the two-digit store
// of the time formatters, and the operator<< family that appends values to a
// std::string.
//
//   std::string line("pid ");
//   line << getpid() << ", size " << kilobytes(bytes, true);
//
// Thread safety: all functions are free of state; distinct targets need no
// locking.
//
// Choices left open elsewhere and made here:
//  - kilobytes of 1024^4 and above uses a fifth unit letter, "T": the
//    quotient after four divisions is written whole ('1T', '2048T', ...).
//  - hex_string also takes an unsigned long (16 digits, as unsigned long
//    long), so that size_t and q_uint64_t arguments are not ambiguous.
//  - operator<< with a null char const* appends nothing; with a pointer it
//    accepts any object pointer (const or not).
//  - The character-buffer forms return the count as int.
#ifndef QVLKERN_NUMERIC_TRIADES_H
#define QVLKERN_NUMERIC_TRIADES_H

#include <string>

#include "amtypes.h"
#include "kern-config.h"

// --- decimal text appended to a string; each returns out ---------------------
QVL_API std::string& add_number_to_string(unsigned char value, std::string& out);
QVL_API std::string& add_number_to_string(char value, std::string& out);
QVL_API std::string& add_number_to_string(unsigned short value, std::string& out);
QVL_API std::string& add_number_to_string(short value, std::string& out);
QVL_API std::string& add_number_to_string(unsigned int value, std::string& out);
QVL_API std::string& add_number_to_string(int value, std::string& out);
QVL_API std::string& add_number_to_string(unsigned long value, std::string& out);
QVL_API std::string& add_number_to_string(long value, std::string& out);
QVL_API std::string& add_number_to_string(unsigned long long value, std::string& out);
QVL_API std::string& add_number_to_string(long long value, std::string& out);
// "0x" and exactly 16 upper-case hexadecimal digits.
QVL_API std::string& add_number_to_string(void const* value, std::string& out);
// The text of "%f" (six fraction digits); nothing if formatting fails.
QVL_API std::string& add_number_to_string(double value, std::string& out);

// --- decimal text into a caller's buffer --------------------------------------
// Writes the same text as the string forms, without a NUL, and returns the
// number of characters written. out must have room for 20 characters.
QVL_API int add_number_to_string(int value, char* out) noexcept;
QVL_API int add_number_to_string(unsigned int value, char* out) noexcept;
QVL_API int add_number_to_string(long value, char* out) noexcept;
QVL_API int add_number_to_string(unsigned long value, char* out) noexcept;
QVL_API int add_number_to_string(long long value, char* out) noexcept;
QVL_API int add_number_to_string(unsigned long long value, char* out) noexcept;

// --- fixed-width hexadecimal, upper case, zero-padded, no prefix -------------
QVL_API std::string hex_string(unsigned long long value);  // 16 digits
QVL_API std::string hex_string(unsigned int value);        // 8 digits
inline std::string hex_string(unsigned long value) { return hex_string(static_cast<unsigned long long>(value)); }

namespace kern {
namespace numbers {

// Groups digits by three with apostrophes ('1234567' gives 1'234'567) and,
// when width is larger than the result, right-aligns it with blanks. The
// input is taken as it stands: a sign counts as a character of the first
// group.
QVL_API std::string produce_triades(lstr_t digits, unsigned long width);

}  // namespace numbers
}  // namespace kern

// Size text with units B, K, M, G, T: 500 gives '500B', 1536 gives '1.5K'
// ('1.5KB' with with_b). The single fraction digit is the remainder in
// 1024ths divided by 100, shown only above 99, so it runs from 1 to 10
// (2047 gives '1.10K').
QVL_API std::string kilobytes(unsigned long value, bool with_b);

// Fixed-width decimal stores for the time formatters.
template <typename T, int N>
struct decimal_convertor_t;

template <>
struct QVL_API decimal_convertor_t<int, 2> {
    // Writes the last two decimal digits of value to out[0] (tens) and
    // out[1] (units), divides value by 100 and returns 2. No NUL.
    static int store0(int& value, char* out) noexcept;
};

// --- appending values to a string; each returns out --------------------------
QVL_API std::string& operator<<(std::string& out, char const* text);
QVL_API std::string& operator<<(std::string& out, lstr_t const& text);
QVL_API std::string& operator<<(std::string& out, std::string const& text);
// One character, not its code.
QVL_API std::string& operator<<(std::string& out, char c);
QVL_API std::string& operator<<(std::string& out, unsigned char c);
QVL_API std::string& operator<<(std::string& out, short value);
QVL_API std::string& operator<<(std::string& out, unsigned short value);
QVL_API std::string& operator<<(std::string& out, int value);
QVL_API std::string& operator<<(std::string& out, unsigned int value);
QVL_API std::string& operator<<(std::string& out, long value);
QVL_API std::string& operator<<(std::string& out, unsigned long value);
QVL_API std::string& operator<<(std::string& out, long long value);
QVL_API std::string& operator<<(std::string& out, unsigned long long value);
QVL_API std::string& operator<<(std::string& out, float value);
QVL_API std::string& operator<<(std::string& out, double value);
QVL_API std::string& operator<<(std::string& out, void const* value);

#endif  // QVLKERN_NUMERIC_TRIADES_H
