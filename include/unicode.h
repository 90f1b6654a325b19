// unicode.h: the Unicode services, built on ICU.
//
// Text outside this file is bytes in the library's code page: the code set of
// the locale set at start-up, or ICU's default converter (UTF-8 on Linux,
// where ICU hardwires it) when that names none. These functions carry it
// through UTF-16 for ICU and back. For
// now they offer the locale-aware case mapping from which the string slice
// fills its case tables, and the set-up of ICU's locale at library start.
//
// Conversions stop at the first byte sequence that is not valid in the code
// page and at the first character the code page cannot represent; both throw
// icu_exception_shell_t rather than substitute a replacement character, so a
// caller never mistakes a substitute for a real mapping.
//
// Thread safety: the case mappings may be called from any thread (each call
// opens its own converter). ICU_ctor, ICU_setlocale and ICU_dtor change ICU's
// process-wide defaults and are for start-up and teardown only, while no
// other thread uses ICU.
#ifndef QVLKERN_UNICODE_H
#define QVLKERN_UNICODE_H

#include <string>

#include "amtypes.h"
#include "kern-config.h"

// s in upper / lower case under the default locale's rules, in the default
// library's code page. The result may differ in length ("\xdf" in Latin-1
// gives "SS").
// Throws icu_exception_shell_t when ICU fails; the reason ends with
// " because of " and ICU's error name.
QVL_API std::string upper_string_uc(lstr_t const& s);
QVL_API std::string lower_string_uc(lstr_t const& s);

namespace kern {

// Sets ICU's default locale (and code page) from the C library's LC_CTYPE
// locale or, while that is still "C" (the usual case at library load, before
// main calls setlocale), from LC_ALL, LC_CTYPE or LANG in that order. Loads
// nothing heavy: ICU data is opened on first use. Never throws; on failure
// ICU keeps its own defaults.
QVL_API void ICU_ctor();

// Releases nothing: ICU's caches are shared with whatever else in the process
// uses ICU, so the library leaves them to process exit. Kept as the teardown
// counterpart of ICU_ctor.
QVL_API void ICU_dtor();

// Makes a POSIX locale name ("tr_TR.ISO-8859-9", "de_DE.UTF-8@euro", "C")
// the library's: the language and region become ICU's default locale and the
// code set the library's code page (none named: ICU's default converter).
// "C" and "POSIX" mean "en_US_POSIX". Throws icu_exception_shell_t for a
// code set ICU does not know, leaving everything unchanged. The case tables
// of lstr_t are not rebuilt.
QVL_API void ICU_setlocale(char const* name);

}  // namespace kern

#endif  // QVLKERN_UNICODE_H
