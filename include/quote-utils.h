// quote-utils.h: the quoted-string escape format.
//
// quote_string turns any byte string into one token without blanks, control
// bytes, bytes above 0x7E or a bare "%", so that it can sit among blank- or
// comma-separated fields of a text line; dequote_string reads it back
// exactly. The escapes are "%" plus a capital letter for the common
// characters and "%" plus two hexadecimal digits for any other unsafe byte:
//
//   %P "%"   %S blank   %T tab   %N line feed   %R carriage return
//   %L carriage return + line feed   %M "," + blank   %Z the empty string
//
//   std::string field;
//   quote_string(text.data(), text.size(), field);   // "a, b\r\n" -> "a%Mb%L"
//   dequote_string(field, text);                      // and back
//
// Thread safety: the functions keep no state; the statistics counters are
// updated with atomic additions, so any thread may call them at any time.
//
// Choices made here where the behaviour was open:
//  - The position in the "invalid quoted string" message is the offset,
//    counted from 0, of the "%" that begins the bad unit.
//  - The std::string writer grows its target once, by exactly
//    calc_quoted_string_size bytes.
//  - The counters (calls, bytes of input, time) move only while run-time
//    statistics are on (kern::runtime::stat::mode_s_ not 0); one call of
//    either quote_string form counts once, calc_quoted_string_size does not
//    count. Time is also added when dequote_string throws.
#ifndef QVLKERN_QUOTE_UTILS_H
#define QVLKERN_QUOTE_UTILS_H

#include <atomic>
#include <string>

#include "amtypes.h"
#include "kern-config.h"

// Exact number of bytes quote_string writes for the n bytes at s; 2 for an
// empty input.
QVL_API unsigned long calc_quoted_string_size(char const* s, unsigned long n) noexcept;

// Writes the quoted form of the n bytes at s to out, without a NUL, and
// returns its length. out must hold calc_quoted_string_size(s, n) bytes.
QVL_API unsigned long quote_string(char const* s, unsigned long n, char* out) noexcept;

// Appends the quoted form of the n bytes at s to out.
QVL_API void quote_string(char const* s, unsigned long n, std::string& out);

// Replaces out by the bytes that q stands for. Throws
// quoted_format_exception_shell_t on a malformed escape, leaving in out the
// bytes decoded before it. Unescaped bytes are copied as they stand.
QVL_API void dequote_string(lstr_t q, std::string& out);

namespace kern {
namespace quote {
namespace stat {

// Calls of quote_string, bytes given to it, and its time in ticks.
namespace quote {
extern QVL_API std::atomic<q_uint64_t> calls;
extern QVL_API std::atomic<q_uint64_t> size;
extern QVL_API std::atomic<q_uint64_t> time;
}  // namespace quote

// Calls of dequote_string, bytes given to it, and its time in ticks.
namespace dequote {
extern QVL_API std::atomic<q_uint64_t> calls;
extern QVL_API std::atomic<q_uint64_t> size;
extern QVL_API std::atomic<q_uint64_t> time;
}  // namespace dequote

}  // namespace stat
}  // namespace quote
}  // namespace kern

#endif  // QVLKERN_QUOTE_UTILS_H
