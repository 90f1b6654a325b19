// unicode-int.h: what the unicode sources share inside the library, not
// exported: the UTF-8 scanners, ICU's per-thread objects for the library's
// locale, and the helpers that run ICU's fill-a-buffer calls.
#ifndef QVLKERN_UNICODE_INT_H
#define QVLKERN_UNICODE_INT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <unicode/ubrk.h>
#include <unicode/ucasemap.h>
#include <unicode/ucnv.h>
#include <unicode/ucol.h>
#include <unicode/utypes.h>

#include "amtypes.h"

namespace kern_n {
namespace detail {

// Refines the two 256-byte case tables from the locale's case mapping with
// one converter for all bytes: an entry changes only when its byte converts
// and maps to exactly one byte. Never throws, so that start-up does not pay
// for an exception per unmappable byte (every byte above 127 in UTF-8).
void fill_case_tables(unsigned char* upcase, unsigned char* locase) noexcept;

// Offset of the first byte of p[0..n) that does not begin a well-formed
// UTF-8 sequence, a truncated one included; npos when all of it is
// well-formed.
std::size_t utf8_invalid_at(char const* p, std::size_t n) noexcept;

// Throws icu_exception_shell_t unless s is well-formed UTF-8, naming the
// offset of the first ill-formed byte. what says whose text it was; the
// first `checked` bytes are known to be well-formed already.
void check_utf8(lstr_t const& s, char const* what, std::size_t checked = 0);

// ICU counts in 32 bits: n as int32_t, or an icu_exception_shell_t naming
// what when it does not fit.
int32_t icu_length(std::size_t n, char const* what);

// A converter of codepage (null: the library's code page) that stops at the
// first invalid or unmappable sequence instead of substituting; the caller
// closes it. Throws icu_exception_shell_t for an unknown code page.
UConverter* open_converter(char const* codepage);

// The name to show for codepage in messages: itself, or the library's code
// page when it is null.
char const* codepage_name(char const* codepage) noexcept;

// The locale id the library's text services use ("" before start-up, which
// ICU reads as its own default).
char const* locale_id() noexcept;

// True while ASCII letters map case one to one in the library's locale
// (every locale but the Turkic ones), so that pure ASCII text needs no ICU.
bool ascii_case_plain() noexcept;

// The calling thread's ICU objects for the library's locale, opened on first
// use and renewed when ICU_setlocale changes it; they live until the thread
// ends. Throw icu_exception_shell_t when ICU cannot open them.
UCaseMap* thread_casemap();
UCollator* thread_collator();
UBreakIterator* thread_breaker(UBreakIteratorType type);

// Appends to out what f(dest, capacity, &status) writes, first into guess
// units, then, when ICU reports that was too few, into as many as it asked
// for. On failure out is left as it was and the status is returned.
template <class S, class F>
UErrorCode append_icu(S& out, std::size_t guess, F f) {
    std::size_t const old = out.size();
    int32_t cap = guess >= INT32_MAX ? INT32_MAX : static_cast<int32_t>(guess) + 1;
    out.resize(old + static_cast<std::size_t>(cap));
    UErrorCode st = U_ZERO_ERROR;
    int32_t n = f(&out[old], cap, &st);
    if (st == U_BUFFER_OVERFLOW_ERROR) {
        cap = n;
        out.resize(old + static_cast<std::size_t>(cap));
        st = U_ZERO_ERROR;
        n = f(&out[old], cap, &st);
    }
    out.resize(U_FAILURE(st) ? old : old + static_cast<std::size_t>(n));
    return st;
}

}  // namespace detail
}  // namespace kern_n

#endif  // QVLKERN_UNICODE_INT_H
