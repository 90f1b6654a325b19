// Fuzzes UTF-8 validation and the conversions. The input, in a heap block of
// exactly its size, is read as UTF-8: is_valid_utf8 must agree with ICU's
// own validation and with whether each conversion of it succeeds (to
// UTF-16, to a code page, case mapping), and whatever converts must come
// back to the input. The same bytes are then read as UTF-16 (unpaired
// surrogates are the one way to fail) and as Shift_JIS text: every success
// must give well-formed UTF-8.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include "amtypes.h"
#include "exceptions.h"
#include "unicode.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

// Runs f; false when it threw one of the library's Unicode errors.
template <class F>
bool succeeds(F f) {
    try {
        f();
        return true;
    } catch (icu_exception_shell_t const&) {
        return false;
    }
}

bool icu_says_valid(char const* p, std::size_t n) {
    UErrorCode st = U_ZERO_ERROR;
    int32_t len = 0;
    u_strFromUTF8(nullptr, 0, &len, p, static_cast<int32_t>(n), &st);
    return st == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(st);
}

bool has_unpaired_surrogate(std::u16string const& s) {
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (!U16_IS_SURROGATE(s[i])) continue;
        if (!U16_IS_LEAD(s[i]) || i + 1 == s.size() || !U16_IS_TRAIL(s[i + 1])) return true;
        ++i;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::unique_ptr<char[]> block(new char[size]);
    if (size) std::memcpy(block.get(), data, size);
    lstr_t const input(block.get(), size);
    std::string const bytes(block.get(), size);

    bool const valid = is_valid_utf8(input);
    check(valid == icu_says_valid(block.get(), size));

    std::u16string wide;
    check(succeeds([&] { from_utf8_to_unicode(input, wide); }) == valid);
    if (valid) {
        std::string back;
        from_unicode_to_utf8(wide, back);
        check(back == bytes);
    }
    std::string local;
    check(succeeds([&] { utf8_2_local(input, local, "UTF-8"); }) == valid);
    check(!valid || local == bytes);
    std::string upper;
    check(succeeds([&] { upper_string_uc(input, upper); }) == valid);
    check(!valid || is_valid_utf8(upper));
    if (valid) {
        std::vector<lstr_t> glyphs;
        break_glyph(input, glyphs);
        std::string joined;
        for (lstr_t const& g : glyphs) joined.append(g.ptr(), g.length());
        check(joined == bytes);
    }
    // A text that goes into a code page is well-formed, and comes back.
    std::string sjis;
    if (succeeds([&] { utf8_2_local(input, sjis, "Shift_JIS"); })) {
        check(valid);
        std::string back;
        check(succeeds([&] { local_2_utf8(sjis, back, "Shift_JIS"); }) && is_valid_utf8(back));
    }

    std::u16string units(size / 2, u'\0');
    if (!units.empty()) std::memcpy(&units[0], block.get(), units.size() * 2);
    std::string utf8;
    if (succeeds([&] { from_unicode_to_utf8(units, utf8); })) {
        check(!has_unpaired_surrogate(units) && is_valid_utf8(utf8));
        std::u16string again;
        from_utf8_to_unicode(utf8, again);
        check(again == units);
    } else {
        check(has_unpaired_surrogate(units));
    }
    std::string from_sjis;
    if (succeeds([&] { local_2_utf8(input, from_sjis, "Shift_JIS"); })) check(is_valid_utf8(from_sjis));
    return 0;
}
