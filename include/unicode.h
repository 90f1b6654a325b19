// unicode.h: the Unicode services, built on ICU: case mapping, collation,
// glyph, word and line breaking of UTF-8 text, UTF-8 validation, and the
// conversions between code pages, UTF-8 and UTF-16.
//
// Text is UTF-8 in an lstr_t; results are appended to the caller's string
// or vector (out is never cleared first), UTF-16 travels as std::u16string,
// ICU's own unit. Case mapping, collation and breaking follow the library's
// locale: the process's locale at start-up (LC_CTYPE, or LC_ALL, LC_CTYPE,
// LANG while that is still "C"), or the one given to kern::ICU_setlocale.
// Only the local_* and *_local conversions deal in a code page: the one
// named by the caller, or by default the library's, the code set of that
// same locale ("ISO-8859-9" in "tr_TR.ISO-8859-9"), UTF-8 when it names
// none. The case tables of lstr_t are filled from that code page too.
//
//   std::string up;
//   upper_string_uc("Stra\xc3\x9f" "e", up);          // "STRASSE"
//   std::vector<lstr_t> glyphs;
//   break_glyph(name, glyphs);                       // what a reader counts
//   std::string utf8;
//   local_2_utf8(line, utf8, "windows-1251");
//   if (!is_valid_utf8(input)) ...
//
// Errors: text that is not well-formed UTF-8 (an overlong form, a
// surrogate, a code point above U+10FFFF, a stray or missing continuation
// byte) throws icu_exception_shell_t "text is not valid UTF-8 at byte N
// because of U_INVALID_CHAR_FOUND"; a byte sequence that is invalid in a code
// page, and a character a code page cannot represent, throw too (never a
// substitute character), naming the byte offset or the character; so does
// an unknown code page name, and a text of 2 GiB or more where ICU counts in
// 32 bits. Every reason ends with " because of " and ICU's error name. When
// a function throws, out is as it was.
//
// Thread safety: every service may be called from any thread. Each thread
// keeps its own ICU objects (case map, collators, break iterators) for the
// library's locale, opened on its first use, renewed after ICU_setlocale and
// closed when the thread ends. ICU_ctor, ICU_setlocale and ICU_dtor change
// process-wide defaults and are for start-up and teardown only, while no
// other thread uses the services.
//
// Choices made here:
//  - the text services take UTF-8 whatever the locale's code set: a program
//    holding text in a code page converts it with local_2_utf8 first;
//  - a NUL byte is a character like any other (lengths are explicit);
//  - pure ASCII text is mapped to upper and lower case without ICU, except
//    under the Turkic locales, where "i" and "I" do not pair; the result is
//    the same either way;
//  - comparison is ICU's collation at its default (tertiary) strength, so
//    canonically equivalent texts, and texts that differ only in ignorable
//    characters, compare equal; in the "C" locale that is code point order
//    for ASCII ("B" before "a"), as strcoll has it;
//  - the case-insensitive forms compare the case-folded texts (Unicode's
//    full folding, "STRASSE" and "straße" alike; under Turkish and Azeri
//    "I" pairs with "ı" and "İ" with "i"): case never counts, accents do;
//  - q_strncasecmp_uc counts glyphs (what a reader sees as one character,
//    an accented letter, an emoji family), so it never splits a character;
//  - break_word keeps the words only (letters, numbers, kana, ideographs),
//    leaving out blanks and punctuation; break_line keeps everything.
#ifndef QVLKERN_UNICODE_H
#define QVLKERN_UNICODE_H

#include <string>
#include <string_view>
#include <vector>

#include "amtypes.h"
#include "kern-config.h"

// --- case -------------------------------------------------------------------
// Appends s in upper / lower case under the library's locale (Turkish "i"
// goes up to "İ", German "ß" to "SS", a Greek capital sigma ending a word
// down to "ς"). The result may be longer or shorter than s.
QVL_API void upper_string_uc(lstr_t const& s, std::string& out);
QVL_API void lower_string_uc(lstr_t const& s, std::string& out);
// s in upper / lower case, as a new string.
inline std::string upper_string_uc(lstr_t const& s) {
    std::string r;
    upper_string_uc(s, r);
    return r;
}
inline std::string lower_string_uc(lstr_t const& s) {
    std::string r;
    lower_string_uc(s, r);
    return r;
}
// Appends s with the first letter of each word in title case and the rest
// in lower case ("hELLO wORLD" gives "Hello World").
QVL_API void title_string(lstr_t const& s, std::string& out);

// --- collation --------------------------------------------------------------
// -1, 0 or 1 as a sorts before, with or after b in the locale's order (in
// Swedish "ä" after "z", in German beside "a").
QVL_API int q_strcmp_uc(lstr_t const& a, lstr_t const& b);
// The same, ignoring case (but not accents): "STRASSE" equals "straße".
QVL_API int q_strcasecmp_uc(lstr_t const& a, lstr_t const& b);
// q_strcasecmp_uc of the first n glyphs of a and of b.
QVL_API int q_strncasecmp_uc(lstr_t const& a, lstr_t const& b, unsigned long n);
// Sorts items into the order of q_strcmp_uc; equal items keep their order.
// Every item is checked before anything moves.
QVL_API void q_strsort_uc(std::vector<lstr_t>& items);
QVL_API void q_strsort_uc(std::vector<std::string>& items);

// --- breaking ---------------------------------------------------------------
// Each appends slices of s, in order; s must outlive them.
// The glyphs of s (grapheme clusters: a letter with its combining marks, a
// flag, an emoji family joined by zero-width joiners, CR LF are each one).
QVL_API void break_glyph(lstr_t const& s, std::vector<lstr_t>& out);
// The words of s, also in scripts written without blanks (Thai, Lao,
// Khmer, Burmese, Chinese, Japanese), which ICU finds by dictionary.
QVL_API void break_word(lstr_t const& s, std::vector<lstr_t>& out);
// The pieces of s between line-break opportunities, each with its trailing
// blanks and hard line end: together they are s. A line is never broken
// inside a word; a caller wrapping text fills each line with whole pieces.
QVL_API void break_line(lstr_t const& s, std::vector<lstr_t>& out);

// --- validation and conversion ----------------------------------------------
// True when s is well-formed UTF-8: any scalar value of any plane, with no
// overlong form, surrogate, code point above U+10FFFF or truncated sequence.
// Never throws; reads nothing outside s.
QVL_API bool is_valid_utf8(lstr_t const& s) noexcept;

// UTF-8 to UTF-16 and back. An unpaired surrogate in s throws, naming it and
// its unit index.
QVL_API void from_utf8_to_unicode(lstr_t const& s, std::u16string& out);
QVL_API void from_unicode_to_utf8(std::u16string_view s, std::string& out);

// A code page to UTF-16 / UTF-8 and back. codepage is any of ICU's
// converter names and aliases ("windows-1251", "Shift_JIS", "ISO-8859-9");
// null means the library's code page. A stateful code page (ISO-2022-JP) is
// closed at the end of the text.
QVL_API void local_2_unicode(lstr_t const& s, std::u16string& out, char const* codepage = nullptr);
QVL_API void unicode_2_local(std::u16string_view s, std::string& out, char const* codepage = nullptr);
QVL_API void local_2_utf8(lstr_t const& s, std::string& out, char const* codepage = nullptr);
QVL_API void utf8_2_local(lstr_t const& s, std::string& out, char const* codepage = nullptr);

namespace kern {

// Sets the library's locale and code page from the C library's LC_CTYPE
// locale or, while that is still "C" (the usual case at library load, before
// main calls setlocale), from LC_ALL, LC_CTYPE or LANG in that order; with
// none, from ICU's own default. Loads nothing heavy: ICU data is opened on
// first use. Never throws; on failure ICU keeps its own defaults.
QVL_API void ICU_ctor();

// Releases nothing: ICU's caches are shared with whatever else in the process
// uses ICU, so the library leaves them to process exit. Kept as the teardown
// counterpart of ICU_ctor.
QVL_API void ICU_dtor();

// Makes a POSIX locale name ("tr_TR.ISO-8859-9", "de_DE.UTF-8@euro", "C")
// the library's: the language and region become the library's locale (and
// ICU's default) and the code set the library's code page (none named:
// UTF-8). "C" and "POSIX" mean "en_US_POSIX". Throws icu_exception_shell_t
// for a code set ICU does not know, leaving everything unchanged. The case
// tables of lstr_t are not rebuilt.
QVL_API void ICU_setlocale(char const* name);

}  // namespace kern

#endif  // QVLKERN_UNICODE_H
