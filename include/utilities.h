// utilities.h: message formatting, system error text and small text helpers.
//
// q_format builds printf-style texts into a std::string; get_last_error turns
// an errno value into "<system text> (errno=N)"; split_error breaks a chained
// error text ("a because of b; c") into one line per cause. Beside them:
// whitespace trimming, field counting, random identifiers, three forms of
// memory dump, hexadecimal digit values and a population count.
//
//   error_saver_t saved;  // right after the failing call
//   QVL_THROW(io_error_exception, "unable to open \"%s\" because of %s",
//             name, get_last_error(saved).c_str());
//
// Thread safety: all functions are free of shared state; get_last_error uses
// the reentrant form of the system's error table; random_string draws from
// the shared, locked sysrnd. Distinct arguments need no locking.
//
// Choices left open elsewhere and made here:
//  - The error texts are the C library's own (strerror_r).
//  - q_format_va lets std::bad_alloc through when its output cannot grow; it
//    reports only a failed formatting pass in its result text.
//  - q_format_va makes its text in a buffer of its own and then moves it
//    into out, so that an argument may point into out
//    (q_format(s, "%s!", s.c_str())). A failed first pass leaves what the
//    formatter wrote, padded with NULs to 1024 characters.
//  - random_string with max below min writes min characters (the modulus
//    max - min + 1 would be zero or negative there).
#ifndef QVLKERN_UTILITIES_H
#define QVLKERN_UTILITIES_H

#include <cerrno>
#include <cstdarg>
#include <string>

#include "amtypes.h"
#include "kern-config.h"
#include "numeric-triades.h"

// Carries the thread's errno across code that may change it: saves errno at
// construction and writes it back at destruction. Also the argument of
// get_last_error.
class QVL_API error_saver_t {
public:
    error_saver_t() noexcept : code(errno) {}
    ~error_saver_t() { errno = code; }
    error_saver_t(error_saver_t const&) = delete;
    error_saver_t& operator=(error_saver_t const&) = delete;

    int const code;
};

// --- formatting -----------------------------------------------------------------
// Formats into out, replacing its contents. Texts up to 1023 characters take
// one pass; longer ones are measured by the first pass and formatted again.
// A text of exactly 1024 characters keeps 1023 of them and a NUL. A failed
// first pass leaves out at 1024 characters; a failed second pass leaves
// "vsnprintf failed because of <error>". The arguments may point into out:
// the text is made aside first.
QVL_API void q_format_va(std::string& out, char const* fmt, va_list ap);
QVL_API void q_format(std::string& out, char const* fmt, ...) QVL_PRINTF(2, 3);
// The same, returning a new string.
QVL_API std::string q_format_va(char const* fmt, va_list ap);
QVL_API std::string q_format(char const* fmt, ...) QVL_PRINTF(1, 2);

// --- system errors ----------------------------------------------------------------
QVL_API void set_last_error(int code) noexcept;
// "<system text> (errno=N)" for a non-zero saved code, "No errors detected"
// for zero. Without an argument, reports the current errno (and keeps it).
QVL_API std::string get_last_error(error_saver_t const& saved = error_saver_t());
// Breaks a chained error text into lines ending in CR LF, one before each
// " because of" and " and unix error is" (which begin the next line without
// their blank) and after each "; " (which is dropped).
QVL_API std::string split_error(std::string const& text);

// --- strings ----------------------------------------------------------------------
// Replaces every white-space character of text[0, length) with '_'.
QVL_API void decorate_spaces(char* text, unsigned long length) noexcept;
// True when s begins or ends with blank, CR, LF, tab, form feed or vertical
// tab.
QVL_API bool need_trim_string(std::string const& s) noexcept;
// Removes those characters at both ends in place; leaves an untouched string
// as it is (no reallocation).
QVL_API void trim_string(std::string& s);
// Number of separator-delimited fields: 0 for an empty string, otherwise
// separators + 1 (adjacent separators count an empty field).
QVL_API unsigned long how_words(std::string const& s, char separator) noexcept;
// Replaces every backslash with a slash in the characters s points to.
QVL_API void rotate_slashes_real(lstr_t const& s) noexcept;
// Appends min + (a random value modulo max - min + 1) characters, min when
// max is not above min (none for a negative min), each picked at random
// from the 62 letters and digits. Draws from sysrnd (random.h).
QVL_API void random_string(std::string& out, int min, int max);

// --- memory dumps -------------------------------------------------------------------
// Each byte as two lower-case hexadecimal digits, nothing between them.
QVL_API std::string hex_dump_just_mem(char const* data, unsigned long size);
// The size (decimal, or 16 upper-case hexadecimal digits), a blank, then the
// bytes as hex_dump_just_mem writes them.
QVL_API std::string hex_dump_mem(char const* data, unsigned long size, bool size_in_hex = false);
// "<size>b =?ASCII?Q?...?=": printable bytes as themselves, '=' doubled,
// any other byte as '=' and two upper-case hexadecimal digits.
QVL_API std::string dump_mem(void const* data, unsigned long size);

// --- numbers ------------------------------------------------------------------------
// Value of a hexadecimal digit (either case); all bits set for any other
// character.
QVL_API unsigned int from_hex_dig(unsigned char c) noexcept;
// Number of one bits.
QVL_API unsigned int hweight(unsigned int x) noexcept;

// --- time and duration strings ---------------------------------------------------
// Renderings of durations and weekdays for logs, status output and
// statistics (time values: time-objs.h).
//
// Choices left open elsewhere and made here:
//  - format_uptime appends to out and never clears it;
//  - ts_to_date gives the date day first, DD/MM/YYYY hh:mm:ss.mmm, and
//    ts_to_readable_date year first, YYYY/MM/DD hh:mm:ss.mmm; a text shorter
//    than 17 characters is returned as it is;
//  - wday_to_string returns a static text;
//  - a negative interval (the real-time clock stepped back, a time ahead of
//    the clock) prints a leading "-" and then its magnitude as a positive
//    one would print, as the interval texts of time-objs.h do: elapsed_time
//    of -1.5 s is "-01.500", format_uptime of -3661 s appends "-01:01:01",
//    time_string of a time 61 s ahead is "-01:01".
class timegap_t;
class timestamp_t;

// "[d-][hh:][mm:]ss.mmm": the hours once days are written or they are not
// zero, the minutes likewise. The milliseconds are written without leading
// zeros and then padded with trailing ones (5 ms read ".500", 12 ms ".120");
// consumers of this text expect exactly that.
QVL_API std::string elapsed_time(timegap_t const& gap);
// elapsed_time of the time from since to now.
QVL_API std::string elapsed_time(timestamp_t const& since);
// Appends "DD-HH:MM:SS", or "HH:MM:SS" without whole days; the day count is
// cut to its last two digits (100 days and 5 seconds: "00-00:00:05").
QVL_API void format_uptime(timegap_t const& gap, std::string& out);
// "[d-][hh:]mm:ss" of a duration in seconds. A zero hour count is left out
// even after days (86401 seconds read "1-00:01").
QVL_API std::string str_time(unsigned long seconds);
// str_time of the time elapsed from a Unix time to now ("-" and the time
// to it when it is ahead).
QVL_API std::string time_string(long unix_seconds);
// "Monday" for 0 ... "Sunday" for 6, "Error" for anything else.
QVL_API char const* wday_to_string(int day);
// 0 (Monday) to 6 (Sunday) for a day's full, three-letter or two-letter
// name in any case; -1 for anything else, null included.
QVL_API int string_to_wday(char const* name);
// The 17-digit time stamp text YYYYMMDDhhmmssmmm cut into its fields.
QVL_API std::string ts_to_date(std::string const& ts);
QVL_API std::string ts_to_readable_date(std::string const& ts);

#endif  // QVLKERN_UTILITIES_H
